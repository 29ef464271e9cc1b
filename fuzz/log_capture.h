// The libtolven_utils functions that the library imports, defined by the fuzz targets that link
// the library's objects, so that they run the same on a host and on a device: a device's
// libtolven_utils cannot hand back what was logged, and its switches are the device's. The shell
// output is off; the target chooses the system-log levels and may keep the lines to check them.
#pragma once

#include <string>
#include <vector>

namespace fuzz_log {

// Bit L of |levels| switches system-log level L on (1 error, 4 debug).
void set_levels(unsigned levels);
// Keeps every line from now on, in place of those kept before.
void start_keeping();
std::vector<std::string> kept();

}  // namespace fuzz_log
