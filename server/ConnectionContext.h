#pragma once

#include <QMetaType>

#include <websocketpp/common/connection_hdl.hpp>

// Identifies one connected client without keeping its connection alive.
struct ConnectionContext
{
    websocketpp::connection_hdl hdl;

    // Owner equivalence: a handle whose connection is already gone still equals its copies,
    // which is what removing a client after its close needs.
    bool operator==(const ConnectionContext& other) const
    {
        return !hdl.owner_before(other.hdl) && !other.hdl.owner_before(hdl);
    }
    bool operator!=(const ConnectionContext& other) const { return !(*this == other); }
};

Q_DECLARE_METATYPE(ConnectionContext)
