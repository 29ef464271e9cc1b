// Host libdiag: the C entry points libtolven_diag calls on a phone, answered by a Backend (the
// simulated modem by default) and delivered on a thread of the simulator's own, as the modem's
// answers arrive on a phone.
//
// Environment, read once on first use; numbers are decimal or 0x hex:
//   LIBDIAG_SIM_DELAY_MS      delay before every answer, in milliseconds (default 0)
//   LIBDIAG_SIM_REMOTE_MASK   remote processors diag_has_remote_device reports, bit i = proc i+1
//                             (default 0)
//   LIBDIAG_SIM_SUPPORT_LIST  list diag_get_dci_support_list_proc reports (default 0x0002)
//   LIBDIAG_SIM_RESPONDERS    remote processors that answer every callback-mode request as well,
//                             bit i = proc i+1 (default 0)
//   LIBDIAG_SIM_ANSWERS       file of answer overrides, one per line, longest prefix wins:
//                               REQUEST_HEX_PREFIX -> REPLY_HEX [@ DELAY_MS]
//                               REQUEST_HEX_PREFIX -> none          (never answered)
//                             hex bytes with or without blanks; '#' starts a comment; replies
//                             come from the local processor
//   LIBDIAG_SIM_TRACE=1       print every libdiag call to stderr as it returns
// libdiag_sim::reset() goes back to the built-in defaults, not to these (tracing stays).
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>
#include <utility>

#include "sim_internal.h"

namespace libdiag_sim {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kPieceMax = 4096;
constexpr int kMaxProc = 16;
constexpr int kNoMode = -1;
// Tests read the last few dozen calls; a long run must not grow without bound.
constexpr size_t kJournalMax = 4096;

struct Settings {
    milliseconds delay{0};
    uint16_t remote_mask = 0;
    uint16_t support_list = 0x0002;
    uint16_t responders = 0;
    std::map<Bytes, Answer> answers;
};

struct Programmed {
    long long result = 0;
    int times = 0;
    int err = 0;
};

struct Client {
    int proc = 0;
    int signal = 0;
    diag_dci_stream_cb_t log_fn = nullptr;
    diag_dci_stream_cb_t event_fn = nullptr;
};

struct Registration {
    diag_rsp_cb_t cb = nullptr;
    void* ctx = nullptr;
};

enum class Kind { kDci, kCallback, kStream };

struct Delivery {
    Kind kind = Kind::kDci;
    uint64_t epoch = 0;  // connection it belongs to
    int client = 0;      // DCI client; 0 in callback mode
    int proc = 0;        // callback mode: whose callback answers
    Bytes bytes;
    std::vector<int> pieces;
    diag_dci_rsp_cb_t fn = nullptr;
    unsigned char* rsp_ptr = nullptr;
    int rsp_len = 0;
    void* data_ptr = nullptr;
    diag_dci_stream_cb_t stream_fn = nullptr;
};

// What a call returns, and the errno it leaves when programmed.
struct Outcome {
    long long result = 0;
    int err = 0;
};

std::string trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return "";
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

bool parse_number(const std::string& text, long long* out) {
    std::string t = trim(text);
    int base = 10;
    size_t pos = 0;
    if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) {
        base = 16;
        pos = 2;
    }
    const char* end = t.data() + t.size();
    auto [p, ec] = std::from_chars(t.data() + pos, end, *out, base);
    return pos < t.size() && ec == std::errc() && p == end;
}

