// Bad input as an adversarial user gives it, one rule a table: every file the tool and the
// stand-ins read is a regular file, bounded, read with its errors reported, and never hangs them;
// every path they write is theirs, never a file they did not make; every failure says its cause
// where the user looks, without --verbose.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "child.h"
#include "port_holder.h"

namespace {

using Clock = std::chrono::steady_clock;

// Files named where an answers file is expected, by both programs that read one.
TEST(FilesRead, RegularBoundedAndSaid) {
    Scratch s;
    ASSERT_FALSE(s.dir.empty());
    mkdir(s.path("dir").c_str(), 0700);
    ASSERT_EQ(0, mkfifo(s.path("fifo").c_str(), 0600));
    // Sparse: larger than any answers file may be, without using the disk.
    const std::string big = s.path("big");
    ASSERT_EQ(0, truncate(s.write("big", "").c_str(), (64LL << 20) + 1));
    const std::string long_line = s.write("long", "00 -> " + std::string((1 << 20) + 2, 'a'));
    const std::string odd = s.write("odd", "7 -> 1\n");
    const std::string repeated = s.write("repeated", "00 -> 01\n00 -> 02\n");

    struct Row {
        std::string file;
        bool accepted;
        std::string said;
    };
    const Row rows[] = {
            {s.path("dir"), false, "cannot read " + s.path("dir") + ": Is a directory"},
            {"/proc/self/mem", false, "cannot read /proc/self/mem: Input/output error"},
            {s.path("fifo"), false, "cannot read " + s.path("fifo") + ": a FIFO, not a regular"},
            {"/dev/zero", false, "cannot read /dev/zero: a character device, not a regular"},
            {big, false, "cannot read " + big + ": larger than 64 MiB"},
            {long_line, false, long_line + ":1: longer than 1 MiB"},
            {odd, false, odd + ":1: bad request hex '7': not pairs of hex digits"},
            {repeated, true, repeated + ":2: the same request as line 1, which this line replaces"},
            {s.path("missing"), false, "cannot read " + s.path("missing") + ": No such file"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.file);
        const auto start = Clock::now();
        ChildOutcome tool = run_program(TOLVEN_DIAG_TOOL, {"-t", "500", "00"},
                                        "LIBDIAG_SIM_ANSWERS='" + row.file + "'", 20);
        EXPECT_EQ(row.accepted ? 0 : 1, tool.exit_code) << tool.err;
        EXPECT_NE(
                std::string::npos,
                tool.err.find("libdiag: " + std::string(row.accepted ? "warning: " : "") + row.said))
                << tool.err;
        // Refused at once: nothing waits on a FIFO or reads without end.
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(5 * time_scale()));

        if (row.accepted) continue;
        ChildOutcome modem = run_program(TOLVEN_DIAG_MODEM, {"--answers", row.file}, "", 20);
        EXPECT_EQ(1, modem.exit_code) << modem.err;
        EXPECT_NE(std::string::npos, modem.err.find("tolven-diag-modem: " + row.said)) << modem.err;
    }
}

