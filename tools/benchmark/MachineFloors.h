#pragma once

#include <optional>
#include <string>

// Floors of this machine, beside which the service's figures are read: the same work without
// TLS, WebSocket, greeting or log.

// A fan-out: one thread writes a record the size of a TAG's to each of `sockets` loopback TCP
// connections, another reads them, as the service and its clients do. Milliseconds from the
// first write until the last read, the median of `rounds`; none when the sockets cannot be made.
std::optional<double> plainTcpFanOutMs(int sockets, int rounds);

// Connecting: `connections` TLS 1.2 handshakes over loopback between OpenSSL alone, set up as the
// service and the benchmark's clients are (same kind of certificate, suites, buffers; no session
// reuse). One server thread and one client thread per core keep every core busy, as the service
// and its many clients do. Seconds until the last handshake is done; none when one failed.
std::optional<double> plainTlsHandshakesSeconds(int connections);

// Reading the tag on `reader` as the service does, by a plain PC/SC client on a context of its
// own: connect, transaction, status, READ UID, end, disconnect with a reset. Milliseconds for
// those six calls; none when one of them failed.
std::optional<double> plainUidReadMs(const std::string& reader);
