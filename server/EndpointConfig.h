#pragma once

#include "TlsSocketEndpoint.h"
#include "UpgradeRequest.h"

#include <websocketpp/concurrency/none.hpp>
#include <websocketpp/config/asio.hpp>

#include <cstddef>

// The library's TLS server set-up, sized for this service: thousands of clients that mostly
// listen, each sending at most a few short texts.
struct EndpointConfig : public websocketpp::config::asio_tls
{
    using type = EndpointConfig;
    using base = websocketpp::config::asio_tls;

    using request_type = UpgradeRequest;

    // One thread runs the endpoint and every connection, so the library's per-connection
    // strands and locks would only cost each send a few mutexes and a hop through the queue.
    using concurrency_type = websocketpp::concurrency::none;
    static const bool enable_multithreading = false;

    struct transport_config : public base::transport_config
    {
        using concurrency_type = type::concurrency_type;
        static const bool enable_multithreading = false;
        using request_type = type::request_type;
        using socket_type = TlsSocket::endpoint;

        // A client that connects and then says nothing is let go after these, in ms. The TLS
        // handshake's limit only backs up timeout_accept_to_open.
        static const long timeout_socket_pre_init = 5000;
        static const long timeout_socket_post_init = 5000; // the TLS handshake
        static const long timeout_socket_shutdown = 5000;
    };
    using transport_type = websocketpp::transport::asio::endpoint<transport_config>;

    // From accept to the upgraded WebSocket, TLS and HTTP handshakes together, in ms: the
    // library times each handshake on its own, which let a slow client hold a connection for
    // the sum. The accept loop enforces it.
    static constexpr long timeout_accept_to_open = 5000;
    // A backstop like the TLS handshake's.
    static const long timeout_open_handshake = 5000;
    static const long timeout_close_handshake = 5000;

    // The per-connection read buffer is part of every connection object; the default (16 KiB)
    // was most of a client's memory.
    static const size_t connection_read_buffer_size = 2048;

    // Clients send a few short texts at most. The library reserves what a frame header
    // announces, so its default (32 MB) let each client make the service hold that much.
    static const size_t max_message_size = 64 * 1024;
    static const size_t max_http_body_size = 64 * 1024;

    // Connection events and failures only: frame and message channels would write every card
    // identifier sent to the clients into access.log.
    static const websocketpp::log::level alog_level = websocketpp::log::alevel::access_core;
};