// --link PATH of the pty modem: made only where nothing is, replacing only a link that an
// earlier run left to a pty that is gone, and removed at the end only while it is still the one
// made.
TEST(PathsWritten, OnlyWhatTheProgramMade) {
    Scratch s;
    ASSERT_FALSE(s.dir.empty());
    enum Before { kNothing, kFile, kDir, kForeignLink, kLeftover, kSwapped };
    struct Row {
        const char* name;
        Before before;
        bool starts;
    };
    const Row rows[] = {
            {"nothing there", kNothing, true},
            {"a file", kFile, false},
            {"a directory", kDir, false},
            {"a link of the user's", kForeignLink, false},
            {"a leftover link to a gone pty", kLeftover, true},
            {"made, then replaced by the user", kSwapped, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string link = s.path(std::string("link") + std::to_string(row.before));
        const std::string precious = s.write("precious", "precious\n");
        if (row.before == kFile) s.write(link.substr(s.dir.size() + 1), "precious\n");
        if (row.before == kDir) mkdir(link.c_str(), 0700);
        const char* old_target = row.before == kForeignLink ? precious.c_str()
                                 : row.before == kLeftover  ? "/dev/pts/999999"
                                                            : nullptr;
        if (old_target != nullptr) {
            ASSERT_EQ(0, symlink(old_target, link.c_str()));
        }

        ModemProcess modem(TOLVEN_DIAG_MODEM, {"--link", link});
        EXPECT_EQ(row.starts, !modem.path().empty());
        if (row.starts) {
            char target[256] = {};
            ASSERT_GT(readlink(link.c_str(), target, sizeof target - 1), 0);
            EXPECT_EQ(modem.path(), target);
            if (row.before == kSwapped) {
                unlink(link.c_str());
                ASSERT_EQ(0, symlink(precious.c_str(), link.c_str()));
            }
        }
        EXPECT_EQ(row.starts ? 0 : 1, modem.stop());
        struct stat st;
        const bool there = lstat(link.c_str(), &st) == 0;
        switch (row.before) {
            case kNothing:
            case kLeftover:
                EXPECT_FALSE(there) << "the link made was not removed";
                break;
            case kFile:
                EXPECT_EQ("precious\n", read_file(link));
                break;
            case kDir:
                EXPECT_TRUE(there && S_ISDIR(st.st_mode));
                break;
            case kForeignLink:
            case kSwapped:
                EXPECT_TRUE(there && S_ISLNK(st.st_mode));
                EXPECT_EQ("precious\n", read_file(link));
                break;
        }
        EXPECT_EQ("precious\n", read_file(precious));
    }
}

// A socket listening on a free loopback port; |*address| is "tcp:127.0.0.1:PORT", or "" when
// it could not be set up.
int loopback_listener(int backlog, sockaddr_in* a, std::string* address) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    a->sin_family = AF_INET;
    a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof *a;
    if (bind(fd, reinterpret_cast<sockaddr*>(a), sizeof *a) == 0 && listen(fd, backlog) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(a), &len) == 0) {
        *address = "tcp:127.0.0.1:" + std::to_string(ntohs(a->sin_port));
    }
    return fd;
}

// A port on the network that is no modem: it sends back what it gets, or nothing, or noise.
class TcpPeer {
  public:
    enum Kind { kEcho, kSilent, kNoise };
    explicit TcpPeer(Kind kind) : kind_(kind) {
        sockaddr_in a{};
        listener_ = loopback_listener(4, &a, &address_);
        if (!address_.empty()) thread_ = std::thread([this] { serve(); });
    }
    ~TcpPeer() {
        done_ = true;
        if (thread_.joinable()) thread_.join();
        close(listener_);
    }
    const std::string& address() const { return address_; }

  private:
    void serve() {
        std::vector<int> peers;
        while (!done_) {
            std::vector<pollfd> fds = {{listener_, POLLIN, 0}};
            for (int p : peers) fds.push_back({p, POLLIN, 0});
            if (poll(fds.data(), fds.size(), 50) <= 0) continue;
            if (fds[0].revents & POLLIN)
                peers.push_back(accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC));
            for (size_t i = 1; i < fds.size(); ++i) {
                if (!(fds[i].revents & (POLLIN | POLLHUP))) continue;
                char buf[4096];
                ssize_t n = read(fds[i].fd, buf, sizeof buf);
                if (n <= 0) continue;
                if (kind_ == kEcho) (void)!write(fds[i].fd, buf, static_cast<size_t>(n));
                if (kind_ == kNoise) (void)!write(fds[i].fd, "\x01\x02\x03 noise", 9);
            }
        }
        for (int p : peers) close(p);
    }

    const Kind kind_;
    int listener_ = -1;
    std::string address_;
    std::atomic<bool> done_{false};
    std::thread thread_;
};

// A TCP port that takes no more connections: its accept queue is full and nobody accepts, so a
// connection's handshake is never answered, as with a machine that drops it.
class FullListener {
  public:
    FullListener() {
        sockaddr_in a{};
        listener_ = loopback_listener(0, &a, &address_);
        for (int i = 0; i < 2 && !address_.empty(); ++i) {
            int c = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            (void)!connect(c, reinterpret_cast<sockaddr*>(&a), sizeof a);
            clients_.push_back(c);
        }
    }
    ~FullListener() {
        for (int c : clients_) close(c);
        close(listener_);
    }
    const std::string& address() const { return address_; }

