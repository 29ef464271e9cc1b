// Round trip of one short command (version request 00, a 55-byte reply) through libtolven_diag.so
// and the host libdiag's port modem to the pty modem on a thread of this program, in both
// transports, against the floor: the same request frame written and one reply frame read on the
// port by this program itself. Over the pty, and over TCP through a ser2net started here. Library
// and floor samples alternate in blocks, so that load on the machine hits both alike, and the
// library keeps its port open within a block as a caller's back-to-back commands have it; the
// median and p99 of each, and the ratio of the medians, are reported.

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "framing.h"
#include "libdiag_sim.h"
#include "pty_modem.h"
#include "ser2net.h"
#include "tolven_diag.h"
#include "tolven_utils_host.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The library's wait timer ticks on for up to 100 ms after a command: spaced samples are this far
// apart.
constexpr milliseconds kSpacing{150};
constexpr int kSpacedSamples = 60;
// Library and floor samples take turns this many at a time; between the blocks the library lets
// go of the port that it keeps open after a command (LIBDIAG_LINGER_MS).
constexpr int kBlock = 10;
constexpr int kBackToBackSamples = 200;
constexpr int kTimeoutMs = 1000;
constexpr size_t kVersionReplySize = 55;
constexpr int kConnectTries = 6;

using SendFn = int (*)(const uint8_t*, int, int, uint8_t*, int*);

double seconds_since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// ---- The floor: frames on the raw port ----

class ReplySink final : public diag_wire::FrameSink {
  public:
    void on_frame(const uint8_t* payload, size_t n) override {
        if (!got) reply.assign(payload, payload + n);
        got = true;
    }
    void on_drop(const char*) override {}

    diag_wire::Bytes reply;
    bool got = false;
};

// A pty slave opened raw, or a TCP connection to ser2net: writes the request frame and reads
// until one reply frame decodes.
class RawPort {
  public:
    explicit RawPort(int fd) : fd_(fd) {
        auto framing = diag_wire::open_framing(diag_wire::FramingKind::kHdlc, nullptr);
        const uint8_t request = 0x00;
        framing->encode(&request, 1, &frame_);
    }
    ~RawPort() { close(fd_); }
    RawPort(const RawPort&) = delete;
    RawPort& operator=(const RawPort&) = delete;

    static std::unique_ptr<RawPort> open_pty(const std::string& path, std::string* error) {
        int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        termios t;
        // The port's lock, as the library takes it: the port is this program's alone.
        if (fd < 0 || flock(fd, LOCK_EX) != 0 || tcgetattr(fd, &t) != 0) {
            return failed(fd, "open " + path, error);
        }
        cfmakeraw(&t);
        if (tcsetattr(fd, TCSANOW, &t) != 0 || tcflush(fd, TCIOFLUSH) != 0) {
            return failed(fd, "raw " + path, error);
        }
        return std::make_unique<RawPort>(fd);
    }

    static std::unique_ptr<RawPort> connect_tcp(int port, std::string* error) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int one = 1;
        if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0 ||
            fcntl(fd, F_SETFL, O_NONBLOCK) != 0) {
            return failed(fd, "connect to port " + std::to_string(port), error);
        }
        return std::make_unique<RawPort>(fd);
    }

    // False with the reason in |*error|.
    bool round_trip(std::string* error) {
        for (size_t off = 0; off < frame_.size();) {
            ssize_t n = write(fd_, frame_.data() + off, frame_.size() - off);
            if (n < 0 && errno != EINTR && errno != EAGAIN) return fail("write", error);
            if (n > 0) off += static_cast<size_t>(n);
        }
        ReplySink sink;
        auto framing = diag_wire::open_framing(diag_wire::FramingKind::kHdlc, &sink);
        Clock::time_point deadline = Clock::now() + milliseconds(kTimeoutMs);
        uint8_t buf[4096];
        while (!sink.got) {
            auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
            pollfd p{fd_, POLLIN, 0};
            if (left <= 0 || poll(&p, 1, static_cast<int>(left)) == 0) {
                *error = "floor: no reply frame within " + std::to_string(kTimeoutMs) + " ms";
                return false;
            }
            ssize_t n = read(fd_, buf, sizeof buf);
            if (n == 0) {
                *error = "floor: end of file";
                return false;
            }
            if (n < 0 && errno != EINTR && errno != EAGAIN) return fail("read", error);
            if (n > 0) framing->feed(buf, static_cast<size_t>(n));
        }
        if (sink.reply.size() != kVersionReplySize || sink.reply[0] != 0x00) {
            *error = "floor: wrong reply";
            return false;
        }
        return true;
    }

  private:
    static std::unique_ptr<RawPort> failed(int fd, const std::string& what, std::string* error) {
        *error = "floor: " + what + ": " + strerror(errno);
        if (fd >= 0) close(fd);
        return nullptr;
    }
    bool fail(const char* what, std::string* error) {
        *error = std::string("floor: ") + what + ": " + strerror(errno);
        return false;
    }

    const int fd_;
    diag_wire::Bytes frame_;
};

