#pragma once

#include "TlsSocketConnection.h"

namespace TlsSocket {

// The endpoint half of the socket policy: hands each new connection the TLS set-up handler
// and the thread its handshake runs on.
class endpoint
{
public:
    using type = endpoint;
    using socket_con_type = connection;
    using socket_con_ptr = socket_con_type::ptr;

    bool is_secure() const { return true; }
    void set_tls_init_handler(tls_init_handler h) { tlsInitHandler = std::move(h); }
    // Where the connections' handshakes run; required before the first connection.
    void set_handshake_worker(HandshakeWorker* worker) { handshakeWorker = worker; }

protected:
    websocketpp::lib::error_code init(socket_con_ptr scon)
    {
        scon->set_tls_init_handler(tlsInitHandler);
        scon->set_handshake_worker(handshakeWorker);
        return websocketpp::lib::error_code();
    }

private:
    tls_init_handler tlsInitHandler;
    HandshakeWorker* handshakeWorker = nullptr;
};

} // namespace TlsSocket
