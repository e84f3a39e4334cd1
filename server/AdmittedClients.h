#pragma once

#include "ClientProtocol.h"

#include <websocketpp/common/connection_hdl.hpp>

#include <algorithm>
#include <vector>

// The clients that broadcasts reach, by protocol, each in the order they were admitted.
// Touched by the server thread only.
class AdmittedClients
{
public:
    using Handle = websocketpp::connection_hdl;

    // A client admitted twice is still sent each broadcast once. Its protocol was settled at
    // its handshake, so it cannot come back under the other one.
    void add(const Handle& hdl, ClientProtocol protocol)
    {
        std::vector<Handle>& list = handles[index(protocol)];
        if (std::none_of(list.begin(), list.end(), [&](const Handle& entry) { return same(entry, hdl); }))
            list.push_back(hdl);
    }

    int remove(const Handle& hdl)
    {
        int removed = 0;
        for (std::vector<Handle>& list : handles) {
            const auto end = std::remove_if(list.begin(), list.end(),
                                            [&](const Handle& entry) { return same(entry, hdl); });
            removed += static_cast<int>(list.end() - end);
            list.erase(end, list.end());
        }
        return removed;
    }

    bool isEmpty() const { return handles[0].empty() && handles[1].empty(); }
    int size() const { return static_cast<int>(handles[0].size() + handles[1].size()); }
    const std::vector<Handle>& of(ClientProtocol protocol) const { return handles[index(protocol)]; }

private:
    static int index(ClientProtocol protocol) { return protocol == ClientProtocol::Version2 ? 1 : 0; }

    // Owner equivalence, so that a handle whose connection is already gone still matches.
    static bool same(const Handle& a, const Handle& b)
    {
        return !a.owner_before(b) && !b.owner_before(a);
    }

    std::vector<Handle> handles[2];
};
