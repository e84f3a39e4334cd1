#pragma once

#include <cstddef>
#include <vector>

// One command to a card, with the room its reply is given.
struct Apdu
{
    std::vector<unsigned char> bytes;
    size_t replyRoom = 0;

    // The UID of a contactless card, as the reader itself answers it: up to 10 bytes, as a
    // triple-size UID has, then the status word.
    static Apdu readUid() { return {{0xFF, 0xCA, 0x00, 0x00, 0x00}, 12}; }
    static Apdu selectFile(unsigned char high, unsigned char low)
    {
        return {{0x80, 0xA4, 0x00, 0x00, 0x02, high, low}, 8};
    }
    static Apdu readRecord(unsigned char record, unsigned char length)
    {
        return {{0x80, 0xB2, record, 0x00, length}, static_cast<size_t>(length) + 2};
    }
};
