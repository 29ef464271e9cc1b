#include "log_reader.h"

#include <limits.h>
#include <string.h>

#include <algorithm>
#include <deque>
#include <unordered_map>

namespace tolven_diag_tool {
namespace {

using std::string_view;

constexpr int kDciSuccess = 1001;
// A command whose lines stop for this long (log time) is taken as cut, so that the commands after
// it need not wait for the end of the log; and at most this many commands are held.
constexpr int64_t kStaleMs = 120000;
constexpr size_t kMaxHeld = 100000;
constexpr int64_t kTimerGraceMs = 2000;
constexpr size_t kMaxNoteLine = 120;

// What a function of the library is to the reader, by the thread it runs on.
enum class Role {
    kOther,         // not a command's
    kSyncCaller,    // the synchronous send itself
    kNoWaitCaller,  // the fire-and-forget dispatcher
    kHelper,        // called on the caller's thread (or a worker's)
    kHex,           // the hex dump: a request, a response piece or a stream record
    kTimer,
    kWorker,
    kHandler,       // the handlers of a synchronous send's responses
    kStream,        // a synchronous DCI client's log and event streams
    kWorkerAnswer,  // the quiet handlers of a worker's answers
    kWorkerStream,
};

enum class Fn {
    kOther,
    kSyncDci,
    kSyncCallback,
    kStart,
    kWorkerDci,
    kWorkerCallback,
    kTimer,
    kCreate,
    kInput,
    kOutput,
    kInit,
    kDeinit,
    kRegister,
    kHex,
    kCheck,
    kRspDci,
    kRspCallback,
    kStream,
    kAnswerDci,
    kAnswerCallback,
    kWorkerStream,
};

struct FnRole {
    Fn fn;
    Role role;
};

// The library's functions whose lines belong to a command, and what each is to the reader.
FnRole fn_of(string_view f) {
    static const std::unordered_map<string_view, FnRole> kFns = {
            {"tolven_diag_cmd_send_with_result_by_dci_mode", {Fn::kSyncDci, Role::kSyncCaller}},
            {"tolven_diag_cmd_send_with_result_by_callback_mode",
             {Fn::kSyncCallback, Role::kSyncCaller}},
            {"tolven_diag_cmd_send_without_result_start_thread", {Fn::kStart, Role::kNoWaitCaller}},
            {"tolven_diag_cmd_send_without_result_by_dci_mode_thread_proc",
             {Fn::kWorkerDci, Role::kWorker}},
            {"tolven_diag_cmd_send_without_result_by_callback_mode_thread_proc",
             {Fn::kWorkerCallback, Role::kWorker}},
            {"tolven_diag_cmd_send_with_result_wait_thread_proc", {Fn::kTimer, Role::kTimer}},
            {"tolven_diag_cmd_send_with_result_wait_create_thread", {Fn::kCreate, Role::kHelper}},
            {"tolven_diag_comand_input_check", {Fn::kInput, Role::kHelper}},
            {"tolven_diag_comand_output_check", {Fn::kOutput, Role::kHelper}},
            {"tolven_diag_init_with_result", {Fn::kInit, Role::kHelper}},
            {"tolven_diag_deinit_with_result", {Fn::kDeinit, Role::kHelper}},
            {"tolven_diag_register_callback", {Fn::kRegister, Role::kHelper}},
            {"tolven_print_data_with_hex", {Fn::kHex, Role::kHex}},
            {"tolven_diag_cmd_response_check", {Fn::kCheck, Role::kHandler}},
            {"tolven_diag_cmd_response_by_dci", {Fn::kRspDci, Role::kHandler}},
            {"tolven_diag_cmd_response_by_callback", {Fn::kRspCallback, Role::kHandler}},
            {"tolven_diag_cmd_response_by_dci_log_stream", {Fn::kStream, Role::kStream}},
            {"tolven_diag_cmd_response_by_dci_event_stream", {Fn::kStream, Role::kStream}},
            {"tolven_diag_cmd_response_by_dci_no_handle", {Fn::kAnswerDci, Role::kWorkerAnswer}},
            {"tolven_diag_cmd_response_by_callback_no_handle",
             {Fn::kAnswerCallback, Role::kWorkerAnswer}},
            {"tolven_diag_cmd_response_by_dci_log_stream_no_handle",
             {Fn::kWorkerStream, Role::kWorkerStream}},
            {"tolven_diag_cmd_response_by_dci_event_stream_no_handle",
             {Fn::kWorkerStream, Role::kWorkerStream}},
    };
    auto it = kFns.find(f);
    return it == kFns.end() ? FnRole{Fn::kOther, Role::kOther} : it->second;
}

bool starts(string_view s, string_view prefix) {
    return s.size() >= prefix.size() && s.compare(0, prefix.size(), prefix) == 0;
}

// The number after |key| in |s|; false when there is none.
bool num_after(string_view s, string_view key, long long* out) {
    size_t at = s.find(key);
    if (at == string_view::npos) return false;
    size_t p = at + key.size();
    bool neg = p < s.size() && s[p] == '-';
    if (neg) ++p;
    size_t start = p;
    long long v = 0;
    while (p < s.size() && s[p] >= '0' && s[p] <= '9' && p - start < 18)
        v = v * 10 + (s[p++] - '0');
    if (p == start) return false;
    *out = neg ? -v : v;
    return true;
}

int int_after(string_view s, string_view key, int fallback = -1) {
    long long v;
    if (!num_after(s, key, &v) || v > 0x7FFFFFFF || v < -0x7FFFFFFF) return fallback;
    return static_cast<int>(v);
}

// Lengths of a damaged log may add up past an int.
int add_lengths(int a, int b) {
    long long sum = static_cast<long long>(a) + b;
    return sum > INT_MAX ? INT_MAX : sum < INT_MIN ? INT_MIN : static_cast<int>(sum);
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// "AA BB CC" of exactly |len| bytes; false for anything else (a cut line).
bool parse_dump(string_view text, int len, std::vector<uint8_t>* out) {
    if (len < 1 || text.size() != static_cast<size_t>(len) * 3 - 1) return false;
    out->resize(len);
    for (int i = 0; i < len; ++i) {
        const char* p = text.data() + i * 3;
        int hi = hex_digit(p[0]), lo = hex_digit(p[1]);
        if (hi < 0 || lo < 0 || (i + 1 < len && p[2] != ' ')) return false;
        (*out)[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return true;
}

std::string quote_line(string_view func, string_view message) {
    std::string text = std::string(func) + ": " + std::string(message);
    if (text.size() > kMaxNoteLine) text = text.substr(0, kMaxNoteLine) + "...";
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7F) c = '?';
    }
    return text;
}

std::string errno_text(int err) {
    return "errno " + std::to_string(err) + (err > 0 ? std::string(" (") + strerror(err) + ")" : "");
}

std::string value_meaning(const std::string& call, long long value) {
    if (call == "Diag_LSM_Init") return "no connection to the diag service";
    if (call == "diag_callback_send_data") return "libdiag did not take the packet";
    if (call == "malloc") return "out of memory";
    if (call == "pthread_create") return "the thread could not be started";
    // The host libdiag's codes; a phone's libdiag has its own.
    switch (value) {
        case 1002:
            return "refused (on a host: the simulated modem's generic failure)";
        case 1003:
            return "no connection: Diag_LSM_Init had not succeeded (on a host)";
        case 1004:
            return "unknown client (on a host)";
    }
    return "a failure code of libdiag (1001 is success)";
}

struct Cmd;

// What a dump line on a thread belongs to: a request being checked, a response piece after its
// banner, or a stream record.
struct Pending {
    enum Kind { kInput, kBanner, kStream } kind;
    int len;
    Cmd* cmd;
};

struct ThreadCtx {
    std::vector<Pending> pending;
    // The last piece dumped on this thread, for its "cmd_code" line.
    int piece_len = -1;
    bool piece_known = false;
    std::vector<uint8_t> piece;
};

// The library's response store of one process, as far as the log tells it.
struct Store {
    bool known = false;  // the log has shown where it stands
    bool has_data = false;
    bool bytes_known = false;
    std::vector<uint8_t> bytes;
    int length = 0;
    uint64_t by_seq = 0;  // the command in flight when it was written; 0: none
};

struct Proc;

struct Cmd {
    LoggedCommand c;
    Proc* proc = nullptr;
    bool done = false;
    bool partial = false;
    int64_t first_ms = 0, last_ms = 0, end_ms = 0;
    bool has_time = false;
    bool fine_time = false;
    // The caller (its tid is c.tid).
    bool caller_exited = false;
    bool checked = false;
    bool torn_down = false;
    bool failed = false;  // ended before the wait, by a refusal or a diag error
    bool lsm_failed = false;
    int ret_send = 0;
    // The send and the wait.
    bool has_send_ms = false;
    int64_t send_ms = 0;
    bool timer_expected = false, timer_bound = false, timer_exited = false;
    bool timer_failed = false;
    int timer_tid = -1;
    int timer_last_cnt = 0;
    bool stop_before_end = false, whole_before_end = false;
    bool req_end = false;
    bool completing = false;
    int pieces = 0;
    int streams = 0;
    bool late_response = false;
    // The worker of a fire-and-forget send.
    bool worker_expected = false, worker_bound = false, worker_locked = false;
    bool worker_unlocked = false, worker_exited = false;
    int worker_tid = -1;
};

struct Proc {
    std::string process;
    int instance = -1;
    std::vector<Cmd*> cmds;  // not yet done, in start order
    Cmd* lock_holder = nullptr;
    Cmd* worker_holder = nullptr;
    std::unordered_map<int, Cmd*> by_tid;
    std::unordered_map<int, ThreadCtx> ctx;
    Store store;
    bool seen_entry = false;
};

}  // namespace

const char* command_kind_name(CommandKind kind) {
    return kind == CommandKind::kSync ? "sync" : "no-wait";
}

const char* logged_outcome_name(LoggedOutcome outcome) {
    // In the order of LoggedOutcome; the names a live send's outcomes have.
    static constexpr const char* kNames[] = {"ok", "refused", "diag error", "timed out", "unknown"};
    return kNames[static_cast<int>(outcome)];
}

struct LogReader::Impl {
    explicit Impl(Sink s)
        : sink(std::move(s)), splitter(kMaxLine, [this](string_view l) { line(l); }) {}

