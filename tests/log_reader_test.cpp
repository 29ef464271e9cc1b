// The log reader against real logs: the shipped library sends through the simulated modem with
// its system-log lines going to a file (TOLVEN_LOG_FILE), in this process or in children that
// run as subscription instances and named processes at once, and every command read back is held
// field by field against what the test sent and got. The same log is then read in every form an
// engineer may have it in, cut short at either end, and replayed on the simulator from the
// answers file that the reader writes.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <ziparchive/zip_writer.h>

#include "answers_file.h"
#include "child.h"
#include "libdiag_sim.h"
#include "library_model.h"
#include "log_reader.h"
#include "tolven_diag.h"
#include "tolven_utils_host.h"

namespace {

using namespace tolven_diag_tool;
using Bytes = std::vector<uint8_t>;

// ---- Sending, and what was sent and got ----

struct Sent {
    CommandKind kind = CommandKind::kSync;
    Mode mode = Mode::kDci;
    Bytes request;
    int timeout_ms = 0;
    int capacity = 0;
    int result = 0;
    int reply_len = 0;
    Bytes reply;
    LoggedOutcome outcome = LoggedOutcome::kOk;  // what the test expects
    std::string failed_call;                     // for a diag error
    int answer_len = -1;                         // a worker's answer
};

Sent send_sync(Mode mode, const Bytes& request, int timeout_ms, int capacity,
               LoggedOutcome expect = LoggedOutcome::kOk, const std::string& failed_call = "") {
    Sent s;
    s.mode = mode;
    s.request = request;
    s.timeout_ms = timeout_ms;
    s.capacity = capacity;
    s.outcome = expect;
    s.failed_call = failed_call;
    Bytes buf(std::max(capacity, 1), 0xEE);
    s.reply_len = capacity;
    auto fn = mode == Mode::kDci ? tolven_diag_cmd_send_with_result_by_dci_mode
                                 : tolven_diag_cmd_send_with_result_by_callback_mode;
    s.result = fn(request.data(), static_cast<int>(request.size()), timeout_ms, buf.data(),
                  &s.reply_len);
    if (s.reply_len > 0 && s.reply_len <= capacity)
        s.reply.assign(buf.begin(), buf.begin() + s.reply_len);
    return s;
}

Sent send_no_wait(Mode mode, const Bytes& request, int answer_len) {
    Sent s;
    s.kind = CommandKind::kNoWait;
    s.mode = mode;
    s.request = request;
    s.answer_len = answer_len;
    s.result = mode == Mode::kDci ? tolven_diag_cmd_send_without_result_by_dci_mode(
                                            request.data(), static_cast<int>(request.size()))
                                  : tolven_diag_cmd_send_without_result_by_callback_mode(
                                            request.data(), static_cast<int>(request.size()));
    if (s.result != 0) s.outcome = LoggedOutcome::kRefused;
    return s;
}

Bytes ramp_bytes(size_t n) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(i * 31 + 7);
    return b;
}

// Waits for the library's workers (they linger 3 s) and timers to end.
void wait_for_workers() {
    usleep(4500 * 1000);
}

// The process's scratch folder; children leave with _exit, so only the test process removes it.
Scratch& scratch() {
    static Scratch folder;
    return folder;
}

std::string temp_path(const std::string& name) {
    return scratch().path(name);
}

// Sends log to |path| from now on, with both levels on, as a process started with these variables
// would.
void log_to(const std::string& path, int instance, const char* name) {
    setenv("TOLVEN_LOG_FILE", path.c_str(), 1);
    setenv("TOLVEN_LOG_SYSLOG", "1,4", 1);
    setenv("TOLVEN_INSTANCE_ID", std::to_string(instance).c_str(), 1);
    if (name != nullptr) setenv("TOLVEN_PROCESS_NAME", name, 1);
    tolven_utils_host_reload_env();
    // The host liblog's copy of every line on standard error is not wanted here.
    int null = open("/dev/null", O_WRONLY);
    dup2(null, STDERR_FILENO);
    close(null);
}

std::vector<LoggedCommand> read_commands(const std::string& path, std::string* error = nullptr,
                                         LogSummary* summary = nullptr) {
    std::vector<LoggedCommand> out;
    LogReader reader([&](const LoggedCommand& c) { out.push_back(c); });
    std::string why;
    bool ok = read_log(path, &reader, &why);
    reader.finish();
    if (error != nullptr) *error = ok ? "" : why;
    EXPECT_TRUE(ok || error != nullptr) << why;
    if (summary != nullptr) *summary = reader.summary();
    return out;
}

std::vector<LoggedCommand> read_text(const std::string& text) {
    std::vector<LoggedCommand> out;
    LogReader reader([&](const LoggedCommand& c) { out.push_back(c); });
    reader.feed(text.data(), text.size());
    reader.finish();
    return out;
}

std::string answers_file_text(const std::vector<LoggedCommand>& commands,
                              const std::string& source) {
    AnswersFile file;
    for (const LoggedCommand& c : commands) file.add(c);
    return file.text(source);
}

std::string notes_of(const LoggedCommand& c) {
    std::string all;
    for (const std::string& n : c.notes) all += n + "; ";
    return all;
}

bool has_note(const LoggedCommand& c, const std::string& part) {
    return notes_of(c).find(part) != std::string::npos;
}

