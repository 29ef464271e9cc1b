#include "args.h"

#include <limits.h>
#include <stdio.h>

#include <algorithm>

#include "address.h"
#include "framing.h"
#include "text.h"

namespace tolven_diag_tool {
namespace {

enum Id {
    kOptMode,
    kOptTimeout,
    kOptCapacity,
    kOptNoWait,
    kOptLinger,
    kOptCount,
    kOptInterval,
    kOptRaw,
    kOptJson,
    kOptPort,
    kOptFraming,
    kOptMdm,
    kOptOffline,
    kOptOutDir,
    kOptProp,
    kOptVerbose,
    kOptReadLog,
    kOptAnswers,
    kOptHelp,
    kOptVersion,
    kOptListPorts,
    kOptAll,
    kOptProbe,
    kOptCount_,
};

struct OptionDef {
    Id id;
    const char* name;  // without the leading "--"
    char letter;       // 0: long form only
    bool takes_value;
};

constexpr OptionDef kOptionTable[] = {
        {kOptMode, "mode", 'm', true},
        {kOptTimeout, "timeout", 't', true},
        {kOptCapacity, "capacity", 'c', true},
        {kOptNoWait, "no-wait", 'n', false},
        {kOptLinger, "linger", 0, true},
        {kOptCount, "count", 0, true},
        {kOptInterval, "interval", 0, true},
        {kOptRaw, "raw", 0, false},
        {kOptJson, "json", 0, false},
        {kOptPort, "port", 0, true},
        {kOptFraming, "framing", 0, true},
        {kOptMdm, "mdm", 0, false},
        {kOptOffline, "offline-log-dir", 0, true},
        {kOptOutDir, "out-dir", 0, true},
        {kOptProp, "prop", 0, true},
        {kOptVerbose, "verbose", 'v', false},
        {kOptReadLog, "read-log", 0, true},
        {kOptAnswers, "answers", 0, true},
        {kOptHelp, "help", 'h', false},
        {kOptVersion, "version", 0, false},
        {kOptListPorts, "list-ports", 0, false},
        {kOptAll, "all", 0, false},
        {kOptProbe, "probe", 0, false},
};

const char kUsage[] =
        "Usage: tolven-diag [-m dci|callback] [-t MS] [-c N] [--count N [--interval MS]]\n"
        "                   [--raw] [--json] [--port PORT [--framing F]] [-v] HEX...\n"
        "       tolven-diag -n [-m dci|callback] [--linger MS] [--json]\n"
        "                   [--port PORT [--framing F]] [-v] HEX...\n"
        "       tolven-diag --mdm [--json] [--port PORT] [-v]\n"
        "       tolven-diag [--prop KEY=VALUE]... --offline-log-dir DATE [--out-dir DIR]\n"
        "                   [--json] [-v]\n"
        "       tolven-diag --read-log FILE [--answers OUT] [--json] [--raw]\n"
        "       tolven-diag --list-ports [--all] [--probe [-t MS]] [--json]\n"
        "       tolven-diag -h | --help | --version [--json]\n"
        "\n"
        "Sends one diag command packet to the modem through libtolven_diag and prints the\n"
        "reply as hex, decoded where the command is known, with the library's result.\n"
        "\n"
        "The packet is given as hex bytes, in one or several arguments: 4b 0f 00 00,\n"
        "4b0f0000, 4b:0f:00:00, 4b,0f,0,0 and 0x4b 0x0f 0x00 0x00 are the same 4-byte\n"
        "packet. A lone digit is one byte; longer groups need an even number of digits.\n"
        "A packet has 1 to 4096 bytes. Numbers are decimal or 0x hex.\n"
        "\n"
        "Options:\n"
        "  -m, --mode MODE        transport: dci (default) or callback\n"
        "  -t, --timeout MS       how long to wait for the reply, 0 to 2147483647\n"
        "                         (default 3000); the library counts whole 100 ms\n"
        "                         ticks, at least one, and callback mode replaces a\n"
        "                         value outside 1..60000 by 3000\n"
        "  -c, --capacity N       reply buffer size in bytes, 0 to 1048576 (default\n"
        "                         16384); a longer reply is cut; the library refuses 0\n"
        "      --count N          send the packet N times (1 to 1000000) and end with\n"
        "                         a summary\n"
        "      --interval MS      with --count: pause between sends, 0 to 3600000\n"
        "                         (default 1000)\n"
        "      --raw              hex only, no decoding of the reply\n"
        "      --json             one JSON object per send (and per result of --mdm,\n"
        "                         --offline-log-dir, --no-wait, --version) on\n"
        "                         standard output\n"
        "  -n, --no-wait          fire and forget: a worker thread of the library\n"
        "                         sends the packet and only logs the reply\n"
        "      --linger MS        with --no-wait: wait MS (0 to 600000) after the call\n"
        "                         before exiting (default: until the worker has ended)\n"
        "      --port PORT        use the modem on the diag port PORT: a serial\n"
        "                         device, tcp:HOST:PORT for one shared on the\n"
        "                         network (sets LIBDIAG_PORT for the diag library),\n"
        "                         or auto: the one USB port that answers a probe\n"
        "      --framing F        with --port: hdlc (default) or nhdlc, for a modem\n"
        "                         left in non-HDLC framing (sets LIBDIAG_FRAMING)\n"
        "      --mdm              tell whether a remote modem is present\n"
        "      --offline-log-dir DATE\n"
        "                         run the offline-log auto-start directory update\n"
        "                         with DATE and report what it did\n"
        "      --out-dir DIR      directory handed to that update (default empty)\n"
        "      --prop KEY=VALUE   set a system property first (repeatable); an\n"
        "                         empty VALUE unsets it\n"
        "      --list-ports       list the serial ports that could be a modem's (USB\n"
        "                         serial and CDC-ACM), with who else holds each\n"
        "      --all              with --list-ports: every serial device\n"
        "      --probe            with --list-ports: send one diag request to each\n"
        "                         free port, in HDLC then non-HDLC, and show which\n"
        "                         answered; -t sets the wait, 1 to 60000 (default 300)\n"
        "  -v, --verbose          show the library's trace lines on standard output\n"
        "                         (on standard error with --json)\n"
        "      --read-log FILE    read the library's log back (logcat, a bugreport .txt\n"
        "                         or .zip; - for standard input): every command it ran,\n"
        "                         shown as a send is, then a summary\n"
        "      --answers OUT      with --read-log: also write what the modem answered as\n"
        "                         an answers file for the simulated modem (a new file)\n"
        "  -h, --help             show this help and exit\n"
        "      --version          show the versions of the tool and the libraries\n"
        "\n"
        "Examples:\n"
        "  tolven-diag 00                      version info, decoded\n"
        "  tolven-diag --mode callback 7c      extended build id, callback mode\n"
        "  tolven-diag -t 500 4b:fe:01:00:aa   subsystem command, 500 ms time-out\n"
        "  tolven-diag --count 5 --interval 200 1c   five sends and a summary\n"
        "  tolven-diag --json 00               for scripts\n"
        "  tolven-diag -v -n 1c                fire and forget, watch the worker's trace\n"
        "  tolven-diag 98 01 00 00 01 00 00 00 7c   build id of subscription 1\n"
        "  tolven-diag --port tcp:lab1:3333 00      a modem shared on the network\n"
        "  tolven-diag --list-ports --probe    which port is the modem's diag port\n"
        "  tolven-diag --port auto 7c          the port that answered, its build id\n"
        "  tolven-diag --mdm\n"
        "  adb logcat -d | tolven-diag --read-log -   what the library did on a phone\n"
        "\n"
        "Exit status: 0 success; 1 the send was refused, failed or timed out, a\n"
        "property, the output or the offline-log directories failed, or --port auto\n"
        "found no port or several; 2 bad usage.\n";

// Appends the bytes of one argument; groups are separated by blanks, ':' or ','.
bool parse_hex_arg(const std::string& arg, std::vector<uint8_t>* out, std::string* error) {
    std::string group, why;
    if (diag_wire::parse_hex(arg, out, &group, &why)) return true;
    *error = "bad hex '" + printable(group) + "' in the packet: " + why;
    return false;
}

// Decimal or 0x hex, with an optional '-', within |min|..|max|.
bool parse_number(const std::string& name, const std::string& text, long long min, long long max,
                  long long* out, std::string* error) {
    long long value = 0;
    if (!diag_wire::parse_number(text, &value)) {
        *error = name + ": '" + printable(text) + "' is not a number (decimal, or hex with 0x)";
        return false;
    }
    if (value < min || value > max) {
        *error = name + ": " + printable(text) + " is out of range (" + std::to_string(min) +
                 " to " + std::to_string(max) + ")";
        return false;
    }
    *out = value;
    return true;
}

class Parser {
  public:
    Parser(Options* o, std::string* error, const std::string& env_port)
        : o_(o), error_(error), env_port_(env_port) {}

