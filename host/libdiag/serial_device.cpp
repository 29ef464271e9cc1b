#include "serial_device.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "port_users.h"

namespace diag_port {
namespace {

using Clock = std::chrono::steady_clock;

// How long a device that lets go of its lock waits for a waiting process to take it.
constexpr std::chrono::milliseconds kHandOverLimit{20};

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

bool baud_code(long long rate, speed_t* code) {
    for (const Baud& b : kBauds) {
        if (b.rate == rate) {
            *code = b.code;
            return true;
        }
    }
    return false;
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
// device's settings are shared by every opener, so they are made only now. The exclusive-open
// flag is a second guard beside the lock: a terminal that does not take it (ENOTTY, as faked
// ones) is used under the lock alone, and |*caveat| says so.
bool claim(int fd, speed_t speed, std::string* caveat) {
    termios t;
    if (ioctl(fd, TIOCEXCL) != 0) {
        // Not a terminal at all (/dev/null) fails here; a faked one takes termios calls.
        if (errno != ENOTTY || tcgetattr(fd, &t) != 0) return false;
        *caveat = "not exclusive (TIOCEXCL: " + std::string(strerror(ENOTTY)) +
                  "); used under its lock alone";
    }
    return make_raw(fd, speed) && tcflush(fd, TCIOFLUSH) == 0;
}

// A device that waits for its lock says so with a read lock on its first byte, an open file
// description lock, which no flock(2) conflicts with: the holder can tell that someone waits
// with one call.
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

}  // namespace

// A flock(2) wait that may outlive its device: the waiting thread blocks on a descriptor of its
// own for the same open file, and lets go of the lock at once if the device has been closed.
struct SerialDevice::LockWait {
    std::mutex mu;
    bool cancelled = false;
    bool locked = false;
    int wake_fd = -1;  // a copy of the waker's eventfd, closed by the last owner

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
                uint64_t one = 1;
                ssize_t n = write(w->wake_fd, &one, sizeof one);
                (void)n;  // the counter is already set if this fails
            }
            // The lock stays with the open file for as long as the device keeps it open.
            close(fd);
        }).detach();
    }
};

bool is_standard_baud(long long rate) {
    speed_t code;
    return baud_code(rate, &code);
}

std::unique_ptr<SerialDevice> SerialDevice::open(const std::string& path, long baud,
                                                 std::string* error) {
    speed_t speed;
    if (!baud_code(baud, &speed)) {
        *error = "not a standard baud rate: " + std::to_string(baud);
        return nullptr;
    }
    int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        int err = errno;
        *error = strerror(err);
        if (err == EBUSY) {
            *error += " (opened exclusively by another process";
            for (const std::string& user : other_users(path)) *error += ": " + user;
            *error += ")";
        }
        return nullptr;
    }
    bool locked = flock(fd, LOCK_EX | LOCK_NB) == 0;
    int waiter_fd = -1;
    std::string caveat;
    if (locked ? !claim(fd, speed, &caveat)
               : errno != EWOULDBLOCK || (waiter_fd = fcntl(fd, F_DUPFD_CLOEXEC, 0)) < 0) {
        *error = strerror(errno);
        close(fd);
        return nullptr;
    }
    std::string holder;
    if (!locked) {
        int pid = lock_holder(fd);
        holder = pid > 0 ? process_name(pid) : "another process";
    }
    auto device = std::unique_ptr<SerialDevice>(
            new SerialDevice(path, fd, speed, std::move(holder), waiter_fd));
    device->caveat_ = std::move(caveat);
    return device;
}

SerialDevice::SerialDevice(std::string path, int fd, speed_t speed, std::string holder,
                           int waiter_fd)
    : path_(std::move(path)),
      fd_(fd),
      speed_(speed),
      holder_(std::move(holder)),
      waiter_fd_(waiter_fd),
      held_(waiter_fd < 0) {}

SerialDevice::~SerialDevice() {
    if (lock_wait_ != nullptr) {
        std::lock_guard<std::mutex> lk(lock_wait_->mu);
        lock_wait_->cancelled = true;
    }
    if (waiter_fd_ >= 0) close(waiter_fd_);
    // Exclusive use lasts as long as the terminal stays open, and another process (the modem
    // itself, on a pty) may hold it open after us. Never cleared for the holder of the lock.
    if (held_) ioctl(fd_, TIOCNXCL);
    // Watched from a descriptor that holds no lock until the waiter has taken it.
    int watch = -1;
    if (held_ && others_wait(fd_)) {
        watch = ::open(path_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    }
    close(fd_);
    for (auto end = Clock::now() + kHandOverLimit;
         watch >= 0 && others_wait(watch) && Clock::now() < end;) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    if (watch >= 0) close(watch);
}

void SerialDevice::wait(int wake) {
    if (waiter_fd_ < 0) return;
    mark_waiting(fd_, true);
    lock_wait_ = std::make_shared<LockWait>();
    // Its wake-up must be in place before the waiter can have the lock.
    lock_wait_->wake_fd = fcntl(wake, F_DUPFD_CLOEXEC, 0);
    LockWait::start(lock_wait_, waiter_fd_);
    waiter_fd_ = -1;
}

bool SerialDevice::take(int* error) {
    *error = 0;
    if (held_) return true;
    if (lock_wait_ == nullptr) return false;
    {
        std::lock_guard<std::mutex> lk(lock_wait_->mu);
        if (!lock_wait_->locked) return false;
    }
    held_ = true;
    if (!claim(fd_, speed_, &caveat_)) *error = errno;
    return true;
}

bool SerialDevice::others_waiting() const {
    return others_wait(fd_);
}

}  // namespace diag_port