// What the log says of a command against what the test sent and got.
void expect_matches(const LoggedCommand& c, const Sent& s, const std::string& where) {
    SCOPED_TRACE(where + ", command #" + std::to_string(c.seq) + ", notes: " + notes_of(c));
    EXPECT_EQ(c.kind, s.kind);
    // The dispatcher names the mode only once the packet passed its check.
    bool refused_early = s.kind == CommandKind::kNoWait && s.result != 0;
    EXPECT_EQ(c.mode_known, !refused_early);
    if (!refused_early) {
        EXPECT_EQ(c.mode, s.mode);
    }
    EXPECT_TRUE(c.complete);
    // An empty packet is refused before its dump, and before the capacity is looked at.
    EXPECT_EQ(c.request_known, !s.request.empty());
    EXPECT_EQ(c.request, s.request);
    if (s.request.empty()) return;
    EXPECT_EQ(c.request_len, static_cast<int>(s.request.size()));
    EXPECT_EQ(c.outcome, s.outcome) << logged_outcome_name(c.outcome);
    EXPECT_EQ(c.result, s.result);
    if (s.kind == CommandKind::kNoWait) {
        // A synchronous send's close may take the worker's connection, and its answer, along.
        for (int len : c.answer_lens) EXPECT_EQ(len, s.answer_len);
        return;
    }
    EXPECT_EQ(c.capacity, s.capacity);
    if (s.outcome == LoggedOutcome::kRefused) return;
    if (s.outcome == LoggedOutcome::kDiagError) {
        EXPECT_EQ(c.failure.call, s.failed_call);
        return;
    }
    EXPECT_EQ(c.ticks, timeout_ticks(s.mode, s.timeout_ms));
    EXPECT_EQ(c.timeout_ms, effective_timeout_ms(s.mode, s.timeout_ms));
    EXPECT_EQ(c.reply_len, s.reply_len);
    if (s.result == 0 && s.mode == Mode::kCallback && s.reply_len > kDciPieceLen) {
        // A callback response over 4096 bytes is logged without its bytes.
        EXPECT_FALSE(c.reply_known);
        EXPECT_TRUE(has_note(c, "not all in the log"));
    } else if (s.result == 0) {
        EXPECT_TRUE(c.reply_known);
        EXPECT_EQ(c.reply, s.reply);
        // A whole-piece reply waits out its limit; any other comes at once from the simulator.
        EXPECT_GE(c.elapsed_ms, 0);
    }
}

void expect_all_match(const std::vector<LoggedCommand>& got, const std::vector<Sent>& sent,
                      const std::string& where) {
    ASSERT_EQ(got.size(), sent.size()) << where;
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].seq, i + 1);
        expect_matches(got[i], sent[i], where);
    }
}

// A test-subsystem command whose reply has |n| bytes: the 4-byte header and n - 4 pattern bytes.
Bytes pattern_request(int n) {
    int count = n - 4;
    return {0x4B,
            0xFE,
            0x02,
            0x00,
            static_cast<uint8_t>(count & 0xFF),
            static_cast<uint8_t>(count >> 8)};
}

const Bytes kVersion = {0x00};
const Bytes kBuildId = {0x7C};
const Bytes kDiagVersion = {0x1C};
const Bytes kSilent = {0x4B, 0xFE, 0x09, 0x00};

// Every path of a synchronous send, one after another in one process: both transports, a reply
// cut by the capacity, several DCI pieces, whole pieces, a time-out (also after whole pieces, and
// in callback mode while an earlier reply is still stored), a callback response too long to take,
// refusals, a failed Diag_LSM_Init and failed diag calls (programmed first).
struct Step {
    Mode mode;
    Bytes request;
    int timeout_ms;
    int capacity;
    LoggedOutcome outcome;
    std::string failed_call;  // also the call programmed to fail
    long long value;
    int err;
};

std::vector<Step> every_path() {
    using O = LoggedOutcome;
    const Mode D = Mode::kDci, C = Mode::kCallback;
    return {
            {D, kVersion, 3000, 16384, O::kOk, "", 0, 0},
            {C, kBuildId, 1000, 16384, O::kOk, "", 0, 0},
            {D, kVersion, 3000, 8, O::kOk, "", 0, 0},
            {D, pattern_request(10004), 3000, 16384, O::kOk, "", 0, 0},
            {D, pattern_request(8192), 300, 16384, O::kOk, "", 0, 0},
            {D, kSilent, 200, 16384, O::kTimedOut, "", 0, 0},
            {C, pattern_request(12000), 250, 16384, O::kTimedOut, "", 0, 0},
            {C, kDiagVersion, 0, 100, O::kOk, "", 0, 0},
            {C, kSilent, 150, 2, O::kTimedOut, "", 0, 0},
            {D, pattern_request(4096), 200, 16384, O::kOk, "", 0, 0},
            {D, kSilent, 200, 16384, O::kTimedOut, "", 0, 0},
            {D, kVersion, 3000, 0, O::kRefused, "", 0, 0},
            {C, {}, 3000, 16, O::kRefused, "", 0, 0},
            {D, kVersion, 3000, 16384, O::kDiagError, "Diag_LSM_Init", 0, 0},
            {D, kVersion, 3000, 16384, O::kDiagError, "diag_register_dci_signal_data", 1002, EBUSY},
            {D, kBuildId, 3000, 16384, O::kDiagError, "diag_send_dci_async_req", 1004, 0},
            {C, kBuildId, 3000, 16384, O::kDiagError, "diag_callback_send_data", -1, 0},
            {C, kDiagVersion, 3000, 16384, O::kOk, "", 0, 0},
    };
}

