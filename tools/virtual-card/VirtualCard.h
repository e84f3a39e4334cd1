#pragma once

#include "CardPersonality.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace VirtualCards {

// A card on a virtual reader's TCP port. Connecting lays the card on the reader,
// closing takes it away. Every message either way is a 2-byte big-endian length and
// a payload; a 1-byte payload from the reader is a control (power off, power on,
// reset, get ATR), anything longer is a command APDU answered with data and SW1 SW2.
// The connection is served on a thread of the card's own.
class VirtualCard
{
public:
    explicit VirtualCard(CardPersonality personality);
    ~VirtualCard();
    VirtualCard(const VirtualCard&) = delete;
    VirtualCard& operator=(const VirtualCard&) = delete;

    // Transport faults, counting command APDUs from 1. Drop: the card is torn away while
    // it answers the n-th command; the answer's length goes out, then the connection is
    // reset. Pull: the n-th command is answered in full (n = 0: the reader has powered
    // the card up and read its ATR), then the connection is reset, so the card is gone
    // when the next command comes; how soon the reader notices depends on timing.
    void setDropAtApdu(int n) { dropAtApdu = n; }
    void setPullAfterApdu(int n) { pullAfterApdu = n; }
    // Receives one line per event; runs on the card's thread. Set before layOn().
    void setTrace(std::function<void(const std::string&)> trace) { traceLine = std::move(trace); }

    bool layOn(uint16_t port, const std::string& host = "127.0.0.1");
    void takeAway();

    bool isOnReader() const;
    std::string lastError() const;

    // Until the connection has ended, from either side.
    bool waitUntilOffReader(std::chrono::milliseconds timeout) const;

    // What arrived since the card was last laid on a reader.
    std::vector<Bytes> receivedApdus() const;
    // Power-ons and resets: the reader resets the card when a user lets go of it.
    bool waitForPowerUps(int count, std::chrono::milliseconds timeout) const;

private:
    void serve();
    bool handleControl(int fd, uint8_t control);
    bool send(int fd, const Bytes& payload);
    void abortConnection();
    bool atrFollowsPowerUpNow() const;
    void trace(const std::string& line) const;
    void setError(const std::string& error);

    CardPersonality personality;
    int dropAtApdu = 0;
    int pullAfterApdu = -1;
    std::function<void(const std::string&)> traceLine;

    int socketFd = -1; // guarded by mutex while the card's thread runs
    std::thread server;

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    bool connected = false;
    int powerUps = 0;
    bool atrFollowsPowerUp = false;
    std::vector<Bytes> apdus;
    std::string error;
};

} // namespace VirtualCards