    Sink sink;
    Sink on_return;
    LineSplitter splitter;
    std::unordered_map<int, std::unique_ptr<Proc>> procs;
    std::deque<std::unique_ptr<Cmd>> queue;  // in start order, until handed over
    uint64_t next_seq = 1;
    int64_t now_ms = 0;
    LogSummary sum;
    std::vector<double> latencies;

    // ---- Lines ----

    void line(string_view text) {
        ++sum.lines;
        // A bugreport's next section: its logs are not the earlier section's.
        if (starts(text, "------ ")) {
            cut();
            return;
        }
        TraceLine t;
        if (parse_trace_line(text, &t)) trace(t);
    }

    void trace(const TraceLine& t) {
        ++sum.trace_lines;
        if (t.has_time && t.time_ms > now_ms) now_ms = t.time_ms;
        Proc& p = proc_of(t);
        const auto [fn, role] = fn_of(t.func);
        if (role == Role::kOther) return expire();
        Cmd* cmd = route(p, t, fn, role);
        if (cmd != nullptr) {
            touch(cmd, t);
            apply(p, cmd, t, fn, role);
        } else if (role == Role::kHandler || role == Role::kHex || role == Role::kStream) {
            // A response with no command waiting still changes what the process has stored.
            handler_line(p, nullptr, t, fn, role);
            ++sum.stray_lines;
        } else {
            ++sum.stray_lines;
        }
        expire();
    }

    Proc& proc_of(const TraceLine& t) {
        std::unique_ptr<Proc>& slot = procs[t.pid];
        if (slot && (slot->instance != t.instance || slot->process != t.process)) {
            // The pid now names another process: what the old one left open is cut.
            for (Cmd* c : std::vector<Cmd*>(slot->cmds)) force(c);
            slot.reset();
        }
        if (!slot) {
            slot = std::make_unique<Proc>();
            slot->process = std::string(t.process);
            slot->instance = t.instance;
        }
        return *slot;
    }

    void touch(Cmd* cmd, const TraceLine& t) {
        if (!t.has_time) return;
        if (!cmd->has_time) {
            cmd->has_time = true;
            cmd->first_ms = t.time_ms;
            cmd->fine_time = t.time_step_ms == 1;
        }
        cmd->last_ms = t.time_ms;
    }

    // ---- Which command a line belongs to ----

    Cmd* bound(Proc& p, int tid) {
        auto it = p.by_tid.find(tid);
        return it == p.by_tid.end() ? nullptr : it->second;
    }

    static bool is_entry(string_view m) { return m == "function entry ------------->"; }
    static bool is_exit(string_view m) { return m == "function exit <-------------"; }

