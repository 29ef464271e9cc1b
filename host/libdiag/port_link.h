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

namespace libdiag_sim {

class LinkSink {
  public:
    virtual void on_bytes(const uint8_t* data, size_t n) = 0;
    // The port is ours now, after waiting for another process to let go of it.
    virtual void on_ready() = 0;
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
    // Keeps the port open and idle until |until|, for a connection that may follow, and then
    // closes it, quietly. resume() takes it back; false when it has closed or gone meanwhile.
    virtual void linger(std::chrono::steady_clock::time_point until) = 0;
    virtual bool resume() = 0;
};

// A write that the port does not take within this time (the peer stopped reading) is dropped.
constexpr std::chrono::milliseconds kWriteLimit{1000};
// Connecting to a TCP port gives up after this time.
constexpr std::chrono::milliseconds kConnectLimit{3000};

// "tcp:HOST:PORT" (IPv6 as "tcp:[ADDRESS]:PORT") names a TCP port; anything else a device.
bool is_tcp_address(const std::string& address);

// Opens the port at |address|; nullptr with the reason in |*error|. A device is opened raw and
// exclusively and locked with flock(2) for as long as the link is open; a device whose lock
// another process holds is opened all the same, and the link waits for the lock, reading and
// writing nothing until it holds it.
std::unique_ptr<Link> open_link(const std::string& address, LinkSink* sink, std::string* error);

// Processes other than this one that have the device at |address| open, as "process 123 (name)".
std::vector<std::string> other_users(const std::string& address);

}  // namespace libdiag_sim
