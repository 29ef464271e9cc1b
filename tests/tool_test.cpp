// tolven-diag run as a child process against the simulated modem, one row and one process per
// case: arguments, shell prefix (environment, redirections), exit code and the lines that must
// appear.

#include <gtest/gtest.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "child.h"

namespace {

ChildOutcome run_tool(const std::vector<std::string>& args, const std::string& prefix) {
    return run_program(TOLVEN_DIAG_TOOL, args, prefix);
}

constexpr char kSlow[] = "LIBDIAG_SIM_DELAY_MS=2000";  // far past a 300 ms time-out
const std::string kProps =
        "--prop=persist.vendor.radio.diag_log_auto=modem "
        "--prop=persist.vendor.radio.diag_log_trriger=modem "
        "--prop=debug.offline_log.module=modem --prop=debug.offline_log.enable=true";

struct Case {
    const char* name;
    std::vector<std::string> args;
    std::string prefix;   // environment assignments and redirections before the command
    std::string answers;  // written to a file named by LIBDIAG_SIM_ANSWERS when not empty
    int exit_code;
    std::string out_has;  // empty: not checked
    std::string err_has;
    std::string out_lacks = "";
};

std::vector<std::string> words(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> out;
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

std::vector<std::string> with_props(std::vector<std::string> args) {
    std::vector<std::string> all = words(kProps);
    all.insert(all.end(), args.begin(), args.end());
    return all;
}

// The offline-log update creates its directories only where /data/vendor/modem exists.
bool have_modem_data() {
    struct stat st;
    return stat("/data/vendor/modem", &st) == 0;
}

// clang-format off
const Case kCases[] = {
    // Usage: conflicting and idle options, numbers, hex.
    {"NoPacket", {}, "", "", 2, "",
     "no packet given (nor --mdm, --offline-log-dir, --list-ports or --read-log)\nTry 'tolven-diag --help'"},
    {"UnknownOption", {"--bogus", "00"}, "", "", 2, "", "unknown option --bogus"},
    {"NoWaitTimeout", {"-n", "-t", "500", "00"}, "", "", 2, "", "-t does not apply with -n"},
    {"NoWaitCapacity", {"-n", "-c", "8", "00"}, "", "", 2, "", "-c does not apply with -n"},

    {"LingerAlone", {"--linger", "100", "00"}, "", "", 2, "", "--linger needs --no-wait"},
    {"MdmWithSendOptions", {"--mdm", "-m", "callback", "-n", "-t", "5"}, "", "", 2, "",
     "-m does not apply to --mdm"},
    {"OutDirAlone", {"--out-dir", "x", "00"}, "", "", 2, "", "--out-dir needs --offline-log-dir"},
    {"PropWithPacket", {"--prop", "a=b", "00"}, "", "", 2, "", "--prop needs --offline-log-dir"},
    {"IntervalAlone", {"--interval", "5", "00"}, "", "", 2, "", "--interval needs --count"},
    {"PacketAndMdm", {"00", "--mdm"}, "", "", 2, "", "a packet and --mdm exclude each other"},
    {"ListPortsAndMdm", {"--mdm", "--list-ports"}, "", "", 2, "", "--mdm and --list-ports exclude each other"},
    {"ProbeAlone", {"--probe", "00"}, "", "", 2, "", "--probe needs --list-ports"},
    {"ListPortsTimeout", {"--list-ports", "-t", "500"}, "", "", 2, "", "-t needs --probe with --list-ports"},
    {"ProbeTimeoutZero", {"--list-ports", "--probe", "-t", "0"}, "", "", 2, "",
     "-t with --probe: 0 is out of range (1 to 60000)"},
    {"ListPortsPort", {"--list-ports", "--port", "auto"}, "", "", 2, "", "--port does not apply to --list-ports"},
    {"TimeoutNegative", {"-t", "-5", "00"}, "", "", 2, "", "-t: -5 is out of range"},
    {"TimeoutHuge", {"-t", "99999999999999", "00"}, "", "", 2, "",
     "-t: 99999999999999 is out of range (0 to 2147483647)"},
    {"TimeoutText", {"--timeout=abc", "00"}, "", "", 2, "", "'abc' is not a number"},
    {"HexOdd", {"4b0"}, "", "", 2, "", "bad hex '4b0' in the packet: odd number of digits"},
    {"HexDigit", {"4g"}, "", "", 2, "", "'g' is not a hex digit"},
    {"HexTooLong", {std::string(2 * 4097, 'a')}, "", "", 2, "", "4097 bytes; at most 4096"},
    {"HexNoBytes", {",:"}, "", "", 2, "", "the packet has no bytes"},
    {"HexSeparators", {"0x4b:FE,0100", "a b"}, "", "", 0,
     "capacity 16384\n  0000  4B FE 01 00 0A 0B ", ""},
    {"Help", {"--help"}, "", "", 0, "tolven-diag -n [-m dci|callback] [--linger MS]", ""},
    {"Version", {"--version"}, "", "", 0, "\nlibtolven_diag: /", ""},

    // The time-out the library applies, in the request line.
    {"TimeoutTicks", {"-t", "50", "00"}, "", "", 0, "time-out 100 ms (asked 50 ms;", ""},
    {"TimeoutHex", {"-t", "0x1F4", "00"}, "", "", 0, "time-out 500 ms, capacity", ""},
    {"CallbackTimeoutReplaced", {"-m", "callback", "-t", "60001", "1c"}, "", "", 0,
     "time-out 3000 ms (asked 60001 ms; callback mode takes 1 to 60000 ms", ""},

    // Replies, decoded or not, and failures by kind.
    {"VersionInfo", {"00"}, "", "", 0,
     "version info:\n  compiled           Nov 02 2026 14:05:09\n", ""},
    {"BuildIdCallback", {"--mode", "callback", "7c"}, "", "", 0,
     "  software           TLVMPSS.TN.2.1-00417-TOLVEN_GEN-1\n", ""},
    {"BadLength", {"1c", "00"}, "", "", 0, "  error              0x15 bad length\n", ""},
    {"Raw", {"--raw", "00"}, "", "", 0, "reply: 55 bytes", "", "version info:"},
    {"Capacity", {"--capacity", "8", "00"}, "", "", 0,
     "(short reply: ends after 8 bytes, inside 'compiled'", ""},
    {"WholePieces", {"-t", "300", "4b", "fe", "02", "00", "fc", "0f"}, "", "", 0,
     "note: a DCI reply of whole 4096-byte pieces (4096 bytes) counts as complete only when the "
     "time limit of 300 ms runs out", ""},
    {"TimedOut", {"--timeout", "300", "00"}, kSlow, "", 1, "result: 1 (timed out after ",
     "timed out: no complete reply within 300 ms"},
    {"CallbackTooLong", {"-m", "callback", "-t", "100", "4b", "fe", "02", "00", "00", "30"}, "",
     "", 1, "note: the response was dropped, so the send timed out after 100 ms",
     "the response of 12292 bytes was over the 10240 bytes that callback mode takes"},
    {"Refused", {"-c", "0", "00"}, "", "", 1, "result: 1 (refused)\n",
     "the library refused the send: the capacity 0 is not above 0"},
    {"WriteError", {"00"}, ">/dev/full", "", 1, "", "cannot write the output: No space left"},
    {"Verbose", {"--verbose", "00"}, "", "", 0, "RIL[tolven_diag_send.cpp:", ""},
    {"Json", {"--json", "-v", "00"}, "", "", 0,
     "\"decoded\":{\"cai_revision\":11,\"compiled\":\"Nov 02 2026 14:05:09\",",
     "RIL["},
    {"JsonTimedOut", {"--json", "-t", "300", "00"}, kSlow, "", 1, "\"outcome\":\"timed out\"", ""},
    {"Count", {"--count", "3", "--interval", "0", "1c"}, "", "", 0, "#2 reply: 3 bytes in ", ""},
    {"CountSummary", {"--count", "2", "--interval", "0", "1c"}, "", "", 0,
     "summary: 2 sent, 2 answered, 0 timed out, 0 refused, 0 diag errors; latency min ", ""},
    {"CountJson", {"--json", "--count", "2", "--interval", "0", "1c"}, "", "", 0,
     "{\"summary\":{\"answered\":2,\"diag_errors\":0,\"interrupted\":null,\"latency_ms\":{\"max\":", ""},

    // The answers file of the simulated modem.
    {"AnswersShort", {"00"}, "", "# a short version reply\n00 -> 00 4E 6F\n", 0,
     "(short reply: ends after 3 bytes, inside 'compiled'", ""},
    {"AnswersEmptyRequest", {"00"}, "", "-> 01\n", 1, "", ":1: empty request"},
    {"AnswersMissing", {"00"}, "LIBDIAG_SIM_ANSWERS=/nonexistent/answers", "", 1, "",
     "cannot read /nonexistent/answers: No such file"},

    // A reply wrapped for a subscription: the subscription, then its packet decoded.
    {"Subscription", {"98 01 00 00 01 00 00 00", "1c"}, "", "", 0,
     "subscription: 1\ndiag version:\n  diag version       8\n", ""},
    {"SubscriptionJson", {"--json", "98010000ffffffff00"}, "", "", 0,
     "\"seq\":1,\"subscription\":4294967295,\"timeout_asked_ms\":3000", ""},

    {"Mdm", {"--mdm"}, "LIBDIAG_SIM_REMOTE_MASK=1", "", 0, "remote modem: present", ""},
    {"FramingAlone", {"--framing", "nhdlc", "00"}, "", "", 2, "", "--framing needs --port"},
    {"FramingUnknown", {"--port", "/dev/null", "--framing", "hdcl", "00"}, "", "", 2, "",
     "--framing: expected hdlc or nhdlc, not 'hdcl'"},
    {"TcpRefused", {"--port", "tcp:127.0.0.1:1", "00"}, "", "", 1, "result: 1 (diag error",
     "libdiag: cannot open diag port tcp:127.0.0.1:1: Connection refused"},
    {"PortMissing", {"--mdm", "--port", "/nonexistent/tty"}, "", "", 0,
     "remote modem: absent, port /nonexistent/tty\n",
     "warning: no such device: /nonexistent/tty"},

    // JSON wherever the mode has a result, with the same keys in every send object.
    {"JsonVersion", {"--json", "--version"}, "", "", 0, "{\"libdiag\":{\"build_id\":", ""},
    {"JsonMdm", {"--mdm", "--json"}, "", "", 0, "{\"notes\":[],\"port\":null,\"remote_modem\":\"absent\"}", ""},
    {"JsonOffline", {"--json", "--offline-log-dir", "d"}, "", "", 0,
     "\"changed\":false,\"directories\":null,\"failed\":[\"persist.vendor.radio.diag_log_auto", ""},
    {"JsonNoWait", {"--json", "-n", "--linger", "0", "1c"}, "", "", 0,
     "\"kind\":\"no-wait\",\"mode\":\"dci\",\"notes\":[\"handed to a worker", ""},
    {"JsonCountOne", {"--json", "--count", "1", "1c"}, "", "", 0, "\n{\"summary\":{\"answered\":1,", ""},
    {"CountOne", {"--count", "1", "1c"}, "", "", 0, "summary: 1 sent, 1 answered", ""},
    {"JsonPlainStrings", {"--json", "7c"}, "", "7c -> 7C 02 00 00 E1 51 0A 00 01 5E 00 00 41 0A 42 00 43 00\n",
     0, "\"software\":\"A\\nB\"", "", "x0A"},
    {"JsonNoteInNotes", {"--json", "-c", "8", "00"}, "", "", 0,
     "\"notes\":[\"the reply of 55 bytes was cut to the capacity of 8\",\"short reply: ends after 8",
     "", "\"note\":"},
    {"JsonTimedOutReplyLen", {"--json", "-t", "300", "00"}, kSlow, "", 1,
     "\"reply\":null,\"reply_len\":0,", ""},

    // Settings from the environment: used where they fit, named where they do not.
    {"EnvPortWithFraming", {"--framing", "nhdlc", "-t", "100", "00"},
     "LIBDIAG_PORT=/nonexistent/tty", "", 1,
     "capacity 16384, port /nonexistent/tty (nhdlc, from LIBDIAG_PORT)\n", "cannot open diag port"},
    {"EnvShellLevels", {"1c"}, "TOLVEN_LOG_SHELL=bogus", "", 0, "result: 0",
     "libtolven_utils: ignoring TOLVEN_LOG_SHELL=bogus (want 1, 4, 1,4, all or none)"},
    {"EnvSyslogLevels", {"1c"}, "TOLVEN_LOG_SYSLOG=9,9", "", 0, "result: 0",
     "libtolven_utils: ignoring TOLVEN_LOG_SYSLOG=9,9"},
    {"EnvInstance", {"1c"}, "TOLVEN_INSTANCE_ID=abc", "", 0, "result: 0",
     "libtolven_utils: ignoring TOLVEN_INSTANCE_ID=abc (want 0..255; 255 is none)"},
    {"EnvTrace", {"1c"}, "LIBDIAG_SIM_TRACE=yes", "", 0, "result: 0",
     "libdiag: ignoring LIBDIAG_SIM_TRACE=yes (want 1 or 0)"},

    // Fire and forget: the default linger outlasts the worker, whose last trace line shows.
    {"NoWaitDci", {"-v", "-n", "1c"}, "", "", 0,
     "dci_mode_thread_proc: function exit <-------------", ""},
    {"NoWaitCallback", {"-v", "-n", "-m", "callback", "1c"}, "", "", 0,
     "callback_mode_thread_proc: function exit <-------------", ""},

    // The offline-log update: which property test failed, or which directory is missing.
    {"OfflineDefaults", {"--offline-log-dir", "20260101"}, "", "", 0,
     "changed: no\n  the update acts only when all four property tests pass:\n"
     "  failed: persist.vendor.radio.diag_log_auto is \"null\"", ""},
    {"OfflineEnable", with_props({"--prop", "debug.offline_log.enable=", "--offline-log-dir", "d"}),
     "", "", 0, "  failed: debug.offline_log.enable is \"false\", not \"true\"\n", ""},
    {"OfflineCut", with_props({"--offline-log-dir", std::string(600, 'd')}), "", "", -1,
     "note: the directory was cut to 499 characters (the library's limit): "
     "/data/vendor/modem/diag_logs/DATE has 629\n", ""},
    {"OfflineDirs", with_props({"--offline-log-dir", "20260101"}), "", "",
     have_modem_data() ? 0 : 1,
     have_modem_data() ? "/diag_logs/20260101: exists"
                       : "directory /data/vendor/modem/diag_logs/: missing (No such file", ""},
};
// clang-format on

// Names the row in test listings instead of dumping its bytes.
void PrintTo(const Case& c, std::ostream* os) {
    *os << c.name;
}

class ToolCase : public ::testing::TestWithParam<Case> {};

TEST_P(ToolCase, Run) {
    const Case& c = GetParam();
    std::string prefix = c.prefix;
    std::string answers_path;
    if (!c.answers.empty()) {
        answers_path = ::testing::TempDir() + "tool_test_answers_" + std::to_string(getpid());
        std::ofstream(answers_path) << c.answers;
        prefix += " LIBDIAG_SIM_ANSWERS='" + answers_path + "'";
    }
    ChildOutcome r = run_tool(c.args, prefix);
    if (!answers_path.empty()) unlink(answers_path.c_str());
    // -1: either, as the host has /data/vendor/modem or not.
    if (c.exit_code >= 0) {
        EXPECT_EQ(r.exit_code, c.exit_code) << r.out << r.err;
    }
    EXPECT_NE(r.out.find(c.out_has), std::string::npos) << r.out;
    EXPECT_NE(r.err.find(c.err_has), std::string::npos) << r.err;
    if (!c.out_lacks.empty()) {
        EXPECT_EQ(r.out.find(c.out_lacks), std::string::npos) << r.out;
    }
    // The library's trace reaches stdout only with --verbose, and not with --json.
    std::set<std::string> args(c.args.begin(), c.args.end());
    bool trace_out = (args.count("-v") || args.count("--verbose")) && !args.count("--json");
    EXPECT_EQ(r.out.find("RIL[") != std::string::npos, trace_out) << r.out;
    // A usage error is reported on stderr alone; any other run says what it did on stdout.
    if (r.exit_code == 2) {
        EXPECT_EQ(r.out, "");
    }
}

INSTANTIATE_TEST_SUITE_P(Tool, ToolCase, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& info) {
                             return std::string(info.param.name);
                         });

// The output cannot be written: the run stops at the first failed write instead of sending on.
TEST(Tool, StopsAtTheFirstFailedWrite) {
    // With --json the trace goes to standard error, where each send shows.
    ChildOutcome r =
            run_tool({"--json", "-v", "--count", "20", "--interval", "100", "1c"}, ">/dev/full");
    EXPECT_EQ(1, r.exit_code);
    EXPECT_NE(std::string::npos, r.err.find("cannot write the output: No space left")) << r.err;
    size_t sends = 0;
    const std::string entry = "tolven_diag_cmd_send_with_result_by_dci_mode: function entry";
    for (size_t at = r.err.find(entry); at != std::string::npos; at = r.err.find(entry, at + 1)) {
        ++sends;
    }
    EXPECT_EQ(1u, sends);
}

// SIGINT or SIGTERM ends a run of sends after the send in flight, with the summary of what ran.
TEST(Tool, SignalEndsARunWithItsSummary) {
    const int scale = time_scale();
    for (const auto& [sig, name, json] :
         {std::make_tuple(SIGINT, "SIGINT", false), std::make_tuple(SIGTERM, "SIGTERM", true)}) {
        std::vector<std::string> args = {"--count", "100", "--interval", "200", "1c"};
        if (json) args.insert(args.begin(), "--json");
        ChildOutcome r = run_program_interrupted(TOLVEN_DIAG_TOOL, args, 1000 * scale, sig);
        EXPECT_EQ(128 + sig, r.exit_code) << r.out << r.err;
        const std::string said = json ? "\"interrupted\":\"" + std::string(name) + "\""
                                      : "; interrupted by " + std::string(name) + "\n";
        EXPECT_NE(std::string::npos, r.out.find(said)) << r.out;
        EXPECT_EQ(std::string::npos, r.out.find("100 sent")) << r.out;
    }
}

// Every send object has the same keys, whatever its outcome or kind.
TEST(Tool, JsonObjectsShareTheirKeys) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> runs = {
            {{"--json", "00"}, ""},
            {{"--json", "-t", "300", "00"}, kSlow},
            {{"--json", "-c", "0", "00"}, ""},
            {{"--json", "--port", "/nonexistent/tty", "00"}, ""},
            {{"--json", "-n", "--linger", "0", "00"}, ""},
            {{"--json", "-m", "callback", "98 01 00 00 01 00 00 00 1c"}, ""},
    };
    std::vector<std::string> first;
    for (const auto& [args, prefix] : runs) {
        SCOPED_TRACE(args.back() + " " + args[1]);
        ChildOutcome r = run_tool(args, prefix);
        Json::Value j;
        std::string errors;
        std::istringstream in(r.out);
        ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &j, &errors)) << r.out;
        if (first.empty()) {
            first = j.getMemberNames();
        } else {
            EXPECT_EQ(first, j.getMemberNames());
        }
        EXPECT_TRUE(j["notes"].isArray());
    }
    EXPECT_EQ(17u, first.size());
}