    Cmd* route(Proc& p, const TraceLine& t, Fn fn, Role role) {
        const bool tids = t.tid >= 0;
        const string_view m = t.message;
        Cmd* cmd = nullptr;
        switch (role) {
            case Role::kSyncCaller:
            case Role::kNoWaitCaller: {
                const bool sync = role == Role::kSyncCaller;
                if (is_entry(m)) return start(p, t, sync, fn);
                if (tids) {
                    cmd = bound(p, t.tid);
                } else if (sync) {
                    const Mode mode = fn == Fn::kSyncDci ? Mode::kDci : Mode::kCallback;
                    auto mine = [&](Cmd* c) {
                        return c->c.kind == CommandKind::kSync && c->c.mode == mode &&
                               !c->caller_exited;
                    };
                    cmd = p.lock_holder != nullptr && mine(p.lock_holder) ? p.lock_holder : nullptr;
                    if (is_exit(m)) {
                        Cmd* over = oldest(p, [&](Cmd* c) { return mine(c) && c->torn_down; });
                        if (over != nullptr) cmd = over;
                    }
                    if (cmd == nullptr) cmd = oldest(p, mine);
                } else {
                    cmd = oldest(p, [](Cmd* c) {
                        return c->c.kind == CommandKind::kNoWait && !c->caller_exited;
                    });
                }
                break;
            }
            case Role::kHelper:
                if (tids) {
                    cmd = bound(p, t.tid);
                } else if (fn == Fn::kInput && starts(m, "diag_comand")) {
                    cmd = oldest(p, [&](Cmd* c) {
                        return !c->checked && !c->partial &&
                               (c->c.kind == CommandKind::kNoWait || p.lock_holder == nullptr ||
                                p.lock_holder->torn_down);
                    });
                } else if (fn == Fn::kRegister && p.worker_holder != nullptr &&
                           !p.worker_holder->has_send_ms &&
                           (p.lock_holder == nullptr || p.lock_holder->has_send_ms)) {
                    // A callback worker registers between its lock and its send.
                    cmd = p.worker_holder;
                } else {
                    cmd = current_caller(p);
                }
                break;
            case Role::kHex:
                return pending_owner(p, t);
            case Role::kTimer:
                if (is_entry(m)) {
                    cmd = bind_thread(p, t.tid, &Cmd::timer_expected, &Cmd::timer_bound,
                                      &Cmd::timer_tid);
                } else if (tids) {
                    cmd = bound(p, t.tid);
                } else {
                    int n = int_after(m, "cnt_of_100ms = ");
                    auto live = [](Cmd* c) { return c->timer_bound && !c->timer_exited; };
                    if (n > 0) {
                        cmd = oldest(p,
                                     [&](Cmd* c) { return live(c) && c->timer_last_cnt == n - 1; });
                    }
                    if (cmd == nullptr) cmd = oldest(p, live);
                }
                break;
            case Role::kWorker:
                if (is_entry(m)) {
                    cmd = bind_thread(p, t.tid, &Cmd::worker_expected, &Cmd::worker_bound,
                                      &Cmd::worker_tid);
                } else if (tids) {
                    cmd = bound(p, t.tid);
                } else if (starts(m, "data_len = ") || m == "param is null") {
                    cmd = oldest(p, [](Cmd* c) { return c->worker_bound && !c->worker_locked; });
                } else if (m == "will sleep 3s before quit") {
                    // Workers leave the lock in the order they took it; the next may take it
                    // before this line.
                    cmd = oldest(p, [](Cmd* c) { return c->worker_locked && !c->worker_unlocked; });
                } else if (is_exit(m)) {
                    cmd = oldest(p, [](Cmd* c) { return c->worker_unlocked && !c->worker_exited; });
                } else {
                    cmd = p.worker_holder;
                }
                break;
            case Role::kHandler:
            case Role::kStream:
                cmd = p.lock_holder;
                break;
            case Role::kWorkerAnswer:
            case Role::kWorkerStream:
                cmd = p.worker_holder;
                break;
            case Role::kOther:
                return nullptr;
        }
        if (cmd == nullptr && !p.seen_entry && role != Role::kHandler && role != Role::kStream &&
            role != Role::kWorkerStream && role != Role::kHex) {
            cmd = begin_partial(p, t, fn, role);
        }
        return cmd;
    }

    // A new timer or worker thread: the oldest command of its process that started one and has
    // none yet.
    Cmd* bind_thread(Proc& p, int tid, bool Cmd::*expected, bool Cmd::*bound, int Cmd::*tid_of) {
        Cmd* cmd = oldest(p, [&](Cmd* c) { return c->*expected && !(c->*bound); });
        if (cmd != nullptr) {
            cmd->*bound = true;
            cmd->*tid_of = tid;
            if (tid >= 0) p.by_tid[tid] = cmd;
        }
        return cmd;
    }

    template <typename Pred>
    Cmd* oldest(Proc& p, Pred pred) {
        for (Cmd* c : p.cmds) {
            if (pred(c)) return c;
        }
        return nullptr;
    }

    // Without thread ids: the command whose caller's helpers run now.
    Cmd* current_caller(Proc& p) {
        Cmd* cmd = oldest(p, [](Cmd* c) {
            return c->c.kind == CommandKind::kNoWait && c->checked && !c->caller_exited &&
                   !c->worker_expected && !c->failed;
        });
        if (cmd != nullptr) return cmd;
        return p.lock_holder;
    }

    // The owner of a dump line: by its thread's pending banner, check or stream record.
    Cmd* pending_owner(Proc& p, const TraceLine& t) {
        ThreadCtx& ctx = p.ctx[t.tid];
        // Also "invalid data len(N)".
        const int len = int_after(t.message, "len(");
        for (size_t i = ctx.pending.size(); i-- > 0;) {
            const Pending& pd = ctx.pending[i];
            if (pd.kind != Pending::kStream && pd.len == len) return pd.cmd;
        }
        for (size_t i = ctx.pending.size(); i-- > 0;) {
            if (ctx.pending[i].kind == Pending::kStream) return ctx.pending[i].cmd;
        }
        return nullptr;
    }

    Cmd* new_cmd(Proc& p, const TraceLine& t, CommandKind kind) {
        auto owned = std::make_unique<Cmd>();
        Cmd* cmd = owned.get();
        cmd->proc = &p;
        cmd->c.seq = next_seq++;
        cmd->c.pid = t.pid;
        cmd->c.process = p.process;
        cmd->c.instance = p.instance;
        cmd->c.start = std::string(t.time_text);
        cmd->c.kind = kind;
        queue.push_back(std::move(owned));
        p.cmds.push_back(cmd);
        return cmd;
    }

    void set_mode(Cmd* cmd, Fn fn) {
        if (fn == Fn::kSyncDci || fn == Fn::kWorkerDci || fn == Fn::kRspDci) {
            cmd->c.mode_known = true;
            cmd->c.mode = Mode::kDci;
        } else if (fn == Fn::kSyncCallback || fn == Fn::kWorkerCallback || fn == Fn::kRspCallback) {
            cmd->c.mode_known = true;
            cmd->c.mode = Mode::kCallback;
        }
    }

