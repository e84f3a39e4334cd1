#pragma once

#include <websocketpp/common/connection_hdl.hpp>

#include <algorithm>
#include <vector>

// The clients that broadcasts reach, in the order they were admitted. Touched by the server
// thread only.
class AdmittedClients
{
public:
    using Handle = websocketpp::connection_hdl;

    // A client admitted twice is still sent each broadcast once.
    void add(const Handle& hdl)
    {
        if (std::none_of(handles.begin(), handles.end(),
                         [&](const Handle& entry) { return same(entry, hdl); }))
            handles.push_back(hdl);
    }

    int remove(const Handle& hdl)
    {
        const auto end = std::remove_if(handles.begin(), handles.end(),
                                        [&](const Handle& entry) { return same(entry, hdl); });
        const int removed = static_cast<int>(handles.end() - end);
        handles.erase(end, handles.end());
        return removed;
    }

    bool isEmpty() const { return handles.empty(); }
    const std::vector<Handle>& all() const { return handles; }

private:
    // Owner equivalence, so that a handle whose connection is already gone still matches.
    static bool same(const Handle& a, const Handle& b)
    {
        return !a.owner_before(b) && !b.owner_before(a);
    }

    std::vector<Handle> handles;
};