Sent run_step(const Step& step) {
    if (!step.failed_call.empty()) {
        libdiag_sim::program_result(step.failed_call, step.value, 1, step.err);
    }
    return send_sync(step.mode, step.request, step.timeout_ms, step.capacity, step.outcome,
                     step.failed_call);
}

std::string hex_of(const Bytes& b) {
    static const char* kDigits = "0123456789ABCDEF";
    std::string h;
    for (uint8_t x : b) h += {kDigits[x >> 4], kDigits[x & 15]};
    return h.empty() ? "-" : h;
}

Bytes bytes_of(const std::string& h) {
    Bytes b;
    for (size_t i = 0; h != "-" && i + 1 < h.size(); i += 2) {
        b.push_back(static_cast<uint8_t>(std::stoi(h.substr(i, 2), nullptr, 16)));
    }
    return b;
}

struct Child {
    pid_t pid;
    std::string sent_path;
};

// Starts |body| in a child process whose log goes to |path|, as instance |instance| (255: the
// process |name|); it lists what its sends got.
template <typename Body>
Child start_child(const std::string& path, int instance, const char* name, Body body) {
    Child c{-1, temp_path("sent." + std::to_string(instance) + (name ? name : ""))};
    c.pid = fork();
    if (c.pid == 0) {
        log_to(path, instance, name);
        std::vector<Sent> sent = body();
        usleep(300 * 1000);  // the last wait timer ends, as in a process that lives on
        std::ofstream out(c.sent_path);
        for (const Sent& x : sent) {
            out << int(x.kind) << ' ' << int(x.mode) << ' ' << x.timeout_ms << ' ' << x.capacity
                << ' ' << x.result << ' ' << x.reply_len << ' ' << int(x.outcome) << ' '
                << x.answer_len << ' ' << (x.failed_call.empty() ? "-" : x.failed_call) << ' '
                << hex_of(x.request) << ' ' << hex_of(x.reply) << '\n';
        }
        out.close();
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    return c;
}

std::vector<Sent> collect(const Child& child) {
    int status = 0;
    EXPECT_EQ(waitpid(child.pid, &status, 0), child.pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::vector<Sent> sent;
    std::ifstream in(child.sent_path);
    Sent x;
    int kind, mode, outcome;
    std::string call, request, reply;
    while (in >> kind >> mode >> x.timeout_ms >> x.capacity >> x.result >> x.reply_len >> outcome >>
           x.answer_len >> call >> request >> reply) {
        x.kind = static_cast<CommandKind>(kind);
        x.mode = static_cast<Mode>(mode);
        x.outcome = static_cast<LoggedOutcome>(outcome);
        x.failed_call = call == "-" ? "" : call;
        x.request = bytes_of(request);
        x.reply = bytes_of(reply);
        sent.push_back(x);
    }
    unlink(child.sent_path.c_str());
    return sent;
}

template <typename Body>
std::vector<Sent> run_in_child(const std::string& path, int instance, const char* name, Body body) {
    return collect(start_child(path, instance, name, body));
}

std::vector<Sent> run_steps(const std::vector<Step>& steps) {
    libdiag_sim::set_answer(kSilent, libdiag_sim::Answer{});
    std::vector<Sent> sent;
    for (const Step& step : steps) {
        sent.push_back(run_step(step));
        EXPECT_EQ(sent.back().result, step.outcome == LoggedOutcome::kOk ? 0 : 1)
                << "step " << sent.size();
    }
    return sent;
}

std::string g_every_path_log;  // made once, read in many forms
std::vector<Sent> g_every_path_sent;

void make_every_path_log() {
    if (!g_every_path_log.empty()) return;
    std::string path = temp_path("every_path.log");
    g_every_path_sent = run_in_child(path, 0, nullptr, [] { return run_steps(every_path()); });
    g_every_path_log = read_file(path);
}

}  // namespace

TEST(LogReader, every_path_field_by_field) {
    make_every_path_log();
    std::vector<LoggedCommand> got = read_text(g_every_path_log);
    expect_all_match(got, g_every_path_sent, "threadtime");
    ASSERT_EQ(got.size(), 18u);
    // What the notes explain, where the library's lines tell it.
    EXPECT_TRUE(has_note(got[2], "cut to the capacity of 8")) << notes_of(got[2]);
    EXPECT_EQ(got[3].stored_len, 10004);
    EXPECT_TRUE(has_note(got[4], "whole 4096-byte pieces")) << notes_of(got[4]);
    EXPECT_TRUE(has_note(got[5], "no response came")) << notes_of(got[5]);
    EXPECT_TRUE(got[6].response_dropped);
    EXPECT_TRUE(has_note(got[6], "dropped")) << notes_of(got[6]);
    EXPECT_TRUE(has_note(got[7], "outside 1 to 60000")) << notes_of(got[7]);
    // Callback mode keeps the last response: the time-out hands the earlier reply's length over.
    EXPECT_EQ(got[8].reply_len, 2);
    EXPECT_TRUE(has_note(got[10], "left by an earlier command")) << notes_of(got[10]);
    EXPECT_FALSE(got[10].sent && got[10].answered);
    EXPECT_TRUE(got[13].failure.call == "Diag_LSM_Init");
    EXPECT_TRUE(has_note(got[13], "Diag_LSM_Init failed")) << notes_of(got[13]);
    const FailedCall& signal = got[14].failure;
    EXPECT_TRUE(signal.has_value && signal.value == 1002 && signal.has_errno && signal.err == EBUSY);
    EXPECT_EQ(got[15].failure.value, 1004);
    EXPECT_EQ(got[16].failure.value, -1);
    // The elapsed time of a time-out covers its limit.
    EXPECT_GE(got[5].elapsed_ms, 200);
    EXPECT_GE(got[4].elapsed_ms, 300);
}

// ---- The same log in every form ----

struct Fields {
    std::string date, time, tag, message;
    int pid = 0, tid = 0;
    char level = 'D';
};

Fields split_threadtime(const std::string& line) {
    Fields f;
    std::istringstream in(line);
    in >> f.date >> f.time >> f.pid >> f.tid >> f.level;
    size_t level_at = line.find(std::string(" ") + f.level + " ", 20);
    size_t sep = line.find(": ", level_at);
    f.tag = line.substr(level_at + 3, sep - level_at - 3);
    f.tag.erase(f.tag.find_last_not_of(' ') + 1);
    f.message = line.substr(sep + 2);
    return f;
}

using Convert = std::string (*)(const Fields&, size_t);

std::string convert_log(const std::string& log, Convert convert) {
    std::string out;
    std::istringstream in(log);
    std::string line;
    for (size_t n = 0; std::getline(in, line); ++n) out += convert(split_threadtime(line), n);
    return out;
}

struct Form {
    const char* name;
    Convert convert;
    bool pid, tid, time, fine_time;
};

std::string bugreport_text(const std::string& log) {
    std::string text =
            "========================================================\n"
            "== dumpstate: 2026-11-24 23:40:01\n"
            "========================================================\n"
            "Build: tolven-t1 14 TLV1.0.3\n"
            "------ KERNEL LOG (dmesg) ------\n"
            "<6>[    0.000000] Booting Linux on physical CPU 0x0\n"
            "------ SYSTEM LOG (logcat -v threadtime -v printable -v uid -d *:v) ------\n"
            "--------- beginning of main\n";
    text += convert_log(log, [](const Fields& f, size_t n) {
        std::string uid = n % 3 == 0 ? "radio" : n % 3 == 1 ? "1001" : "u0_a42";
        char head[96];
        snprintf(head, sizeof head, "%s %s %5s %5d %5d %c %-8s: ", f.date.c_str(), f.time.c_str(),
                 uid.c_str(), f.pid, f.tid, f.level, f.tag.c_str());
        std::string noise = n % 7 == 0 ? f.date + " " + f.time +
                                                 "  1000  1234  1240 I Zygote  : "
                                                 "Process 77 exited\n"
                                       : "";
        return noise + head + f.message + "\n";
    });
    text += "------ 0.120s was the duration of 'SYSTEM LOG' ------\n"
            "------ EVENT LOG (logcat -b events -v threadtime -v printable -v uid -d *:v) ------\n"
            "11-24 23:40:01.000  1000  1234  1240 I am_proc_start: [0,77,10042,com.example]\n";
    return text;
}

const Form kForms[] = {
        {"threadtime",
         [](const Fields& f, size_t) {
             char head[96];
             snprintf(head, sizeof head, "%s %s %5d %5d %c %-8s: ", f.date.c_str(), f.time.c_str(),
                      f.pid, f.tid, f.level, f.tag.c_str());
             return head + f.message + "\n";
         },
         true, true, true, true},
        {"threadtime with a year",
         [](const Fields& f, size_t) {
             return "2026-" + f.date + " " + f.time + " " + std::to_string(f.pid) + " " +
                    std::to_string(f.tid) + " " + f.level + " " + f.tag + ": " + f.message + "\n";
         },
         true, true, true, true},
        {"time",
         [](const Fields& f, size_t) {
             char head[96];
             snprintf(head, sizeof head, "%s %s %c/%s(%5d): ", f.date.c_str(), f.time.c_str(),
                      f.level, f.tag.c_str(), f.pid);
             return head + f.message + "\n";
         },
         true, false, true, true},
        {"brief",
         [](const Fields& f, size_t) {
             char head[64];
             snprintf(head, sizeof head, "%c/%-8s(%5d): ", f.level, f.tag.c_str(), f.pid);
             return head + f.message + "\n";
         },
         true, false, false, false},
        {"host standard error",
         [](const Fields& f, size_t) {
             char head[96];
             snprintf(head, sizeof head, "%s %c %s %s %5d %5d ", f.tag.c_str(), f.level,
                      f.date.c_str(), f.time.substr(0, 8).c_str(), f.pid, f.tid);
             return head + f.message + "\n";
         },
         true, true, true, false},
        {"shell sink",
         [](const Fields& f, size_t) {
             // RIL[file:line] func: message, on standard output: no pid, tid, time or instance.
             return "RIL" + f.message.substr(f.message.find("][") + 1) + "\n";
         },
         false, false, false, false},
};

void expect_same(const LoggedCommand& a, const LoggedCommand& b, const Form& form) {
    SCOPED_TRACE(std::string(form.name) + ", command #" + std::to_string(a.seq));
    EXPECT_EQ(a.seq, b.seq);
    EXPECT_EQ(a.kind, b.kind);
    EXPECT_EQ(a.mode, b.mode);
    EXPECT_EQ(a.request, b.request);
    EXPECT_EQ(a.capacity, b.capacity);
    EXPECT_EQ(a.ticks, b.ticks);
    EXPECT_EQ(a.reply_len, b.reply_len);
    EXPECT_EQ(a.reply, b.reply);
    EXPECT_EQ(a.result, b.result);
    EXPECT_EQ(a.outcome, b.outcome);
    EXPECT_EQ(a.failure.call, b.failure.call);
    EXPECT_EQ(a.failure.value, b.failure.value);
    EXPECT_EQ(a.response, b.response);
    EXPECT_EQ(a.complete, b.complete);
    EXPECT_EQ(a.pid, form.pid ? b.pid : -1);
    EXPECT_EQ(a.instance, form.pid ? b.instance : -1);
    EXPECT_EQ(a.tid, form.tid ? b.tid : -1);
    EXPECT_EQ(a.elapsed_ms, form.fine_time ? b.elapsed_ms : -1);
    EXPECT_EQ(a.start.empty(), !form.time);
}

// Fire-and-forget sends in both modes, and one refused, while another thread sends synchronously:
// a worker's lines go to its command by its own thread, its answers by the worker in flight.
TEST(LogReader, workers_beside_sync_sends_of_another_thread) {
    std::string path = temp_path("workers.log");
    std::vector<Sent> sent = run_in_child(path, 255, "vendor.radio.worker", [] {
        std::vector<Sent> sync, no_wait;
        std::thread other([&] {
            for (int i = 0; i < 4; ++i)
                sync.push_back(send_sync(Mode::kDci, kBuildId, 3000, 16384));
        });
        no_wait.push_back(send_no_wait(Mode::kDci, kDiagVersion, 3));
        no_wait.push_back(send_no_wait(Mode::kCallback, kVersion, 55));
        no_wait.push_back(send_no_wait(Mode::kDci, {}, -1));
        other.join();
        wait_for_workers();
        sync.insert(sync.end(), no_wait.begin(), no_wait.end());
        return sync;
    });
    std::vector<LoggedCommand> got = read_commands(path);
    // Every answer a worker logged went to its command.
    const std::string log_text = read_file(path);
    size_t answers = 0;
    for (size_t at = 0; (at = log_text.find("_no_handle: len = ", at)) != std::string::npos; ++at) {
        ++answers;
    }
    size_t attributed = 0;
    for (const LoggedCommand& c : got) attributed += c.answer_lens.size();
    EXPECT_EQ(attributed, answers);
    EXPECT_GT(answers, 0u);
    ASSERT_EQ(sent.size(), 7u);
    ASSERT_EQ(got.size(), 7u);
    std::vector<LoggedCommand> sync, no_wait;
    for (const LoggedCommand& c : got) {
        (c.kind == CommandKind::kSync ? sync : no_wait).push_back(c);
        EXPECT_EQ(c.process, "vendor.radio.worker");
        EXPECT_EQ(c.instance, -1);
    }
    ASSERT_EQ(sync.size(), 4u);
    for (size_t i = 0; i < sync.size(); ++i) {
        expect_matches(sync[i], sent[i], "sync");
        EXPECT_EQ(sync[i].tid, sync[0].tid);
    }
    ASSERT_EQ(no_wait.size(), 3u);
    for (size_t i = 0; i < no_wait.size(); ++i) {
        expect_matches(no_wait[i], sent[4 + i], "no-wait");
        EXPECT_NE(no_wait[i].tid, sync[0].tid);
    }
    EXPECT_TRUE(no_wait[0].sent && no_wait[1].sent);
    EXPECT_GE(no_wait[0].elapsed_ms, 1000);  // the worker ends its command after its second
    // Every form with thread ids gives the same commands. Without them lines go by their order
    // in the process, which cannot keep apart callers of two threads that run at once (their
    // input checks interleave), so those forms are held to the logs of one caller at a time.
    for (const Form& form : kForms) {
        if (!form.tid) continue;
        std::vector<LoggedCommand> again = read_text(convert_log(log_text, form.convert));
        ASSERT_EQ(again.size(), got.size()) << form.name;
        for (size_t i = 0; i < got.size(); ++i) expect_same(again[i], got[i], form);
    }
}

std::string logcat_now(int pid, int tid, char level, const std::string& tag,
                       const std::string& message) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm local;
    localtime_r(&now.tv_sec, &local);
    char head[96];
    snprintf(head, sizeof head, "%02d-%02d %02d:%02d:%02d.%03ld %5d %5d %c %-8s: ", local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, now.tv_nsec / 1000000, pid,
             tid, level, tag.c_str());
    return head + message + "\n";
}

