#pragma once

#include <websocketpp/config/asio.hpp>

#include <cstddef>

// The library's TLS server set-up, sized for this service: thousands of clients that mostly
// listen, each sending at most a few short texts.
struct EndpointConfig : public websocketpp::config::asio_tls
{
    using type = EndpointConfig;
    using base = websocketpp::config::asio_tls;

    // The per-connection read buffer is part of every connection object; the default (16 KiB)
    // was most of a client's memory.
    static const size_t connection_read_buffer_size = 2048;

    // Connection events and failures only: frame and message channels would write every card
    // identifier sent to the clients into access.log.
    static const websocketpp::log::level alog_level = websocketpp::log::alevel::access_core;
};
