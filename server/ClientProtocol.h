#pragma once

#include <QMetaType>
#include <QString>

// Which message set a client gets: the original one, or version 2 when it offered the
// WebSocket subprotocol below at its handshake. Clients that offer nothing keep working as
// they always have.
enum class ClientProtocol { Original, Version2 };

inline constexpr char version2Subprotocol[] = "tiv-rfid.2";

// One broadcast in the words of each protocol; an empty text is not sent to that protocol's
// clients, for news one of them has no message for.
struct ProtocolTexts
{
    QString original;
    QString version2;
};

Q_DECLARE_METATYPE(ProtocolTexts)