  private:
    int listener_ = -1;
    std::vector<int> clients_;
    std::string address_;
};

// A pseudo-terminal of this process: a serial device that a test can lock, or keep from a user.
struct Pty {
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    std::string path;
    Pty() {
        char name[128];
        if (master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0 &&
            ptsname_r(master, name, sizeof name) == 0) {
            path = name;
        }
    }
    ~Pty() {
        if (master >= 0) close(master);
    }
};

// What the tool says when a port is no modem or a send cannot go out: the cause, on standard
// output or standard error, without --verbose, and with the fix where there is one.
TEST(FailuresSaid, TheCauseWhereTheUserLooks) {
    Scratch s;
    TcpPeer echo(TcpPeer::kEcho);
    FullListener full;
    Pty locked, guarded;
    TcpPeer silent(TcpPeer::kSilent), noise(TcpPeer::kNoise);
    // Leaves every third request unanswered: the next one's answer must not be lost to it.
    ModemProcess lossy(TOLVEN_DIAG_MODEM, {"--unanswered-every", "3"});
    ModemProcess garbage(TOLVEN_DIAG_MODEM, {"--garbage"});
    ASSERT_FALSE(echo.address().empty() || full.address().empty() || locked.path.empty() ||
                 guarded.path.empty() || lossy.path().empty() || garbage.path().empty());
    PortHolder holder(locked.path, true);
    ASSERT_TRUE(holder.holding());
    const std::string holder_name = "process " + std::to_string(holder.pid());
    // Kept from the user: as root, by running the tool as nobody; else by taking every right.
    const bool root = geteuid() == 0;
    ASSERT_EQ(0, chmod(guarded.path.c_str(), root ? 0660 : 0));
    if (root) {
        ASSERT_EQ(0, chown(guarded.path.c_str(), 0, 20));  // dialout on Debian
    }
    const std::string as_user = root ? "setpriv --reuid=65534 --regid=65534 --clear-groups" : "";
    const std::string file = s.write("notes.txt", "not a port\n");
    const std::string refused = "tcp:127.0.0.1:1";
    struct Row {
        const char* name;
        std::vector<std::string> args;
        int exit_code;
        std::string said;  // in standard output and error together
        std::string prefix = "";
    };
    const Row rows[] = {
            {"a port that echoes",
             {"--port", echo.address(), "-t", "500", "00"},
             0,
             "note: the reply is the request itself, byte for byte: a port that sends back what "
             "it gets"},
            {"a port that stays silent",
             {"--port", silent.address(), "-t", "300", "00"},
             1,
             "timed out: no complete reply within 300 ms: no bytes came back from " +
                     silent.address()},
            {"a port that sends bytes that are no frames",
             {"--port", noise.address(), "-t", "300", "00"},
             1,
             "bytes came back from " + noise.address() + " but formed no frame"},
            {"a modem whose frames fail their CRC",
             {"--port", garbage.path(), "-t", "300", "00"},
             1,
             "frame from " + garbage.path() + " was dropped for a bad CRC, and none came whole"},
            {"a modem that leaves one command in three unanswered",
             {"--port", lossy.path(), "--count", "7", "--interval", "0", "-t", "200", "1c"},
             1,
             "summary: 7 sent, 5 answered, 2 timed out"},
            {"connection refused",
             {"--port", refused, "00"},
             1,
             "a diag library call failed after %: cannot connect to " + refused +
                     ": Connection refused; nothing listens there"},
            {"connection refused, --mdm",
             {"--mdm", "--port", refused},
             0,
             "warning: cannot connect to " + refused + ": Connection refused"},
            {"connection timed out",
             {"--port", full.address(), "00"},
             1,
             "cannot connect to " + full.address() +
                     ": connection timed out: no answer within 3000 ms; check the address"},
            {"unknown host", {"--port", "tcp:nohost.invalid:12", "00"}, 1, "host nohost.invalid ("},
            {"no such device",
             {"--port", "/dev/ttyUSB99", "00"},
             1,
             "no such device: /dev/ttyUSB99 (unplugged, or renamed; --list-ports shows"},
            {"not a serial device: a character device",
             {"--port", "/dev/null", "00"},
             1,
             "not a serial device: /dev/null takes no terminal settings"},
            {"not a serial device: a directory",
             {"--port", s.dir, "00"},
             1,
             "not a serial device: " + s.dir + " is a directory"},
            {"not a serial device: a file",
             {"--port", file, "00"},
             1,
             "not a serial device: " + file + " is a regular file"},
            {"permission denied",
             {"--port", guarded.path, "00"},
             1,
             "permission denied on " + guarded.path +
                     (root ? ", which is for the group dialout: add yourself to it (sudo usermod "
                             "-aG dialout nobody, then log in again), or"
                           : ":") +
                     " give yourself the port with a udev rule",
             as_user},
            {"busy",
             {"--port", locked.path, "-t", "300", "00"},
             1,
             "the port " + locked.path + " was busy: " + holder_name},
            {"a malformed address", {"--port", "tcp:1.2.3", "00"}, 2, "no ':PORT' after the host"},
            {"a port out of range",
             {"--port", "tcp:[::1]:99999", "00"},
             2,
             "the port 99999 is out of range (1 to 65535)"},
            {"a bare IPv6 address",
             {"--mdm", "--port", "tcp:::1:5"},
             2,
             "an IPv6 address goes in brackets"},
            {"a malformed LIBDIAG_PORT",
             {"00"},
             2,
             "LIBDIAG_PORT: 'tcp:host' is not a network address",
             "LIBDIAG_PORT=tcp:host"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ChildOutcome r = run_program(TOLVEN_DIAG_TOOL, row.args, row.prefix, 30);
        EXPECT_EQ(row.exit_code, r.exit_code) << r.out << r.err;
        // '%' stands for the milliseconds.
        const std::string said = row.said.substr(0, row.said.find('%'));
        const std::string rest = row.said.find('%') == std::string::npos
                                         ? ""
                                         : row.said.substr(row.said.find('%') + 1);
        const std::string all = r.out + r.err;
        EXPECT_NE(std::string::npos, all.find(said)) << r.out << r.err;
        EXPECT_NE(std::string::npos, all.find(rest)) << r.out << r.err;
        EXPECT_EQ(std::string::npos, all.find("--verbose shows")) << r.out << r.err;
    }
}

// A fire-and-forget send returns 0 once its worker runs; what the worker then met is in the
// library's lines, and the tool says it.
TEST(FailuresSaid, AWorkerThatFails) {
    Scratch s;
    ASSERT_FALSE(s.dir.empty());
    const std::string broken = s.write("broken", "7 -> 1\n");
    const struct {
        const char* name;
        std::vector<std::string> args;
        std::string prefix;
        int exit_code;
        std::string said;
    } rows[] = {
            {"no such port",
             {"-n", "--port", "/nonexistent/tty", "1c"},
             "",
             1,
             "the worker's Diag_LSM_Init failed: no connection to the diag service; no such "
             "device: /nonexistent/tty"},
            {"a refused network port",
             {"-n", "-m", "callback", "--port", "tcp:127.0.0.1:1", "1c"},
             "",
             1,
             "the worker's Diag_LSM_Init failed"},
            {"a broken answers file",
             {"-n", "--json", "1c"},
             "LIBDIAG_SIM_ANSWERS='" + broken + "'",
             1,
             "\"outcome\":\"diag error\""},
            {"all well", {"-n", "1c"}, "", 0, "note: the worker got 1 answer: 3 bytes"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ChildOutcome r = run_program(TOLVEN_DIAG_TOOL, row.args, row.prefix, 30);
        EXPECT_EQ(row.exit_code, r.exit_code) << r.out << r.err;
        EXPECT_NE(std::string::npos, (r.out + r.err).find(row.said)) << r.out << r.err;
    }
}

}  // namespace
