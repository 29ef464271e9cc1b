#include "pty_modem.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <random>

#include "hdlc.h"
#include "nhdlc.h"

namespace pty_modem {
namespace {

namespace hdlc = diag_wire::hdlc;
namespace nhdlc = diag_wire::nhdlc;
using Clock = std::chrono::steady_clock;
using diag_wire::FramingKind;

// Unsolicited frames wait behind at most this many queued ones; more are not made.
constexpr size_t kMaxQueued = 256;

struct Chunk {
    Clock::time_point due;
    Bytes bytes;
    size_t off = 0;
    bool reply = false;
};

}  // namespace

struct Modem::Impl final : diag_wire::FrameSink {
    int master = -1;
    int slave = -1;  // held open so that the master never sees a hang-up between clients
    int wake = -1;
    Options options;
    std::unique_ptr<diag_wire::AnswerTable> table = diag_wire::make_builtin_table();
    std::unique_ptr<diag_wire::Framing> framing;
    diag_wire::Traffic traffic;
    std::deque<Chunk> out;
    Clock::time_point last_reply_due;
    uint64_t reply_count = 0;
    bool hung_up = false;
    std::minstd_rand noise{42};
    std::atomic<bool> stop{false};
    mutable std::mutex stats_mu;
    Stats stats;

    void configure(Options o) {
        options = std::move(o);
        framing = diag_wire::open_framing(options.framing, this);
        traffic = diag_wire::Traffic(options.subscriptions);
    }

    Answer answer(const Bytes& req) {
        std::optional<Answer> a = diag_wire::find_override(options.answers, req);
        return a ? *a : table->answer(0, req);
    }

    Bytes frame(const Bytes& payload) {
        Bytes f;
        framing->encode(payload.data(), payload.size(), &f);
        return f;
    }

    // A frame the peer must drop: a bad CRC, or no flag after the payload.
    Bytes broken(const Bytes& payload) {
        Bytes f;
        if (options.framing == FramingKind::kHdlc) {
            f.push_back(hdlc::kFlag);
            hdlc::encode(payload.data(), payload.size(),
                         static_cast<uint16_t>(hdlc::crc16(payload.data(), payload.size()) ^ 0x5A5A),
                         &f);
        } else {
            f = frame(payload);
            f.back() = 0x00;
        }
        return f;
    }

    Bytes noise_frame(size_t n) {
        Bytes bytes(std::max<size_t>(n, 3));
        for (uint8_t& b : bytes) b = static_cast<uint8_t>(noise());
        if (options.framing == FramingKind::kHdlc) return broken(bytes);
        // without a flag nothing of it is a frame
        for (uint8_t& b : bytes) b = b == nhdlc::kFlag ? 0x00 : b;
        return bytes;
    }

    void on_drop(const char*) override {
        std::lock_guard<std::mutex> lk(stats_mu);
        ++stats.bad_requests;
    }

    // Replies go out in order, each no earlier than the one before.
    void on_frame(const uint8_t* data, size_t n) override {
        uint64_t nth;
        {
            std::lock_guard<std::mutex> lk(stats_mu);
            nth = ++stats.requests;
        }
        if (options.unanswered_every > 0 && nth % options.unanswered_every == 0) return;
        Clock::time_point now = Clock::now();
        Clock::time_point due = std::max(now + options.reply_delay, last_reply_due);
        for (const diag_wire::Response& r : answer(Bytes(data, data + n)).responses) {
            due += r.delay;
            for (int i = 0; i < options.logs_before_reply; ++i) {
                queue_unsolicited(traffic.next_log(), due, true);
            }
            Chunk c{due, {}, 0, true};
            if (options.garbage) {
                c.bytes = noise_frame(r.bytes.size());
            } else {
                if (options.corrupt_every > 0 && ++reply_count % options.corrupt_every == 0) {
                    c.bytes = broken(r.bytes);
                }
                Bytes f = frame(r.bytes);
                c.bytes.insert(c.bytes.end(), f.begin(), f.end());
            }
            out.push_back(std::move(c));
            last_reply_due = due;
        }
    }

    // Between frames: at the end for those before a reply, else ahead of replies not due yet.
    void queue_unsolicited(const Bytes& payload, Clock::time_point due, bool before_reply) {
        if (!before_reply && out.size() >= kMaxQueued) return;
        Chunk c{due, frame(payload), 0, false};
        if (before_reply) {
            out.push_back(std::move(c));
        } else {
            auto at = std::find_if(out.begin(), out.end(),
                                   [&](const Chunk& q) { return q.off == 0 && q.due > due; });
            out.insert(at, std::move(c));
        }
        std::lock_guard<std::mutex> lk(stats_mu);
        ++stats.unsolicited;
    }

    // False when the pty failed or the modem hung up.
    bool write_due(Clock::time_point now) {
        while (!out.empty() && out.front().due <= now) {
            Chunk& c = out.front();
            bool one = c.reply && options.byte_gap.count() > 0;
            size_t len = one ? 1 : c.bytes.size() - c.off;
            if (c.reply && options.hang_up_mid_reply) len = std::max<size_t>(c.bytes.size() / 2, 1);
            ssize_t n = ::write(master, c.bytes.data() + c.off, len);
            if (n < 0) return errno == EAGAIN || errno == EINTR;
            c.off += static_cast<size_t>(n);
            if (c.reply && options.hang_up_mid_reply) {
                hung_up = true;
                return false;
            }
            if (c.off < c.bytes.size()) {
                if (one) c.due = now + options.byte_gap;
                return true;
            }
            if (c.reply) {
                std::lock_guard<std::mutex> lk(stats_mu);
                ++stats.replies;
            }
            out.pop_front();
        }
        return true;
    }