// Two subscription instances and a named process at once, their lines merged in one log by time
// as logcat merges them, with other processes' lines between (some of them in the library's own
// form, from functions it does not have).
TEST(LogReader, three_processes_in_one_log) {
    std::string path = temp_path("three.log");
    std::vector<Step> all = every_path();
    std::vector<Step> first(all.begin(), all.begin() + 8), second(all.begin() + 5, all.end());
    std::vector<Child> children = {
            start_child(path, 0, nullptr, [&] { return run_steps(first); }),
            start_child(path, 1, nullptr, [&] { return run_steps(second); }),
            start_child(path, 255, "vendor.radio.probe",
                        [] {
                            std::vector<Sent> sent;
                            for (int i = 0; i < 6; ++i) {
                                sent.push_back(send_sync(i % 2 ? Mode::kCallback : Mode::kDci,
                                                         pattern_request(5 + 900 * i), 1000, 16384));
                            }
                            sent.push_back(send_no_wait(Mode::kDci, kDiagVersion, 3));
                            wait_for_workers();
                            return sent;
                        }),
    };
    std::atomic<bool> stop{false};
    std::thread noise([&] {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        const char* messages[] = {"Start proc 4242:com.example/u0a42 for service",
                                  "[0042]> SETUP_DATA_CALL", "[qcril][ril.c:12] other_fn: len = 3",
                                  "SUB[0][x.cpp:1] not_ours: req end, data_size = 9"};
        for (int i = 0; !stop.load(); ++i) {
            std::string line = logcat_now(900 + i % 3, 901, "IDWE"[i % 4], "RILJ", messages[i % 4]);
            ssize_t n = write(fd, line.data(), line.size());
            (void)n;
            usleep(3000);
        }
        close(fd);
    });
    std::vector<std::vector<Sent>> sent;
    for (const Child& c : children) sent.push_back(collect(c));
    stop = true;
    noise.join();
    LogSummary summary;
    std::vector<LoggedCommand> got = read_commands(path, nullptr, &summary);
    std::string log_text = read_file(path);
    // In every form that keeps the pid, the processes' lines stay apart.
    for (const Form& form : kForms) {
        if (!form.pid) continue;
        std::vector<LoggedCommand> again = read_text(convert_log(log_text, form.convert));
        ASSERT_EQ(again.size(), got.size()) << form.name;
        for (size_t i = 0; i < got.size(); ++i) expect_same(again[i], got[i], form);
    }
    std::map<std::string, std::vector<LoggedCommand>> by_process;
    for (const LoggedCommand& c : got) {
        by_process[c.instance >= 0 ? "SUB" + std::to_string(c.instance) : c.process].push_back(c);
    }
    ASSERT_EQ(by_process.size(), 3u);
    const char* keys[] = {"SUB0", "SUB1", "vendor.radio.probe"};
    for (size_t i = 0; i < 3; ++i) {
        const std::vector<LoggedCommand>& cmds = by_process[keys[i]];
        ASSERT_EQ(cmds.size(), sent[i].size()) << keys[i];
        for (size_t k = 0; k < cmds.size(); ++k) {
            expect_matches(cmds[k], sent[i][k], keys[i]);
            EXPECT_EQ(cmds[k].pid, children[i].pid);
        }
    }
    // Started in order, handed over in that order.
    for (size_t i = 1; i < got.size(); ++i) EXPECT_EQ(got[i].seq, got[i - 1].seq + 1);
    EXPECT_EQ(summary.commands, got.size());
    EXPECT_EQ(summary.per_process.size(), 3u);
    EXPECT_TRUE(summary.has_latency);
}