// ---- The cases ----

// One modem for the whole run, and one ser2net on it once a TCP case asks.
struct Rig {
    std::unique_ptr<pty_modem::Modem> modem;
    std::string modem_error;
    std::unique_ptr<Ser2net> ser2net;
    std::string ser2net_error;
    bool ser2net_tried = false;
};
Rig* g_rig = nullptr;

Rig& rig() {
    if (g_rig == nullptr) {
        g_rig = new Rig;
        g_rig->modem = pty_modem::Modem::open({}, &g_rig->modem_error);
        if (g_rig->modem != nullptr) g_rig->modem->start();
    }
    return *g_rig;
}

double percentile(const std::vector<double>& v, double p) {
    size_t rank = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(v.size())));
    return v[std::min(v.size(), std::max<size_t>(rank, 1)) - 1];
}

double median(const std::vector<double>& v) {
    size_t n = v.size();
    return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2.0;
}

struct Case {
    bool tcp;
    SendFn send;
    bool spaced;
};

// Over TCP the floor connects for each sample, untimed, and warms the path up with one round
// trip: ser2net shares its device among the connections of a port, so a connection held across
// the library's samples would spare them ser2net's opening of the device (or, with one
// connection allowed, have them refused).
class Floor {
  public:
    Floor(bool tcp, int port) : tcp_(tcp), port_(port) {}

    // |n| round trips, each timed after |gap|, into |us|.
    bool block(int n, const std::string& pty, milliseconds gap, std::vector<double>* us,
               std::string* error) {
        if (!tcp_ && (raw_ = RawPort::open_pty(pty, error)) == nullptr) return false;
        for (int i = 0; i < n; ++i) {
            double sample_us = 0;
            if (!sample(gap, &sample_us, error)) return false;
            us->push_back(sample_us);
        }
        raw_.reset();
        return true;
    }

  private:
    // One round trip, timed after |gap|. ser2net now and then resets a connection that came
    // while it was closing the library's: such a try is dropped and made again a while later.
    bool sample(milliseconds gap, double* us, std::string* error) {
        for (int tries = 0; tries < kConnectTries; ++tries) {
            std::this_thread::sleep_for(milliseconds(tries == 0 ? 0 : 10 << tries));
            if (tcp_) {
                raw_ = RawPort::connect_tcp(port_, error);
                if (raw_ == nullptr || !raw_->round_trip(error)) continue;
            }
            std::this_thread::sleep_for(gap);
            Clock::time_point t0 = Clock::now();
            bool ok = raw_->round_trip(error);
            *us = seconds_since(t0) * 1e6;
            if (tcp_) raw_.reset();
            if (ok || !tcp_) return ok;
        }
        return false;
    }

    const bool tcp_;
    const int port_;
    std::unique_ptr<RawPort> raw_;
};

