#pragma once

#include "HandshakeWorker.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/ssl/stream_base.hpp>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// TLS on a TCP socket, with OpenSSL reading and writing the socket itself. Boost's own TLS
// stream keeps two 17 KiB record buffers and a 34 KiB BIO pair for every connection, even an
// idle one: most of what thousands of listening clients cost. Here an idle connection holds
// little more than OpenSSL's session state (its buffers are released when idle).
// Used from the one thread that runs the socket's io_context; the handshake's own steps run on
// the HandshakeWorker's thread, one at a time, while this one waits for the socket. Nothing
// else touches the TLS state meanwhile: what is asked for in between waits.
// Owned through a shared_ptr.
class TlsStream : public std::enable_shared_from_this<TlsStream>
{
public:
    using lowest_layer_type = boost::asio::ip::tcp::socket;
    using next_layer_type = boost::asio::ip::tcp::socket;
    using executor_type = lowest_layer_type::executor_type;

    TlsStream(boost::asio::io_context& ioContext, boost::asio::ssl::context& context)
        : socket(ioContext)
        , ssl(SSL_new(context.native_handle()))
    {
    }
    ~TlsStream() { SSL_free(ssl); }
    TlsStream(const TlsStream&) = delete;
    TlsStream& operator=(const TlsStream&) = delete;

    executor_type get_executor() { return socket.get_executor(); }
    lowest_layer_type& lowest_layer() { return socket; }
    next_layer_type& next_layer() { return socket; }
    SSL* native_handle() { return ssl; }

    // Before the handshake, which needs one. The worker must outlive every handshake it is given.
    void setHandshakeWorker(HandshakeWorker* worker) { handshakeWorker = worker; }

    // Writes `bytes` as one record ahead of the library's own queue, which must be empty, so a
    // broadcast costs one call per client rather than a trip through that queue. False, having
    // done nothing, while a write of the library's is under way; otherwise whatever is written
    // later goes out after these bytes.
    bool writeNow(const std::string& bytes)
    {
        if (libraryWriting || busy() || shuttingDown || bytes.empty() || bytes.size() > maxRecord)
            return false;
        // Kept: a record the socket could not take at once must be offered again as it was.
        staging.assign(bytes.begin(), bytes.end());
        finishOwnWrite(boost::system::error_code());
        return true;
    }

    // Like the socket's cancel(), and a handshake step on the worker ends as cancelled as well.
    void cancel(boost::system::error_code& ec)
    {
        if (stepElsewhere)
            cancelled = true;
        socket.cancel(ec);
    }

    // Handler: void(error_code)
    template <typename Handler>
    void async_handshake(boost::asio::ssl::stream_base::handshake_type type, Handler&& handler)
    {
        boost::system::error_code ec;
        socket.non_blocking(true, ec);
        BIO* bio = ssl && !ec ? newSocketBio(static_cast<int>(socket.native_handle())) : nullptr;
        if (!bio) {
            if (!ec)
                ec = boost::asio::error::no_memory;
            return complete(std::forward<Handler>(handler), ec);
        }
        SSL_set_bio(ssl, bio, bio);
        if (type == boost::asio::ssl::stream_base::server)
            SSL_set_accept_state(ssl);
        else
            SSL_set_connect_state(ssl);
        // The client speaks first: a step before its hello is here would only come back empty.
        waitThenStepElsewhere(lowest_layer_type::wait_read,
                              HandshakeHandler(std::forward<Handler>(handler)));
    }

    // Handler: void(error_code). Sends our close_notify; the peer's is not waited for.
    template <typename Handler>
    void async_shutdown(Handler&& handler)
    {
        if (busy()) {
            deferred.push_back([this, handler = std::forward<Handler>(handler)]() mutable {
                async_shutdown(std::move(handler));
            });
            return;
        }
        // A handshake that is still waiting for its client gives up rather than run another step
        // on the worker while this one uses the connection.
        shuttingDown = true;
        perform(
            [this] {
                const int result = SSL_shutdown(ssl);
                return result >= 0 ? 1 : result;
            },
            withoutSize(std::forward<Handler>(handler)));
    }

