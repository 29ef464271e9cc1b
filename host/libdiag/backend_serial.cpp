// The modem on a serial diag port (LIBDIAG_PORT): a USB modem module or a phone in diagnostic
// mode shows one as /dev/ttyUSB* or /dev/ttyACM*. Requests go out as HDLC frames; one thread
// reads the port, decodes frames and tells replies from the modem's own traffic.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "hdlc.h"
#include "state.h"

namespace libdiag_sim {
namespace {

// A write that cannot drain in this time (the modem stopped reading) is given up.
constexpr milliseconds kWriteLimit{1000};
constexpr size_t kReadChunk = 16 * 1024;

struct Baud {
    long rate;
    speed_t code;
};
constexpr Baud kBauds[] = {
        {9600, B9600},       {19200, B19200},     {38400, B38400},     {57600, B57600},
        {115200, B115200},   {230400, B230400},   {460800, B460800},   {921600, B921600},
        {1000000, B1000000}, {1500000, B1500000}, {2000000, B2000000}, {3000000, B3000000},
        {4000000, B4000000},
};

speed_t baud_from_env() {
    const char* v = getenv("LIBDIAG_BAUD");
    if (v == nullptr || *v == '\0') return B115200;
    long long n = 0;
    if (parse_number(v, &n)) {
        for (const Baud& b : kBauds) {
            if (b.rate == n) return b.code;
        }
    }
    fprintf(stderr, "libdiag: ignoring LIBDIAG_BAUD=%s (want a standard rate, 9600..4000000)\n", v);
    return B115200;
}

// Raw 8N1, no flow control, no modem-control lines: without CLOCAL an open or a read can wait
// for a carrier that a diag port never raises.
bool make_raw(int fd, speed_t speed) {
    termios t;
    if (tcgetattr(fd, &t) != 0) return false;
    cfmakeraw(&t);
    t.c_cflag &= ~(CSTOPB | CRTSCTS | PARENB);
    t.c_cflag |= CLOCAL | CREAD | CS8;
    t.c_cc[VMIN] = 1;
    t.c_cc[VTIME] = 0;
    cfsetispeed(&t, speed);
    cfsetospeed(&t, speed);
    return tcsetattr(fd, TCSANOW, &t) == 0;
}

class PortModem : public Modem {
  public:
    PortModem(std::string path, int fd, int wake) : path_(std::move(path)), fd_(fd), wake_(wake) {
        thread_ = std::thread([this] { run(); });
    }

    ~PortModem() override {
        int saved_errno = errno;
        stop_.store(true, std::memory_order_relaxed);
        wake();
        thread_.join();
        // Exclusive use lasts as long as the terminal stays open, and another process (the
        // pty modem itself) may hold it open after us.
        ioctl(fd_, TIOCNXCL);
        close(fd_);
        close(wake_);
        errno = saved_errno;
    }

    bool send(int, const Bytes& request, const Delivery& reply_to) override {
        if (!alive()) return false;
        State& s = state();
        // The leading flag ends whatever partial frame the modem holds from before.
        Bytes frame{hdlc::kFlag};
        hdlc::encode(request.data(), request.size(), &frame);
        s.pending.add(request, reply_to, Clock::now());
        if (!write(frame)) {
            s.pending.pop_newest();
            return false;
        }
        s.trace("port %s: sent command 0x%02x, %zu bytes", path_.c_str(), request[0],
                request.size());
        return true;
    }

    bool is_port() const override { return true; }
    bool alive() const override { return !gone_.load(std::memory_order_relaxed); }
    const std::string& path() const override { return path_; }

  private:
    void wake() {
        uint64_t one = 1;
        ssize_t n = ::write(wake_, &one, sizeof one);
        (void)n;  // the counter is already set if this fails
    }

    // Writes what it can without blocking; the I/O thread writes the rest when the port can
    // take it.
    bool write(const Bytes& frame) {
        std::lock_guard<std::mutex> lk(out_mu_);
        if (gone_.load(std::memory_order_relaxed)) return false;
        bool idle = out_.empty();
        if (idle) out_since_ = Clock::now();
        out_.insert(out_.end(), frame.begin(), frame.end());
        if (idle && (!flush_locked() || !out_.empty())) wake();
        return true;
    }

    // False when the port failed; |write_error_| says how.
    bool flush_locked() {
        while (!out_.empty()) {
            ssize_t n = ::write(fd_, out_.data(), out_.size());
            if (n > 0) {
                out_.erase(out_.begin(), out_.begin() + n);
                out_since_ = Clock::now();
            } else if (n < 0 && errno == EINTR) {
                continue;
            } else if (n < 0 && errno != EAGAIN) {
                write_error_ = errno;
                return false;
            } else {
                break;
            }
        }
        return true;
    }

