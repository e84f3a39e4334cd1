#pragma once

#include <optional>

// The floor under a fan-out on this machine: one thread writes a record the size of a TAG's
// to each of `sockets` loopback TCP connections, another reads them, as the service and its
// clients do, without TLS or WebSocket. Milliseconds from the first write until the last
// read, the median of `rounds`; none when the sockets cannot be made.
std::optional<double> plainTcpFanOutMs(int sockets, int rounds);
