// Why a port the user named cannot work, found by trying it as the diag library would: opening
// the device (and letting go at once; nothing is written), or connecting to the network port.
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <string.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "address.h"
#include "files.h"
#include "port_finder.h"
#include "port_users.h"
#include "ports.h"
#include "tcp_port.h"

namespace tolven_diag_tool {
namespace {

std::string network_problem(const std::string& port, double elapsed_ms) {
    const std::string timed_out = diag_port::connect_timed_out_text();
    std::string error;
    // A call that took the whole connect limit timed out; trying again would take as long.
    if (elapsed_ms >= static_cast<double>(diag_port::kConnectLimit.count())) {
        error = timed_out;
    } else if (diag_port::connect_tcp(port, &error) != nullptr) {
        return "";
    }
    std::string fix;
    if (error == strerror(ECONNREFUSED)) {
        fix = "; nothing listens there: check the port number, and that ser2net (or whatever "
              "shares the modem) runs on that machine";
    } else if (error == timed_out) {
        fix = "; check the address, and that the machine is up and lets the connection through";
    }
    return "cannot connect to " + port + ": " + error + fix;
}

std::string permission_fix(const std::string& port, const struct stat& st) {
    const group* g = getgrgid(st.st_gid);
    const passwd* me = getpwuid(geteuid());
    const std::string user = me != nullptr ? me->pw_name : "$USER";
    std::string fix = "permission denied on " + port;
    if (g != nullptr && (st.st_mode & S_IRWXG) == (S_IRGRP | S_IWGRP)) {
        fix += ", which is for the group " + std::string(g->gr_name) +
               ": add yourself to it (sudo usermod -aG " + g->gr_name + " " + user +
               ", then log in again), or";
    } else {
        fix += ":";
    }
    return fix + " give yourself the port with a udev rule (the README shows one)";
}

std::string device_problem(const std::string& port) {
    struct stat st;
    if (stat(port.c_str(), &st) != 0) {
        if (errno == ENOENT) {
            return "no such device: " + port +
                   " (unplugged, or renamed; --list-ports shows the serial ports)";
        }
        return "the port " + port + ": " + strerror(errno);
    }
    if (!S_ISCHR(st.st_mode)) {
        return "not a serial device: " + port + " is " +
               (S_ISREG(st.st_mode) ? "a regular file" : diag_wire::special_file_kind(st.st_mode));
    }
    int fd = open(port.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        switch (err) {
            case EACCES:
            case EPERM:
                return permission_fix(port, st);
            case ENXIO:
            case ENODEV:
                return "no such device behind " + port + " (" + strerror(err) +
                       "): unplugged, or its driver let go of it";
            case EBUSY: {
                std::string busy = "busy: " + port + " is opened exclusively by ";
                std::vector<std::string> users = port_holders(port);
                if (users.empty()) return busy + "another process";
                for (size_t i = 0; i < users.size(); ++i) busy += (i ? ", " : "") + users[i];
                return busy;
            }
            default:
                return "the port " + port + ": " + strerror(err);
        }
    }
    termios t;
    const bool tty = tcgetattr(fd, &t) == 0;
    close(fd);
    if (!tty) return "not a serial device: " + port + " takes no terminal settings";
    const int holder = diag_port::lock_holder(port);
    if (holder > 0)
        return "busy: " + port + ": " + diag_port::process_name(holder) + " holds its lock";
    return "";
}

}  // namespace

std::string port_problem(const std::string& port, double elapsed_ms) {
    if (port.empty() || port == kAutoPort) return "";
    return diag_wire::is_tcp_address(port) ? network_problem(port, elapsed_ms)
                                           : device_problem(port);
}

}  // namespace tolven_diag_tool