TEST(LogReader, every_form_of_the_same_log) {
    make_every_path_log();
    std::vector<LoggedCommand> want = read_text(g_every_path_log);
    ASSERT_EQ(want.size(), g_every_path_sent.size());
    for (const Form& form : kForms) {
        std::vector<LoggedCommand> got = read_text(convert_log(g_every_path_log, form.convert));
        ASSERT_EQ(got.size(), want.size()) << form.name;
        for (size_t i = 0; i < got.size(); ++i) expect_same(got[i], want[i], form);
    }
    // A bugreport, as text and as the zip adb writes (its main entry named, or found by name).
    std::string text = bugreport_text(g_every_path_log);
    std::string txt = scratch().write("bugreport.txt", text), zip = temp_path("bugreport.zip");
    for (bool named : {true, false}) {
        FILE* f = fopen(zip.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        ZipWriter writer(f);
        auto add = [&](const char* name, const std::string& content) {
            ASSERT_EQ(writer.StartEntry(name, ZipWriter::kCompress), 0);
            ASSERT_EQ(writer.WriteBytes(content.data(), content.size()), 0);
            ASSERT_EQ(writer.FinishEntry(), 0);
        };
        add("version.txt", "2.0");
        if (named) add("main_entry.txt", "bugreport-tolven-TLV1.0.3-2026-11-24.txt");
        add("FS/data/misc/logd/logcat.txt", "not the report");
        add("bugreport-tolven-TLV1.0.3-2026-11-24.txt", text);
        ASSERT_EQ(writer.Finish(), 0);
        fclose(f);
        for (const std::string& path : {txt, zip}) {
            std::vector<LoggedCommand> got = read_commands(path);
            ASSERT_EQ(got.size(), want.size()) << path;
            for (size_t i = 0; i < got.size(); ++i) expect_same(got[i], want[i], kForms[0]);
        }
    }
}

// Cut at any line, at the end (the process died, the log rotated) or at the start (the log began
// mid-command): what is whole in the piece is read as from the whole log, and what is not says so.
TEST(LogReader, a_log_cut_at_any_line) {
    make_every_path_log();
    std::vector<LoggedCommand> whole = read_text(g_every_path_log);
    std::vector<size_t> starts = {0};
    for (size_t i = 0; i < g_every_path_log.size(); ++i) {
        if (g_every_path_log[i] == '\n') starts.push_back(i + 1);
    }
    for (size_t k = 1; k + 1 < starts.size(); ++k) {
        std::vector<LoggedCommand> head = read_text(g_every_path_log.substr(0, starts[k]));
        ASSERT_LE(head.size(), whole.size());
        for (const LoggedCommand& c : head) {
            const LoggedCommand& w = whole[c.seq - 1];
            if (c.complete) {
                expect_same(c, w, kForms[0]);
            } else {
                EXPECT_TRUE(has_note(c, "lines stop")) << k << ": " << notes_of(c);
                if (c.request_known) {
                    EXPECT_EQ(c.request, w.request);
                }
            }
        }
        std::vector<LoggedCommand> tail = read_text(g_every_path_log.substr(starts[k]));
        for (size_t i = 0; i < tail.size(); ++i) {
            const LoggedCommand& c = tail[i];
            if (c.start.empty() || !c.complete) continue;
            auto same = std::find_if(whole.begin(), whole.end(), [&](const LoggedCommand& w) {
                return w.start == c.start && w.request == c.request && w.ticks == c.ticks &&
                       w.reply_len == c.reply_len && w.capacity == c.capacity;
            });
            ASSERT_NE(same, whole.end()) << k << ": #" << c.seq;
            EXPECT_EQ(c.outcome, same->outcome) << k;
            // What an earlier command left stored is not in the piece: then it is not known.
            if (c.reply_known) {
                EXPECT_EQ(c.reply, same->reply) << k;
            }
        }
        if (!tail.empty() && !tail[0].complete && tail[0].seq == 1) {
            bool partial = has_note(tail[0], "log begins in the middle");
            bool cut = has_note(tail[0], "lines stop");
            EXPECT_TRUE(partial || cut) << k << ": " << notes_of(tail[0]);
        }
    }
}

// From the field to the desk: the answers the log shows, replayed on the simulator, give every
// command the same outcome and reply.
TEST(LogReader, answers_replay_on_the_simulator) {
    std::string log = temp_path("field.log"), answers = temp_path("answers"),
                replay = temp_path("replay.log");
    std::vector<Step> steps = every_path();
    const Bytes slow = {0x4B, 0xFE, 0x07};
    steps.push_back({Mode::kDci, slow, 3000, 16384, LoggedOutcome::kOk, "", 0, 0});
    steps.push_back({Mode::kCallback, slow, 3000, 16384, LoggedOutcome::kOk, "", 0, 0});
    run_in_child(log, 0, nullptr, [&] {
        // Answers the simulator does not give by itself, so that the replay has to take them
        // from the file.
        using libdiag_sim::Response;
        libdiag_sim::set_answer(kVersion, {{Response{0, {0x00, 0x42, 0x43}, {}, {}}}});
        libdiag_sim::set_answer(
                slow, {{Response{0, ramp_bytes(300), {}, std::chrono::milliseconds(60)}}});
        return run_steps(steps);
    });
    std::vector<LoggedCommand> field = read_commands(log);
    ASSERT_EQ(field.size(), steps.size());
    std::string text = answers_file_text(field, log);

    diag_wire::ParsedAnswers parsed = diag_wire::parse_answers(text, "answers");
    EXPECT_TRUE(parsed.errors.empty()) << parsed.errors[0];
    EXPECT_NE(text.find("\n4B FE 09 00 -> none\n"), std::string::npos);
    EXPECT_NE(text.find("dropped by the library"), std::string::npos);
    EXPECT_NE(text.find(" @ 6"), std::string::npos);  // the slow answer's 60 ms
    scratch().write("answers", text);
    // The desk: only the answers file, and the failures the log names, programmed again.
    std::vector<Step> desk;
    for (const LoggedCommand& c : field) {
        const FailedCall& f = c.failure;
        desk.push_back({c.mode, c.request, std::max(c.ticks, 0) * 100 + 50,
                        c.capacity < 0 ? 0 : c.capacity, c.outcome,
                        c.outcome == LoggedOutcome::kDiagError ? f.call : "", f.value,
                        f.has_errno ? f.err : 0});
    }
    setenv("LIBDIAG_SIM_ANSWERS", answers.c_str(), 1);
    run_in_child(replay, 0, nullptr, [&] {
        std::vector<Sent> sent;
        for (const Step& step : desk) sent.push_back(run_step(step));
        return sent;
    });
    unsetenv("LIBDIAG_SIM_ANSWERS");
    std::vector<LoggedCommand> again = read_commands(replay);

    ASSERT_EQ(again.size(), field.size());
    for (size_t i = 0; i < field.size(); ++i) {
        SCOPED_TRACE("command #" + std::to_string(i + 1) + ": " + notes_of(again[i]));
        EXPECT_EQ(again[i].outcome, field[i].outcome);
        EXPECT_EQ(again[i].result, field[i].result);
        EXPECT_EQ(again[i].reply_len, field[i].reply_len);
        EXPECT_EQ(again[i].reply, field[i].reply);
        EXPECT_EQ(again[i].failure.call, field[i].failure.call);
    }

    // One request, answered differently: the last answer is kept, and a comment says so.
    field[1].request = field[0].request;
    text = answers_file_text({field[0], field[1]}, "log");
    EXPECT_NE(text.find("different answers in the log (commands #1 #2); the last is kept"),
              std::string::npos);
    EXPECT_EQ(diag_wire::parse_answers(text, "a").lines.size(), 1u);
}

// Whatever comes: junk, cut and overlong lines, files that are no logs, damaged zips. Each is
// skipped or named, and the commands around the junk are read as without it.
TEST(LogReader, bad_input_is_skipped_or_named) {
    make_every_path_log();
    std::string junk;
    for (int i = 0; i < 5000; ++i) junk += static_cast<char>((i * 7919) % 256);
    std::string log = junk + "\n" + std::string(1 << 20, 'x') + "\n" + g_every_path_log +
                      std::string(1 << 20, '\0') + "\n" + junk;
    LogSummary summary;
    std::vector<LoggedCommand> got;
    {
        LogReader reader([&](const LoggedCommand& c) { got.push_back(c); });
        // In pieces of every size, and a byte at a time.
        for (size_t at = 0, step = 1; at < log.size(); at += step, step = step % 4099 + 1) {
            reader.feed(log.data() + at, std::min(step, log.size() - at));
        }
        reader.finish();
        summary = reader.summary();
    }
    std::vector<LoggedCommand> want = read_text(g_every_path_log);
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) expect_same(got[i], want[i], kForms[0]);
    EXPECT_EQ(summary.long_lines, 2u);

    std::string dir = temp_path("dir"), fifo = temp_path("fifo"), cut_zip = temp_path("cut.zip"),
                bad_zip = temp_path("bad.zip"), no_report = temp_path("none.zip");
    mkdir(dir.c_str(), 0700);
    mkfifo(fifo.c_str(), 0600);
    scratch().write("bad.zip", std::string("PK\x03\x04", 4) + junk);
    {
        FILE* f = fopen(no_report.c_str(), "wb");
        ZipWriter writer(f);
        writer.StartEntry("version.txt", 0);
        writer.WriteBytes("2.0", 3);
        writer.FinishEntry();
        writer.StartEntry("bugreport-x.txt", ZipWriter::kCompress);
        writer.WriteBytes(g_every_path_log.data(), g_every_path_log.size());
        writer.FinishEntry();
        writer.Finish();
        fclose(f);
        std::string whole = read_file(no_report);
        scratch().write("cut.zip", whole.substr(0, whole.size() / 2));
        f = fopen(no_report.c_str(), "wb");
        ZipWriter other(f);
        other.StartEntry("version.txt", 0);
        other.WriteBytes("2.0", 3);
        other.FinishEntry();
        other.Finish();
        fclose(f);
    }
    const struct {
        std::string path;
        const char* says;
    } kBad[] = {
            {temp_path("missing"), "cannot open"},
            {dir, "is a directory"},
            {fifo, "is a FIFO"},
            {"/dev/zero", "is a character device"},
            {cut_zip, "is not a zip that can be read"},
            {bad_zip, "is not a zip that can be read"},
            {no_report, "holds no bugreport"},
    };
    for (const auto& bad : kBad) {
        std::string error;
        std::vector<LoggedCommand> none = read_commands(bad.path, &error);
        EXPECT_NE(error.find(bad.says), std::string::npos) << bad.path << ": " << error;
        EXPECT_EQ(error.find('\n'), std::string::npos);
        EXPECT_TRUE(none.empty());
    }
}

