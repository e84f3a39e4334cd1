#pragma once

#include <websocketpp/http/request.hpp>
#include <websocketpp/processors/processor.hpp>

#include <cstddef>

// The HTTP request of a WebSocket handshake, refusing the pre-standard drafts (hixie-76 /
// hybi-00, told apart by their missing Sec-WebSocket-Version) with 426 Upgrade Required.
// The library would serve them with a draft processor that mishandles frames; it offers no
// switch to drop that version, but it parses every request through this type and answers an
// http::exception thrown here with its status, before any processor is chosen.
class UpgradeRequest : public websocketpp::http::parser::request
{
public:
    size_t consume(char const* buf, size_t len)
    {
        const size_t used = request::consume(buf, len);
        if (ready() && websocketpp::processor::is_websocket_handshake(*this)
            && get_header("Sec-WebSocket-Version").empty()) {
            throw websocketpp::http::exception(
                "WebSocket draft without Sec-WebSocket-Version refused",
                websocketpp::http::status_code::upgrade_required, "Upgrade Required");
        }
        return used;
    }
};