    int run(const std::vector<std::string>& args) {
        bool options_done = false;
        bool any_packet_arg = false;
        for (size_t i = 0; i < args.size(); ++i) {
            const std::string& a = args[i];
            if (options_done || a.size() < 2 || a[0] != '-') {
                if (!parse_hex_arg(a, &o_->packet, error_)) return kExitUsage;
                any_packet_arg = true;
                continue;
            }
            if (a == "--") {
                options_done = true;
                continue;
            }
            if (a[1] == '-') {
                size_t eq = a.find('=');
                std::string written = a.substr(0, eq);
                const OptionDef* def = find_long(written.substr(2));
                if (def == nullptr) return fail("unknown option " + printable(written));
                std::string value;
                if (!def->takes_value) {
                    if (eq != std::string::npos) {
                        return fail("option " + written + " takes no value");
                    }
                } else if (eq != std::string::npos) {
                    value = a.substr(eq + 1);
                } else if (i + 1 < args.size()) {
                    value = args[++i];
                } else {
                    return fail("option " + written + " needs a value");
                }
                if (!apply(*def, written, value)) return kExitUsage;
                if (done_) return finish_early(args);
                continue;
            }
            // A cluster of short options; one that takes a value ends it.
            for (size_t j = 1; j < a.size(); ++j) {
                std::string written = std::string("-") + a[j];
                const OptionDef* def = find_short(a[j]);
                if (def == nullptr) return fail("unknown option " + printable(written));
                std::string value;
                if (def->takes_value) {
                    if (j + 1 < a.size()) {
                        value = a.substr(j + 1);
                    } else if (i + 1 < args.size()) {
                        value = args[++i];
                    } else {
                        return fail("option " + written + " needs a value");
                    }
                    j = a.size();
                }
                if (!apply(*def, written, value)) return kExitUsage;
                if (done_) return finish_early(args);
            }
        }
        return check(any_packet_arg);
    }

