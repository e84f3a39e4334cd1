#include "HexBytes.h"

namespace VirtualCards {

namespace {

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

std::optional<Bytes> parseHex(const std::string& text)
{
    Bytes bytes;
    int high = -1;
    for (const char c : text) {
        if (c == ':' || c == ' ') {
            if (high >= 0)
                return std::nullopt; // a separator inside a byte
            continue;
        }
        const int digit = hexDigit(c);
        if (digit < 0)
            return std::nullopt;
        if (high < 0) {
            high = digit;
        } else {
            bytes.push_back(static_cast<uint8_t>(high << 4 | digit));
            high = -1;
        }
    }
    if (high >= 0)
        return std::nullopt; // odd number of digits
    return bytes;
}

std::string formatHex(const Bytes& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0)
            text += ' ';
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0xF];
    }
    return text;
}

} // namespace VirtualCards
