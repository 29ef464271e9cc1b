// The network address of a diag port as written: "tcp:HOST:PORT", or "tcp:[ADDRESS]:PORT" for an
// IPv6 address. Shared by the host libdiag, which connects to it, and tolven-diag, which refuses a
// malformed one as a usage error before anything runs.
#pragma once

#include <string>

namespace diag_wire {

// Whether |address| names a network port ("tcp:..."), well formed or not; anything else is a
// device.
bool is_tcp_address(const std::string& address);

struct TcpAddress {
    std::string host;  // without the brackets of an IPv6 address
    int port = 0;      // 1..65535
};

// Splits a "tcp:" address; false with what is wrong in |*why| (one line, without the address).
bool parse_tcp_address(const std::string& address, TcpAddress* out, std::string* why);

}  // namespace diag_wire