bool parse_hex(const std::string& text, Bytes* out) {
    std::string digits;
    for (char c : text) {
        if (c == ' ' || c == '\t') continue;
        if (!isxdigit(static_cast<unsigned char>(c))) return false;
        digits += c;
    }
    if (digits.size() % 2 != 0) return false;
    out->clear();
    for (size_t i = 0; i < digits.size(); i += 2) {
        out->push_back(static_cast<uint8_t>(strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
    }
    return true;
}

// Reads a whole file; false when it cannot be read.
bool read_file(const std::string& path, std::string* text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    text->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

// Adds the accepted lines to |answers| (a later line replaces an earlier one of the same prefix)
// and prints the refusals; false when there was any.
bool apply_answers(const ParsedAnswers& parsed, std::map<Bytes, Answer>* answers) {
    for (const AnswerLine& l : parsed.lines) {
        (*answers)[l.request_prefix] =
                l.silent ? Answer{} : Answer{{Response{0, l.reply, {}, l.delay}}};
    }
    for (const std::string& e : parsed.errors) fprintf(stderr, "libdiag: %s\n", e.c_str());
    return parsed.errors.empty();
}

bool load_answers_file(const std::string& path, std::map<Bytes, Answer>* answers) {
    std::string text;
    if (!read_file(path, &text)) {
        fprintf(stderr, "libdiag: cannot read answers file %s\n", path.c_str());
        return false;
    }
    return apply_answers(parse_answers(text, path), answers);
}

// Number from the environment, or |fallback| when unset or malformed.
long long env_number(const char* name, long long fallback, long long max) {
    const char* v = getenv(name);
    if (v == nullptr || *v == '\0') return fallback;
    long long n = 0;
    if (!parse_number(v, &n) || n < 0 || n > max) {
        fprintf(stderr, "libdiag: ignoring %s=%s (want 0..%lld)\n", name, v, max);
        return fallback;
    }
    return n;
}

// Sizes of the pieces a DCI reply of |total| bytes arrives in.
std::vector<int> cut(int total, const std::vector<int>& given) {
    std::vector<int> out;
    int left = total;
    for (int p : given) {
        if (left == 0) break;
        if (p <= 0) continue;
        out.push_back(std::min(p, left));
        left -= out.back();
    }
    while (left > 0) {
        out.push_back(std::min(left, kPieceMax));
        left -= out.back();
    }
    if (out.empty()) out.push_back(0);
    return out;
}

bool valid_proc(int proc) {
    return proc >= 0 && proc <= kMaxProc;
}

intptr_t ptr_arg(const void* p) {
    return reinterpret_cast<intptr_t>(p);
}
template <typename F>
intptr_t fn_arg(F f) {
    return reinterpret_cast<intptr_t>(f);
}

// The simulator. One heap instance that is never destroyed: the delivery thread is detached and
// callers may still come in while the process exits.
class Sim {
  public:
    Sim() {
        settings.delay =
                milliseconds(env_number("LIBDIAG_SIM_DELAY_MS", 0, kMaxAnswerDelay.count()));
        settings.remote_mask = env_number("LIBDIAG_SIM_REMOTE_MASK", 0, 0xFFFF);
        settings.support_list = env_number("LIBDIAG_SIM_SUPPORT_LIST", 0x0002, 0xFFFF);
        settings.responders = env_number("LIBDIAG_SIM_RESPONDERS", 0, 0xFFFF);
        if (const char* path = getenv("LIBDIAG_SIM_ANSWERS"); path && *path) {
            load_answers_file(path, &settings.answers);
        }
        const char* trace = getenv("LIBDIAG_SIM_TRACE");
        trace_ = trace != nullptr && strcmp(trace, "1") == 0;
        backend = make_simulated_modem();
    }

    std::mutex mu;
    std::condition_variable work_cv;  // wakes the delivery thread
    std::condition_variable idle_cv;  // a delivery ended or the queue was dropped

    Settings settings;
    std::shared_ptr<Backend> backend;
    std::map<std::string, Programmed> programmed;
    std::deque<Call> journal;  // the most recent kJournalMax calls

    bool connected = false;
    uint64_t epoch = 0;  // bumped by DeInit and reset so that older deliveries are dropped
    int next_client = 1;
    std::map<int, Client> clients;
    std::array<Registration, kMaxProc + 1> callbacks;
    int logging_mode = kNoMode;

    Call begin(const char* name, std::vector<intptr_t> args) {
        Call c;
        c.name = name;
        c.args = std::move(args);
        c.at = Clock::now();
        return c;
    }

    // Consumes one programmed result of |name|, if any.
    bool take_programmed(const std::string& name, Outcome* o) {
        auto it = programmed.find(name);
        if (it == programmed.end()) return false;
        o->result = it->second.result;
        o->err = it->second.err;
        if (it->second.times > 0 && --it->second.times == 0) programmed.erase(it);
        return true;
    }

    // Journals |c| and returns the outcome, setting errno last so nothing clobbers it.
    long long finish(Call c, const Outcome& o, std::unique_lock<std::mutex>& lk) {
        c.result = o.result;
        if (trace_) fprintf(stderr, "libdiag: %s\n", c.str().c_str());
        if (journal.size() == kJournalMax) journal.pop_front();
        journal.push_back(std::move(c));
        lk.unlock();
        if (o.err != 0) errno = o.err;
        return o.result;
    }

    // The override for |req| (longest matching prefix), if any.
    std::optional<Answer> override_for(const Bytes& req) const {
        const Answer* best = nullptr;
        size_t best_len = 0;
        for (const auto& [prefix, answer] : settings.answers) {
            if (prefix.size() <= req.size() && (best == nullptr || prefix.size() > best_len) &&
                std::equal(prefix.begin(), prefix.end(), req.begin())) {
                best = &answer;
                best_len = prefix.size();
            }
        }
        if (best == nullptr) return std::nullopt;
        return *best;
    }

    // Asks the override table, then the backend (unlocked: a backend may be slow).
    Answer answer(int proc, const Bytes& req, std::unique_lock<std::mutex>& lk) {
        if (auto a = override_for(req)) return *a;
        std::shared_ptr<Backend> b = backend;
        lk.unlock();
        Answer a = b->answer(proc, req);
        lk.lock();
        return a;
    }

    // Queues one delivery per response, each after the previous one.
    void schedule(const Answer& a, const Delivery& proto) {
        Clock::time_point due = Clock::now() + std::min(settings.delay, kMaxAnswerDelay);
        for (const Response& r : a.responses) {
            // each step is bounded, so a programmed day-long delay cannot overflow the clock
            due += std::clamp(r.delay, milliseconds(0), kMaxAnswerDelay);
            Delivery d = proto;
            d.bytes = r.bytes;
            d.pieces = r.pieces;
            if (proto.kind == Kind::kCallback) {
                if (!valid_proc(r.proc)) continue;
                d.proc = r.proc;
            }
            enqueue(std::move(d), due);
        }
    }

    void enqueue(Delivery d, Clock::time_point due) {
        if (!thread_started_) {
            thread_started_ = true;
            std::thread([this] { run(); }).detach();
        }
        queue_.emplace(std::make_pair(due, ++seq_), std::move(d));
        work_cv.notify_one();
    }

    bool on_sim_thread() const { return std::this_thread::get_id() == thread_id_; }

    // Drops what is queued for |client| (every client when 0) and waits out a delivery to it
    // that is running on another thread. Afterwards none runs or will run.
    void drop(int client, std::unique_lock<std::mutex>& lk) {
        for (auto it = queue_.begin(); it != queue_.end();) {
            it = client == 0 || it->second.client == client ? queue_.erase(it) : std::next(it);
        }
        if (busy_ && (client == 0 || busy_client_ == client)) {
            busy_cancelled_ = true;
            if (!on_sim_thread()) {
                uint64_t seq = busy_seq_;
                idle_cv.wait(lk, [&] { return !busy_ || busy_seq_ != seq; });
            }
        }
        idle_cv.notify_all();
    }

    bool idle() const { return queue_.empty() && !busy_; }

    bool wait_idle(milliseconds limit, std::unique_lock<std::mutex>& lk) {
        if (on_sim_thread()) return queue_.empty();
        return idle_cv.wait_for(lk, limit, [&] { return idle(); });
    }

    void restore_defaults() {
        settings = Settings{};
        backend = make_simulated_modem();
        programmed.clear();
        journal.clear();
        connected = false;
        ++epoch;
        next_client = 1;
        clients.clear();
        callbacks = {};
        logging_mode = kNoMode;
    }

  private:
    void run() {
        std::unique_lock<std::mutex> lk(mu);
        thread_id_ = std::this_thread::get_id();
        for (;;) {
            if (queue_.empty()) {
                work_cv.wait(lk);
                continue;
            }
            auto it = queue_.begin();
            // a copy: the entry may be dropped while we wait
            Clock::time_point due = it->first.first;
            if (due > Clock::now()) {
                work_cv.wait_until(lk, due);
                continue;
            }
            Delivery d = std::move(it->second);
            busy_ = true;
            busy_seq_ = it->first.second;
            busy_client_ = d.client;
            busy_cancelled_ = false;
            queue_.erase(it);
            deliver(d, lk);
            busy_ = false;
            idle_cv.notify_all();
        }
    }

    bool wanted(const Delivery& d) const {
        if (busy_cancelled_ || !connected || d.epoch != epoch) return false;
        if (d.kind == Kind::kCallback) return callbacks[d.proc].cb != nullptr;
        return clients.count(d.client) != 0;
    }

    // Runs the handlers of |d|, never holding |lk| while one runs.
    void deliver(Delivery& d, std::unique_lock<std::mutex>& lk) {
        int total = static_cast<int>(d.bytes.size());
        if (d.kind != Kind::kDci) {
            if (!wanted(d)) return;
            Registration r = d.kind == Kind::kCallback ? callbacks[d.proc] : Registration{};
            lk.unlock();
            if (d.kind == Kind::kCallback) {
                r.cb(d.bytes.data(), total, r.ctx);
            } else {
                d.stream_fn(d.bytes.data(), total);
            }
            lk.lock();
            return;
        }
        int offset = 0;
        for (int len : cut(total, d.pieces)) {
            if (!wanted(d)) return;
            unsigned char* p = d.bytes.data() + offset;
            if (d.rsp_ptr != nullptr && len > 0 && len <= d.rsp_len) {
                memcpy(d.rsp_ptr, p, len);
                p = d.rsp_ptr;
            }
            lk.unlock();
            d.fn(p, len, d.data_ptr);
            lk.lock();
            offset += len;
        }
    }

    bool trace_ = false;

    std::map<std::pair<Clock::time_point, uint64_t>, Delivery> queue_;
    uint64_t seq_ = 0;
    bool thread_started_ = false;
    std::thread::id thread_id_;
    bool busy_ = false;  // a delivery is running its handlers
    uint64_t busy_seq_ = 0;
    int busy_client_ = 0;
    bool busy_cancelled_ = false;
};

Sim& sim() {
    static Sim* s = new Sim();
    return *s;
}

// Runs |f| on the simulator under its lock and returns what it returns.
template <typename F>
auto locked(F f) {
    Sim& s = sim();
    std::lock_guard<std::mutex> lk(s.mu);
    return f(s);
}

// Argument positions printed as addresses.
std::vector<size_t> pointer_args(const std::string& name) {
    static const std::map<std::string, std::vector<size_t>> kPointers = {
            {"Diag_LSM_Init", {0}},
            {"diag_register_callback", {0, 1}},
            {"diag_register_remote_callback", {0, 2}},
            {"diag_switch_logging", {1}},
            {"diag_register_dci_stream_proc", {1, 2}},
            {"diag_send_dci_async_req", {3, 4}},
    };
    auto it = kPointers.find(name);
    return it == kPointers.end() ? std::vector<size_t>{} : it->second;
}

}  // namespace

std::string Call::str() const {
    std::vector<size_t> ptrs = pointer_args(name);
    std::string s = name + "(";
    char buf[32];
    for (size_t i = 0; i < args.size(); ++i) {
        bool is_ptr = std::find(ptrs.begin(), ptrs.end(), i) != ptrs.end();
        if (is_ptr) {
            snprintf(buf, sizeof buf, "0x%" PRIxPTR, static_cast<uintptr_t>(args[i]));
        } else {
            snprintf(buf, sizeof buf, "%" PRIdPTR, args[i]);
        }
        s += (i ? ", " : "") + std::string(buf);
    }
    s += ") = " + std::to_string(result);
    if (!data.empty()) {
        s += " [";
        size_t shown = std::min<size_t>(data.size(), 32);
        for (size_t i = 0; i < shown; ++i) {
            snprintf(buf, sizeof buf, "%s%02x", i ? " " : "", data[i]);
            s += buf;
        }
        s += data.size() > shown ? " ...]" : "]";
    }
    return s;
}

void reset() {
    Sim& s = sim();
    std::unique_lock<std::mutex> lk(s.mu);
    s.drop(0, lk);
    s.restore_defaults();
}

std::vector<Call> journal() {
    return locked([](Sim& s) { return std::vector<Call>(s.journal.begin(), s.journal.end()); });
}

std::vector<std::string> journal_names() {
    std::vector<std::string> names;
    for (const Call& c : journal()) names.push_back(c.name);
    return names;
}

void clear_journal() {
    locked([](Sim& s) { s.journal.clear(); });
}

void program_result(const std::string& call, long long result, int times, int err) {
    Sim& s = sim();
    std::lock_guard<std::mutex> lk(s.mu);
    if (times == 0) {
        s.programmed.erase(call);
    } else {
        s.programmed[call] = Programmed{result, times, err};
    }
}

void set_answer(const Bytes& request_prefix, const Answer& answer) {
    locked([&](Sim& s) { s.settings.answers[request_prefix] = answer; });
}

bool load_answers(const std::string& path) {
    std::map<Bytes, Answer> answers;
    bool ok = load_answers_file(path, &answers);
    Sim& s = sim();
    std::lock_guard<std::mutex> lk(s.mu);
    for (auto& [prefix, answer] : answers) s.settings.answers[prefix] = std::move(answer);
    return ok;
}

ParsedAnswers parse_answers(const std::string& text, const std::string& name) {
    ParsedAnswers out;
    std::istringstream in(text);
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
        line = trim(line.substr(0, line.find('#')));
        if (line.empty()) continue;
        auto refuse = [&](const std::string& why) {
            out.errors.push_back(name + ":" + std::to_string(n) + ": " + why);
        };
        size_t arrow = line.find("->");
        if (arrow == std::string::npos) {
            refuse("expected 'REQUEST_HEX -> REPLY_HEX|none [@ MS]'");
            continue;
        }
        AnswerLine a;
        a.line = n;
        std::string request = line.substr(0, arrow);
        if (!parse_hex(request, &a.request_prefix)) {
            refuse("bad request hex '" + trim(request) + "'");
            continue;
        }
        size_t at = line.find('@', arrow);
        std::string reply = trim(line.substr(arrow + 2, at - arrow - 2));
        a.silent = reply == "none";
        if (!a.silent && (reply.empty() || !parse_hex(reply, &a.reply))) {
            refuse("bad reply '" + reply + "' (hex bytes or none)");
            continue;
        }
        long long delay = 0;
        if (at != std::string::npos && (!parse_number(line.substr(at + 1), &delay) || delay < 0 ||
                                        delay > kMaxAnswerDelay.count())) {
            refuse("bad delay '" + trim(line.substr(at + 1)) + "' (0 to " +
                   std::to_string(kMaxAnswerDelay.count()) + " ms)");
            continue;
        }
        a.delay = milliseconds(delay);
        out.lines.push_back(std::move(a));
    }
    return out;
}

void clear_answers() {
    locked([](Sim& s) { s.settings.answers.clear(); });
}

void set_backend(std::unique_ptr<Backend> backend) {
    Sim& s = sim();
    std::shared_ptr<Backend> b = backend ? std::move(backend) : make_simulated_modem();
    std::lock_guard<std::mutex> lk(s.mu);
    s.backend.swap(b);
    // the old backend dies here, outside the lock, once no call is using it
}

void set_answer_delay(milliseconds delay) {
    locked([&](Sim& s) { s.settings.delay = delay; });
}

void set_remote_mask(uint16_t mask) {
    locked([&](Sim& s) { s.settings.remote_mask = mask; });
}

void set_support_list(uint16_t list) {
    locked([&](Sim& s) { s.settings.support_list = list; });
}

void set_remote_responders(uint16_t mask) {
    locked([&](Sim& s) { s.settings.responders = mask; });
}

namespace {

void emit_record(const Bytes& record, bool log) {
    Sim& s = sim();
    std::lock_guard<std::mutex> lk(s.mu);
    if (!s.connected) return;
    for (const auto& [id, client] : s.clients) {
        Delivery d;
        d.kind = Kind::kStream;
        d.epoch = s.epoch;
        d.client = id;
        d.bytes = record;
        d.stream_fn = log ? client.log_fn : client.event_fn;
        if (d.stream_fn != nullptr) s.enqueue(std::move(d), Clock::now());
    }
}

}  // namespace

void emit_log_record(const Bytes& record) {
    emit_record(record, true);
}
void emit_event_record(const Bytes& record) {
    emit_record(record, false);
}

bool wait_idle(milliseconds limit) {
    Sim& s = sim();
    std::unique_lock<std::mutex> lk(s.mu);
    return s.wait_idle(limit, lk);
}

bool connected() {
    return locked([](Sim& s) { return s.connected; });
}

int logging_mode() {
    return locked([](Sim& s) { return s.logging_mode; });
}

}  // namespace libdiag_sim

