// tolven-diag's argument and hex parsing on arbitrary argument vectors. A parse either fails with
// exit status 2 and a one-line printable message, or gives an Options value that is consistent
// and that, written back as arguments, parses to the same value. Parsing twice gives the same
// answer. A parsed packet is also decoded as a reply, which must stay within its bytes.

#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "args.h"
#include "contract.h"
#include "decode.h"

using namespace tolven_diag_tool;

namespace {

bool same(const Options& a, const Options& b) {
    if (a.action != b.action) return false;
    if (a.action == Action::kHelp) return true;
    if (a.action == Action::kVersion) return a.json == b.json;
    if (a.action == Action::kListPorts) {
        return a.json == b.json && a.all_ports == b.all_ports && a.probe == b.probe &&
               a.probe_ms == b.probe_ms;
    }
    return a.mode == b.mode && a.timeout_ms == b.timeout_ms && a.capacity == b.capacity &&
           a.linger_ms == b.linger_ms && a.count == b.count && a.count_given == b.count_given &&
           a.interval_ms == b.interval_ms && a.verbose == b.verbose && a.raw == b.raw &&
           a.json == b.json && a.port == b.port && a.offline_date == b.offline_date &&
           a.out_dir == b.out_dir && a.props == b.props && a.packet == b.packet &&
           a.read_log == b.read_log && a.answers_out == b.answers_out;
}

std::string hex(const std::vector<uint8_t>& bytes) {
    std::string text;
    char pair[3];
    for (uint8_t b : bytes) {
        snprintf(pair, sizeof pair, "%02x", b);
        text += pair;
    }
    return text;
}

// The options written back in long form, one value per argument.
std::vector<std::string> to_args(const Options& o) {
    if (o.action == Action::kHelp) return {"--help"};
    if (o.action == Action::kVersion) {
        return o.json ? std::vector<std::string>{"--version", "--json"}
                      : std::vector<std::string>{"--version"};
    }
    std::vector<std::string> a;
    if (o.verbose) a.push_back("-v");
    if (o.json) a.push_back("--json");
    if (o.action == Action::kListPorts) {
        a.push_back("--list-ports");
        if (o.all_ports) a.push_back("--all");
        if (o.probe) a.insert(a.end(), {"--probe", "-t", std::to_string(o.probe_ms)});
        return a;
    }
    if (o.action == Action::kReadLog) {
        a.insert(a.end(), {"--read-log", o.read_log});
        if (!o.answers_out.empty()) a.insert(a.end(), {"--answers", o.answers_out});
        if (o.raw) a.push_back("--raw");
        return a;
    }
    if (!o.port.empty()) a.insert(a.end(), {"--port", o.port});
    if (o.action == Action::kMdm) {
        a.push_back("--mdm");
        return a;
    }
    if (o.action == Action::kOfflineLogDir) {
        for (const auto& [key, value] : o.props) a.insert(a.end(), {"--prop", key + "=" + value});
        a.insert(a.end(), {"--offline-log-dir", o.offline_date});
        if (!o.out_dir.empty()) a.insert(a.end(), {"--out-dir", o.out_dir});
        return a;
    }
    a.insert(a.end(), {"--mode", mode_name(o.mode)});
    if (o.action == Action::kNoWait) {
        a.push_back("--no-wait");
        if (o.linger_ms >= 0) a.insert(a.end(), {"--linger", std::to_string(o.linger_ms)});
    } else {
        a.insert(a.end(), {"--timeout", std::to_string(o.timeout_ms), "--capacity",
                           std::to_string(o.capacity)});
        if (o.count_given) a.insert(a.end(), {"--count", std::to_string(o.count)});
        if (o.count > 1) a.insert(a.end(), {"--interval", std::to_string(o.interval_ms)});
        if (o.raw) a.push_back("--raw");
    }
    a.insert(a.end(), {"--", hex(o.packet)});
    return a;
}

void check_consistent(const Options& o) {
    // --help and --version end the parse where they stand; the rest is not looked at.
    if (o.action == Action::kHelp || o.action == Action::kVersion) return;
    const bool send = o.action == Action::kSend || o.action == Action::kNoWait;
    require(!send || (!o.packet.empty() && o.packet.size() <= kMaxPacket), "packet size");
    require(send || o.packet.empty(), "packet only for sends");
    require(o.timeout_ms >= 0 && o.capacity >= 0 && o.capacity <= kMaxCapacity, "ranges");
    require(o.count >= 1 && o.count <= kMaxCount && o.linger_ms >= -1, "ranges");
    require(o.interval_ms >= 0 && o.interval_ms <= kMaxIntervalMs, "interval range");
    require(o.out_dir.size() < static_cast<size_t>(kOfflineDirSize), "out-dir length");
    // Options that do nothing for the action were refused.
    const Options defaults;
    if (o.action == Action::kListPorts) {
        require(o.probe_ms >= 1 && o.probe_ms <= kMaxProbeMs, "probe time-out range");
        require(o.probe || o.probe_ms == kDefaultProbeMs, "a probe time-out only with --probe");
        require(o.port.empty() && o.packet.empty() && !o.verbose, "nothing of a send");
        return;
    }
    require(!o.all_ports && !o.probe, "--all and --probe only with --list-ports");
    if (o.action != Action::kSend) {
        require(o.timeout_ms == defaults.timeout_ms && o.capacity == defaults.capacity &&
                        o.count == 1 && !o.count_given && (!o.raw || o.action == Action::kReadLog),
                "send options only for synchronous sends");
    }
    require((o.action == Action::kReadLog) == !o.read_log.empty() &&
                    (o.answers_out.empty() || o.action == Action::kReadLog),
            "log options only for --read-log");
    if (o.action == Action::kReadLog) {
        require(!o.verbose && o.port.empty() && o.packet.empty() && o.mode == defaults.mode,
                "nothing of a send for --read-log");
    }
    require(o.action == Action::kNoWait || o.linger_ms == -1, "linger only with --no-wait");
    require(o.count > 1 || o.interval_ms == defaults.interval_ms, "interval only with count");
    require(o.action == Action::kOfflineLogDir ||
                    (o.props.empty() && o.out_dir.empty() && o.offline_date.empty()),
            "offline options only for the update");
    require(o.action != Action::kOfflineLogDir || o.port.empty(), "no port for the update");
    for (const auto& prop : o.props) require(!prop.first.empty(), "property key");

    const int timeout = effective_timeout_ms(o.mode, o.timeout_ms);
    require(timeout >= kTickMs && timeout % kTickMs == 0 && timeout <= INT_MAX, "time-out ticks");
    require(o.mode == Mode::kDci || timeout <= kCallbackTimeoutMaxMs, "callback time-out");
    require(timeout_note(o.mode, o.timeout_ms).empty() == (timeout == o.timeout_ms),
            "time-out note");
}

void check_decode(const std::vector<uint8_t>& bytes) {
    // A buffer of exactly the reply's size, so that ASan sees any read past it.
    std::unique_ptr<uint8_t[]> reply(new uint8_t[bytes.size() + (bytes.empty() ? 1 : 0)]);
    std::copy(bytes.begin(), bytes.end(), reply.get());
    Decoded d;
    if (!decode_reply(bytes, reply.get(), bytes.size(), &d)) return;
    require(!d.kind.empty(), "decoded kind");
    for (const Field& f : d.fields) require(!f.name.empty(), "field name");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    std::vector<std::string> args;
    while (in.remaining_bytes() > 0 && args.size() < 16) {
        args.push_back(in.ConsumeRandomLengthString(96));
    }

    Options o;
    std::string error;
    const int status = parse_args(args, &o, &error);
    Options again;
    std::string error_again;
    require(parse_args(args, &again, &error_again) == status && error_again == error,
            "same answer twice");
    if (status != kExitOk) {
        require(status == kExitUsage, "usage status");
        require(!error.empty(), "message");
        for (unsigned char c : error) require(c >= 0x20 && c < 0x7F, "printable one-line message");
        return 0;
    }
    require(error.empty() && same(o, again), "same options twice");
    check_consistent(o);

    Options back;
    require(parse_args(to_args(o), &back, &error) == kExitOk, "written back parses");
    require(same(o, back), "written back parses to the same options");

    check_decode(o.packet);
    return 0;
}