// A live send read as it logs, through the stand-in's hook: the same reader, the same account.
TEST(LogReader, lines_handed_over_in_the_process) {
    std::string unused = temp_path("live.log");
    std::vector<Sent> sent = run_in_child(unused, 0, nullptr, [] {
        std::vector<LoggedCommand> got;
        LogReader reader([&](const LoggedCommand& c) { got.push_back(c); });
        tolven_utils_host_set_line_hook(
                [](const tolven_utils_line* l, void* r) {
                    static_cast<LogReader*>(r)->feed_message(l->pid, l->tid, l->time_ms, l->text);
                },
                &reader);
        std::vector<Step> steps = every_path();
        steps.resize(11);
        std::vector<Sent> sent = run_steps(steps);
        usleep(300 * 1000);  // the last wait timer ends
        tolven_utils_host_set_line_hook(nullptr, nullptr);
        reader.finish();
        expect_all_match(got, sent, "live");
        return sent;
    });
    EXPECT_EQ(sent.size(), 11u);
}

// Memory follows the commands in flight: a long log keeps only a few of them at a time.
TEST(LogReader, holds_only_the_commands_in_flight) {
    make_every_path_log();
    size_t handed = 0, most = 0;
    LogReader reader([&](const LoggedCommand&) { ++handed; });
    for (int i = 0; i < 200; ++i) {
        reader.feed(g_every_path_log.data(), g_every_path_log.size());
        most = std::max(most, reader.held());
    }
    reader.finish();
    EXPECT_EQ(handed, 200 * g_every_path_sent.size());
    // Timers still running hold a few commands back; never a copy's worth, however many copies.
    EXPECT_LT(most, g_every_path_sent.size());
}
