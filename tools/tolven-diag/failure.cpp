#include "failure.h"

#include <dlfcn.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "library_model.h"
#include "output.h"

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

std::string port_problem(const std::string& port) {
    if (port.rfind("tcp:", 0) == 0) return "";
    struct stat st;
    if (stat(port.c_str(), &st) != 0) return "the port " + port + ": " + strerror(errno);
    if (access(port.c_str(), R_OK | W_OK) != 0) {
        return "the port " + port + " cannot be opened for reading and writing: " + strerror(errno);
    }
    return "";
}

std::string warn_port(const Options& o, const char* consequence) {
    std::string problem = o.port.empty() ? "" : port_problem(o.port);
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
            if (!note.empty()) run->why += ": " + note;
            return;
        }
        case Outcome::kDiagError: {
            run->why = "a diag library call failed after " + ms_text(run->elapsed_ms) + ": " +
                       failed_call_text(logged->failure);
            std::string problem = o.port.empty() ? "" : port_problem(o.port);
            if (!problem.empty()) run->why += "; " + problem;
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
