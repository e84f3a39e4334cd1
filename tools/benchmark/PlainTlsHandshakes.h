#pragma once

#include <optional>

// The floor under connecting clients on this machine: `connections` TLS 1.2 handshakes over
// loopback between OpenSSL alone, set up as the service and the benchmark's clients are (same
// kind of certificate, suites, buffers; no session reuse), without WebSocket, greeting or log.
// One server thread and one client thread per core keep every core busy, as the service and
// its many clients do. Seconds until the last handshake is done; none when one failed.
std::optional<double> plainTlsHandshakesSeconds(int connections);
