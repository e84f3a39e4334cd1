#include "VirtualCard.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace VirtualCards {

namespace {

const uint8_t controlPowerOff = 0x00;
const uint8_t controlPowerOn = 0x01;
const uint8_t controlReset = 0x02;
const uint8_t controlGetAtr = 0x04;

// Repeats recv or send until all `size` bytes went through; false when the peer left.
template <typename Byte, typename Transfer>
bool transferAll(Byte* data, size_t size, Transfer transfer)
{
    while (size > 0) {
        const ssize_t done = transfer(data, size);
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        data += done;
        size -= static_cast<size_t>(done);
    }
    return true;
}

bool readAll(int fd, uint8_t* data, size_t size)
{
    return transferAll(data, size, [fd](uint8_t* at, size_t left) { return ::recv(fd, at, left, 0); });
}

bool writeAll(int fd, const uint8_t* data, size_t size)
{
    return transferAll(data, size, [fd](const uint8_t* at, size_t left) { return ::send(fd, at, left, MSG_NOSIGNAL); });
}

int connectTo(const std::string& host, uint16_t port, std::string* error)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* addresses = nullptr;
    const int lookup = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &addresses);
    if (lookup != 0) {
        *error = "cannot resolve " + host + ": " + ::gai_strerror(lookup);
        return -1;
    }
    int fd = -1;
    for (addrinfo* address = addresses; address; address = address->ai_next) {
        fd = ::socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC, address->ai_protocol);
        if (fd < 0)
            continue;
        if (::connect(fd, address->ai_addr, address->ai_addrlen) == 0)
            break;
        *error = "cannot connect to " + host + ":" + std::to_string(port) + ": " + std::strerror(errno);
        ::close(fd);
        fd = -1;
    }
    ::freeaddrinfo(addresses);
    return fd;
}

} // namespace

VirtualCard::VirtualCard(CardPersonality personality) : personality(std::move(personality)) {}

VirtualCard::~VirtualCard()
{
    takeAway();
}

bool VirtualCard::layOn(uint16_t port, const std::string& host)
{
    takeAway();
    std::string connectError;
    const int fd = connectTo(host, port, &connectError);
    if (fd < 0) {
        setError(connectError);
        return false;
    }
    // Every exchange is a short request and answer; without these each one waits
    // for a delayed acknowledgement.
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

    {
        std::lock_guard<std::mutex> lock(mutex);
        connected = true;
        powerUps = 0;
        atrFollowsPowerUp = false;
        apdus.clear();
        error.clear();
    }
    personality.reset();
    socketFd = fd;
    server = std::thread(&VirtualCard::serve, this);
    return true;
}

void VirtualCard::takeAway()
{
    if (!server.joinable())
        return;
    {
        // Wakes the card's thread out of its read; it then marks the card as off the reader.
        std::lock_guard<std::mutex> lock(mutex);
        if (socketFd >= 0)
            ::shutdown(socketFd, SHUT_RDWR);
    }
    server.join();
    if (socketFd >= 0)
        ::close(socketFd);
    socketFd = -1;
}

void VirtualCard::abortConnection()
{
    // A reset instead of an orderly close: the reader's pending read fails at once,
    // which is what a card torn off mid-command looks like to it.
    const linger abortive{1, 0};
    std::lock_guard<std::mutex> lock(mutex);
    ::setsockopt(socketFd, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
    ::close(socketFd);
    socketFd = -1;
}

void VirtualCard::serve()
{
    // Only this thread closes the socket early (abortConnection), and it stops using it then.
    const int fd = socketFd;
    const int on = 1;
    int apduCount = 0;
    for (;;) {
        // Quick acknowledgements switch themselves off again, so they are re-armed before each read.
        ::setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
        uint8_t header[2];
        if (!readAll(fd, header, sizeof header))
            break;
        Bytes payload(static_cast<size_t>(header[0] << 8 | header[1]));
        if (!payload.empty() && !readAll(fd, payload.data(), payload.size()))
            break;

        if (payload.size() == 1) {
            const bool powerUpDone = payload[0] == controlGetAtr && atrFollowsPowerUpNow();
            if (!handleControl(fd, payload[0]))
                break;
            if (powerUpDone && pullAfterApdu == 0) {
                trace("(pulled off the reader)");
                abortConnection();
                break;
            }
            continue;
        }
        if (payload.empty())
            continue;

        ++apduCount;
        {
            std::lock_guard<std::mutex> lock(mutex);
            apdus.push_back(payload);
        }
        changed.notify_all();
        const Bytes response = personality.respond(payload);
        if (apduCount == dropAtApdu) {
            // The answer's length goes out, its bytes never do.
            trace("> " + formatHex(payload) + "  < (cut off)");
            const uint8_t header[2] = {static_cast<uint8_t>(response.size() >> 8),
                                       static_cast<uint8_t>(response.size() & 0xFF)};
            writeAll(fd, header, sizeof header);
            abortConnection();
            break;
        }
        trace("> " + formatHex(payload) + "  < " + formatHex(response));
        if (!send(fd, response))
            break;
        if (apduCount == pullAfterApdu) {
            trace("(pulled off the reader)");
            abortConnection();
            break;
        }
    }

    {
        std::lock_guard<std::mutex> lock(mutex);
        connected = false;
    }
    changed.notify_all();
    trace("off the reader");
}

bool VirtualCard::handleControl(int fd, uint8_t control)
{
    switch (control) {
    case controlPowerOff:
        break;
    case controlPowerOn:
    case controlReset: {
        personality.reset();
        {
            std::lock_guard<std::mutex> lock(mutex);
            atrFollowsPowerUp = true;
        }
        trace(control == controlPowerOn ? "power on" : "reset");
        break;
    }
    case controlGetAtr: {
        bool powerUpDone = false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            powerUpDone = atrFollowsPowerUp;
            atrFollowsPowerUp = false;
        }
        changed.notify_all();
        if (!send(fd, personality.atr()))
            return false;
        // A power-up counts once the reader has its ATR: only then has its reset succeeded.
        if (powerUpDone) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                ++powerUps;
            }
            changed.notify_all();
        }
        return true;
    }
    default:
        trace("unknown control " + formatHex({control}));
        break;
    }
    changed.notify_all();
    return true;
}

bool VirtualCard::send(int fd, const Bytes& payload)
{
    Bytes message;
    message.reserve(payload.size() + 2);
    message.push_back(static_cast<uint8_t>(payload.size() >> 8));
    message.push_back(static_cast<uint8_t>(payload.size() & 0xFF));
    message.insert(message.end(), payload.begin(), payload.end());
    if (writeAll(fd, message.data(), message.size()))
        return true;
    setError(std::string("send failed: ") + std::strerror(errno));
    return false;
}

bool VirtualCard::isOnReader() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return connected;
}

std::string VirtualCard::lastError() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return error;
}

bool VirtualCard::waitUntilOffReader(std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [this] { return !connected; });
}

std::vector<Bytes> VirtualCard::receivedApdus() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return apdus;
}

bool VirtualCard::waitForPowerUps(int count, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [this, count] { return powerUps >= count; });
}

bool VirtualCard::atrFollowsPowerUpNow() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return atrFollowsPowerUp;
}

void VirtualCard::trace(const std::string& line) const
{
    if (traceLine)
        traceLine(line);
}

void VirtualCard::setError(const std::string& text)
{
    std::lock_guard<std::mutex> lock(mutex);
    error = text;
}

} // namespace VirtualCards
