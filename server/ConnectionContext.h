#pragma once

#include "ClientProtocol.h"

#include <QMetaType>

#include <websocketpp/common/connection_hdl.hpp>

// Identifies one connected client without keeping its connection alive.
struct ConnectionContext
{
    websocketpp::connection_hdl hdl;
    ClientProtocol protocol = ClientProtocol::Original;
};

Q_DECLARE_METATYPE(ConnectionContext)
