#pragma once

#include <QString>

#include <string>

// Reader names are bytes to PC/SC, which knows no encoding, and text to clients and the log.
namespace ReaderName {

// Valid UTF-8 is read as such; anything else as Latin-1, which maps every byte to one
// character, so no name is mangled into another and legacy 8-bit names stay legible.
QString toText(const std::string& bytes);

} // namespace ReaderName