  private:
    // --help and --version end the parsing; --json anywhere still asks for --version in JSON.
    int finish_early(const std::vector<std::string>& args) {
        for (const std::string& a : args) {
            if (a == "--") break;
            if (a == "--json") o_->json = true;
        }
        return kExitOk;
    }

    static const OptionDef* find_long(const std::string& name) {
        for (const OptionDef& s : kOptionTable) {
            if (name == s.name) return &s;
        }
        return nullptr;
    }

    static const OptionDef* find_short(char letter) {
        for (const OptionDef& s : kOptionTable) {
            if (s.letter != 0 && s.letter == letter) return &s;
        }
        return nullptr;
    }

    int fail(const std::string& message) {
        *error_ = message;
        return kExitUsage;
    }

    bool number(const std::string& written, const std::string& value, long long min, long long max,
                int* out) {
        long long v = 0;
        if (!parse_number(written, value, min, max, &v, error_)) return false;
        *out = static_cast<int>(v);
        return true;
    }

    bool apply(const OptionDef& def, const std::string& written, const std::string& value) {
        seen_[def.id] = written;
        switch (def.id) {
            case kOptMode:
                if (value == "dci") {
                    o_->mode = Mode::kDci;
                } else if (value == "callback") {
                    o_->mode = Mode::kCallback;
                } else {
                    fail(written + ": expected dci or callback, not '" + printable(value) + "'");
                    return false;
                }
                return true;
            case kOptTimeout:
                return number(written, value, 0, INT_MAX, &o_->timeout_ms);
            case kOptCapacity:
                return number(written, value, 0, kMaxCapacity, &o_->capacity);
            case kOptLinger:
                return number(written, value, 0, kMaxLingerMs, &o_->linger_ms);
            case kOptCount:
                o_->count_given = true;
                return number(written, value, 1, kMaxCount, &o_->count);
            case kOptInterval:
                return number(written, value, 0, kMaxIntervalMs, &o_->interval_ms);
            case kOptNoWait:
                o_->action = Action::kNoWait;
                return true;
            case kOptRaw:
                o_->raw = true;
                return true;
            case kOptJson:
                o_->json = true;
                return true;
            case kOptPort:
                if (value.empty()) {
                    fail(written + ": empty path");
                    return false;
                }
                if (!port_address_ok(written, value)) return false;
                o_->port = value;
                return true;
            case kOptFraming: {
                diag_wire::FramingKind kind;
                if (!diag_wire::parse_framing(value, &kind)) {
                    fail(written + ": expected hdlc or nhdlc, not '" + printable(value) + "'");
                    return false;
                }
                o_->framing = value;
                return true;
            }
            case kOptMdm:
                return true;
            case kOptOffline:
                o_->offline_date = value;
                return true;
            case kOptOutDir:
                if (value.size() >= kOfflineDirSize) {
                    fail(written + ": longer than " + std::to_string(kOfflineDirSize - 1) +
                         " characters");
                    return false;
                }
                o_->out_dir = value;
                return true;
            case kOptProp: {
                size_t eq = value.find('=');
                if (eq == std::string::npos || eq == 0) {
                    fail(written + ": expected KEY=VALUE, not '" + printable(value) + "'");
                    return false;
                }
                o_->props.emplace_back(value.substr(0, eq), value.substr(eq + 1));
                return true;
            }
            case kOptVerbose:
                o_->verbose = true;
                return true;
            case kOptReadLog:
            case kOptAnswers:
                if (value.empty()) {
                    fail(written + ": empty path");
                    return false;
                }
                (def.id == kOptReadLog ? o_->read_log : o_->answers_out) = value;
                return true;
            case kOptHelp:
                o_->action = Action::kHelp;
                done_ = true;
                return true;
            case kOptVersion:
                o_->action = Action::kVersion;
                done_ = true;
                return true;
            case kOptListPorts:
            case kOptAll:
            case kOptProbe:
                return true;
            case kOptCount_:
                break;
        }
        return false;
    }

