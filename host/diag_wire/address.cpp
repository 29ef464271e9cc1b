#include "address.h"

#include "text.h"

namespace diag_wire {

bool is_tcp_address(const std::string& address) {
    return address.rfind("tcp:", 0) == 0;
}

bool parse_tcp_address(const std::string& address, TcpAddress* out, std::string* why) {
    if (!is_tcp_address(address)) {
        *why = "not a tcp: address";
        return false;
    }
    const std::string rest = address.substr(4);
    std::string host;
    size_t colon;
    if (!rest.empty() && rest[0] == '[') {
        size_t close = rest.find(']');
        if (close == std::string::npos) {
            *why = "no ']' after the IPv6 address";
            return false;
        }
        host = rest.substr(1, close - 1);
        colon = close + 1;
        if (colon >= rest.size() || rest[colon] != ':') {
            *why = "no ':PORT' after the IPv6 address";
            return false;
        }
    } else {
        colon = rest.rfind(':');
        if (colon == std::string::npos) {
            *why = "no ':PORT' after the host";
            return false;
        }
        host = rest.substr(0, colon);
        // A bare IPv6 address would be cut at its last colon.
        if (host.find(':') != std::string::npos) {
            *why = "an IPv6 address goes in brackets, as tcp:[::1]:PORT";
            return false;
        }
    }
    if (host.empty()) {
        *why = "no host before ':PORT'";
        return false;
    }
    const std::string port = rest.substr(colon + 1);
    long long n = 0;
    if (!parse_number(port, &n)) {
        *why = "the port '" + printable(port) + "' is not a number";
        return false;
    }
    if (n < 1 || n > 65535) {
        *why = "the port " + port + " is out of range (1 to 65535)";
        return false;
    }
    out->host = host;
    out->port = static_cast<int>(n);
    return true;
}

}  // namespace diag_wire
