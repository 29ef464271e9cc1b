// The link to a diag port: a serial device (or a pty playing one), or a TCP port that carries a
// serial port's raw bytes, as ser2net's TCP accepter does. A link moves bytes only; it is opened
// with the sink it reports to, and its I/O thread reports there with none of its locks held.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "address.h"

namespace diag_port {

class LinkSink {
  public:
    virtual void on_bytes(const uint8_t* data, size_t n) = 0;
    // The port is ours now, after waiting for another process to let go of it; |caveat| is
    // LinkPort::caveat().
    virtual void on_ready(const std::string& caveat) = 0;
    // The link failed for good (unplugged, hung up, connection closed); |why| says how.
    virtual void on_gone(const std::string& why) = 0;
    // The port took no bytes for a while; |bytes| not written were dropped.
    virtual void on_stalled(size_t bytes) = 0;

  protected:
    ~LinkSink() = default;
};

class Link {
  public:
    // Closes the port; the I/O thread has ended when this returns.
    virtual ~Link() = default;
    // Queues |bytes| without blocking. They go out once the port is ours; false when the link
    // is gone.
    virtual bool write(const std::vector<uint8_t>& bytes) = 0;
    virtual bool alive() const = 0;
    // While another process keeps the port: who, as far as /proc tells ("process 123 (name)",
    // or "another process"); "" once the port is ours.
    virtual std::string waiting_for() const = 0;
    // Whether another process waits for the port's lock (a device's only).
    virtual bool others_waiting() const = 0;
    // Once the port is ours: what is less than usual about it (LinkPort::caveat()), or "".
    virtual std::string caveat() const = 0;
    // Keeps the port open and idle until |until|, for a connection that may follow, and then
    // closes it, quietly. resume() takes it back; false when it has closed or gone meanwhile.
    virtual void linger(std::chrono::steady_clock::time_point until) = 0;
    virtual bool resume() = 0;
};

// What a link moves bytes through, opened: a device or a TCP connection. Destroying it closes
// it. A link calls it on its I/O thread, but for others_waiting().
class LinkPort {
  public:
    virtual ~LinkPort() = default;
    virtual int fd() const = 0;
    // Who kept the port when it was opened ("process 123 (name)", or "another process"); ""
    // when it was ours from the start.
    virtual std::string holder() const { return ""; }
    // For a port that another process keeps: starts waiting for it, and writes to the eventfd
    // |wake| once it may be ours.
    virtual void wait(int wake) { (void)wake; }
    // After such a wake-up: whether the port is ours now; then |*error| is the errno of making
    // it ready for use, or 0.
    virtual bool take(int* error) {
        *error = 0;
        return true;
    }
    // Whether another process waits for the port.
    virtual bool others_waiting() const { return false; }
    // Once the port is ours: what is less than usual about it (a device that could not be made
    // exclusive), or "".
    virtual std::string caveat() const { return ""; }
    // Why a read of nothing ends the link.
    virtual const char* end_of_file() const = 0;
};

// A write that the port does not take within this time (the peer stopped reading) is dropped.
constexpr std::chrono::milliseconds kWriteLimit{1000};

// "tcp:HOST:PORT" (IPv6 as "tcp:[ADDRESS]:PORT") names a TCP port; anything else a device.
using diag_wire::is_tcp_address;

// Opens the port at |address|, a device at |baud| (serial_device.h) or a TCP port
// (tcp_port.h); nullptr with the reason in |*error|. A device whose lock another process holds
// is opened all the same, and the link waits for the lock, reading and writing nothing until
// it holds it.
std::unique_ptr<Link> open_link(const std::string& address, long baud, LinkSink* sink,
                                std::string* error);

}  // namespace diag_port
