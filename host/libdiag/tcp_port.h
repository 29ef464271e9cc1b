// A diag port on the network: a TCP port that carries a serial port's raw bytes, as ser2net's
// TCP accepter does.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "port_link.h"

namespace diag_port {

// Connecting gives up after this time.
constexpr std::chrono::milliseconds kConnectLimit{3000};

// The reason given when a connection got no answer within kConnectLimit.
std::string connect_timed_out_text();

// Connects to "tcp:HOST:PORT" (IPv6 as "tcp:[ADDRESS]:PORT"), trying each address that HOST
// resolves to within kConnectLimit; nullptr with the reason in |*error|.
std::unique_ptr<LinkPort> connect_tcp(const std::string& address, std::string* error);

}  // namespace diag_port
