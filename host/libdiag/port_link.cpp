// Links to a diag port. One I/O thread per link polls the port and an eventfd that wakes it;
// writes go out without blocking, the rest when the port can take them. A device is locked with
// flock(2), as serial tools lock theirs, and a link that finds it locked waits on a thread of
// its own without touching the port.
#include "port_link.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "text.h"

namespace libdiag_sim {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr size_t kReadChunk = 16 * 1024;
// How long a link that lets go of a port waits for a waiting process to take it.
constexpr milliseconds kHandOverLimit{20};

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

// ---- /proc ----

std::string process_name(int pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(in, name);
    return "process " + std::to_string(pid) + (name.empty() ? "" : " (" + name + ")");
}

// Who else holds a flock(2) lock on the file |st| names, from /proc/locks; 0 when nobody (or not
// told). Reading /proc/locks can stall for milliseconds: only for a port found busy.
int lock_holder(const struct stat& st) {
    std::ifstream in("/proc/locks");
    std::string line;
    while (std::getline(in, line)) {
        // "1: FLOCK  ADVISORY  WRITE 1234 00:19:7 0 EOF"; a waiter's line has "->" after the id
        std::istringstream f(line);
        std::string id, type, mode, access, dev;
        int pid = 0;
        f >> id >> type >> mode >> access >> pid >> dev;
        unsigned maj = 0, min = 0;
        unsigned long long ino = 0;
        if (type == "FLOCK" && sscanf(dev.c_str(), "%x:%x:%llu", &maj, &min, &ino) == 3 &&
            makedev(maj, min) == st.st_dev && ino == st.st_ino && pid != getpid()) {
            return pid;
        }
    }
    return 0;
}

// A link that waits for a device's lock says so with a read lock on the device's first byte, an
// open file description lock, which no flock(2) conflicts with: the holder can tell that someone
// waits with one call.
void mark_waiting(int fd, bool waiting) {
    struct flock fl {};
    fl.l_type = waiting ? F_RDLCK : F_UNLCK;
    fl.l_whence = SEEK_SET;
    fl.l_len = 1;
    fcntl(fd, F_OFD_SETLK, &fl);
}

bool others_wait(int fd) {
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    fl.l_len = 1;
    return fcntl(fd, F_OFD_GETLK, &fl) == 0 && fl.l_type != F_UNLCK;
}

// The index of the pty whose master |pid|'s descriptor |fd| holds, or -1.
int pty_master_index(const std::string& pid, const std::string& fd) {
    std::ifstream in("/proc/" + pid + "/fdinfo/" + fd);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("tty-index:", 0) == 0) return atoi(line.c_str() + 10);
    }
    return -1;
}

bool claim_device(int fd);

// ---- The I/O thread ----

// A flock(2) wait that may outlive its link: the waiting thread blocks on a descriptor of its
// own for the same open file, and lets go of the lock at once if the link has gone meanwhile.
struct LockWait {
    std::mutex mu;
    bool cancelled = false;
    bool locked = false;
    int wake_fd = -1;  // a copy of the link's eventfd, closed by the last owner

    ~LockWait() {
        if (wake_fd >= 0) close(wake_fd);
    }

    static void start(std::shared_ptr<LockWait> w, int fd) {
        std::thread([w, fd] {
            while (flock(fd, LOCK_EX) != 0 && errno == EINTR) {
            }
            mark_waiting(fd, false);
            std::lock_guard<std::mutex> lk(w->mu);
            if (!w->cancelled) {
                w->locked = true;
                wake(w->wake_fd);
            }
            // The lock stays with the open file for as long as the link keeps it open.
            close(fd);
        }).detach();
    }
};

class FdLink : public Link {
  public:
    // |waiter_fd|: another descriptor of the port's open file to wait for its lock on, while
    // |holder| keeps it; -1 when the port is ours already.
    FdLink(std::string address, int fd, LinkSink* sink, int waiter_fd, std::string holder,
           bool is_tty)
        : address_(std::move(address)),
          fd_(fd),
          wake_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
          sink_(sink),
          is_tty_(is_tty),
          lock_wait_(waiter_fd >= 0 ? std::make_shared<LockWait>() : nullptr),
          holder_(std::move(holder)),
          ready_(lock_wait_ == nullptr) {
        if (lock_wait_ != nullptr) {
            // Its wake-up must be in place before the waiter can have the lock.
            lock_wait_->wake_fd = fcntl(wake_, F_DUPFD_CLOEXEC, 0);
            LockWait::start(lock_wait_, waiter_fd);
        }
        thread_ = std::thread([this] { run(); });
    }