void BM_SerialRoundTrip(benchmark::State& state, Case c) {
    Rig& r = rig();
    if (r.modem == nullptr) {
        state.SkipWithError(r.modem_error.c_str());
        return;
    }
    if (c.tcp && !r.ser2net_tried) {
        r.ser2net_tried = true;
        r.ser2net = Ser2net::start(r.modem->path(), &r.ser2net_error);
    }
    if (c.tcp && r.ser2net == nullptr) {
        state.SkipWithError(r.ser2net_error.c_str());
        return;
    }
    const int port = c.tcp ? r.ser2net->port() : 0;
    const std::string address = c.tcp ? "tcp:127.0.0.1:" + std::to_string(port) : r.modem->path();
    setenv("LIBDIAG_PORT", address.c_str(), 1);
    libdiag_sim::reset();
    tolven_utils_host_set_logcat_levels(0);
    tolven_utils_host_set_shell_levels(0);

    const uint8_t request[] = {0x00};
    std::vector<uint8_t> reply(16384);
    auto send = [&] {
        int len = static_cast<int>(reply.size());
        int rc = c.send(request, 1, kTimeoutMs, reply.data(), &len);
        return rc == 0 && len == static_cast<int>(kVersionReplySize);
    };
    Floor floor(c.tcp, port);
    std::string error;
    std::vector<double> lib_us, floor_us;
    // Untimed first rounds: lazy set-up on either side is not what is measured.
    if (!send()) {
        error = "library: wrong result or reply";
    } else {
        libdiag_sim::close_idle_port();
        if (floor.block(1, r.modem->path(), milliseconds(0), &floor_us, &error)) floor_us.clear();
    }
    const milliseconds gap = c.spaced ? kSpacing : milliseconds(0);
    if (!error.empty()) state.SkipWithError(error.c_str());
    int in_block = 0;
    for (auto _ : state) {
        std::this_thread::sleep_for(gap);
        Clock::time_point t0 = Clock::now();
        bool sent = send();
        double lib_s = seconds_since(t0);
        state.SetIterationTime(lib_s);
        lib_us.push_back(lib_s * 1e6);
        if (!sent) error = "library: wrong result or reply";
        if (error.empty() && ++in_block == kBlock) {
            in_block = 0;
            libdiag_sim::close_idle_port();
            floor.block(kBlock, r.modem->path(), gap, &floor_us, &error);
        }
        if (!error.empty()) {
            state.SkipWithError(error.c_str());
            break;
        }
    }
    // The last wait timer ends before the next case.
    std::this_thread::sleep_for(kSpacing);
    unsetenv("LIBDIAG_PORT");
    libdiag_sim::reset();
    if (!error.empty()) return;
    std::sort(lib_us.begin(), lib_us.end());
    std::sort(floor_us.begin(), floor_us.end());
    state.counters["lib_median_us"] = median(lib_us);
    state.counters["lib_p99_us"] = percentile(lib_us, 99.0);
    state.counters["floor_median_us"] = median(floor_us);
    state.counters["floor_p99_us"] = percentile(floor_us, 99.0);
    state.counters["ratio"] = median(lib_us) / median(floor_us);
}

void register_cases() {
    for (bool tcp : {false, true}) {
        for (auto [mode, fn] :
             {std::make_pair("dci", tolven_diag_cmd_send_with_result_by_dci_mode),
              std::make_pair("callback", tolven_diag_cmd_send_with_result_by_callback_mode)}) {
            for (bool spaced : {true, false}) {
                std::string name = std::string("BM_SerialRoundTrip/") + (tcp ? "tcp/" : "pty/") +
                                   mode + (spaced ? "/spaced" : "/back_to_back");
                benchmark::RegisterBenchmark(name.c_str(), BM_SerialRoundTrip, Case{tcp, fn, spaced})
                        ->UseManualTime()
                        ->Iterations(spaced ? kSpacedSamples : kBackToBackSamples)
                        ->Unit(benchmark::kMicrosecond);
            }
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    register_cases();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (g_rig != nullptr) {
        g_rig->ser2net.reset();  // before the modem: ser2net holds its pty open
        g_rig->modem.reset();
        delete g_rig;
    }
    return 0;
}
