#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// Wss connections to one local port, all driven by one asio thread, so a thousand clients
// cost a thousand sockets and not a thousand threads. The server's certificate is not
// verified. Handlers run on the group's thread and must be quick; every member may be
// called from any thread.
class WssClientGroup
{
public:
    using Clock = std::chrono::steady_clock;
    using MessageHandler = std::function<void(int connection, const std::string& text, Clock::time_point arrival)>;
    // A connection that was open has closed or dropped (not called once closeAll() began).
    using CloseHandler = std::function<void(int connection, const std::string& reason)>;
    enum class TlsVersion { Any, V1_1, V1_2, V1_3 };

    explicit WssClientGroup(MessageHandler onMessage, CloseHandler onClose = {}, TlsVersion tls = TlsVersion::Any);
    ~WssClientGroup(); // drops every connection without a close handshake
    WssClientGroup(const WssClientGroup&) = delete;
    WssClientGroup& operator=(const WssClientGroup&) = delete;

    // Sends this Origin header with each handshake, as a browser would; none by default.
    void setOrigin(const std::string& origin);
    // Offers these subprotocols, in this order, with each handshake; none by default.
    void setSubprotocols(const std::vector<std::string>& names);
    // A connection that fails or closes is tried again after `pause` (no CloseHandler call), and
    // connect() waits until all are open at once. Before connect().
    void setRetry(std::chrono::milliseconds pause);
    // Opens `count` connections (numbered from 0) to wss://127.0.0.1:port, at most `inFlight`
    // handshakes at a time so a busy server is not flooded. Call once per group. True once
    // all are open; false when one failed or the time ran out.
    bool connect(uint16_t port, int count, std::chrono::milliseconds timeout, int inFlight = 16);

    // Instead of connect(): `loops` connections at a time, each closed cleanly as soon as it has
    // its first message and followed by a new one, until `total` have been started (0: until
    // stopCycling()). Once the loops have ended another run may start; the counts begin anew.
    struct Cycled
    {
        int greeted = 0; // had their first message
        int resumed = 0; // on a resumed TLS session
        int failed = 0;  // ended without a message
    };
    bool startCycling(uint16_t port, int loops, int total = 0);
    // The loops end with their current connections; the counts so far.
    Cycled stopCycling();
    // True once every loop has ended; false when the time ran out.
    bool waitForLoops(std::chrono::milliseconds timeout);
    Cycled cycled() const;
    // Every connection offers to resume the TLS session of the first one opened after this call.
    void setResumeSessions(bool resume);

    bool send(int connection, const std::string& text);
    void close(int connection); // clean WebSocket close
    void drop(int connection);  // vanish: shut the TCP socket down without a close frame
    // Closes the open connections politely and waits for the server's answers.
    bool closeAll(std::chrono::milliseconds timeout);

    // HTTP status of the server's handshake answer: 101 once open, e.g. 403 when refused,
    // 0 when none arrived (a failed TLS handshake).
    int httpStatus(int connection) const;
    // SHA-256 of the DER certificate the server presented; empty before the connection is open.
    std::string peerCertificateSha256(int connection) const;
    // The Sec-WebSocket-Protocol the server answered with; empty before the connection is open
    // and when it chose none.
    std::string subprotocol(int connection) const;
    // How often a connection was tried again (see setRetry).
    int retries() const;
    // Why the last connection failed or closed, as the library put it.
    std::string lastError() const;

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};