    ~FdLink() override {
        int saved_errno = errno;
        stop_.store(true, std::memory_order_relaxed);
        wake(wake_);
        thread_.join();
        if (lock_wait_ != nullptr) {
            std::lock_guard<std::mutex> lk(lock_wait_->mu);
            lock_wait_->cancelled = true;
        }
        close_port();
        close(wake_);
        errno = saved_errno;
    }

    bool write(const std::vector<uint8_t>& bytes) override {
        std::lock_guard<std::mutex> lk(out_mu_);
        if (gone_.load(std::memory_order_relaxed)) return false;
        bool idle = out_.empty();
        if (idle) out_since_ = Clock::now();
        out_.insert(out_.end(), bytes.begin(), bytes.end());
        if (idle && ready_ && (!flush_locked() || !out_.empty())) wake(wake_);
        return true;
    }

    bool alive() const override { return !gone_.load(std::memory_order_relaxed); }

    std::string waiting_for() const override {
        std::lock_guard<std::mutex> lk(out_mu_);
        return ready_ ? "" : holder_;
    }

    bool others_waiting() const override {
        std::lock_guard<std::mutex> lk(out_mu_);
        return is_tty_ && fd_ >= 0 && others_wait(fd_);
    }

    void linger(Clock::time_point until) override {
        std::lock_guard<std::mutex> lk(out_mu_);
        lingering_ = true;
        linger_until_ = until;
        wake(wake_);
    }

    bool resume() override {
        std::lock_guard<std::mutex> lk(out_mu_);
        lingering_ = false;
        return !gone_.load(std::memory_order_relaxed);
    }