    Cmd* start(Proc& p, const TraceLine& t, bool sync, Fn fn) {
        p.seen_entry = true;
        Cmd* cmd = new_cmd(p, t, sync ? CommandKind::kSync : CommandKind::kNoWait);
        cmd->c.tid = t.tid;
        set_mode(cmd, fn);
        if (t.tid >= 0) p.by_tid[t.tid] = cmd;
        return cmd;
    }

    // The first line of a process is not a command's start: the log began mid-command.
    Cmd* begin_partial(Proc& p, const TraceLine& t, Fn fn, Role role) {
        const bool no_wait =
                role == Role::kNoWaitCaller || role == Role::kWorker || role == Role::kWorkerAnswer;
        Cmd* cmd = new_cmd(p, t, no_wait ? CommandKind::kNoWait : CommandKind::kSync);
        cmd->partial = true;
        set_mode(cmd, fn);
        cmd->c.notes.push_back(
                "the log begins in the middle of this command; its first line here: " +
                quote_line(t.func, t.message));
        if (role == Role::kWorker || role == Role::kWorkerAnswer) {
            cmd->worker_expected = cmd->worker_bound = cmd->worker_locked = true;
            cmd->worker_tid = t.tid;
            cmd->caller_exited = true;
            if (role == Role::kWorker && t.tid >= 0) p.by_tid[t.tid] = cmd;
            p.worker_holder = cmd;
        } else if (role == Role::kTimer) {
            cmd->timer_expected = cmd->timer_bound = true;
            cmd->timer_tid = t.tid;
            if (t.tid >= 0) p.by_tid[t.tid] = cmd;
            cmd->checked = true;
            p.lock_holder = cmd;
        } else {
            cmd->c.tid = t.tid;
            cmd->checked = true;
            if (t.tid >= 0) p.by_tid[t.tid] = cmd;
            if (!no_wait) p.lock_holder = cmd;
        }
        if (p.lock_holder == cmd) {
            cmd->c.sent = true;  // it waits, or is past the wait
            cmd->timer_expected = true;
        }
        return cmd;
    }

    // ---- What a line says ----

    void fail(Cmd* cmd, LoggedOutcome outcome, const std::string& call, bool has_value,
              long long value, bool has_errno, int err) {
        FailedCall& f = cmd->c.failure;
        if (cmd->failed) return;
        cmd->failed = true;
        cmd->c.outcome = outcome;
        if (outcome == LoggedOutcome::kDiagError) {
            f.call = call;
            f.has_value = has_value;
            f.value = value;
            f.has_errno = has_errno;
            f.err = err;
            f.meaning = value_meaning(call, value);
        }
    }

    void diag_fail(Cmd* cmd, const std::string& call, string_view m, bool with_errno = true) {
        long long value = 0, err = 0;
        bool has_value = num_after(m, "err: ", &value);
        if (!has_value) has_value = num_after(m, "peripheral ", &value);
        bool has_errno = with_errno && num_after(m, "errno: ", &err);
        std::string note = call + " failed";
        if (has_value)
            note += " with " + std::to_string(value) + " (" + value_meaning(call, value) + ")";
        if (has_errno) note += ", " + errno_text(static_cast<int>(err));
        if (cmd->lsm_failed) {
            // The root of it: the calls after a failed connection fail for that.
            note += ", after Diag_LSM_Init had failed";
            fail(cmd, LoggedOutcome::kDiagError, "Diag_LSM_Init", false, 0, false, 0);
        } else {
            fail(cmd, LoggedOutcome::kDiagError, call, has_value, value, has_errno,
                 static_cast<int>(err));
        }
        cmd->c.notes.push_back(note);
    }

    // The client set-up and release, shared by the synchronous DCI send and the DCI worker.
    bool dci_setup_line(Cmd* cmd, string_view m) {
        if (starts(m, "Could not register with DCI")) {
            diag_fail(cmd, "diag_register_dci_client", m);
        } else if (starts(m, "Could not register signal for DCI Data")) {
            diag_fail(cmd, "diag_register_dci_signal_data", m);
        } else if (starts(m, "Could not get support list")) {
            diag_fail(cmd, "diag_get_dci_support_list_proc", m);
        } else if (starts(m, "Unable to register DCI stream")) {
            diag_fail(cmd, "diag_register_dci_stream_proc", m);
        } else if (starts(m, "Error sending SEND_REQUEST_ASYNC")) {
            cmd->c.sent = false;
            diag_fail(cmd, "diag_send_dci_async_req", m, false);
        } else if (starts(m, "Unable to allocate memory for DCI rsp pkt")) {
            diag_fail(cmd, "malloc", m);
        } else if (m == "MPSS on ch:0: DOWN") {
            cmd->c.notes.push_back(
                    "the modem (MPSS) was reported down; the packet was sent all the same");
        } else if (starts(m, "Releasing DCI connection")) {
            int err = int_after(m, "err: ");
            if (err != kDciSuccess) {
                cmd->c.notes.push_back("releasing the DCI client returned " + std::to_string(err) +
                                       ", " + errno_text(int_after(m, "errno: ", 0)));
            }
            cmd->torn_down = true;
        } else {
            return false;
        }
        return true;
    }

    void apply(Proc& p, Cmd* cmd, const TraceLine& t, Fn fn, Role role) {
        const string_view m = t.message;
        switch (role) {
            case Role::kSyncCaller:
                return sync_line(p, cmd, t);
            case Role::kNoWaitCaller:
                return start_line(p, cmd, t);
            case Role::kHelper:
                return helper_line(p, cmd, t, fn);
            case Role::kTimer:
                if (int n = int_after(m, "cnt_of_100ms = "); n > 0) {
                    cmd->timer_last_cnt = n;
                } else if (m == "stop waiting, receive success, length is times of 4096") {
                    if (!cmd->req_end) cmd->whole_before_end = true;
                } else if (m == "stop waiting") {
                    if (!cmd->req_end) cmd->stop_before_end = true;
                } else if (is_exit(m)) {
                    cmd->timer_exited = true;
                    unbind(p, cmd->timer_tid, cmd);
                    // A timer ends a tick after its command at the latest: an earlier command's
                    // timer that has not ended by now never will (the process died).
                    for (Cmd* c : std::vector<Cmd*>(p.cmds)) {
                        if (c->c.seq < cmd->c.seq && c->caller_exited && c->timer_bound &&
                            !c->timer_exited) {
                            force(c);
                        }
                    }
                    maybe_done(cmd);
                }
                return;
            case Role::kWorker:
                return worker_line(p, cmd, t);
            case Role::kHex:
                if (input_pending(p, cmd, t)) return request_dump(p, cmd, t);
                return handler_line(p, cmd, t, fn, role);
            case Role::kHandler:
            case Role::kStream:
                return handler_line(p, cmd, t, fn, role);
            case Role::kWorkerAnswer:
                if (int len = int_after(m, "len = "); len >= 0) {
                    cmd->c.answer_lens.push_back(len);
                    cmd->c.answered = true;
                    if (cmd->has_send_ms && t.has_time) {
                        cmd->c.response_ms = static_cast<double>(t.time_ms - cmd->send_ms);
                    }
                }
                return;
            case Role::kWorkerStream:
                cmd->streams++;
                return;
            case Role::kOther:
                return;
        }
    }

