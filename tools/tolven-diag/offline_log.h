// --offline-log-dir: sets the --prop properties, runs the library's offline-log update and
// reports what it did, and why not when it did nothing.
#pragma once

#include <stdio.h>

#include "args.h"

namespace tolven_diag_tool {

int offline_log_dir(const Options& o, FILE* out);

}  // namespace tolven_diag_tool
