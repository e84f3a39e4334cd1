#pragma once

#include "OriginAllowList.h"

#include <QByteArray>

#include <websocketpp/http/constants.hpp>
#include <websocketpp/http/request.hpp>

#include <functional>
#include <string>
#include <utility>
#include <vector>

// The plain HTTP requests that reach the WebSocket port. GET /health answers with the service's
// health as JSON, and OPTIONS /health with a CORS preflight answer; web pages are held to the
// origins the WebSocket lets in. Anything else gets 426 Upgrade Required, the endpoint's answer
// before it served /health. Server thread only.
class HealthRequests
{
public:
    using Source = std::function<QByteArray()>;

    struct Answer
    {
        websocketpp::http::status_code::value status = websocketpp::http::status_code::upgrade_required;
        std::vector<std::pair<std::string, std::string>> headers;
        std::string body;
    };

    // source makes the JSON and is called for every GET, on the server thread: it must be
    // cheap and safe to call from there. Without one, /health is answered like any other path.
    HealthRequests(OriginAllowList origins, Source source);

    Answer answer(const websocketpp::http::parser::request& request) const;

private:
    Answer health(const std::string& origin) const;
    Answer preflight(const websocketpp::http::parser::request& request, const std::string& origin) const;
    // Logs the refusal.
    bool refuses(const std::string& origin) const;

    const OriginAllowList origins;
    const Source source;
};
