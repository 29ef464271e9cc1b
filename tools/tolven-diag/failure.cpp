#include "failure.h"

#include <dlfcn.h>

#include "library_model.h"
#include "output.h"
#include "ports.h"

namespace tolven_diag_tool {
namespace {

// What the host libdiag found out about the port when a command went unanswered (busy, the other
// framing, other processes on it); "" when it found nothing, or on a device, whose libdiag does
// not say.
std::string port_note() {
    using NoteFn = size_t (*)(char*, size_t);
    auto fn = reinterpret_cast<NoteFn>(dlsym(RTLD_DEFAULT, "libdiag_sim_port_note"));
    if (fn == nullptr) return "";
    char note[1024];
    fn(note, sizeof note);
    return note;
}

}  // namespace

std::string warn_port(const Options& o, const char* consequence) {
    std::string problem = o.port.empty() ? "" : port_problem(o.port);
    if (problem.empty()) return "";
    problem += "; " + std::string(consequence);
    error("warning: " + problem);
    return problem;
}

void explain_failure(const Options& o, int reply_len, Run* run) {
    switch (classify_failure(o.mode, o.timeout_ms, o.capacity, reply_len, run->elapsed_ms)) {
        case Failure::kRefused:
            run->outcome = Outcome::kRefused;
            run->why = "the library refused the send: the capacity must be above 0, not " +
                       std::to_string(o.capacity);
            return;
        case Failure::kTimedOut: {
            run->outcome = Outcome::kTimedOut;
            run->why = "timed out: no complete reply within " +
                       std::to_string(effective_timeout_ms(o.mode, o.timeout_ms)) + " ms";
            std::string note = port_note();
            // A connection that never came up takes a send's whole time too: say so.
            if (note.empty() && !o.port.empty()) note = port_problem(o.port);
            if (!note.empty()) {
                run->why += ": " + note;
            } else if (o.mode == Mode::kCallback) {
                run->why += " (callback mode also drops a response over " +
                            std::to_string(kCallbackMaxResponse) + " bytes)";
            }
            return;
        }
        case Failure::kDiagError:
            break;
    }
    run->outcome = Outcome::kDiagError;
    run->why = "a diag library call failed after " + ms_text(run->elapsed_ms);
    const std::string problem = o.port.empty() ? "" : port_problem(o.port, run->elapsed_ms);
    if (!problem.empty()) {
        run->why += ": " + problem;
        return;
    }
    if (!o.port.empty()) run->why += "; check that " + o.port + " is the modem's diag port";
    run->why += o.verbose ? "" : " (--verbose shows which)";
}

}  // namespace tolven_diag_tool