// Sends logged through TOLVEN_LOG_FILE, read back with --read-log: each command as its live send
// told it, with at least a live send's keys; the answers written from the log give the same
// outcomes and replies when the simulated modem replays them.
TEST(Tool, ReadLogTellsWhatTheSendsDid) {
    Scratch scratch;
    ASSERT_FALSE(scratch.dir.empty());
    const std::string log = scratch.path("sends.log");
    const std::string answers = scratch.path("answers");
    const std::string silent = scratch.write("silent", "1d -> none\n");
    const std::vector<std::vector<std::string>> sends = {
            {"00"},
            {"-m", "callback", "7c"},
            {"-t", "300", "4b", "fe", "02", "00", "fc", "0f"},
            {"-t", "200", "1d"},
            {"-c", "0", "00"},
            {"-c", "8", "4b", "fe", "01", "00", "aa", "bb"},
    };
    const std::string logged = "TOLVEN_LOG_FILE='" + log + "' TOLVEN_LOG_SYSLOG=1,4 ";
    std::vector<Json::Value> live;
    for (const auto& args : sends) {
        std::vector<std::string> a = args;
        a.insert(a.begin(), "--json");
        ChildOutcome r = run_tool(a, logged + "LIBDIAG_SIM_ANSWERS='" + silent + "'");
        std::vector<Json::Value> j = json_lines(r.out);
        ASSERT_EQ(1u, j.size()) << r.out << r.err;
        live.push_back(j[0]);
    }

    ChildOutcome r = run_tool({"--json", "--read-log", log, "--answers", answers}, "");
    ASSERT_EQ(0, r.exit_code) << r.err;
    std::vector<Json::Value> read = json_lines(r.out);
    ASSERT_EQ(sends.size() + 1, read.size()) << r.out;
    for (size_t i = 0; i < sends.size(); ++i) {
        SCOPED_TRACE(live[i]["request"].asString());
        for (const std::string& key : live[i].getMemberNames()) {
            EXPECT_TRUE(read[i].isMember(key)) << key;
        }
        for (const char* key : {"request", "mode", "outcome", "result", "reply", "reply_len",
                                "capacity", "decoded", "subscription", "kind"}) {
            EXPECT_EQ(live[i][key], read[i][key]) << key;
        }
        // A refused call never got as far as its time limit.
        if (live[i]["outcome"] != "refused") {
            EXPECT_EQ(live[i]["timeout_ms"], read[i]["timeout_ms"]);
        }
        EXPECT_TRUE(read[i]["pid"].isInt() && read[i]["tid"].isInt() && read[i]["start"].isString());
    }
    EXPECT_EQ(6u, read.back()["summary"]["commands"].asUInt());
    // The same log as text: one block a command, then the summary.
    ChildOutcome text = run_tool({"--read-log", log}, "");
    EXPECT_NE(std::string::npos, text.out.find("#4 sync, dci mode, [tolven-diag] pid ")) << text.out;
    EXPECT_NE(std::string::npos, text.out.find("cause: no complete reply within 200 ms"));
    EXPECT_NE(std::string::npos, text.out.find("summary: 6 commands (6 sync, 0 no-wait), 4 ok, 1 "
                                               "timed out, 1 refused, 0 diag error, 0 unknown"))
            << text.out;

    // On the desk, from the answers the log gave: the same outcomes and replies.
    for (size_t i = 0; i < sends.size(); ++i) {
        std::vector<std::string> a = sends[i];
        a.insert(a.begin(), "--json");
        ChildOutcome again = run_tool(a, "LIBDIAG_SIM_ANSWERS='" + answers + "'");
        std::vector<Json::Value> j = json_lines(again.out);
        ASSERT_EQ(1u, j.size()) << again.out << again.err;
        EXPECT_EQ(live[i]["outcome"], j[0]["outcome"]) << live[i]["request"];
        EXPECT_EQ(live[i]["reply"], j[0]["reply"]) << live[i]["request"];
    }
    // The answers file is not written over.
    r = run_tool({"--read-log", log, "--answers", answers}, "");
    EXPECT_EQ(1, r.exit_code);
    EXPECT_NE(std::string::npos, r.err.find("File exists (name a file that does not exist)"));
}

