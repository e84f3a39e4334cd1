#pragma once

#include <QString>

// The texts the log gives PC/SC's result codes.
namespace SmartCardErrorMessages {

// `code` as a signed 32-bit value; codes without a text of their own get a generic one.
QString text(int code);

} // namespace SmartCardErrorMessages
