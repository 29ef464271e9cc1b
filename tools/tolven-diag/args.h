// tolven-diag's command line: options, numbers and hex packets. Parsing is pure: it prints
// nothing, never exits and keeps no state between calls, so that tests and the fuzzer can call it
// again and again.
#pragma once

#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

#include "text.h"

namespace tolven_diag_tool {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

constexpr int kMaxPacket = 4096;
// Far above any reply the library can collect; keeps a typo from allocating gigabytes.
constexpr int kMaxCapacity = 1 << 20;
constexpr int kDefaultTimeoutMs = 3000;
constexpr int kDefaultCapacity = 16384;
constexpr int kMaxLingerMs = 600000;
constexpr int kMaxCount = 1000000;
constexpr int kDefaultIntervalMs = 1000;
constexpr int kMaxIntervalMs = 3600000;
// The library's offline-log directory buffer; the last byte is the terminator.
constexpr int kOfflineDirSize = 500;

// The library's wait: callback mode replaces a time-out outside 1..60000 ms by 3000 ms; both
// modes count whole 100 ms ticks and wait at least one.
constexpr int kTickMs = 100;
constexpr int kCallbackTimeoutMinMs = 1;
constexpr int kCallbackTimeoutMaxMs = 60000;
constexpr int kCallbackTimeoutDefaultMs = 3000;
// Callback mode drops larger responses; the simulated modem never sends more than 16384 bytes.
constexpr int kCallbackMaxResponse = 10240;
constexpr int kDciPieceLen = 4096;

enum class Mode { kDci, kCallback };
enum class Action { kSend, kNoWait, kMdm, kOfflineLogDir, kHelp, kVersion };

struct Options {
    Action action = Action::kSend;
    Mode mode = Mode::kDci;
    int timeout_ms = kDefaultTimeoutMs;
    int capacity = kDefaultCapacity;
    int linger_ms = -1;  // -1: as long as the worker lives
    int count = 1;
    int interval_ms = kDefaultIntervalMs;
    bool verbose = false;
    bool raw = false;
    bool json = false;
    std::string port;     // empty: not given
    std::string framing;  // "hdlc" or "nhdlc"; empty: not given
    std::string offline_date;
    std::string out_dir;
    std::vector<std::pair<std::string, std::string>> props;
    std::vector<uint8_t> packet;
};

// Parses the arguments after the program name. Returns kExitOk with |*out| filled, or
// kExitUsage with a one-line message in |*error| (without the program name).
int parse_args(const std::vector<std::string>& args, Options* out, std::string* error);

// The wait the library applies to |asked_ms| in |mode|, in milliseconds.
int effective_timeout_ms(Mode mode, int asked_ms);
// Why the effective time-out differs from the one asked for; empty when it does not.
std::string timeout_note(Mode mode, int asked_ms);

// How long a fire-and-forget worker lives after the library's call returned.
int worker_remaining_ms(Mode mode);

const char* mode_name(Mode mode);

// The full --help text.
const char* usage_text();

using diag_wire::printable;

}  // namespace tolven_diag_tool