  private:
    // Closes the port, handing it over to a process that waits for it: the kernel wakes such a
    // waiter but lets whoever comes first have the lock, and this process may come back at once.
    void close_port() {
        int watch = -1;
        {
            std::lock_guard<std::mutex> lk(out_mu_);
            if (fd_ < 0) return;
            // Exclusive use lasts as long as the terminal stays open, and another process (the
            // modem itself, on a pty) may hold it open after us.
            if (is_tty_) ioctl(fd_, TIOCNXCL);
            // Watched from a descriptor that holds no lock until the waiter has taken it.
            if (is_tty_ && ready_ && others_wait(fd_)) {
                watch = open(address_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
            }
            close(fd_);
            fd_ = -1;
        }
        for (auto end = Clock::now() + kHandOverLimit;
             watch >= 0 && others_wait(watch) && Clock::now() < end;) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        if (watch >= 0) close(watch);
    }

    // False when the port failed; |write_error_| says how. Caller holds out_mu_.
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

    // On the I/O thread, once the lock waiter has it: the port is ours from here on.
    bool take_lock() {
        {
            std::lock_guard<std::mutex> lk(lock_wait_->mu);
            if (!lock_wait_->locked) return false;
        }
        if (is_tty_ && !claim_device(fd_)) claim_error_ = errno;
        std::lock_guard<std::mutex> lk(out_mu_);
        ready_ = true;
        out_since_ = Clock::now();
        return true;
    }

    void run() {
        std::vector<uint8_t> buf(kReadChunk);
        std::string why;
        bool ready;
        {
            std::lock_guard<std::mutex> lk(out_mu_);
            ready = ready_;
        }
        while (why.empty() && !stop_.load(std::memory_order_relaxed)) {
            int timeout = -1;
            short events = ready ? POLLIN : 0;
            bool expired = false;
            {
                std::lock_guard<std::mutex> lk(out_mu_);
                if (write_error_ != 0) {
                    why = "write: " + error_text(write_error_);
                    break;
                }
                if (lingering_) {
                    auto left = linger_until_ - Clock::now();
                    expired = left <= Clock::duration::zero();
                    timeout = static_cast<int>(std::chrono::ceil<milliseconds>(left).count());
                    if (expired) gone_.store(true, std::memory_order_relaxed);
                }
                if (ready && !out_.empty()) {
                    events |= POLLOUT;
                    auto left = out_since_ + kWriteLimit - Clock::now();
                    int write_left = static_cast<int>(
                            std::max<long long>(0, std::chrono::ceil<milliseconds>(left).count()));
                    timeout = timeout < 0 ? write_left : std::min(timeout, write_left);
                }
            }
            if (expired) {
                close_port();
                // Ends with its owner, which joins it: a thread that ends unjoined would leak.
                while (!stop_.load(std::memory_order_relaxed)) {
                    pollfd wake_fd{wake_, POLLIN, 0};
                    if (poll(&wake_fd, 1, -1) > 0) drain(wake_);
                }
                return;
            }
            pollfd fds[2] = {{ready ? fd_ : -1, events, 0}, {wake_, POLLIN, 0}};
            if (poll(fds, 2, timeout) < 0) {
                if (errno != EINTR) why = "poll: " + error_text(errno);
                continue;
            }
            if (fds[1].revents & POLLIN) drain(wake_);
            if (!ready) {
                if (!take_lock()) continue;
                if (claim_error_ != 0) {
                    why = "after the lock: " + error_text(claim_error_);
                    break;
                }
                ready = true;
                sink_->on_ready();
                std::lock_guard<std::mutex> lk(out_mu_);
                if (!out_.empty() && !flush_locked()) continue;  // reported at the loop top
                continue;
            }
            if (fds[0].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) {
                ssize_t n = read(fd_, buf.data(), buf.size());
                if (n > 0) {
                    sink_->on_bytes(buf.data(), static_cast<size_t>(n));
                } else if (n == 0) {
                    why = is_tty_ ? "end of file" : "connection closed by the peer";
                } else if (errno != EAGAIN && errno != EINTR) {
                    why = "read: " + error_text(errno);
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
            if (stalled > 0) sink_->on_stalled(stalled);
        }
        if (why.empty()) return;  // closed by its owner
        {
            std::lock_guard<std::mutex> lk(out_mu_);
            gone_.store(true, std::memory_order_relaxed);
            out_.clear();
        }
        sink_->on_gone(why);
    }

    const std::string address_;
    int fd_;          // -1 once closed; changed under out_mu_
    const int wake_;  // eventfd that interrupts the I/O thread's poll
    LinkSink* const sink_;
    const bool is_tty_;
    const std::shared_ptr<LockWait> lock_wait_;  // null: the port was ours from the start
    const std::string holder_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> gone_{false};

    mutable std::mutex out_mu_;
    bool ready_;
    bool lingering_ = false;
    Clock::time_point linger_until_;
    std::vector<uint8_t> out_;  // bytes not written yet
    Clock::time_point out_since_;
    int write_error_ = 0;
    int claim_error_ = 0;  // I/O thread only

    std::thread thread_;  // last: starts once the rest is set up
};

// ---- Devices ----

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
    if (diag_wire::parse_number(v, &n)) {
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

// Once the lock is ours: exclusive, raw, and nothing left of an earlier owner's session. A
// device's settings are shared by every opener, so they are made only now.
bool claim_device(int fd) {
    return ioctl(fd, TIOCEXCL) == 0 && make_raw(fd, baud_from_env()) && tcflush(fd, TCIOFLUSH) == 0;
}

std::unique_ptr<Link> open_device(const std::string& path, LinkSink* sink, std::string* error) {
    int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        int err = errno;
        *error = error_text(err);
        if (err == EBUSY) {
            *error += " (opened exclusively by another process";
            for (const std::string& user : other_users(path)) *error += ": " + user;
            *error += ")";
        }
        return nullptr;
    }
    std::string holder;
    bool locked = flock(fd, LOCK_EX | LOCK_NB) == 0;
    int waiter_fd = -1;
    if (locked ? !claim_device(fd)
               : errno != EWOULDBLOCK || (waiter_fd = fcntl(fd, F_DUPFD_CLOEXEC, 0)) < 0) {
        *error = error_text(errno);
        close(fd);
        return nullptr;
    }
    if (!locked) {
        mark_waiting(fd, true);
        struct stat st;
        int pid = fstat(fd, &st) == 0 ? lock_holder(st) : 0;
        holder = pid > 0 ? process_name(pid) : "another process";
    }
    return std::make_unique<FdLink>(path, fd, sink, waiter_fd, std::move(holder), true);
}

// ---- TCP ----

bool split_tcp(const std::string& address, std::string* host, std::string* port) {
    std::string rest = address.substr(4);
    size_t colon;
    if (!rest.empty() && rest[0] == '[') {
        size_t close = rest.find(']');
        if (close == std::string::npos || close + 1 >= rest.size() || rest[close + 1] != ':') {
            return false;
        }
        *host = rest.substr(1, close - 1);
        colon = close + 1;
    } else {
        colon = rest.rfind(':');
        if (colon == std::string::npos) return false;
        *host = rest.substr(0, colon);
    }
    *port = rest.substr(colon + 1);
    long long n = 0;
    return !host->empty() && diag_wire::parse_number(*port, &n) && n > 0 && n <= 65535;
}

// Connects within kConnectLimit; -1 with the reason in |*error|.
int connect_within(const addrinfo* ai, std::string* error) {
    int fd = socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, ai->ai_protocol);
    if (fd < 0) {
        *error = error_text(errno);
        return -1;
    }
    int err = 0;
    if (connect(fd, ai->ai_addr, ai->ai_addrlen) != 0) {
        err = errno;
        if (err == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            int n;
            while ((n = poll(&p, 1, static_cast<int>(kConnectLimit.count()))) < 0 &&
                   errno == EINTR) {
            }
            socklen_t len = sizeof err;
            if (n == 0) {
                err = ETIMEDOUT;
            } else if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) {
                err = errno;
            }
        }
    }
    if (err != 0) {
        *error = err == ETIMEDOUT
                         ? "no answer within " + std::to_string(kConnectLimit.count()) + " ms"
                         : error_text(err);
        close(fd);
        return -1;
    }
    // Commands are small and each waits for its answer: no batching.
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

std::unique_ptr<Link> open_tcp(const std::string& address, LinkSink* sink, std::string* error) {
    std::string host, port;
    if (!split_tcp(address, &host, &port)) {
        *error = "not an address: want tcp:HOST:PORT or tcp:[IPV6]:PORT";
        return nullptr;
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    int rc = getaddrinfo(host.c_str(), port.c_str(), &hints, &list);
    if (rc != 0) {
        *error = gai_strerror(rc);
        return nullptr;
    }
    int fd = -1;
    for (const addrinfo* ai = list; ai != nullptr && fd < 0; ai = ai->ai_next) {
        fd = connect_within(ai, error);
    }
    freeaddrinfo(list);
    if (fd < 0) return nullptr;
    return std::make_unique<FdLink>(address, fd, sink, -1, "", false);
}

}  // namespace

bool is_tcp_address(const std::string& address) {
    return address.rfind("tcp:", 0) == 0;
}

std::unique_ptr<Link> open_link(const std::string& address, LinkSink* sink, std::string* error) {
    return is_tcp_address(address) ? open_tcp(address, sink, error)
                                   : open_device(address, sink, error);
}

std::vector<std::string> other_users(const std::string& address) {
    std::vector<std::string> users;
    struct stat port;
    if (is_tcp_address(address) || stat(address.c_str(), &port) != 0 || !S_ISCHR(port.st_mode)) {
        return users;
    }
    // The master side of a pty is the modem playing the port, not another user of it.
    const bool pty = major(port.st_rdev) >= 136 && major(port.st_rdev) <= 143;
    const int pty_index =
            pty ? static_cast<int>(minor(port.st_rdev) + ((major(port.st_rdev) - 136) << 8)) : -1;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return users;
    const std::string self = std::to_string(getpid());
    while (dirent* p = readdir(proc)) {
        std::string pid = p->d_name;
        if (pid.empty() || pid.find_first_not_of("0123456789") != std::string::npos || pid == self) {
            continue;
        }
        std::string fd_dir = "/proc/" + pid + "/fd";
        DIR* fds = opendir(fd_dir.c_str());
        if (fds == nullptr) continue;
        bool opens = false, plays = false;
        while (dirent* f = readdir(fds)) {
            struct stat st;
            if (f->d_name[0] == '.' || stat((fd_dir + "/" + f->d_name).c_str(), &st) != 0 ||
                !S_ISCHR(st.st_mode)) {
                continue;
            }
            if (st.st_rdev == port.st_rdev) opens = true;
            if (pty && major(st.st_rdev) == 5 && minor(st.st_rdev) == 2 &&
                pty_master_index(pid, f->d_name) == pty_index) {
                plays = true;
            }
        }
        closedir(fds);
        if (opens && !plays) users.push_back(process_name(atoi(pid.c_str())));
    }
    closedir(proc);
    return users;
}

}  // namespace libdiag_sim