    void serve() {
        Clock::time_point start = Clock::now();
        Clock::time_point next_log = start + options.log_every;
        Clock::time_point next_event = start + options.event_every;
        std::vector<uint8_t> buf(16 * 1024);
        while (!stop.load(std::memory_order_relaxed)) {
            Clock::time_point now = Clock::now();
            Clock::time_point wake_at = Clock::time_point::max();
            if (options.log_every.count() > 0) wake_at = std::min(wake_at, next_log);
            if (options.event_every.count() > 0) wake_at = std::min(wake_at, next_event);
            short events = POLLIN;
            if (!out.empty()) {
                // Due bytes wait for the pty to take them, not for a clock.
                if (out.front().due <= now) {
                    events |= POLLOUT;
                } else {
                    wake_at = std::min(wake_at, out.front().due);
                }
            }
            timespec ts{};
            timespec* timeout = nullptr;  // none: wait for input
            if (wake_at != Clock::time_point::max()) {
                auto left = std::max(Clock::duration::zero(), wake_at - now);
                auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
                ts.tv_sec = static_cast<time_t>(ns / 1000000000);
                ts.tv_nsec = static_cast<long>(ns % 1000000000);
                timeout = &ts;
            }
            pollfd fds[2] = {{master, events, 0}, {wake, POLLIN, 0}};
            if (ppoll(fds, 2, timeout, nullptr) < 0 && errno != EINTR) return;
            if (fds[1].revents & POLLIN) {
                uint64_t count;
                ssize_t n = read(wake, &count, sizeof count);
                (void)n;
            }
            if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
                ssize_t n = read(master, buf.data(), buf.size());
                if (n < 0 && errno != EAGAIN && errno != EINTR) return;
                if (n > 0) framing->feed(buf.data(), static_cast<size_t>(n));
            }
            now = Clock::now();
            if (options.log_every.count() > 0 && now >= next_log) {
                queue_unsolicited(traffic.next_log(), now, false);
                next_log = now + options.log_every;
            }
            if (options.event_every.count() > 0 && now >= next_event) {
                queue_unsolicited(traffic.next_event(), now, false);
                next_event = now + options.event_every;
            }
            if (!write_due(now)) {
                if (hung_up) close_fds();
                return;
            }
        }
    }

    void close_fds() {
        for (int* fd : {&master, &slave}) {
            if (*fd >= 0) close(*fd);
            *fd = -1;
        }
    }
};

std::unique_ptr<Modem> Modem::open(Options options, std::string* error) {
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
        *error = std::string("cannot open a pseudo-terminal: ") + strerror(errno);
        if (master >= 0) close(master);
        return nullptr;
    }
    return serve_master(master, std::move(options), error);
}

std::unique_ptr<Modem> Modem::adopt(int master, Options options, std::string* error) {
    int own = fcntl(master, F_DUPFD_CLOEXEC, 0);
    if (own < 0) {
        *error = std::string("cannot take the pseudo-terminal: ") + strerror(errno);
        return nullptr;
    }
    return serve_master(own, std::move(options), error);
}

std::unique_ptr<Modem> Modem::serve_master(int master, Options options, std::string* error) {
    char name[128];
    int slave = -1, wake = -1;
    termios t;
    bool ok = ptsname_r(master, name, sizeof name) == 0 &&
              (slave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC)) >= 0 &&
              tcgetattr(slave, &t) == 0;
    if (ok) {
        // Raw from the start: a cooked pty would echo frames back and hold bytes for a newline.
        cfmakeraw(&t);
        ok = tcsetattr(slave, TCSANOW, &t) == 0 &&
             fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK) == 0 &&
             (wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) >= 0;
    }
    if (!ok) {
        *error = std::string("cannot open a pseudo-terminal: ") + strerror(errno);
        for (int fd : {master, slave, wake}) {
            if (fd >= 0) close(fd);
        }
        return nullptr;
    }
    return std::unique_ptr<Modem>(new Modem(name, master, slave, wake, std::move(options)));
}

Modem::Modem(std::string path, int master, int slave, int wake, Options options)
    : path_(std::move(path)), impl_(new Impl) {
    impl_->master = master;
    impl_->slave = slave;
    impl_->wake = wake;
    impl_->configure(std::move(options));
}

Modem::~Modem() {
    close_pty();
}

void Modem::serve() {
    impl_->serve();
}

void Modem::start() {
    thread_ = std::thread([this] { impl_->serve(); });
}

void Modem::stop() {
    impl_->stop.store(true, std::memory_order_relaxed);
    uint64_t one = 1;
    ssize_t n = write(impl_->wake, &one, sizeof one);
    (void)n;
}

void Modem::close_pty() {
    if (impl_->wake >= 0) stop();
    if (thread_.joinable()) thread_.join();
    impl_->close_fds();
    if (impl_->wake >= 0) close(impl_->wake);
    impl_->wake = -1;
}

Stats Modem::stats() const {
    std::lock_guard<std::mutex> lk(impl_->stats_mu);
    return impl_->stats;
}

}  // namespace pty_modem
