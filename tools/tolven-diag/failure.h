// Why a synchronous send failed, in the kinds a user can act on: refused by the library's own
// checks, a diag call that failed, or a time-out; with what the port's libdiag found there.
#pragma once

#include <optional>
#include <string>

#include "args.h"
#include "log_reader.h"
#include "send.h"

namespace tolven_diag_tool {

// Fills |run|'s outcome and why after a result of 1, from the library's own account of the send
// (|logged|), or, where the library's lines cannot be read (a device), without one.
void explain_failure(const Options& o, const std::optional<LoggedCommand>& logged, Run* run);

// "diag_register_dci_client failed with 1002, errno 5 (Input/output error): ..."
std::string failed_call_text(const FailedCall& f);

// Before a call whose failure the tool cannot see: a warning about a port that cannot work,
// also returned ("" when the port looks usable).
std::string warn_port(const Options& o, const char* consequence);

}  // namespace tolven_diag_tool
