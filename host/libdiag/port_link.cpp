// The link's I/O thread: it polls the port and an eventfd that wakes it; writes go out without
// blocking, the rest when the port can take them. What the port is (a device behind its lock, a
// TCP connection) is its LinkPort's business.
#include "port_link.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

#include "serial_device.h"
#include "tcp_port.h"

namespace diag_port {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr size_t kReadChunk = 16 * 1024;

std::string error_text(int err) {
    return strerror(err);
}

void wake(int fd) {
    uint64_t one = 1;
    ssize_t n = ::write(fd, &one, sizeof one);
    (void)n;  // the counter is already set if this fails
}

void drain(int fd) {
    uint64_t count;
    ssize_t n = ::read(fd, &count, sizeof count);
    (void)n;
}

int ms_until(Clock::duration left) {
    return static_cast<int>(std::chrono::ceil<milliseconds>(left).count());
}

// Bytes not written yet, and since when the port has taken none of them: bytes that it does not
// take within kWriteLimit are dropped, all of them.
class WriteQueue {
  public:
    bool empty() const { return bytes_.empty(); }

    void add(const std::vector<uint8_t>& bytes, Clock::time_point now) {
        if (bytes_.empty()) since_ = now;
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    }

    // Writes what |fd| takes without blocking; false when the port failed, error() says how.
    bool flush(int fd) {
        while (!bytes_.empty()) {
            ssize_t n = ::write(fd, bytes_.data(), bytes_.size());
            if (n > 0) {
                bytes_.erase(bytes_.begin(), bytes_.begin() + n);
                since_ = Clock::now();
            } else if (n < 0 && errno == EINTR) {
                continue;
            } else if (n < 0 && errno != EAGAIN) {
                error_ = errno;
                return false;
            } else {
                break;
            }
        }
        return true;
    }
    int error() const { return error_; }

    // The port's time to take something starts now: it has just become ours.
    void restart(Clock::time_point now) { since_ = now; }
    int ms_left(Clock::time_point now) const {
        return std::max(0, ms_until(since_ + kWriteLimit - now));
    }
    // Drops the bytes once the port has taken none for kWriteLimit; how many.
    size_t drop_stalled(Clock::time_point now) {
        if (bytes_.empty() || now - since_ < kWriteLimit) return 0;
        size_t n = bytes_.size();
        bytes_.clear();
        return n;
    }
    void clear() { bytes_.clear(); }

  private:
    std::vector<uint8_t> bytes_;
    Clock::time_point since_;
    int error_ = 0;
};

class FdLink : public Link {
  public:
    FdLink(std::unique_ptr<LinkPort> port, LinkSink* sink)
        : port_(std::move(port)),
          wake_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
          sink_(sink),
          holder_(port_->holder()),
          ready_(holder_.empty()) {
        if (!ready_) port_->wait(wake_);
        thread_ = std::thread([this] { run(); });
    }

    ~FdLink() override {
        int saved_errno = errno;
        stop_.store(true, std::memory_order_relaxed);
        wake(wake_);
        thread_.join();
        close_port();
        close(wake_);
        errno = saved_errno;
    }

    bool write(const std::vector<uint8_t>& bytes) override {
        std::lock_guard<std::mutex> lk(mu_);
        if (gone_.load(std::memory_order_relaxed)) return false;
        bool idle = out_.empty();
        out_.add(bytes, Clock::now());
        if (idle && ready_ && (!out_.flush(port_->fd()) || !out_.empty())) wake(wake_);
        return true;
    }

    bool alive() const override { return !gone_.load(std::memory_order_relaxed); }

    std::string waiting_for() const override {
        std::lock_guard<std::mutex> lk(mu_);
        return ready_ ? "" : holder_;
    }

    bool others_waiting() const override {
        std::lock_guard<std::mutex> lk(mu_);
        return port_ != nullptr && port_->others_waiting();
    }

    std::string caveat() const override {
        std::lock_guard<std::mutex> lk(mu_);
        return port_ != nullptr ? port_->caveat() : "";
    }

    void linger(Clock::time_point until) override {
        std::lock_guard<std::mutex> lk(mu_);
        lingering_ = true;
        linger_until_ = until;
        wake(wake_);
    }

    bool resume() override {
        std::lock_guard<std::mutex> lk(mu_);
        lingering_ = false;
        return !gone_.load(std::memory_order_relaxed);
    }

  private:
    // What the next poll waits for, and how long.
    struct Turn {
        std::string failed;  // the port failed a write
        bool linger_over = false;
        short events = 0;
        int timeout = -1;
    };

