#pragma once

#include "TlsStream.h"

#include <websocketpp/common/connection_hdl.hpp>
#include <websocketpp/transport/asio/base.hpp>
#include <websocketpp/transport/asio/security/base.hpp>
#include <websocketpp/transport/base/connection.hpp>
#include <websocketpp/uri.hpp>

#include <functional>
#include <memory>
#include <sstream>
#include <string>

// The library's asio transport takes its socket as a policy; this one puts TlsStream where the
// library's own TLS policy has Boost's TLS stream. Server side only.
namespace TlsSocket {

using tls_init_handler =
    std::function<std::shared_ptr<boost::asio::ssl::context>(websocketpp::connection_hdl)>;

class connection : public std::enable_shared_from_this<connection>
{
public:
    using type = connection;
    using ptr = std::shared_ptr<type>;
    using socket_type = TlsStream;
    using socket_ptr = std::shared_ptr<socket_type>;
    using io_service_ptr = boost::asio::io_context*;
    using strand_ptr = std::shared_ptr<boost::asio::io_context::strand>;
    using context_ptr = std::shared_ptr<boost::asio::ssl::context>;

    ptr get_shared() { return shared_from_this(); }
    bool is_secure() const { return true; }
    socket_type::lowest_layer_type& get_raw_socket() { return socket->lowest_layer(); }
    socket_type::next_layer_type& get_next_layer() { return socket->next_layer(); }
    socket_type& get_socket() { return *socket; }

    void set_tls_init_handler(tls_init_handler h) { tlsInitHandler = std::move(h); }
    void set_handshake_worker(HandshakeWorker* worker) { handshakeWorker = worker; }
    // What the accept loop ties to this connection's life: released only with the connection.
    void keepWhileAlive(std::shared_ptr<void> kept) { acceptState = std::move(kept); }

    std::string get_remote_endpoint(websocketpp::lib::error_code& ec) const
    {
        std::stringstream s;
        boost::system::error_code aec;
        const auto ep = socket->lowest_layer().remote_endpoint(aec);
        if (aec) {
            ec = websocketpp::transport::asio::error::make_error_code(
                websocketpp::transport::asio::error::pass_through);
            s << "Error getting remote endpoint: " << aec << " (" << aec.message() << ")";
            return s.str();
        }
        ec = websocketpp::lib::error_code();
        s << ep;
        return s.str();
    }

    template <typename ErrorCodeType>
    static websocketpp::lib::error_code translate_ec(ErrorCodeType ec)
    {
        namespace transport = websocketpp::transport;
        if (ec.category() == boost::asio::error::get_ssl_category())
            return transport::error::make_error_code(transport::error::tls_error);
        return transport::error::make_error_code(transport::error::pass_through);
    }
    static websocketpp::lib::error_code translate_ec(websocketpp::lib::error_code ec) { return ec; }

protected:
    // The endpoint runs on one thread without strands, so the strand given is always null.
    websocketpp::lib::error_code init_asio(io_service_ptr service, strand_ptr, bool isServer)
    {
        namespace socket_errors = websocketpp::transport::asio::socket::error;
        if (!tlsInitHandler)
            return websocketpp::transport::asio::socket::make_error_code(
                socket_errors::missing_tls_init_handler);
        context = tlsInitHandler(hdl);
        if (!context)
            return websocketpp::transport::asio::socket::make_error_code(
                socket_errors::invalid_tls_context);
        socket = std::make_shared<socket_type>(*service, *context);
        socket->setHandshakeWorker(handshakeWorker);
        server = isServer;
        return websocketpp::lib::error_code();
    }

    void set_uri(websocketpp::uri_ptr) {}
    void pre_init(websocketpp::transport::asio::socket::init_handler callback)
    {
        callback(websocketpp::lib::error_code());
    }

    void post_init(websocketpp::transport::asio::socket::init_handler callback)
    {
        lastError = websocketpp::transport::asio::socket::make_error_code(
            websocketpp::transport::asio::socket::error::tls_handshake_timeout);
        auto done = [self = get_shared(), callback](const boost::system::error_code& ec) {
            self->handle_init(callback, ec);
        };
        const auto role = server ? boost::asio::ssl::stream_base::server
                                 : boost::asio::ssl::stream_base::client;
        socket->async_handshake(role, done);
    }

    void set_handle(websocketpp::connection_hdl handle) { hdl = std::move(handle); }

    void handle_init(websocketpp::transport::asio::socket::init_handler callback,
                     const boost::system::error_code& ec)
    {
        lastError = ec ? websocketpp::transport::asio::socket::make_error_code(
                             websocketpp::transport::asio::socket::error::tls_handshake_failed)
                       : websocketpp::lib::error_code();
        callback(lastError);
    }

    websocketpp::lib::error_code get_ec() const { return lastError; }

    boost::system::error_code cancel_socket()
    {
        boost::system::error_code ec;
        socket->cancel(ec);
        return ec;
    }

    void async_shutdown(websocketpp::transport::asio::socket::shutdown_handler callback)
    {
        socket->async_shutdown(callback);
    }

private:
    context_ptr context;
    socket_ptr socket;
    bool server = true;
    websocketpp::lib::error_code lastError;
    websocketpp::connection_hdl hdl;
    tls_init_handler tlsInitHandler;
    HandshakeWorker* handshakeWorker = nullptr;
    std::shared_ptr<void> acceptState;
};

} // namespace TlsSocket