    // A tcp: address must be well formed; a device path is for the diag library to try.
    bool port_address_ok(const std::string& written, const std::string& value) {
        diag_wire::TcpAddress address;
        std::string why;
        if (!diag_wire::is_tcp_address(value) ||
            diag_wire::parse_tcp_address(value, &address, &why)) {
            return true;
        }
        fail(written + ": '" + printable(value) + "' is not a network address: " + why +
             "; want tcp:HOST:PORT, or tcp:[IPV6]:PORT");
        return false;
    }

    bool given(Id id) const { return !seen_[id].empty(); }

    // The first option of |ids| that was given, or "".
    std::string first_given(std::initializer_list<Id> ids) const {
        for (Id id : ids) {
            if (given(id)) return seen_[id];
        }
        return "";
    }

    int check(bool packet) {
        if (given(kOptReadLog)) return check_read_log(packet);
        if (given(kOptAnswers)) return fail(seen_[kOptAnswers] + " needs --read-log");
        // Exactly one action: a packet, --mdm, --offline-log-dir or --list-ports.
        std::vector<std::string> actions;
        if (packet) actions.push_back("a packet");
        for (Id id : {kOptMdm, kOptOffline, kOptListPorts}) {
            if (given(id)) actions.push_back(seen_[id]);
        }
        if (actions.size() > 1) {
            return fail(actions[0] + " and " + actions[1] + " exclude each other");
        }
        if (actions.empty()) {
            return fail(
                    "no packet given (nor --mdm, --offline-log-dir, --list-ports or --read-log)");
        }
        const std::string mdm = seen_[kOptMdm];
        const std::string offline = seen_[kOptOffline];
        std::string stray = first_given({kOptAll, kOptProbe});
        if (!stray.empty() && !given(kOptListPorts)) return fail(stray + " needs --list-ports");
        if (given(kOptListPorts)) return check_list_ports();

        // Options of the one action they serve.
        stray = first_given({kOptMode, kOptTimeout, kOptCapacity, kOptNoWait, kOptLinger, kOptCount,
                             kOptInterval, kOptRaw});
        if (!packet && !stray.empty()) {
            return fail(stray + " does not apply to " + (given(kOptMdm) ? mdm : offline));
        }
        stray = first_given({kOptPort, kOptFraming});
        if (!stray.empty() && given(kOptOffline)) {
            return fail(stray + " does not apply to " + offline);
        }
        if (given(kOptFraming) && !given(kOptPort) && env_port_.empty()) {
            return fail(seen_[kOptFraming] + " needs --port (or LIBDIAG_PORT)");
        }
        if (!given(kOptPort) && !given(kOptOffline) && !env_port_.empty()) {
            if (!port_address_ok("LIBDIAG_PORT", env_port_)) return kExitUsage;
            o_->port = env_port_;
            o_->port_from_env = true;
        }
        stray = first_given({kOptOutDir, kOptProp});
        if (!stray.empty() && !given(kOptOffline)) {
            return fail(stray + " needs --offline-log-dir");
        }
        if (given(kOptMdm)) o_->action = Action::kMdm;
        if (given(kOptOffline)) o_->action = Action::kOfflineLogDir;
        if (!packet) return kExitOk;

        if (o_->packet.empty()) return fail("the packet has no bytes");
        if (o_->packet.size() > static_cast<size_t>(kMaxPacket)) {
            return fail("the packet has " + std::to_string(o_->packet.size()) + " bytes; at most " +
                        std::to_string(kMaxPacket));
        }
        if (given(kOptNoWait)) {
            stray = first_given({kOptTimeout, kOptCapacity, kOptCount, kOptInterval, kOptRaw});
            if (!stray.empty()) {
                return fail(stray + " does not apply with " + seen_[kOptNoWait] +
                            ": a fire-and-forget send has no reply");
            }
        } else if (given(kOptLinger)) {
            return fail(seen_[kOptLinger] + " needs --no-wait");
        }
        if (given(kOptInterval) && o_->count < 2) {
            return fail(seen_[kOptInterval] + " needs --count above 1");
        }
        return kExitOk;
    }