    // Handler: void(error_code, std::size_t)
    template <typename MutableBuffers, typename Handler>
    void async_read_some(const MutableBuffers& buffers, Handler&& handler)
    {
        const auto target = firstNonEmpty<boost::asio::mutable_buffer>(buffers);
        if (target.size() == 0)
            return complete(std::forward<Handler>(handler), boost::system::error_code(), 0);
        perform([this, target] { return SSL_read(ssl, target.data(), clamp(target.size())); },
                std::forward<Handler>(handler));
    }

    // Handler: void(error_code, std::size_t). Gathers the buffers into one TLS record where
    // they fit, rather than one record and one system call for each small piece.
    template <typename ConstBuffers, typename Handler>
    void async_write_some(const ConstBuffers& buffers, Handler&& handler)
    {
        if (ownWritePending) {
            // The buffers stay valid until the handler runs, as for any write.
            deferred.push_back([this, buffers, handler = std::forward<Handler>(handler)]() mutable {
                async_write_some(buffers, std::move(handler));
            });
            return;
        }
        staging.clear();
        for (auto it = boost::asio::buffer_sequence_begin(buffers);
             it != boost::asio::buffer_sequence_end(buffers) && staging.size() < maxRecord; ++it) {
            const boost::asio::const_buffer piece(*it);
            const std::size_t take = std::min(piece.size(), maxRecord - staging.size());
            const char* data = static_cast<const char*>(piece.data());
            staging.insert(staging.end(), data, data + take);
        }
        if (staging.empty())
            return complete(std::forward<Handler>(handler), boost::system::error_code(), 0);
        libraryWriting = true;
        perform([this] { return SSL_write(ssl, staging.data(), clamp(staging.size())); },
                [this, handler = std::forward<Handler>(handler)](const boost::system::error_code& ec,
                                                                 std::size_t written) mutable {
                    libraryWriting = false;
                    handler(ec, written);
                });
    }

private:
    static constexpr std::size_t maxRecord = 16384;
    using HandshakeHandler = std::function<void(const boost::system::error_code&)>;

    // One SSL_do_handshake on the worker; its outcome comes back to this thread.
    void handshakeStepElsewhere(HandshakeHandler handler)
    {
        stepElsewhere = true;
        handshakeWorker->run([this, handler = std::move(handler)]() mutable {
            ERR_clear_error();
            const int result = SSL_do_handshake(ssl);
            const int error = result > 0 ? SSL_ERROR_NONE : SSL_get_error(ssl, result);
            // The error queue and errno are this thread's: read them here.
            const bool wants = error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
            const boost::system::error_code ec = error == SSL_ERROR_NONE || wants
                                                     ? boost::system::error_code()
                                                     : errorCode(error, result);
            boost::asio::post(socket.get_executor(),
                              [this, error, ec, handler = std::move(handler)]() mutable {
                                  handshakeStepDone(error, ec, std::move(handler));
                              });
        });
    }

    void waitThenStepElsewhere(lowest_layer_type::wait_type wait, HandshakeHandler handler)
    {
        socket.async_wait(wait, [this, handler = std::move(handler)](
                                    const boost::system::error_code& waited) mutable {
            if (waited || shuttingDown)
                return handler(waited ? waited : boost::asio::error::operation_aborted);
            handshakeStepElsewhere(std::move(handler));
        });
    }

    bool busy() const { return stepElsewhere || ownWritePending; }

    // Offers the staged record until the socket has taken it all, waiting for room as needed.
    // A connection that fails or is cancelled meanwhile is closing: the rest is dropped.
    void finishOwnWrite(const boost::system::error_code& waited)
    {
        ownWritePending = false;
        if (!waited) {
            ERR_clear_error();
            const int result = SSL_write(ssl, staging.data(), clamp(staging.size()));
            if (result <= 0 && SSL_get_error(ssl, result) == SSL_ERROR_WANT_WRITE) {
                ownWritePending = true;
                socket.async_wait(lowest_layer_type::wait_write,
                                  [self = shared_from_this()](const boost::system::error_code& ec) {
                                      self->finishOwnWrite(ec);
                                  });
                return;
            }
        }
        runDeferred();
    }

