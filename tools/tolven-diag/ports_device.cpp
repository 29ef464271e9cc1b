// The device build's side of ports.h: a device has no serial ports to find, its diag port is the
// platform's own, and its libdiag takes no LIBDIAG_PORT.
#include "output.h"
#include "ports.h"

namespace tolven_diag_tool {

int list_ports(const Options&, FILE*) {
    error("--list-ports is for a host with a modem on USB; on a device the diag library has its "
          "own port");
    return kExitFailed;
}

int choose_auto_port(Options*) {
    error("--port auto is for a host with a modem on USB; on a device the diag library has its "
          "own port");
    return kExitFailed;
}

std::string port_problem(const std::string&, double) {
    return "";
}

}  // namespace tolven_diag_tool