    void unbind(Proc& p, int tid, Cmd* cmd) {
        if (tid < 0) return;
        auto it = p.by_tid.find(tid);
        if (it != p.by_tid.end() && it->second == cmd) p.by_tid.erase(it);
    }

    // Whether a dump on this thread is |cmd|'s packet, being checked.
    bool input_pending(Proc& p, Cmd* cmd, const TraceLine& t) {
        int len = int_after(t.message, "len(");
        for (const Pending& pd : p.ctx[t.tid].pending) {
            if (pd.kind == Pending::kInput && pd.cmd == cmd && pd.len == len) return true;
        }
        return false;
    }

    void request_dump(Proc& p, Cmd* cmd, const TraceLine& t) {
        ThreadCtx& ctx = p.ctx[t.tid];
        int len = int_after(t.message, "len(");
        for (size_t i = 0; i < ctx.pending.size(); ++i) {
            if (ctx.pending[i].kind == Pending::kInput && ctx.pending[i].cmd == cmd) {
                ctx.pending.erase(ctx.pending.begin() + i);
                break;
            }
        }
        // Past the check: a fire-and-forget send's worker may start from now on.
        if (cmd->c.kind == CommandKind::kNoWait && !cmd->failed) cmd->worker_expected = true;
        size_t at = t.message.find("data: ");
        if (len > 0 && at != string_view::npos &&
            parse_dump(t.message.substr(at + 6), len, &cmd->c.request)) {
            cmd->c.request_known = true;
            cmd->c.request_len = len;
        } else {
            cmd->c.request_known = false;
            cmd->c.request.clear();
        }
    }

    void helper_line(Proc& p, Cmd* cmd, const TraceLine& t, Fn fn) {
        const string_view m = t.message;
        switch (fn) {
            case Fn::kInput:
                if (starts(m, "diag_comand, data_len = ")) {
                    cmd->checked = true;
                    cmd->c.request_len = int_after(m, "data_len = ");
                    cmd->c.request_known = false;
                    cmd->c.request.clear();
                    ThreadCtx& ctx = p.ctx[t.tid];
                    ctx.pending.push_back({Pending::kInput, cmd->c.request_len, cmd});
                    trim(ctx);
                    if (cmd->c.kind == CommandKind::kSync) p.lock_holder = cmd;
                } else if (m == "data is null") {
                    cmd->c.notes.push_back("the packet was a null pointer");
                } else if (starts(m, "Invalid input parameter")) {
                    cmd->c.notes.push_back("the packet's length " +
                                           std::to_string(int_after(m, "data_len = ")) +
                                           " is outside 1 to 4096");
                }
                return;
            case Fn::kOutput:
                if (starts(m, "reply_len = ")) {
                    cmd->c.capacity = int_after(m, "reply_len = ");
                } else if (m == "reply_buf is null" || m == "p_reply_len is null") {
                    cmd->c.notes.push_back(std::string("the ") +
                                           (m[0] == 'r' ? "reply buffer" : "reply length") +
                                           " was a null pointer");
                } else if (starts(m, "Invalid output parameter")) {
                    cmd->c.capacity = int_after(m, "reply_len = ");
                    cmd->c.notes.push_back("the capacity " + std::to_string(cmd->c.capacity) +
                                           " is not above 0");
                }
                return;
            case Fn::kInit:
                if (m == "LSM init failed") {
                    cmd->lsm_failed = true;
                    cmd->c.notes.push_back(
                            "Diag_LSM_Init failed: no connection to the diag service; the send "
                            "went on regardless");
                }
                return;
            case Fn::kDeinit:
                if (is_exit(m) && cmd->c.kind == CommandKind::kSync) {
                    cmd->torn_down = cmd->torn_down || cmd->c.mode == Mode::kCallback || cmd->failed;
                }
                return;
            case Fn::kCreate:
                if (is_entry(m)) {
                    cmd->timer_expected = true;
                } else if (starts(m, "tolven daig is created")) {
                    int conf = int_after(m, "conf = ");
                    if (conf != 0) {
                        cmd->timer_failed = true;
                        cmd->timer_expected = false;
                        cmd->c.notes.push_back("the wait timer could not be started (" +
                                               std::to_string(conf) +
                                               "): the send waited its own limit plus one tick");
                    }
                }
                return;
            default:
                return;
        }
    }

    void sync_line(Proc& p, Cmd* cmd, const TraceLine& t) {
        const string_view m = t.message;
        if (dci_setup_line(cmd, m)) return;
        if (is_exit(m)) {
            cmd->caller_exited = true;
            cmd->torn_down = true;
            if (t.has_time) cmd->end_ms = t.time_ms;
            unbind(p, cmd->c.tid, cmd);
            if (p.lock_holder == cmd) p.lock_holder = nullptr;
            if (!cmd->failed && !cmd->req_end) {
                cmd->c.notes.push_back("the send ended without handing a reply over");
            }
            returned(cmd);
            maybe_done(cmd);
        } else if (m == "tolven_diag_comand_param_check fail" ||
                   m == "tolven_diag_comand_output_check fail") {
            fail(cmd, LoggedOutcome::kRefused, "", false, 0, false, 0);
            cmd->c.result = 1;
            cmd->torn_down = true;
        } else if (m == "Sending Asynchronous Command for ch:0") {
            send_started(cmd, t);
            cmd->c.sent = true;
            // The send empties the store first, so that its reply is never appended to another.
            p.store.known = true;
            p.store.has_data = false;
            p.store.bytes.clear();
            p.store.bytes_known = true;
        } else if (starts(m, "ret_send = ")) {
            send_started(cmd, t);
            cmd->ret_send = int_after(m, "ret_send = ");
            cmd->c.sent = cmd->ret_send == 0;
        } else if (m == "Fail to send diag cmd") {
            diag_fail(cmd, "diag_callback_send_data", "err: " + std::to_string(cmd->ret_send),
                      false);
        } else if (starts(m, "Dci Command time = ") || starts(m, "Command time = ")) {
            cmd->c.ticks = int_after(m, "time = ");
            // More ticks than an int of milliseconds holds come only from a damaged line.
            cmd->c.timeout_ms =
                    cmd->c.ticks > INT_MAX / kTickMs ? -1 : std::max(cmd->c.ticks, 1) * kTickMs;
            cmd->timer_expected = !cmd->timer_failed;
        } else if (m == "Time out is invalid, set default") {
            cmd->c.notes.push_back(
                    "the time limit asked for is outside 1 to 60000 ms; callback mode used 3000 "
                    "ms");
        } else if (starts(m, "req end, data_size = ")) {
            req_end(p, cmd, m);
        }
    }

