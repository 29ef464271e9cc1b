// tolven-diag: sends one raw diag command packet through libtolven_diag and prints the reply.
// Uses only the library's public header, property_set and POSIX, so that the same source builds
// for the device and for the host stand-ins.

#include <ctype.h>
#include <errno.h>
#include <getopt.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "tolven_diag.h"

// libcutils on the device, the property stand-in on the host; both share this prototype.
extern "C" int property_set(const char* key, const char* value);

#ifndef TOLVEN_DIAG_TOOL_VERSION
#define TOLVEN_DIAG_TOOL_VERSION "unknown"
#endif

namespace {

constexpr char kProg[] = "tolven-diag";
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kMaxPacket = 4096;
// Far above any reply the library can collect; keeps a typo from allocating gigabytes.
constexpr int kMaxCapacity = 1 << 20;
constexpr int kDefaultTimeoutMs = 3000;
constexpr int kDefaultCapacity = 16384;
// A worker lives about 4 s after it is started, 1 s of which the send call already held.
constexpr int kDefaultLingerMs = 4500;
constexpr int kOfflineDirSize = 500;

enum class Mode { kDci, kCallback };

struct Options {
    Mode mode = Mode::kDci;
    int timeout_ms = kDefaultTimeoutMs;
    int capacity = kDefaultCapacity;
    int linger_ms = kDefaultLingerMs;
    bool no_wait = false;
    bool verbose = false;
    bool mdm = false;
    bool offline = false;
    bool has_out_dir = false;
    std::string offline_date;
    std::string out_dir;
    std::vector<std::pair<std::string, std::string>> props;
    std::vector<uint8_t> packet;
    bool has_packet = false;
};

const char kUsage[] =
        "Usage: tolven-diag [OPTIONS] HEX...\n"
        "       tolven-diag --mdm\n"
        "       tolven-diag [--prop KEY=VALUE]... --offline-log-dir DATE [--out-dir DIR]\n"
        "\n"
        "Sends one diag command packet to the modem through libtolven_diag and prints the\n"
        "reply as hex with its length and the library's result (0 success, 1 failure).\n"
        "\n"
        "The packet is given as hex bytes, in one or several arguments: 4b 0f 00 00,\n"
        "4b0f0000, \"4b 0f 00 00\" and 0x4b 0x0f 0x00 0x00 are the same 4-byte packet.\n"
        "A lone digit is one byte; longer groups need an even number of digits.\n"
        "A packet has 1 to 4096 bytes.\n"
        "\n"
        "Options:\n"
        "  -m, --mode MODE        transport: dci (default) or callback\n"
        "  -t, --timeout MS       how long to wait for the reply (default 3000);\n"
        "                         the library counts it in 100 ms ticks\n"
        "  -c, --capacity N       reply buffer size in bytes (default 16384); a\n"
        "                         longer reply is cut; the library refuses 0 or less\n"
        "  -n, --no-wait          fire and forget: a worker thread of the library\n"
        "                         sends the packet and only logs the reply\n"
        "      --linger MS        with --no-wait: wait MS before exiting so that the\n"
        "                         worker can finish and log (default 4500)\n"
        "      --mdm              tell whether a remote modem is present\n"
        "      --offline-log-dir DATE\n"
        "                         run the offline-log auto-start directory update\n"
        "                         with DATE and print the resulting directory\n"
        "      --out-dir DIR      directory handed to that update (default empty)\n"
        "      --prop KEY=VALUE   set a system property first (repeatable); an\n"
        "                         empty VALUE unsets it\n"
        "  -v, --verbose          show the library's trace lines on stdout\n"
        "  -h, --help             show this help and exit\n"
        "      --version          show the version and exit\n"
        "\n"
        "Examples:\n"
        "  tolven-diag 00                      version info\n"
        "  tolven-diag --mode callback 7c      extended build id, callback mode\n"
        "  tolven-diag -t 500 4b fe 01 00 aa   subsystem command, 500 ms time-out\n"
        "  tolven-diag -v --no-wait 1c         fire and forget, watch the worker's trace\n"
        "  tolven-diag --mdm\n"
        "\n"
        "Exit status: 0 success; 1 the library reported a failure (bad parameter, diag\n"
        "error or time-out) or a property could not be set; 2 bad usage.\n";

int usage_error(const std::string& message) {
    fprintf(stderr, "%s: %s\nTry '%s --help' for more information.\n", kProg, message.c_str(),
            kProg);
    return kExitUsage;
}

bool parse_int(const char* text, int* out) {
    errno = 0;
    char* end = nullptr;
    long v = strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || v < INT_MIN || v > INT_MAX) return false;
    *out = static_cast<int>(v);
    return true;
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Appends the bytes of one argument; on failure names the offending group in |bad|.
bool parse_hex_arg(const char* arg, std::vector<uint8_t>* out, std::string* bad) {
    const char* p = arg;
    while (*p != '\0') {
        if (isspace(static_cast<unsigned char>(*p))) {
            ++p;
            continue;
        }
        const char* start = p;
        while (*p != '\0' && !isspace(static_cast<unsigned char>(*p))) ++p;
        std::string group(start, p);
        std::string digits = group;
        if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
            digits.erase(0, 2);
        }
        bool ok = digits.size() == 1 || digits.size() % 2 == 0;
        for (char c : digits) ok = ok && hex_value(c) >= 0;
        if (!ok) {
            *bad = group;
            return false;
        }
        if (digits.size() == 1) {
            out->push_back(static_cast<uint8_t>(hex_value(digits[0])));
            continue;
        }
        for (size_t i = 0; i < digits.size(); i += 2) {
            out->push_back(
                    static_cast<uint8_t>(hex_value(digits[i]) * 16 + hex_value(digits[i + 1])));
        }
    }
    return true;
}