using libdiag_sim::Answer;
using libdiag_sim::Bytes;
using libdiag_sim::Call;
using libdiag_sim::Outcome;
using libdiag_sim::sim;
using libdiag_sim::Sim;
using Lock = std::unique_lock<std::mutex>;

namespace {

// Checks shared by the DCI calls that need a connection and a registered client.
bool dci_refused(Sim& s, const Call& c, int client_id, Outcome* o) {
    if (s.take_programmed(c.name, o)) return true;
    if (!s.connected) {
        o->result = libdiag_sim::kDciNoConnection;
    } else if (s.clients.count(client_id) == 0) {
        o->result = libdiag_sim::kDciUnknownClient;
    } else {
        o->result = libdiag_sim::kDciOk;
        return false;
    }
    return true;
}

}  // namespace

extern "C" {

bool Diag_LSM_Init(uint8_t* env) {
    Sim& s = sim();
    Call c = s.begin(__func__, {libdiag_sim::ptr_arg(env)});
    Lock lk(s.mu);
    Outcome o;
    if (s.take_programmed(c.name, &o)) {
        o.result = o.result != 0;
    } else {
        s.connected = true;
        o.result = 1;
    }
    return s.finish(std::move(c), o, lk) != 0;
}

bool Diag_LSM_DeInit(void) {
    Sim& s = sim();
    Call c = s.begin(__func__, {});
    Lock lk(s.mu);
    Outcome o;
    if (!s.take_programmed(c.name, &o)) {
        s.connected = false;
        ++s.epoch;
        s.callbacks = {};
        s.drop(0, lk);
        o.result = 1;
    }
    return s.finish(std::move(c), o, lk) != 0;
}

int diag_register_callback(diag_rsp_cb_t cb, void* context_data) {
    Sim& s = sim();
    Call c = s.begin(__func__, {libdiag_sim::fn_arg(cb), libdiag_sim::ptr_arg(context_data)});
    Lock lk(s.mu);
    Outcome o;
    if (!s.take_programmed(c.name, &o)) s.callbacks[0] = {cb, context_data};
    return s.finish(std::move(c), o, lk);
}

int diag_register_remote_callback(diag_rsp_cb_t cb, int proc, void* context_data) {
    Sim& s = sim();
    Call c = s.begin(__func__, {libdiag_sim::fn_arg(cb), proc, libdiag_sim::ptr_arg(context_data)});
    Lock lk(s.mu);
    Outcome o;
    if (s.take_programmed(c.name, &o)) {
    } else if (proc < 1 || !libdiag_sim::valid_proc(proc)) {
        o.result = -1;
    } else {
        s.callbacks[proc] = {cb, context_data};
    }
    return s.finish(std::move(c), o, lk);
}

int diag_has_remote_device(uint16_t* remote_mask) {
    Sim& s = sim();
    Call c = s.begin(__func__, {});
    Lock lk(s.mu);
    Outcome o;
    if (s.take_programmed(c.name, &o)) {
    } else if (remote_mask == nullptr) {
        o.result = 0;
    } else {
        *remote_mask = s.settings.remote_mask;
        o.result = 1;
    }
    return s.finish(std::move(c), o, lk);
}

void diag_switch_logging(int requested_mode, char* dir_location) {
    Sim& s = sim();
    Call c = s.begin(__func__, {requested_mode, libdiag_sim::ptr_arg(dir_location)});
    Lock lk(s.mu);
    Outcome o;
    if (!s.take_programmed(c.name, &o)) s.logging_mode = requested_mode;
    o.result = 0;
    s.finish(std::move(c), o, lk);
}

int diag_callback_send_data(int proc, unsigned char* buf, int len) {
    Sim& s = sim();
    Call c = s.begin(__func__, {proc, len});
    if (buf != nullptr && len > 0) c.data.assign(buf, buf + len);
    Lock lk(s.mu);
    Outcome o;
    if (s.take_programmed(c.name, &o)) {
    } else if (!s.connected || !libdiag_sim::valid_proc(proc) || c.data.empty()) {
        o.result = -1;
    } else {
        uint64_t epoch = s.epoch;
        Answer a = s.answer(proc, c.data, lk);
        // the local reply, each followed by the same reply from every remote responder
        Answer all;
        for (const libdiag_sim::Response& r : a.responses) {
            all.responses.push_back(r);
            for (int bit = 0; bit < libdiag_sim::kMaxProc; ++bit) {
                if ((s.settings.responders & (1u << bit)) && bit + 1 != r.proc) {
                    all.responses.push_back(r);
                    all.responses.back().proc = bit + 1;
                    all.responses.back().delay = {};
                }
            }
        }
        libdiag_sim::Delivery proto;
        proto.kind = libdiag_sim::Kind::kCallback;
        proto.epoch = epoch;
        if (s.epoch == epoch) s.schedule(all, proto);
        o.result = 0;
    }
    return s.finish(std::move(c), o, lk);
}

int diag_register_dci_client(int* client_id, uint16_t* list, int proc, void* os_params) {
    Sim& s = sim();
    Call c = s.begin(__func__, {client_id ? *client_id : 0, list ? *list : 0, proc,
                                os_params ? *static_cast<int*>(os_params) : 0});
    Lock lk(s.mu);
    Outcome o;
    if (s.take_programmed(c.name, &o)) {
    } else if (!s.connected) {
        o.result = libdiag_sim::kDciNoConnection;
    } else if (client_id == nullptr) {
        o.result = libdiag_sim::kDciFailure;
    } else {
        *client_id = s.next_client++;
        s.clients[*client_id].proc = proc;
        o.result = libdiag_sim::kDciOk;
    }
    return s.finish(std::move(c), o, lk);
}

int diag_register_dci_signal_data(int client_id, int signal_type) {
    Sim& s = sim();
    Call c = s.begin(__func__, {client_id, signal_type});
    Lock lk(s.mu);
    Outcome o;
    if (!dci_refused(s, c, client_id, &o)) s.clients[client_id].signal = signal_type;
    return s.finish(std::move(c), o, lk);
}

int diag_get_dci_support_list_proc(int proc, uint16_t* list) {
    Sim& s = sim();
    Call c = s.begin(__func__, {proc});
    Lock lk(s.mu);
    Outcome o;
    if (s.take_programmed(c.name, &o)) {
    } else if (!s.connected) {
        o.result = libdiag_sim::kDciNoConnection;
    } else if (list == nullptr) {
        o.result = libdiag_sim::kDciFailure;
    } else {
        *list = s.settings.support_list;
        o.result = libdiag_sim::kDciOk;
    }
    return s.finish(std::move(c), o, lk);
}

int diag_register_dci_stream_proc(int client_id, diag_dci_stream_cb_t log_fn,
                                  diag_dci_stream_cb_t event_fn) {
    Sim& s = sim();
    Call c = s.begin(__func__,
                     {client_id, libdiag_sim::fn_arg(log_fn), libdiag_sim::fn_arg(event_fn)});
    Lock lk(s.mu);
    Outcome o;
    if (!dci_refused(s, c, client_id, &o)) {
        s.clients[client_id].log_fn = log_fn;
        s.clients[client_id].event_fn = event_fn;
    }
    return s.finish(std::move(c), o, lk);
}

int diag_send_dci_async_req(int client_id, unsigned char* buf, int bytes, unsigned char* rsp_ptr,
                            int rsp_len, diag_dci_rsp_cb_t fn, void* data_ptr) {
    Sim& s = sim();
    Call c = s.begin(__func__, {client_id, bytes, rsp_len, libdiag_sim::fn_arg(fn),
                                libdiag_sim::ptr_arg(data_ptr)});
    if (buf != nullptr && bytes > 0) c.data.assign(buf, buf + bytes);
    Lock lk(s.mu);
    Outcome o;
    if (dci_refused(s, c, client_id, &o)) {
    } else if (c.data.empty() || fn == nullptr) {
        o.result = libdiag_sim::kDciFailure;
    } else {
        uint64_t epoch = s.epoch;
        Answer a = s.answer(s.clients[client_id].proc, c.data, lk);
        libdiag_sim::Delivery proto;
        proto.kind = libdiag_sim::Kind::kDci;
        proto.epoch = epoch;
        proto.client = client_id;
        proto.fn = fn;
        proto.rsp_ptr = rsp_ptr;
        proto.rsp_len = rsp_len;
        proto.data_ptr = data_ptr;
        // released or disconnected while the backend answered: nothing to deliver to
        if (s.epoch == epoch && s.clients.count(client_id) != 0) s.schedule(a, proto);
    }
    return s.finish(std::move(c), o, lk);
}

int diag_release_dci_client(int* client_id) {
    Sim& s = sim();
    int id = client_id ? *client_id : 0;
    Call c = s.begin(__func__, {id});
    Lock lk(s.mu);
    Outcome o;
    if (s.take_programmed(c.name, &o)) {
    } else if (s.clients.erase(id) == 0) {
        o.result = libdiag_sim::kDciUnknownClient;
    } else {
        s.drop(id, lk);
        o.result = libdiag_sim::kDciOk;
    }
    return s.finish(std::move(c), o, lk);
}

}  // extern "C"