    void send_started(Cmd* cmd, const TraceLine& t) {
        if (t.has_time) {
            cmd->has_send_ms = true;
            cmd->send_ms = t.time_ms;
        }
    }

    void start_line(Proc& p, Cmd* cmd, const TraceLine& t) {
        const string_view m = t.message;
        if (m == "tolven_diag_comand_input_check fail") {
            fail(cmd, LoggedOutcome::kRefused, "", false, 0, false, 0);
            cmd->c.result = 1;
        } else if (m == "Failed to allocate memory for ptr_out") {
            diag_fail(cmd, "malloc", m);
            cmd->c.result = 1;
        } else if (starts(m, "tolven daig is created")) {
            int conf = int_after(m, "conf = ");
            cmd->c.mode_known = true;
            cmd->c.mode = int_after(m, "diag_work_mode = ", 1) == 0 ? Mode::kCallback : Mode::kDci;
            if (conf != 0) {
                cmd->c.notes.push_back("the worker thread could not be started (" +
                                       std::to_string(conf) + "); the packet was never sent");
                fail(cmd, LoggedOutcome::kDiagError, "pthread_create", true, conf, false, 0);
                cmd->worker_expected = false;
            }
        } else if (is_exit(m)) {
            cmd->caller_exited = true;
            if (cmd->c.result < 0) cmd->c.result = 0;
            if (t.has_time) cmd->end_ms = t.time_ms;
            unbind(p, cmd->c.tid, cmd);
            returned(cmd);
            maybe_done(cmd);
        }
        if (cmd->failed && !cmd->worker_bound) cmd->worker_expected = false;
    }

    void worker_line(Proc& p, Cmd* cmd, const TraceLine& t) {
        const string_view m = t.message;
        if (dci_setup_line(cmd, m)) return;
        if (starts(m, "data_len = ")) {
            cmd->worker_locked = true;
            p.worker_holder = cmd;
        } else if (m == "param is null") {
            cmd->c.notes.push_back("the worker got no packet");
            cmd->worker_locked = true;
        } else if (m == "LSM init failed") {
            cmd->c.notes.push_back(
                    "Diag_LSM_Init failed in the worker: no connection to the diag service");
            fail(cmd, LoggedOutcome::kDiagError, "Diag_LSM_Init", false, 0, false, 0);
        } else if (m == "Sending Asynchronous Command for ch:0") {
            send_started(cmd, t);
            cmd->c.sent = true;
        } else if (starts(m, "ret_send = ")) {
            send_started(cmd, t);
            int ret = int_after(m, "ret_send = ");
            cmd->c.sent = ret == 0;
            if (ret != 0)
                diag_fail(cmd, "diag_callback_send_data", "err: " + std::to_string(ret), false);
        } else if (m == "will sleep 3s before quit") {
            cmd->worker_unlocked = true;
            if (p.worker_holder == cmd) p.worker_holder = nullptr;
            if (t.has_time) cmd->end_ms = t.time_ms;
        } else if (is_exit(m)) {
            cmd->worker_exited = true;
            unbind(p, cmd->worker_tid, cmd);
            if (p.worker_holder == cmd) p.worker_holder = nullptr;
            maybe_done(cmd);
        }
    }

    // Response handlers and dumps on a handler thread; |cmd| is the command in flight, if any.
    void handler_line(Proc& p, Cmd* cmd, const TraceLine& t, Fn fn, Role role) {
        ThreadCtx& ctx = p.ctx[t.tid];
        const string_view m = t.message;
        if (role == Role::kStream) {
            if (is_entry(m)) {
                ctx.pending.push_back({Pending::kStream, -1, cmd});
                if (cmd != nullptr) cmd->streams++;
            }
            trim(ctx);
            return;
        }
        if (fn == Fn::kCheck) {
            if (starts(m, "================ response from ")) {
                ctx.pending.push_back({Pending::kBanner, int_after(m, "len = "), cmd});
                trim(ctx);
                if (cmd != nullptr) {
                    if (cmd->req_end && !cmd->late_response) {
                        cmd->late_response = true;
                        cmd->c.notes.push_back("a response came after the reply was handed over");
                    }
                    cmd->c.answered = true;
                }
            } else if (starts(m, "Invalid parameter, len = ")) {
                int len = int_after(m, "len = ");
                drop_banner(ctx, len);
                if (cmd != nullptr) {
                    if (len > 10240) {
                        cmd->c.response_dropped = true;
                        cmd->c.response_len = len;
                    }
                    cmd->c.notes.push_back("a response of " + std::to_string(len) +
                                           " bytes was dropped: a response has 1 to 10240 bytes");
                }
            } else if (m == "ptr is null") {
                ctx.pending.clear();
                if (cmd != nullptr)
                    cmd->c.notes.push_back("a response came without its bytes (null)");
            }
            return;
        }
        if (fn == Fn::kHex) {
            const int len = int_after(m, "len(");
            if (starts(m, "print_data_with_hex, invalid data len(")) {
                ctx.piece_known = false;
                ctx.piece.clear();
            } else if (starts(m, "data hex show")) {
                size_t at = m.find("data: ");
                ctx.piece_known =
                        at != string_view::npos && parse_dump(m.substr(at + 6), len, &ctx.piece);
                if (!ctx.piece_known) ctx.piece.clear();
            } else {
                return;
            }
            if (drop_banner(ctx, len)) {
                ctx.piece_len = len;
                return;
            }
            // A stream record's dump is no piece of a response.
            for (size_t i = ctx.pending.size(); i-- > 0;) {
                if (ctx.pending[i].kind == Pending::kStream) {
                    ctx.pending.erase(ctx.pending.begin() + i);
                    break;
                }
            }
            ctx.piece_len = -1;
            return;
        }
        if (starts(m, "response, cmd_code = ") || starts(m, "callback, cmd_code = ")) {
            int size = int_after(m, "data_size = ");
            bool known = ctx.piece_len == size && ctx.piece_known;
            store_piece(p, cmd, fn == Fn::kRspDci, size, known, ctx.piece);
            ctx.piece_len = -1;
            ctx.piece.clear();
            if (cmd != nullptr) {
                if (fn == Fn::kRspCallback || size != kDciPieceLen) cmd->completing = true;
                cmd->pieces++;
                if (cmd->has_send_ms && t.has_time) {
                    cmd->c.response_ms = static_cast<double>(t.time_ms - cmd->send_ms);
                }
            }
        } else if (starts(m, "Failed to allocate memory for ptr_out")) {
            if (cmd != nullptr)
                cmd->c.notes.push_back(
                        "a response was lost: the handler could not allocate memory");
        }
    }

