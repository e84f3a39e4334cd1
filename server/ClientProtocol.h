#pragma once

#include <QString>

// Which message set a client gets: the original one, or protocol 2 when it offered the
// WebSocket subprotocol below at its handshake.
enum class ClientProtocol
{
    Original,
    Version2
};

inline constexpr char version2Subprotocol[] = "tiv-rfid.2";

// One broadcast in the words of each protocol; an empty text is not sent to that protocol's clients.
struct ProtocolTexts
{
    QString original;
    QString version2;
};