enum LongOnly { kOptLinger = 256, kOptMdm, kOptOffline, kOptOutDir, kOptProp, kOptVersion };

// Returns -1 to go on, or the exit status.
int parse_args(int argc, char** argv, Options* o) {
    static const option kLong[] = {
            {"mode", required_argument, nullptr, 'm'},
            {"timeout", required_argument, nullptr, 't'},
            {"capacity", required_argument, nullptr, 'c'},
            {"no-wait", no_argument, nullptr, 'n'},
            {"linger", required_argument, nullptr, kOptLinger},
            {"mdm", no_argument, nullptr, kOptMdm},
            {"offline-log-dir", required_argument, nullptr, kOptOffline},
            {"out-dir", required_argument, nullptr, kOptOutDir},
            {"prop", required_argument, nullptr, kOptProp},
            {"verbose", no_argument, nullptr, 'v'},
            {"help", no_argument, nullptr, 'h'},
            {"version", no_argument, nullptr, kOptVersion},
            {nullptr, 0, nullptr, 0},
    };
    opterr = 0;  // the messages below say more
    int c;
    while ((c = getopt_long(argc, argv, ":m:t:c:nvh", kLong, nullptr)) != -1) {
        switch (c) {
            case 'm':
                if (strcmp(optarg, "dci") == 0) {
                    o->mode = Mode::kDci;
                } else if (strcmp(optarg, "callback") == 0) {
                    o->mode = Mode::kCallback;
                } else {
                    return usage_error(std::string("--mode: expected dci or callback, not '") +
                                       optarg + "'");
                }
                break;
            case 't':
                if (!parse_int(optarg, &o->timeout_ms)) {
                    return usage_error(std::string("--timeout: not a number of milliseconds: '") +
                                       optarg + "'");
                }
                break;
            case 'c':
                if (!parse_int(optarg, &o->capacity)) {
                    return usage_error(std::string("--capacity: not a number: '") + optarg + "'");
                }
                if (o->capacity > kMaxCapacity) {
                    return usage_error("--capacity: at most " + std::to_string(kMaxCapacity));
                }
                break;
            case 'n':
                o->no_wait = true;
                break;
            case kOptLinger:
                if (!parse_int(optarg, &o->linger_ms) || o->linger_ms < 0) {
                    return usage_error(std::string("--linger: not a number of milliseconds: '") +
                                       optarg + "'");
                }
                break;
            case kOptMdm:
                o->mdm = true;
                break;
            case kOptOffline:
                o->offline = true;
                o->offline_date = optarg;
                break;
            case kOptOutDir:
                o->has_out_dir = true;
                o->out_dir = optarg;
                if (o->out_dir.size() >= kOfflineDirSize) {
                    return usage_error("--out-dir: longer than " +
                                       std::to_string(kOfflineDirSize - 1) + " characters");
                }
                break;
            case kOptProp: {
                const char* eq = strchr(optarg, '=');
                if (eq == nullptr || eq == optarg) {
                    return usage_error(std::string("--prop: expected KEY=VALUE, not '") + optarg +
                                       "'");
                }
                o->props.emplace_back(std::string(optarg, eq - optarg), std::string(eq + 1));
                break;
            }
            case 'v':
                o->verbose = true;
                break;
            case 'h':
                fputs(kUsage, stdout);
                return kExitOk;
            case kOptVersion:
                printf("%s %s\n", kProg, TOLVEN_DIAG_TOOL_VERSION);
                return kExitOk;
            default: {
                // Long options are named as written; short ones by the letter, even in a cluster.
                std::string arg = argv[optind - 1];
                bool is_long = arg.compare(0, 2, "--") == 0;
                std::string name = is_long ? arg.substr(0, arg.find('='))
                                           : std::string("-") + static_cast<char>(optopt);
                if (c == ':') return usage_error("option " + name + " needs a value");
                if (is_long && optopt != 0) {
                    return usage_error("option " + name + " takes no value");
                }
                return usage_error("unknown option " + name);
            }
        }
    }

    for (int i = optind; i < argc; ++i) {
        std::string bad;
        if (!parse_hex_arg(argv[i], &o->packet, &bad)) {
            return usage_error("bad hex '" + bad + "' in the packet");
        }
        o->has_packet = true;
    }
    int actions = (o->has_packet ? 1 : 0) + (o->mdm ? 1 : 0) + (o->offline ? 1 : 0);
    if (actions == 0) return usage_error("no packet given");
    if (actions > 1) return usage_error("give only one of a packet, --mdm, --offline-log-dir");
    if (o->has_out_dir && !o->offline) return usage_error("--out-dir needs --offline-log-dir");
    if (o->has_packet && o->packet.empty()) return usage_error("the packet has no bytes");
    if (o->packet.size() > static_cast<size_t>(kMaxPacket)) {
        return usage_error("the packet has " + std::to_string(o->packet.size()) +
                           " bytes; at most " + std::to_string(kMaxPacket));
    }
    return -1;
}