    static void trim(ThreadCtx& ctx) {
        if (ctx.pending.size() > 8) ctx.pending.erase(ctx.pending.begin());
    }

    // Takes the latest banner of a response of |len| bytes off the thread's pending ones.
    static bool drop_banner(ThreadCtx& ctx, int len) {
        for (size_t i = ctx.pending.size(); i-- > 0;) {
            if (ctx.pending[i].kind == Pending::kBanner && ctx.pending[i].len == len) {
                ctx.pending.erase(ctx.pending.begin() + i);
                return true;
            }
        }
        return false;
    }

    // A response stored: appended (a DCI piece while the store holds data) or in place of the
    // stored one (callback mode).
    void store_piece(Proc& p, Cmd* cmd, bool dci, int size, bool known,
                     const std::vector<uint8_t>& bytes) {
        Store& s = p.store;
        const uint64_t seq = cmd != nullptr && !cmd->req_end ? cmd->c.seq : 0;
        if (dci && s.known && s.has_data) {
            s.length = add_lengths(s.length, size);
            s.bytes_known = s.bytes_known && known;
            if (s.bytes_known) s.bytes.insert(s.bytes.end(), bytes.begin(), bytes.end());
        } else if (dci && !s.known) {
            // Appended to what the log does not show, or not: the store's content is unknown.
            s.has_data = true;
            s.bytes_known = false;
        } else {
            s.known = true;
            s.has_data = true;
            s.length = size;
            s.bytes_known = known;
            s.bytes = known ? bytes : std::vector<uint8_t>();
        }
        if (!s.bytes_known) s.bytes.clear();
        s.by_seq = seq;
        if (cmd == nullptr || cmd->req_end) return;
        // What this command got, whole, for an answers file.
        LoggedCommand& c = cmd->c;
        if (dci && cmd->pieces > 0) {
            c.response_len = add_lengths(c.response_len, size);
            c.response_known = c.response_known && known;
            if (c.response_known) c.response.insert(c.response.end(), bytes.begin(), bytes.end());
        } else {
            c.response_len = size;
            c.response_known = known;
            c.response = known ? bytes : std::vector<uint8_t>();
        }
        if (!c.response_known) c.response.clear();
    }

    void req_end(Proc& p, Cmd* cmd, string_view m) {
        LoggedCommand& c = cmd->c;
        const int data_size = int_after(m, "data_size = ");
        const int stored = int_after(m, "g_qcril_diag_rsp_buf.length = ");
        const int capacity = int_after(m, "reply_len = ");
        cmd->req_end = true;
        c.reply_len = data_size;
        c.reply_known = false;
        c.reply.clear();
        c.stored_len = stored;
        if (c.capacity < 0) c.capacity = capacity;
        const Store& s = p.store;
        const bool whole = answered_at_limit(stored, true);
        const bool whole_own = answered_at_limit(stored, s.known && s.has_data && s.by_seq == c.seq);
        bool timed_out;
        if (cmd->timer_failed) {
            timed_out = !cmd->completing;
        } else {
            timed_out = cmd->stop_before_end ||
                        (!cmd->completing && !cmd->whole_before_end && !whole_own);
        }
        // A failure logged before stands (a log this mixed up is damaged anyway).
        if (!cmd->failed) {
            c.result = timed_out ? 1 : 0;
            c.outcome = timed_out ? LoggedOutcome::kTimedOut : LoggedOutcome::kOk;
        }

        // The reply: the stored response cut to the capacity, where the log has its bytes.
        if (data_size <= 0) {
            c.reply_known = true;
        } else if (s.known && !s.has_data) {
            c.notes.push_back("reply_len " + std::to_string(data_size) +
                              " is the length an earlier reply left stored; nothing was copied");
        } else if (s.known && s.bytes_known && s.bytes.size() >= static_cast<size_t>(data_size) &&
                   s.length == stored) {
            c.reply_known = true;
            c.reply.assign(s.bytes.begin(), s.bytes.begin() + data_size);
        } else {
            c.notes.push_back(
                    "the reply's bytes are not all in the log (a piece over 4096 bytes is logged "
                    "without them, debug lines were off, or the log lost lines): only its length "
                    "is known");
        }
        if (s.known && s.has_data && s.by_seq != c.seq && data_size > 0 && !timed_out) {
            c.notes.push_back("the reply is an earlier command's response, still stored");
        }
        if (stored > capacity && capacity > 0) {
            c.notes.push_back("the reply of " + std::to_string(stored) +
                              " bytes was cut to the capacity of " + std::to_string(capacity));
        }
        const std::string limit = std::to_string(c.timeout_ms > 0 ? c.timeout_ms : 100) + " ms";
        if (!timed_out && whole_own && !cmd->completing) {
            c.notes.push_back("a DCI reply of whole 4096-byte pieces (" + std::to_string(stored) +
                              " bytes) counts as complete only when the time limit of " + limit +
                              " runs out");
        }
        if (timed_out) {
            if (cmd->completing) {
                c.notes.push_back("the response came as the time limit of " + limit +
                                  " ran out; the library counted the time-out");
            } else if (c.response_dropped) {
                c.notes.push_back("the response was dropped, so the send timed out after " + limit);
            } else if (cmd->pieces > 0) {
                c.notes.push_back("pieces of the response (" + std::to_string(c.response_len) +
                                  " bytes) came, the rest did not within " + limit);
            } else if (!c.answered) {
                c.notes.push_back("no response came within the time limit of " + limit);
            }
            if (whole && s.by_seq != c.seq) {
                c.notes.push_back("the " + std::to_string(stored) +
                                  " bytes of whole pieces stored were left by an earlier command; "
                                  "they answer nothing");
            }
        }
        // A DCI send empties the store after its copy.
        if (c.mode == Mode::kDci && c.mode_known) {
            p.store.has_data = false;
            p.store.bytes.clear();
            p.store.bytes_known = true;
        }
    }

