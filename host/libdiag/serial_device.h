// A serial device (or a pty playing one) as a diag port: opened raw at a standard baud rate and
// locked with flock(2), as serial tools lock theirs. One owner at a time: a device whose lock
// another process holds is opened all the same and left untouched until the lock is ours.
// Needs nothing of the host libdiag.
#pragma once

#include <termios.h>

#include <memory>
#include <string>

#include "port_link.h"

namespace diag_port {

constexpr long kDefaultBaud = 115200;

// Whether a device can be set to |rate|: the standard rates from 9600 to 4000000.
bool is_standard_baud(long long rate);

class SerialDevice final : public LinkPort {
  public:
    // Opens the device at |path|; nullptr with the reason in |*error| (for a device opened
    // exclusively, also who has it open). Once its lock is ours the device is made exclusive,
    // raw 8N1 at |baud|, and emptied of an earlier owner's bytes; until then holder() names
    // the process that has the lock. A device that cannot be made exclusive (a faked one) is
    // used under its lock alone, and caveat() says so.
    static std::unique_ptr<SerialDevice> open(const std::string& path, long baud,
                                              std::string* error);
    // Closes the device. When the lock was ours and another process waits for it, waits a
    // little for that process to take it: the kernel wakes such a waiter but lets whoever
    // comes first have the lock, and this process may come back at once.
    ~SerialDevice() override;

    int fd() const override { return fd_; }
    std::string holder() const override { return holder_; }
    // Waits for the lock on a thread of its own, which lets go of it at once if this device has
    // been closed meanwhile. Meanwhile the device says that it waits, for its holder to see.
    void wait(int wake) override;
    bool take(int* error) override;
    // Whether another process waits for the lock, as this device does while it waits.
    bool others_waiting() const override;
    const char* end_of_file() const override { return "end of file"; }
    std::string caveat() const override { return caveat_; }

  private:
    struct LockWait;

    SerialDevice(std::string path, int fd, speed_t speed, std::string holder, int waiter_fd);

    const std::string path_;
    const int fd_;
    const speed_t speed_;
    const std::string holder_;
    int waiter_fd_;       // the same open file, to wait for the lock on; -1 once waiting
    bool held_;           // the lock is ours
    std::string caveat_;  // set when the lock becomes ours
    std::shared_ptr<LockWait> lock_wait_;
};

}  // namespace diag_port
