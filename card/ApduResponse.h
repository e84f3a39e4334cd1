#pragma once

#include <utility>
#include <vector>

// A card's reply to one command: its data, then the status word SW1 SW2.
class ApduResponse
{
public:
    using Bytes = std::vector<unsigned char>;

    ApduResponse() = default;
    explicit ApduResponse(Bytes reply) : reply(std::move(reply)) {}

    // A reply too short to hold SW1 SW2 has no status, so it never matches one.
    bool hasStatus(unsigned char sw1, unsigned char sw2) const
    {
        return reply.size() >= 2 && reply[reply.size() - 2] == sw1 && reply.back() == sw2;
    }
    bool isOk() const { return hasStatus(0x90, 0x00); }

    // The reply without its status word.
    Bytes data() const { return reply.size() > 2 ? Bytes(reply.begin(), reply.end() - 2) : Bytes(); }
    const Bytes& bytes() const { return reply; }

private:
    Bytes reply;
};
