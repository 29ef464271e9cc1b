// Private to libdiag.so: the public declarations, included with default visibility so that the
// library, built with -fvisibility=hidden, exports exactly the C entry points and the control API.
#pragma once

#include <stdbool.h>
#include <stdint.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#pragma GCC visibility push(default)
#include "libdiag_sim.h"
#include "tolven_diag_platform.h"
#pragma GCC visibility pop