    // ---- Ending ----

    // From the command's first line to its caller's exit (or its last line); -1 without times
    // fine enough to tell.
    static double elapsed_of(const Cmd& cmd) {
        if (!cmd.has_time || !cmd.fine_time || cmd.partial) return -1;
        const int64_t end = cmd.end_ms != 0 ? cmd.end_ms : cmd.last_ms;
        return static_cast<double>(end - cmd.first_ms);
    }

    // The call has returned to its caller: what it returned is known, although a timer or a
    // worker may still add lines.
    void returned(Cmd* cmd) {
        if (!on_return) return;
        LoggedCommand c = cmd->c;
        if (cmd->failed) c.result = 1;
        if (c.kind == CommandKind::kNoWait && !cmd->failed) c.outcome = LoggedOutcome::kOk;
        c.elapsed_ms = elapsed_of(*cmd);
        on_return(c);
    }

    void maybe_done(Cmd* cmd) {
        if (cmd->done) return;
        bool complete;
        if (cmd->c.kind == CommandKind::kSync) {
            complete = cmd->caller_exited && (!cmd->timer_bound || cmd->timer_exited) &&
                       (!cmd->timer_expected || cmd->timer_bound || cmd->failed || cmd->partial);
        } else {
            complete = cmd->caller_exited && (!cmd->worker_expected || cmd->worker_exited);
        }
        if (!complete) return;
        cmd->c.complete = !cmd->partial;
        finish_cmd(cmd);
    }

    void force(Cmd* cmd) {
        if (cmd->done) return;
        if (cmd->c.kind == CommandKind::kSync && cmd->caller_exited) {
            // Only a timer that outlived its command is missing its last lines.
            cmd->c.complete = !cmd->partial;
        } else if (cmd->c.kind == CommandKind::kNoWait && cmd->caller_exited) {
            cmd->c.notes.push_back("the worker's lines stop before its end");
        } else {
            cmd->c.notes.push_back(
                    "its lines stop before its end: the process died, or the log was cut or "
                    "lost lines");
        }
        finish_cmd(cmd);
    }

    void finish_cmd(Cmd* cmd) {
        cmd->done = true;
        LoggedCommand& c = cmd->c;
        Proc& p = *cmd->proc;
        if (c.kind == CommandKind::kNoWait) {
            if (c.result < 0 && cmd->caller_exited) c.result = 0;
            if (!cmd->failed && cmd->caller_exited) c.outcome = LoggedOutcome::kOk;
        } else if (cmd->failed) {
            c.result = 1;
        }
        c.elapsed_ms = elapsed_of(*cmd);
        if (c.kind == CommandKind::kSync && cmd->streams > 0) {
            c.notes.push_back(std::to_string(cmd->streams) +
                              " unsolicited log or event records came meanwhile");
        }
        p.cmds.erase(std::remove(p.cmds.begin(), p.cmds.end(), cmd), p.cmds.end());
        if (p.lock_holder == cmd) p.lock_holder = nullptr;
        if (p.worker_holder == cmd) p.worker_holder = nullptr;
        for (auto it = p.by_tid.begin(); it != p.by_tid.end();) {
            it = it->second == cmd ? p.by_tid.erase(it) : std::next(it);
        }
        for (auto& [tid, ctx] : p.ctx) {
            for (Pending& pd : ctx.pending) {
                if (pd.cmd == cmd) pd.cmd = nullptr;
            }
        }
        // Handed over (and freed) by pump() once the line is done with, not here.
    }

    void pump() {
        while (!queue.empty() && queue.front()->done) {
            std::unique_ptr<Cmd> cmd = std::move(queue.front());
            queue.pop_front();
            count(cmd->c);
            if (sink) sink(cmd->c);
        }
    }

    void expire() {
        pump();
        while (!queue.empty() && !queue.front()->done) {
            Cmd* head = queue.front().get();
            bool stale = head->has_time && now_ms - head->last_ms > kStaleMs;
            // A timer ends within a tick of its command.
            stale = stale || (head->c.kind == CommandKind::kSync && head->caller_exited &&
                              head->has_time && now_ms - head->last_ms > kTimerGraceMs);
            if (!stale && queue.size() <= kMaxHeld) break;
            force(head);
            pump();
        }
    }

    void count(const LoggedCommand& c) {
        sum.commands++;
        (c.kind == CommandKind::kSync ? sum.sync : sum.no_wait)++;
        sum.outcomes[static_cast<int>(c.outcome)]++;
        std::string name = c.instance >= 0 ? "SUB[" + std::to_string(c.instance) + "]" : c.process;
        if (name.empty()) name = "?";  // the shell sink names no process
        if (c.pid >= 0) name += " (pid " + std::to_string(c.pid) + ")";
        sum.per_process[name]++;
        if (c.kind == CommandKind::kSync && c.outcome == LoggedOutcome::kOk && c.elapsed_ms >= 0) {
            latencies.push_back(c.elapsed_ms);
        }
    }

    void cut() {
        while (!queue.empty()) {
            Cmd* head = queue.front().get();
            if (!head->done) force(head);
            pump();
        }
        procs.clear();
    }
};

LogReader::LogReader(Sink sink) : impl_(std::make_unique<Impl>(std::move(sink))) {}
LogReader::~LogReader() = default;

void LogReader::feed(const char* data, size_t size) {
    impl_->splitter.feed(data, size);
}

void LogReader::feed_message(int pid, int tid, int64_t epoch_ms, std::string_view message) {
    TraceLine t;
    if (!parse_trace_prefix(message, &t)) return;
    t.pid = pid;
    t.tid = tid;
    std::string text = logcat_time_text(epoch_ms, &t.time_ms);
    t.has_time = true;
    t.time_text = text;
    impl_->trace(t);
}

void LogReader::on_return(Sink sink) {
    impl_->on_return = std::move(sink);
}

void LogReader::finish() {
    impl_->splitter.finish();
    impl_->cut();
}

size_t LogReader::held() const {
    return impl_->queue.size();
}

LogSummary LogReader::summary() const {
    LogSummary s = impl_->sum;
    s.long_lines = impl_->splitter.dropped();
    std::vector<double> l = impl_->latencies;
    if (!l.empty()) {
        std::sort(l.begin(), l.end());
        s.has_latency = true;
        s.latency_min = l.front();
        s.latency_max = l.back();
        size_t mid = l.size() / 2;
        s.latency_median = l.size() % 2 ? l[mid] : (l[mid - 1] + l[mid]) / 2;
    }
    return s;
}

}  // namespace tolven_diag_tool
