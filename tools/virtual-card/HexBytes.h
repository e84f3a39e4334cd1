#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace VirtualCards {

using Bytes = std::vector<uint8_t>;

// Accepts "04a10b7f", "04:A1:0B:7F" or "04 a1 0b 7f"; nullopt for anything else.
std::optional<Bytes> parseHex(const std::string& text);

// Lower-case pairs separated by single spaces, the way card traces are read.
std::string formatHex(const Bytes& bytes);

} // namespace VirtualCards
