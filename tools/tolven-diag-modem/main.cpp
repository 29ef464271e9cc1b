// tolven-diag-modem: a modem on a pseudo-terminal. Prints the pty's path, then answers diag
// command packets in HDLC (or non-HDLC) frames on it until interrupted, so that the serial diag
// path of the host libdiag (LIBDIAG_PORT) can run without hardware.

#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "answers_file.h"
#include "pty_modem.h"
#include "text.h"

namespace {

constexpr char kProg[] = "tolven-diag-modem";

const char kUsage[] =
        "Usage: tolven-diag-modem [OPTIONS]\n"
        "\n"
        "Opens a pseudo-terminal, prints its path and serves the simulated modem's answers\n"
        "on it in HDLC frames, as a modem's serial diag port does, until interrupted.\n"
        "Point the host libdiag at it with LIBDIAG_PORT=PATH (or tolven-diag --port PATH).\n"
        "\n"
        "Options:\n"
        "      --answers FILE      answer overrides, one per line: REQUEST_HEX -> REPLY_HEX\n"
        "                          [@ MS] or REQUEST_HEX -> none (default: the file named\n"
        "                          by LIBDIAG_SIM_ANSWERS)\n"
        "      --framing KIND      hdlc (default) or nhdlc: 7E 01 <u16 length> <packet> 7E,\n"
        "                          without CRC or escapes\n"
        "      --log-every MS      send an unsolicited log packet every MS milliseconds\n"
        "      --event-every MS    send an unsolicited event report every MS milliseconds\n"
        "      --logs-before-reply N\n"
        "                          send N unsolicited log packets right before every reply\n"
        "      --subscriptions LIST\n"
        "                          wrap unsolicited packets for these subscriptions in turn\n"
        "                          (98 01 00 00 <u32 subscription>), e.g. 0,1\n"
        "      --byte-gap US       write replies one byte at a time, US microseconds apart\n"
        "      --delay MS          wait MS milliseconds before every reply\n"
        "      --corrupt-every N   send every Nth reply after a copy of it with a bad CRC\n"
        "      --unanswered-every N\n"
        "                          leave every Nth request unanswered\n"
        "      --garbage           answer with noise that never decodes\n"
        "      --link PATH         also make PATH a symbolic link to the pty, removed on\n"
        "                          exit; PATH must not exist (a link left by an earlier\n"
        "                          run to a pty that is gone is replaced)\n"
        "  -h, --help              show this help and exit\n"
        "\n"
        "Exit status: 0 after an interrupt; 1 the pty, the answers file or the link\n"
        "could not be made or read; 2 bad usage.\n";

pty_modem::Modem* g_modem;

void on_signal(int) {
    if (g_modem != nullptr) g_modem->stop();
}

int usage_error(const std::string& message) {
    fprintf(stderr, "%s: %s\nTry '%s --help' for more information.\n", kProg, message.c_str(),
            kProg);
    return 2;
}

bool parse_count(const char* text, long long max, long long* out) {
    return diag_wire::parse_number(text, out) && *out >= 0 && *out <= max;
}

// The target of the symbolic link |path|, or "" when it is none.
std::string link_target(const std::string& path) {
    char target[4096];
    ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : "";
}

// Makes |path| a link to |pty|. Only a link left by an earlier run (to a pseudo-terminal that is
// gone) is replaced; anything else at |path| is the user's and stays.
bool make_link(const std::string& path, const std::string& pty, std::string* error) {
    struct stat st;
    if (lstat(path.c_str(), &st) == 0) {
        const std::string old = link_target(path);
        const bool leftover = S_ISLNK(st.st_mode) && old.rfind("/dev/pts/", 0) == 0 &&
                              access(old.c_str(), F_OK) != 0;
        if (!leftover) {
            *error = "--link " + path + ": it exists" +
                     (S_ISLNK(st.st_mode) ? " (a link to " + old + ")" : "") +
                     "; name a path that does not exist, or remove it first";
            return false;
        }
        unlink(path.c_str());
    }
    if (symlink(pty.c_str(), path.c_str()) != 0) {
        *error = "cannot link " + path + ": " + strerror(errno);
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    enum {
        kAnswers = 256,
        kLogEvery,
        kEventEvery,
        kLogsBeforeReply,
        kByteGap,
        kDelay,
        kCorruptEvery,
        kUnansweredEvery,
        kGarbage,
        kLink,
        kFraming,
        kSubscriptions,
    };
    static const option kLong[] = {
            {"answers", required_argument, nullptr, kAnswers},
            {"log-every", required_argument, nullptr, kLogEvery},
            {"event-every", required_argument, nullptr, kEventEvery},
            {"logs-before-reply", required_argument, nullptr, kLogsBeforeReply},
            {"byte-gap", required_argument, nullptr, kByteGap},
            {"delay", required_argument, nullptr, kDelay},
            {"corrupt-every", required_argument, nullptr, kCorruptEvery},
            {"unanswered-every", required_argument, nullptr, kUnansweredEvery},
            {"garbage", no_argument, nullptr, kGarbage},
            {"link", required_argument, nullptr, kLink},
            {"framing", required_argument, nullptr, kFraming},
            {"subscriptions", required_argument, nullptr, kSubscriptions},
            {"help", no_argument, nullptr, 'h'},
            {nullptr, 0, nullptr, 0},
    };
    constexpr long long kMaxMs = 24LL * 3600 * 1000;
    pty_modem::Options options;
    const char* env_answers = getenv("LIBDIAG_SIM_ANSWERS");
    std::string answers = env_answers != nullptr ? env_answers : "";
    std::string link;
    opterr = 0;
    for (int c; (c = getopt_long(argc, argv, "h", kLong, nullptr)) != -1;) {
        long long v = 0;
        bool numeric = c >= kLogEvery && c <= kUnansweredEvery;
        if (numeric && !parse_count(optarg, c == kByteGap ? kMaxMs * 1000 : kMaxMs, &v)) {
            return usage_error(std::string("bad number '") + optarg + "' for --" +
                               kLong[c - kAnswers].name);
        }
        switch (c) {
            case kAnswers:
                answers = optarg;
                break;
            case kLogEvery:
                options.log_every = std::chrono::milliseconds(v);
                break;
            case kEventEvery:
                options.event_every = std::chrono::milliseconds(v);
                break;
            case kLogsBeforeReply:
                options.logs_before_reply = static_cast<int>(std::min<long long>(v, 1 << 20));
                break;
            case kByteGap:
                options.byte_gap = std::chrono::microseconds(v);
                break;
            case kDelay:
                options.reply_delay = std::chrono::milliseconds(v);
                break;
            case kCorruptEvery:
                options.corrupt_every = static_cast<int>(std::min<long long>(v, 1 << 30));
                break;
            case kUnansweredEvery:
                options.unanswered_every = static_cast<int>(std::min<long long>(v, 1 << 30));
                break;
            case kGarbage:
                options.garbage = true;
                break;
            case kLink:
                link = optarg;
                break;
            case kFraming:
                if (!diag_wire::parse_framing(optarg, &options.framing)) {
                    return usage_error(std::string("--framing: expected hdlc or nhdlc, not '") +
                                       optarg + "'");
                }
                break;
            case kSubscriptions:
                if (!diag_wire::parse_numbers(optarg, 0xFFFFFFFFLL, &options.subscriptions)) {
                    return usage_error(std::string("--subscriptions: expected numbers such as "
                                                   "0,1, not '") +
                                       optarg + "'");
                }
                break;
            case 'h':
                fputs(kUsage, stdout);
                return 0;
            default:
                return usage_error(std::string("unknown option ") + argv[optind - 1]);
        }
    }
    if (optind < argc) return usage_error(std::string("unexpected argument ") + argv[optind]);

    if (!answers.empty()) {
        diag_wire::ParsedAnswers parsed = diag_wire::parse_answers_file(answers);
        for (const std::string& e : parsed.errors) fprintf(stderr, "%s: %s\n", kProg, e.c_str());
        for (const std::string& w : parsed.warnings) {
            fprintf(stderr, "%s: warning: %s\n", kProg, w.c_str());
        }
        if (!parsed.errors.empty()) return 1;
        options.answers = diag_wire::overrides_of(parsed);
    }

    std::string error;
    std::unique_ptr<pty_modem::Modem> modem = pty_modem::Modem::open(std::move(options), &error);
    if (modem == nullptr) {
        fprintf(stderr, "%s: %s\n", kProg, error.c_str());
        return 1;
    }
    if (!link.empty() && !make_link(link, modem->path(), &error)) {
        fprintf(stderr, "%s: %s\n", kProg, error.c_str());
        return 1;
    }
    g_modem = modem.get();
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
    printf("%s\n", modem->path().c_str());
    fflush(stdout);
    modem->serve();
    g_modem = nullptr;
    // Removed only while it is still the link made above.
    if (!link.empty() && link_target(link) == modem->path()) unlink(link.c_str());
    return 0;
}