    void runDeferred()
    {
        while (!busy() && !deferred.empty()) {
            std::function<void()> next = std::move(deferred.front());
            deferred.erase(deferred.begin());
            next();
        }
    }

    void handshakeStepDone(int error, const boost::system::error_code& ec, HandshakeHandler handler)
    {
        stepElsewhere = false;
        if (cancelled) {
            cancelled = false;
            handler(boost::asio::error::operation_aborted);
        } else if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
            waitThenStepElsewhere(error == SSL_ERROR_WANT_READ ? lowest_layer_type::wait_read
                                                               : lowest_layer_type::wait_write,
                                  std::move(handler));
        } else {
            handler(ec);
        }
        runDeferred();
    }

    // OpenSSL's own socket BIO writes with write(), which raises SIGPIPE when the client has
    // gone; this one sends with MSG_NOSIGNAL, as asio does.
    static BIO* newSocketBio(int fd);

    static int clamp(std::size_t size) { return static_cast<int>(std::min<std::size_t>(size, 1 << 30)); }

    template <typename Buffer, typename Buffers>
    static Buffer firstNonEmpty(const Buffers& buffers)
    {
        for (auto it = boost::asio::buffer_sequence_begin(buffers);
             it != boost::asio::buffer_sequence_end(buffers); ++it) {
            const Buffer buffer(*it);
            if (buffer.size() > 0)
                return buffer;
        }
        return Buffer();
    }

    template <typename Handler>
    static auto withoutSize(Handler&& handler)
    {
        return [handler = std::forward<Handler>(handler)](const boost::system::error_code& ec,
                                                          std::size_t) mutable { handler(ec); };
    }

    // Completions never run inside the call that started the operation.
    template <typename Handler, typename... Args>
    void complete(Handler&& handler, Args... args)
    {
        boost::asio::post(socket.get_executor(),
                          [handler = std::forward<Handler>(handler), args...]() mutable {
                              handler(args...);
                          });
    }

    // Runs one OpenSSL call until it succeeds or fails, waiting on the socket whenever
    // OpenSSL needs to read or write it first.
    template <typename Operation, typename Handler>
    void perform(Operation operation, Handler&& handler)
    {
        ERR_clear_error();
        const int result = operation();
        if (result > 0)
            return complete(std::forward<Handler>(handler), boost::system::error_code(),
                            static_cast<std::size_t>(result));
        const int error = SSL_get_error(ssl, result);
        if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
            const auto wait = error == SSL_ERROR_WANT_READ ? lowest_layer_type::wait_read
                                                           : lowest_layer_type::wait_write;
            socket.async_wait(wait, [this, operation, handler = std::forward<Handler>(handler)](
                                        const boost::system::error_code& ec) mutable {
                if (ec)
                    return handler(ec, std::size_t(0));
                perform(operation, std::move(handler));
            });
            return;
        }
        complete(std::forward<Handler>(handler), errorCode(error, result), std::size_t(0));
    }

    static boost::system::error_code errorCode(int error, int result)
    {
        if (error == SSL_ERROR_ZERO_RETURN)
            return boost::asio::error::eof;
        if (error == SSL_ERROR_SYSCALL) {
            const unsigned long queued = ERR_get_error();
            if (queued != 0)
                return {static_cast<int>(queued), boost::asio::error::get_ssl_category()};
            if (result == 0 || errno == 0)
                return boost::asio::error::eof;
            return {errno, boost::system::system_category()};
        }
        const unsigned long queued = ERR_get_error();
        return {static_cast<int>(queued != 0 ? queued : SSL_R_UNKNOWN_PROTOCOL),
                boost::asio::error::get_ssl_category()};
    }

    lowest_layer_type socket;
    SSL* ssl;
    std::vector<char> staging;
    HandshakeWorker* handshakeWorker = nullptr;
    // While a handshake step runs on the worker, and what was asked for meanwhile.
    bool stepElsewhere = false;
    bool cancelled = false;
    bool shuttingDown = false;
    // A record of writeNow() the socket has not taken yet, and a write of the library's.
    bool ownWritePending = false;
    bool libraryWriting = false;
    std::vector<std::function<void()>> deferred;
};