// Rows of 16 bytes: offset, hex, printable characters.
void dump(const uint8_t* data, size_t len) {
    for (size_t row = 0; row < len; row += 16) {
        printf("  %04zX ", row);
        for (size_t i = row; i < row + 16; ++i) {
            if (i < len) {
                printf(" %02X", data[i]);
            } else {
                fputs("   ", stdout);
            }
        }
        fputs("  ", stdout);
        for (size_t i = row; i < row + 16 && i < len; ++i) {
            putchar(isprint(data[i]) ? data[i] : '.');
        }
        putchar('\n');
    }
}

std::string bytes(int n) {
    return std::to_string(n) + (n == 1 ? " byte" : " bytes");
}

const char* mode_name(Mode mode) {
    return mode == Mode::kDci ? "dci" : "callback";
}

// Threads that libdiag starts from the worker inherit its name, so there is no telling from
// outside when the worker itself is gone: wait the whole time.
void linger(int ms) {
    timespec ts{ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

int send_no_wait(const Options& o) {
    const uint8_t* data = o.packet.data();
    int len = static_cast<int>(o.packet.size());
    printf("request: %s, %s mode, no wait\n", bytes(len).c_str(), mode_name(o.mode));
    dump(data, o.packet.size());
    int result = o.mode == Mode::kDci
                         ? tolven_diag_cmd_send_without_result(data, len)
                         : tolven_diag_cmd_send_without_result_by_callback_mode(data, len);
    if (result != 0) {
        printf("result: %d (failed)\n", result);
        fprintf(stderr, "%s: the library refused the packet\n", kProg);
        return kExitFailed;
    }
    printf("handed to a worker thread; its reply is only logged%s\n",
           o.verbose ? "" : " (--verbose shows it)");
    printf("waiting %d ms for the worker to finish\n", o.linger_ms);
    linger(o.linger_ms);
    printf("result: 0 (ok)\n");
    return kExitOk;
}

int send_with_result(const Options& o) {
    const uint8_t* data = o.packet.data();
    int len = static_cast<int>(o.packet.size());
    printf("request: %s, %s mode, time-out %d ms, capacity %d\n", bytes(len).c_str(),
           mode_name(o.mode), o.timeout_ms, o.capacity);
    dump(data, o.packet.size());
    // The buffer matches the capacity handed over; 0 or less still gets a valid pointer.
    std::vector<uint8_t> reply(o.capacity > 0 ? o.capacity : 1);
    int reply_len = o.capacity;
    int result = o.mode == Mode::kDci ? tolven_diag_cmd_send_with_result(data, len, o.timeout_ms,
                                                                         reply.data(), &reply_len)
                                      : tolven_diag_cmd_send_with_result_by_callback_mode(
                                                data, len, o.timeout_ms, reply.data(), &reply_len);
    if (result != 0) {
        // The reply length is not trustworthy on failure: it may be the untouched capacity.
        printf("reply: none\nresult: %d (failed)\n", result);
        fprintf(stderr, "%s: the send failed (bad parameter, diag error or time-out)%s\n", kProg,
                o.verbose ? "" : "; --verbose shows the library's trace");
        return kExitFailed;
    }
    printf("reply: %s\n", bytes(reply_len).c_str());
    if (reply_len > 0 && reply_len <= o.capacity) dump(reply.data(), reply_len);
    printf("result: 0 (ok)\n");
    return kExitOk;
}

int offline_log_dir(const Options& o) {
    char dir[kOfflineDirSize] = {};
    memcpy(dir, o.out_dir.data(), o.out_dir.size());
    std::string before = dir;
    diag_mdlog_update_output_dir_for_offline_log_auto_start(o.offline_date.c_str(), dir,
                                                            kOfflineDirSize);
    dir[kOfflineDirSize - 1] = '\0';
    printf("output dir: %s\n", dir[0] != '\0' ? dir : "(empty)");
    printf("changed: %s\n", before == dir ? "no" : "yes");
    return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    // Line by line, so that a lingering worker's trace shows up as it happens, also in a pipe.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Options o;
    int status = parse_args(argc, argv, &o);
    if (status >= 0) return status;
    // The logging gates read the environment on the library's first call.
    if (o.verbose) setenv("TOLVEN_LOG_SHELL", "1,4", 1);

    for (const auto& [key, value] : o.props) {
        if (property_set(key.c_str(), value.c_str()) != 0) {
            fprintf(stderr, "%s: cannot set property %s\n", kProg, key.c_str());
            return kExitFailed;
        }
        printf("property %s=%s\n", key.c_str(), value.c_str());
    }
    if (o.mdm) {
        printf("remote modem: %s\n", tolven_diag_is_mdm_supported() ? "present" : "absent");
        return kExitOk;
    }
    if (o.offline) return offline_log_dir(o);
    return o.no_wait ? send_no_wait(o) : send_with_result(o);
}
