// Why a synchronous send failed, in the kinds a user can act on: refused by the library's own
// checks, a diag call that failed, or a time-out; with what the port's libdiag found there.
#pragma once

#include <string>

#include "args.h"
#include "send.h"

namespace tolven_diag_tool {

// Fills |run|'s outcome and why after a result of 1; |reply_len| is what the library left.
void explain_failure(const Options& o, int reply_len, Run* run);

// Before a call whose failure the tool cannot see: a warning about a port that cannot work,
// also returned ("" when the port looks usable).
std::string warn_port(const Options& o, const char* consequence);

}  // namespace tolven_diag_tool