    void run() {
        std::vector<uint8_t> buf(kReadChunk);
        std::string why;
        bool ready;
        {
            std::lock_guard<std::mutex> lk(mu_);
            ready = ready_;
        }
        while (why.empty() && !stop_.load(std::memory_order_relaxed)) {
            Turn turn = next_turn(ready);
            if (!turn.failed.empty()) {
                why = turn.failed;
                break;
            }
            if (turn.linger_over) {
                linger_out();
                return;
            }
            pollfd fds[2] = {{ready ? port_->fd() : -1, turn.events, 0}, {wake_, POLLIN, 0}};
            if (poll(fds, 2, turn.timeout) < 0) {
                if (errno != EINTR) why = "poll: " + error_text(errno);
                continue;
            }
            if (fds[1].revents & POLLIN) drain(wake_);
            if (!ready) {
                ready = take_port(&why);
                continue;
            }
            if (fds[0].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) {
                why = read_port(buf, fds[0].revents);
            }
            if (size_t stalled = flush_or_drop()) sink_->on_stalled(stalled);
        }
        if (why.empty()) return;  // closed by its owner
        {
            std::lock_guard<std::mutex> lk(mu_);
            gone_.store(true, std::memory_order_relaxed);
            out_.clear();
        }
        sink_->on_gone(why);
    }

    // The linger's end, or the write limit of bytes waiting, whichever comes first.
    Turn next_turn(bool ready) {
        Turn turn;
        turn.events = ready ? POLLIN : 0;
        std::lock_guard<std::mutex> lk(mu_);
        if (out_.error() != 0) {
            turn.failed = "write: " + error_text(out_.error());
            return turn;
        }
        Clock::time_point now = Clock::now();
        if (lingering_) {
            if (linger_until_ <= now) {
                gone_.store(true, std::memory_order_relaxed);
                turn.linger_over = true;
                return turn;
            }
            turn.timeout = ms_until(linger_until_ - now);
        }
        if (ready && !out_.empty()) {
            turn.events |= POLLOUT;
            int write_left = out_.ms_left(now);
            turn.timeout = turn.timeout < 0 ? write_left : std::min(turn.timeout, write_left);
        }
        return turn;
    }

    // The port closes quietly, and the thread ends with its owner, which joins it: a thread
    // that ends unjoined would leak.
    void linger_out() {
        close_port();
        while (!stop_.load(std::memory_order_relaxed)) {
            pollfd wake_fd{wake_, POLLIN, 0};
            if (poll(&wake_fd, 1, -1) > 0) drain(wake_);
        }
    }

    // After a wake-up while another process kept the port: true once it is ours and ready, and
    // what waited meanwhile has gone out.
    bool take_port(std::string* why) {
        int error = 0;
        if (!port_->take(&error)) return false;
        {
            std::lock_guard<std::mutex> lk(mu_);
            ready_ = true;
            out_.restart(Clock::now());
        }
        if (error != 0) {
            *why = "after the lock: " + error_text(error);
            return false;
        }
        sink_->on_ready(port_->caveat());
        std::lock_guard<std::mutex> lk(mu_);
        if (!out_.empty()) out_.flush(port_->fd());  // a failure is reported at the loop top
        return true;
    }

    // Why the link ends, or "".
    std::string read_port(std::vector<uint8_t>& buf, short revents) {
        ssize_t n = read(port_->fd(), buf.data(), buf.size());
        if (n > 0) {
            sink_->on_bytes(buf.data(), static_cast<size_t>(n));
            return "";
        }
        if (n == 0) return port_->end_of_file();
        if (errno != EAGAIN && errno != EINTR) return "read: " + error_text(errno);
        return revents & (POLLHUP | POLLERR | POLLNVAL) ? "hung up" : "";
    }

    // Writes what the port takes; how many bytes were dropped for having waited too long.
    size_t flush_or_drop() {
        std::lock_guard<std::mutex> lk(mu_);
        if (out_.empty() || !out_.flush(port_->fd())) return 0;  // a failure: at the loop top
        return out_.drop_stalled(Clock::now());
    }

    void close_port() {
        std::unique_ptr<LinkPort> port;
        {
            std::lock_guard<std::mutex> lk(mu_);
            port = std::move(port_);
        }
        port.reset();  // a device may wait a moment to hand itself over
    }

    // Null once closed. Changed under mu_, and only on the I/O thread, or after it has ended.
    std::unique_ptr<LinkPort> port_;
    const int wake_;  // eventfd that interrupts the I/O thread's poll
    LinkSink* const sink_;
    const std::string holder_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> gone_{false};

    mutable std::mutex mu_;
    bool ready_;  // the port is ours
    bool lingering_ = false;
    Clock::time_point linger_until_;
    WriteQueue out_;

    std::thread thread_;  // last: starts once the rest is set up
};

}  // namespace

std::unique_ptr<Link> open_link(const std::string& address, long baud, LinkSink* sink,
                                std::string* error) {
    std::unique_ptr<LinkPort> port;
    if (is_tcp_address(address)) {
        port = connect_tcp(address, error);
    } else {
        port = SerialDevice::open(address, baud, error);
    }
    if (port == nullptr) return nullptr;
    return std::make_unique<FdLink>(std::move(port), sink);
}

}  // namespace diag_port
