// The serial ports of a host, and which of them is a modem's diag port: listed through udev,
// probed with one diag request each, chosen for --port auto; and why a port the user named cannot
// work. A host's business: on a device the diag port is the platform's own, and the device build
// (ports_device.cpp) says so.
#pragma once

#include <stdio.h>

#include <string>

#include "args.h"

namespace tolven_diag_tool {

// --list-ports: one block (or JSON object) a port, probed with --probe; the exit status.
int list_ports(const Options& o, FILE* out);

// --port auto: points |o| at the one USB serial port that answers a probe, with the framing it
// answered in (unless --framing chose one, which is then the only one tried). kExitOk, or
// kExitFailed after naming on standard error every port tried and what it did.
int choose_auto_port(Options* o);

// Why the diag library cannot use |port|, with the fix where there is one, or "" when nothing is
// found wrong: no such device, permission denied, not a serial device, busy (and who has it), a
// connection refused or timed out, an unknown host; "" for no port at all. |elapsed_ms| is how long
// the failed call took: a network port that already used up its connect limit is not tried again.
std::string port_problem(const std::string& port, double elapsed_ms = 0);

}  // namespace tolven_diag_tool
