// tolven-diag: sends one raw diag command packet through libtolven_diag and prints the reply.
// Uses only the library's public header, the platform's prototypes and POSIX, so that the same
// source builds for the device and for the host stand-ins. Each job is a file of its own: the
// sends (send.cpp), their output (output.cpp), the kinds of failure (failure.cpp), the offline-log
// report (offline_log.cpp), the version (version.cpp), and what the tool knows of the library
// (library_model.cpp).

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "args.h"
#include "failure.h"
#include "live_log.h"
#include "offline_log.h"
#include "output.h"
#include "ports.h"
#include "read_log.h"
#include "send.h"
#include "tolven_diag.h"
#include "version.h"

using namespace tolven_diag_tool;

namespace {

constexpr char kProg[] = "tolven-diag";

int run(const Options& o, FILE* out) {
    switch (o.action) {
        case Action::kHelp:
            fputs(usage_text(), out);
            return kExitOk;
        case Action::kVersion:
            print_version(out, o.json);
            return kExitOk;
        case Action::kOfflineLogDir:
            return offline_log_dir(o, out);
        case Action::kListPorts:
            return list_ports(o, out);
        case Action::kMdm: {
            const std::string problem = warn_port(o, "the diag library cannot reach that modem");
            const char* answer = tolven_diag_is_mdm_supported() ? "present" : "absent";
            if (!o.json) {
                fprintf(out, "remote modem: %s%s\n", answer, port_text(o).c_str());
                return kExitOk;
            }
            Json::Value j;
            j["remote_modem"] = answer;
            j["port"] = json_or_null(o.port);
            j["notes"] = Json::Value(Json::arrayValue);
            if (!problem.empty()) j["notes"].append(problem);
            print_json_value(out, j);
            return kExitOk;
        }
        case Action::kReadLog:
            return read_log_action(o, out);
        case Action::kNoWait:
            return send_no_wait(o, out);
        case Action::kSend:
            return send_with_result(o, out);
    }
    return kExitFailed;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    std::string message;
    const char* env_port = getenv("LIBDIAG_PORT");
    if (parse_args(std::vector<std::string>(argv + 1, argv + argc), &o, &message,
                   env_port != nullptr ? env_port : "") != kExitOk) {
        fprintf(stderr, "%s: %s\nTry '%s --help' for more information.\n", kProg, message.c_str(),
                kProg);
        return kExitUsage;
    }
    // Where results go: standard output, or with --json a copy of it while standard output
    // itself, which the library's trace uses, is pointed at standard error.
    FILE* out = stdout;
    if (o.json) {
        int fd = dup(STDOUT_FILENO);
        out = fd >= 0 ? fdopen(fd, "w") : nullptr;
        if (out == nullptr || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
            error(std::string("cannot set up the JSON output: ") + strerror(errno));
            return kExitFailed;
        }
    }
    if (o.port == kAutoPort) {
        int status = choose_auto_port(&o);
        if (status != kExitOk) return status;
    }
    // Line by line, so that a lingering worker's trace shows up as it happens, also in a pipe.
    setvbuf(out, nullptr, _IOLBF, 0);
    // The library and libdiag read these on their first call.
    if (o.verbose) setenv("TOLVEN_LOG_SHELL", "1,4", 1);
    if (!o.port.empty()) setenv("LIBDIAG_PORT", o.port.c_str(), 1);
    if (!o.framing.empty()) setenv("LIBDIAG_FRAMING", o.framing.c_str(), 1);
    int status = run(o, out);
    LiveLog::stop();
    if (!output_ok(out)) {
        error(std::string("cannot write the output: ") + strerror(errno));
        return kExitFailed;
    }
    return status;
}