    void run() {
        std::vector<uint8_t> buf(kReadChunk);
        std::string why;
        while (why.empty() && !stop_.load(std::memory_order_relaxed)) {
            int timeout = -1;
            short events = POLLIN;
            {
                std::lock_guard<std::mutex> lk(out_mu_);
                if (write_error_ != 0) {
                    why = std::string("write: ") + strerror(write_error_);
                    break;
                }
                if (!out_.empty()) {
                    events |= POLLOUT;
                    auto left = out_since_ + kWriteLimit - Clock::now();
                    timeout = static_cast<int>(
                            std::max<long long>(0, std::chrono::ceil<milliseconds>(left).count()));
                }
            }
            pollfd fds[2] = {{fd_, events, 0}, {wake_, POLLIN, 0}};
            if (poll(fds, 2, timeout) < 0) {
                if (errno != EINTR) why = std::string("poll: ") + strerror(errno);
                continue;
            }
            if (fds[1].revents & POLLIN) {
                uint64_t count;
                ssize_t n = read(wake_, &count, sizeof count);
                (void)n;
            }
            if (fds[0].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) {
                ssize_t n = read(fd_, buf.data(), buf.size());
                if (n > 0) {
                    decode(buf.data(), static_cast<size_t>(n));
                } else if (n == 0) {
                    why = "end of file";
                } else if (errno != EAGAIN && errno != EINTR) {
                    why = std::string("read: ") + strerror(errno);
                } else if (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) {
                    why = "hung up";
                }
            }
            size_t stalled = 0;
            {
                std::lock_guard<std::mutex> lk(out_mu_);
                if (!out_.empty() && !flush_locked()) continue;  // reported at the loop top
                if (!out_.empty() && Clock::now() - out_since_ >= kWriteLimit) {
                    stalled = out_.size();
                    out_.clear();
                }
            }
            if (stalled > 0) state().port_stalled(path_, stalled);
        }
        if (why.empty()) return;  // closed by the library
        {
            std::lock_guard<std::mutex> lk(out_mu_);
            gone_.store(true, std::memory_order_relaxed);
            out_.clear();
        }
        state().port_gone(path_, why);
    }

    void decode(const uint8_t* data, size_t n) {
        decoder_.feed(
                data, n, [](const uint8_t* f, size_t len) { state().port_frame(f, len); },
                [](hdlc::Event e) { state().port_dropped(hdlc::event_name(e)); });
    }

    const std::string path_;
    const int fd_;
    const int wake_;  // eventfd that interrupts the I/O thread's poll
    std::atomic<bool> stop_{false};
    std::atomic<bool> gone_{false};
    hdlc::Decoder decoder_;  // I/O thread only

    std::mutex out_mu_;  // after State::mu
    Bytes out_;          // bytes not written yet
    Clock::time_point out_since_;
    int write_error_ = 0;

    std::thread thread_;  // last: starts once the rest is set up
};

}  // namespace

std::unique_ptr<Modem> open_port_modem(const std::string& path, std::string* error) {
    int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        *error = strerror(errno);
        return nullptr;
    }
    speed_t speed = baud_from_env();
    int wake = -1;
    if (ioctl(fd, TIOCEXCL) != 0 || !make_raw(fd, speed) || tcflush(fd, TCIOFLUSH) != 0 ||
        (wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) < 0) {
        *error = strerror(errno);
        close(fd);
        return nullptr;
    }
    return std::make_unique<PortModem>(path, fd, wake);
}

void State::port_frame(const uint8_t* frame, size_t n) {
    std::lock_guard<std::mutex> lk(mu);
    ++port_stats.frames;
    Clock::time_point now = Clock::now();
    Delivery to;
    auto alive = [this](const Delivery& d) { return wanted(d); };
    switch (pending.match(frame, n, alive, now, &to)) {
        case reply_match::Outcome::kReply:
            ++port_stats.replies;
            trace("port: reply 0x%02x, %zu bytes", frame[0], n);
            to.bytes.assign(frame, frame + n);
            queue.push(std::move(to), now);
            return;
        case reply_match::Outcome::kLate:
            ++port_stats.late;
            trace("port: late reply 0x%02x, %zu bytes, dropped: its caller has gone", frame[0], n);
            return;
        case reply_match::Outcome::kUnsolicited:
            break;
    }
    ++port_stats.unsolicited;
    bool event = frame[0] == reply_match::kEventReport;
    bool handled = false;
    for (const auto& [id, client] : clients) {
        handled = handled || (event ? client.event_fn : client.log_fn) != nullptr;
    }
    if (connected && handled) {
        trace("port: unsolicited 0x%02x, %zu bytes, to the %s stream", frame[0], n,
              event ? "event" : "log");
        stream(Bytes(frame, frame + n), !event);
    } else {
        trace("port: unsolicited 0x%02x, %zu bytes, dropped", frame[0], n);
    }
}

void State::port_dropped(const char* why) {
    std::lock_guard<std::mutex> lk(mu);
    ++port_stats.dropped;
    trace("port: frame dropped (%s), %llu so far", why,
          static_cast<unsigned long long>(port_stats.dropped));
}

void State::port_gone(const std::string& path, const std::string& why) {
    std::lock_guard<std::mutex> lk(mu);
    ++port_stats.vanished;
    fprintf(stderr, "libdiag: diag port %s: %s; closed\n", path.c_str(), why.c_str());
}

void State::port_stalled(const std::string& path, size_t bytes) {
    std::lock_guard<std::mutex> lk(mu);
    ++port_stats.stalls;
    fprintf(stderr, "libdiag: diag port %s: no write for %lld ms, %zu bytes dropped\n",
            path.c_str(), static_cast<long long>(kWriteLimit.count()), bytes);
}

}  // namespace libdiag_sim
