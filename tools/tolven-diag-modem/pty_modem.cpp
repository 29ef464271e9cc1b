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

namespace pty_modem {
namespace {

using Clock = std::chrono::steady_clock;

// Unsolicited frames wait behind at most this many queued ones; more are not made.
constexpr size_t kMaxQueued = 256;

struct Chunk {
    Clock::time_point due;
    Bytes bytes;
    size_t off = 0;
    bool reply = false;
};

void put_u16(Bytes& b, uint16_t v) {
    b.push_back(v & 0xFF);
    b.push_back(v >> 8);
}

}  // namespace

struct Modem::Impl {
    int master = -1;
    int slave = -1;  // held open so that the master never sees a hang-up between clients
    int wake = -1;
    Options options;
    std::unique_ptr<libdiag_sim::Backend> table = libdiag_sim::make_simulated_modem();
    hdlc::Decoder decoder;
    std::deque<Chunk> out;
    Clock::time_point last_reply_due;
    uint64_t reply_count = 0;
    std::minstd_rand noise{42};
    std::atomic<bool> stop{false};
    mutable std::mutex stats_mu;
    Stats stats;

    Answer answer(const Bytes& req) {
        const Answer* a = libdiag_sim::find_answer(options.answers, req);
        return a != nullptr ? *a : table->answer(0, req);
    }

    void bad_frame(const Bytes& payload, Bytes* frame) {
        hdlc::encode(payload.data(), payload.size(),
                     static_cast<uint16_t>(hdlc::crc16(payload.data(), payload.size()) ^ 0x5A5A),
                     frame);
    }

    // Replies go out in order, each no earlier than the one before.
    void on_request(const uint8_t* data, size_t n) {
        {
            std::lock_guard<std::mutex> lk(stats_mu);
            ++stats.requests;
        }
        Clock::time_point now = Clock::now();
        Clock::time_point due = std::max(now + options.reply_delay, last_reply_due);
        for (const libdiag_sim::Response& r : answer(Bytes(data, data + n)).responses) {
            due += r.delay;
            Chunk c{due, {}, 0, true};
            if (options.garbage) {
                Bytes noise(std::max<size_t>(r.bytes.size(), 3));
                for (uint8_t& b : noise) b = static_cast<uint8_t>(this->noise());
                bad_frame(noise, &c.bytes);
            } else {
                if (options.corrupt_every > 0 && ++reply_count % options.corrupt_every == 0) {
                    bad_frame(r.bytes, &c.bytes);
                }
                hdlc::encode(r.bytes.data(), r.bytes.size(), &c.bytes);
            }
            out.push_back(std::move(c));
            last_reply_due = due;
        }
    }

    // Between frames, ahead of replies that are not due yet.
    void unsolicited(Bytes payload, Clock::time_point now) {
        if (out.size() >= kMaxQueued) return;
        Chunk c{now, {}, 0, false};
        hdlc::encode(payload.data(), payload.size(), &c.bytes);
        auto at = std::find_if(out.begin(), out.end(),
                               [&](const Chunk& q) { return q.off == 0 && q.due > now; });
        out.insert(at, std::move(c));
        std::lock_guard<std::mutex> lk(stats_mu);
        ++stats.unsolicited;
    }

    Bytes log_packet(uint64_t seq) {
        Bytes p{0x10, 0x00};
        put_u16(p, 16);  // length, twice as the log header has it
        put_u16(p, 16);
        put_u16(p, 0x1234);  // log code
        for (int i = 0; i < 8; ++i) p.push_back(static_cast<uint8_t>(seq >> (8 * i)));
        p.insert(p.end(), {0x7E, 0x7D, 0x01, 0x02});  // bytes that need escaping
        return p;
    }

    Bytes event_report(uint64_t seq) {
        Bytes p{0x60};
        put_u16(p, 6);
        put_u16(p, 0x0102);  // event id
        for (int i = 0; i < 4; ++i) p.push_back(static_cast<uint8_t>(seq >> (8 * i)));
        return p;
    }

    // False when the pty failed.
    bool write_due(Clock::time_point now) {
        while (!out.empty() && out.front().due <= now) {
            Chunk& c = out.front();
            bool one = c.reply && options.byte_gap.count() > 0;
            size_t len = one ? 1 : c.bytes.size() - c.off;
            ssize_t n = ::write(master, c.bytes.data() + c.off, len);
            if (n < 0) return errno == EAGAIN || errno == EINTR;
            c.off += static_cast<size_t>(n);
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
        uint64_t seq = 0;
        std::vector<uint8_t> buf(16 * 1024);
        while (!stop.load(std::memory_order_relaxed)) {
            Clock::time_point now = Clock::now();
            Clock::time_point wake_at = Clock::time_point::max();
            if (options.log_every.count() > 0) wake_at = std::min(wake_at, next_log);
            if (options.event_every.count() > 0) wake_at = std::min(wake_at, next_event);
            short events = POLLIN;
            if (!out.empty()) {
                if (out.front().due <= now) events |= POLLOUT;
                wake_at = std::min(wake_at, out.front().due);
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
                if (n > 0) {
                    decoder.feed(
                            buf.data(), static_cast<size_t>(n),
                            [this](const uint8_t* f, size_t len) { on_request(f, len); },
                            [this](hdlc::Event) {
                                std::lock_guard<std::mutex> lk(stats_mu);
                                ++stats.bad_requests;
                            });
                }
            }
            now = Clock::now();
            if (options.log_every.count() > 0 && now >= next_log) {
                unsolicited(log_packet(++seq), now);
                next_log = now + options.log_every;
            }
            if (options.event_every.count() > 0 && now >= next_event) {
                unsolicited(event_report(++seq), now);
                next_event = now + options.event_every;
            }
            if (!write_due(now)) return;
        }
    }

    void close_fds() {
        for (int* fd : {&master, &slave, &wake}) {
            if (*fd >= 0) close(*fd);
            *fd = -1;
        }
    }
};

std::unique_ptr<Modem> Modem::open(Options options, std::string* error) {
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    char name[128];
    int slave = -1, wake = -1;
    termios t;
    bool ok = master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0 &&
              ptsname_r(master, name, sizeof name) == 0 &&
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
    impl_->options = std::move(options);
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
}

Stats Modem::stats() const {
    std::lock_guard<std::mutex> lk(impl_->stats_mu);
    return impl_->stats;
}

}  // namespace pty_modem
