// tolven-diag's command line: options, numbers and hex packets. Parsing is pure: it prints
// nothing, never exits and keeps no state between calls, so that tests and the fuzzer can call it
// again and again.
#pragma once

#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

#include "library_model.h"
#include "text.h"

namespace tolven_diag_tool {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// Far above any reply the library can collect; keeps a typo from allocating gigabytes.
constexpr int kMaxCapacity = 1 << 20;
constexpr int kDefaultTimeoutMs = 3000;
constexpr int kDefaultCapacity = 16384;
constexpr int kMaxLingerMs = 600000;
constexpr int kMaxCount = 1000000;
constexpr int kDefaultIntervalMs = 1000;
constexpr int kMaxIntervalMs = 3600000;
// How long a probe of a port waits for an answer, in each framing.
constexpr int kDefaultProbeMs = 300;
constexpr int kMaxProbeMs = 60000;
// --port auto: the one port that answers a probe.
constexpr char kAutoPort[] = "auto";

enum class Action { kSend, kNoWait, kMdm, kOfflineLogDir, kListPorts, kReadLog, kHelp, kVersion };

struct Options {
    Action action = Action::kSend;
    Mode mode = Mode::kDci;
    int timeout_ms = kDefaultTimeoutMs;
    int capacity = kDefaultCapacity;
    int linger_ms = -1;  // -1: as long as the worker lives
    int count = 1;
    bool count_given = false;  // --count, even of 1: the run ends with a summary
    int interval_ms = kDefaultIntervalMs;
    bool verbose = false;
    bool raw = false;
    bool json = false;
    std::string port;            // empty: not given
    bool port_from_env = false;  // |port| is LIBDIAG_PORT's, not --port's
    bool port_auto = false;      // |port| and |framing| are what --port auto found
    std::string framing;         // "hdlc" or "nhdlc"; empty: not given
    std::string offline_date;
    std::string out_dir;
    std::vector<std::pair<std::string, std::string>> props;
    std::vector<uint8_t> packet;
    bool all_ports = false;  // --list-ports --all: every serial device, not only USB ones
    bool probe = false;
    int probe_ms = kDefaultProbeMs;
    std::string read_log;     // --read-log: the log to read; "-" is standard input
    std::string answers_out;  // --answers: the answers file to write
};

// Parses the arguments after the program name. Returns kExitOk with |*out| filled, or
// kExitUsage with a one-line message in |*error| (without the program name). |env_port| is
// LIBDIAG_PORT: the port of a send or --mdm without --port.
int parse_args(const std::vector<std::string>& args, Options* out, std::string* error,
               const std::string& env_port = "");

const char* mode_name(Mode mode);

// The full --help text.
const char* usage_text();

using diag_wire::printable;

}  // namespace tolven_diag_tool
