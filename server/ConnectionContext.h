#pragma once

#include <QMetaType>

#include <websocketpp/common/connection_hdl.hpp>

// Identifies one connected client without keeping its connection alive.
struct ConnectionContext
{
    websocketpp::connection_hdl hdl;
};

Q_DECLARE_METATYPE(ConnectionContext)
