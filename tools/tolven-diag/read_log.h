// --read-log: the library's log read back, each command shown as a live send is, a summary, and
// with --answers what the modem answered as an answers file for the simulated modem.
#pragma once

#include <stdio.h>

#include "args.h"

namespace tolven_diag_tool {

int read_log_action(const Options& o, FILE* out);

}  // namespace tolven_diag_tool
