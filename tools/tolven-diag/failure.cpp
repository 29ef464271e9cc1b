#include "failure.h"

#include <dlfcn.h>
#include <string.h>

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
    std::string problem = port_problem(o.port);
    if (problem.empty()) return "";
    problem += "; " + std::string(consequence);
    error("warning: " + problem);
    return problem;
}

std::string failed_call_text(const FailedCall& f) {
    std::string text = f.call + " failed";
    if (f.has_value) text += " with " + std::to_string(f.value);
    if (f.has_errno) {
        text += ", errno " + std::to_string(f.err) + " (" + strerror(f.err) + ")";
    }
    if (!f.meaning.empty()) text += ": " + f.meaning;
    return text;
}

void explain_failure(const Options& o, const std::optional<LoggedCommand>& logged, Run* run) {
    if (!logged) {
        // A device's utility library hands its lines to nobody: they are in the system log.
        run->outcome = Outcome::kUnknown;
        run->why = "the library returned 1; its log says why: logcat -d | tolven-diag --read-log -";
        return;
    }
    run->outcome = logged->outcome;
    switch (logged->outcome) {
        case Outcome::kRefused:
            run->why = "the library refused the send";
            if (!logged->notes.empty()) run->why += ": " + logged->notes.front();
            return;
        case Outcome::kTimedOut: {
            run->why = "timed out: no complete reply within " +
                       std::to_string(effective_timeout_ms(o.mode, o.timeout_ms)) + " ms";
            if (logged->response_dropped) {
                run->why += ": the response of " + std::to_string(logged->response_len) +
                            " bytes was over the " + std::to_string(kCallbackMaxResponse) +
                            " bytes that callback mode takes, and was dropped";
            }
            std::string note = port_note();
            // A connection that never came up takes a send's whole time too: say so.
            if (note.empty()) note = port_problem(o.port);
            if (!note.empty()) run->why += ": " + note;
            return;
        }
        case Outcome::kDiagError: {
            // What is wrong with the port comes first: the failed call follows from it.
            const std::string problem = port_problem(o.port, run->elapsed_ms);
            run->why = "a diag library call failed after " + ms_text(run->elapsed_ms) + ": " +
                       (problem.empty() ? "" : problem + "; ") + failed_call_text(logged->failure);
            return;
        }
        case Outcome::kOk:
        case Outcome::kUnknown:
            break;
    }
    run->outcome = Outcome::kUnknown;
    run->why = "the library returned 1, and its lines of this send do not say why";
}

}  // namespace tolven_diag_tool
