// Who else has a diag port, as /proc tells: the processes that have the device open, and the one
// that holds its lock. Each is named "process 123 (name)". Needs nothing of the host libdiag.
#pragma once

#include <string>
#include <vector>

namespace diag_port {

// "process 123 (name)"; "process 123" when /proc no longer knows its name.
std::string process_name(int pid);

// The process other than this one that holds a flock(2) lock on the file open at |fd|; 0 when
// nobody does, or /proc/locks does not tell. Reading /proc/locks can stall for milliseconds:
// only for a port found busy.
int lock_holder(int fd);
// The same for the device at |path|, without opening it.
int lock_holder(const std::string& path);

// Processes other than this one that have the device at |path| open. The master side of a pty
// is the modem playing the port, not another user of it, and is left out.
std::vector<std::string> other_users(const std::string& path);

}  // namespace diag_port