// Every range a number option has is in --help and in the README, as its error states it.
TEST(Tool, NumberRangesAreDocumented) {
    const std::string readme = read_file(TOLVEN_SOURCE_DIR "/README.md");
    const std::string help = run_tool({"--help"}, "").out;
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"-t", "-1", "00"},
                                               {"-c", "-1", "00"},
                                               {"--count", "0", "00"},
                                               {"--count", "2", "--interval", "-1", "00"},
                                               {"-n", "--linger", "-1", "00"}}) {
        ChildOutcome r = run_tool(args, "");
        ASSERT_EQ(2, r.exit_code);
        const size_t open = r.err.find("(");
        const std::string range = r.err.substr(open + 1, r.err.find(")", open) - open - 1);
        SCOPED_TRACE(r.err);
        EXPECT_NE(std::string::npos, help.find(range));
        EXPECT_NE(std::string::npos, readme.find(range));
    }
}

// Every option of the README's table is in --help and in the man page, which is generated from
// the README (tests/CMakeLists.txt checks that the two agree).
TEST(Tool, HelpCoversReadmeOptions) {
    const std::string readme = read_file(TOLVEN_SOURCE_DIR "/README.md");
    const std::string help = run_tool({"--help"}, "").out;
    // The tool's section only: other sections have option tables of their own.
    const size_t from = readme.find("## The command-line tool");
    const size_t to = readme.find("\n## ", from + 1);
    ASSERT_NE(from, std::string::npos);
    int rows = 0;
    std::istringstream in(readme.substr(from, to - from));
    for (std::string line; std::getline(in, line);) {
        // "| `-m`, `--mode MODE` | ..." or "| `--raw` | ..."
        if (line.rfind("| `-", 0) != 0) continue;
        std::string cell = line.substr(0, line.find(" | ", 2));
        size_t at = cell.find("`--");
        if (at == std::string::npos) continue;
        std::string name = cell.substr(at + 1, cell.find_first_of(" `", at + 1) - at - 1);
        std::string wanted = cell.rfind("| `--", 0) == 0 ? name : cell.substr(3, 2) + ", " + name;
        ++rows;
        EXPECT_NE(help.find(wanted), std::string::npos) << wanted;
    }
    EXPECT_GE(rows, 17);
}

}  // namespace