    // --read-log reads a log: no library call, so nothing of a send applies.
    int check_read_log(bool packet) {
        const std::string& read_log = seen_[kOptReadLog];
        if (packet) return fail("a packet and " + read_log + " exclude each other");
        for (int id = 0; id < kOptCount_; ++id) {
            if (id == kOptReadLog || id == kOptAnswers || id == kOptJson || id == kOptRaw) continue;
            if (given(static_cast<Id>(id))) {
                return fail(seen_[id] + " does not apply to " + read_log);
            }
        }
        o_->action = Action::kReadLog;
        return kExitOk;
    }

    // --list-ports takes --all, --json and with --probe a time-out for each probe.
    int check_list_ports() {
        const std::string list = seen_[kOptListPorts];
        std::string stray = first_given({kOptMode, kOptCapacity, kOptNoWait, kOptLinger, kOptCount,
                                         kOptInterval, kOptRaw, kOptPort, kOptFraming, kOptOutDir,
                                         kOptProp, kOptVerbose});
        if (!stray.empty()) return fail(stray + " does not apply to " + list);
        if (given(kOptTimeout) && !given(kOptProbe)) {
            return fail(seen_[kOptTimeout] + " needs --probe with " + list);
        }
        if (given(kOptTimeout) && (o_->timeout_ms < 1 || o_->timeout_ms > kMaxProbeMs)) {
            return fail(seen_[kOptTimeout] + " with --probe: " + std::to_string(o_->timeout_ms) +
                        " is out of range (1 to " + std::to_string(kMaxProbeMs) + ")");
        }
        o_->action = Action::kListPorts;
        o_->all_ports = given(kOptAll);
        o_->probe = given(kOptProbe);
        o_->probe_ms = given(kOptTimeout) ? o_->timeout_ms : kDefaultProbeMs;
        return kExitOk;
    }

    Options* o_;
    std::string* error_;
    const std::string env_port_;
    std::string seen_[kOptCount_];  // each option as last written; empty when not given
    bool done_ = false;
};

}  // namespace

int parse_args(const std::vector<std::string>& args, Options* out, std::string* error,
               const std::string& env_port) {
    Options o;
    std::string message;
    int status = Parser(&o, &message, env_port).run(args);
    if (status != kExitOk) {
        *error = message;
        return status;
    }
    *out = std::move(o);
    return kExitOk;
}

const char* mode_name(Mode mode) {
    return mode == Mode::kDci ? "dci" : "callback";
}

const char* usage_text() {
    return kUsage;
}

}  // namespace tolven_diag_tool
