#pragma once

#include "TlsSocketConnection.h"

namespace TlsSocket {

// The endpoint half of the socket policy: hands each new connection the two set-up handlers.
class endpoint
{
public:
    using type = endpoint;
    using socket_con_type = connection;
    using socket_con_ptr = socket_con_type::ptr;

    bool is_secure() const { return true; }
    void set_socket_init_handler(socket_init_handler h) { socketInitHandler = std::move(h); }
    void set_tls_init_handler(tls_init_handler h) { tlsInitHandler = std::move(h); }

protected:
    websocketpp::lib::error_code init(socket_con_ptr scon)
    {
        scon->set_socket_init_handler(socketInitHandler);
        scon->set_tls_init_handler(tlsInitHandler);
        return websocketpp::lib::error_code();
    }

private:
    socket_init_handler socketInitHandler;
    tls_init_handler tlsInitHandler;
};

} // namespace TlsSocket
