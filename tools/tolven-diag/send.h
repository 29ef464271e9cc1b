// tolven-diag's sends: synchronous ones, once or repeated, and the fire-and-forget one.
#pragma once

#include <stdio.h>

#include <string>
#include <vector>

#include "args.h"
#include "log_reader.h"

namespace tolven_diag_tool {

// As the log reader tells them: ok, refused, diag error, timed out, or unknown where the
// library's lines cannot be read.
using Outcome = LoggedOutcome;

// One synchronous send.
struct Run {
    int seq = 1;
    int result = 1;
    Outcome outcome = Outcome::kDiagError;
    double elapsed_ms = 0;
    std::vector<uint8_t> reply;
    // *reply_len as the library left it; written only by a send that waited for its reply.
    int reply_len = 0;
    bool reply_len_written = false;
    std::string why;  // for a failure
    std::vector<std::string> notes;
};

// What a run of sends did, for its summary: outcomes counted, latencies of the answered ones.
struct Tally {
    int sent = 0;
    int outcomes[5] = {};  // by Outcome
    std::vector<double> latency_ms;
    void add(const Run& run) {
        ++sent;
        ++outcomes[static_cast<int>(run.outcome)];
        if (run.outcome == Outcome::kOk) latency_ms.push_back(run.elapsed_ms);
    }
    int count(Outcome o) const { return outcomes[static_cast<int>(o)]; }
};

// The packet |o.count| times, |o.interval_ms| apart, until SIGINT or SIGTERM ends the run after
// the send in flight; the exit status (128 + the signal when one ended it).
int send_with_result(const Options& o, FILE* out);
// The packet handed to a worker of the library, then a wait for the worker to end.
int send_no_wait(const Options& o, FILE* out);

}  // namespace tolven_diag_tool
