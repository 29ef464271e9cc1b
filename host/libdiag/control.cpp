// The host libdiag's state and its control API (libdiag_sim.h): settings from the environment,
// programmed results, answer overrides, the call journal, and the choice of modem.
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
//   LIBDIAG_SIM_TRACE=1       print every libdiag call (and every port frame) to stderr
//   LIBDIAG_LINGER_MS         how long a port stays open after a connection, for the next one
//                             (default 200; 0 closes it at once)
// Read at every Diag_LSM_Init:
//   LIBDIAG_PORT              a modem's diag port instead of the simulated modem: a device
//                             (/dev/ttyUSB0) or tcp:HOST:PORT
//   LIBDIAG_FRAMING           hdlc (default) or nhdlc, how packets travel on that port
//   LIBDIAG_BAUD              a device's baud rate (default 115200)
// libdiag_sim::reset() goes back to the built-in defaults, not to these (tracing stays).
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "answers_file.h"
#include "serial_device.h"
#include "state.h"
#include "text.h"

namespace libdiag_sim {
namespace {

// Tests read the last few dozen calls; a long run must not grow without bound.
constexpr size_t kJournalMax = 4096;

// Number from the environment, or |fallback| when unset or malformed.
long long env_number(const char* name, long long fallback, long long max) {
    const char* v = getenv(name);
    if (v == nullptr || *v == '\0') return fallback;
    long long n = 0;
    if (!diag_wire::parse_number(v, &n) || n < 0 || n > max) {
        fprintf(stderr, "libdiag: ignoring %s=%s (want 0..%lld)\n", name, v, max);
        return fallback;
    }
    return n;
}

const char* port_env() {
    const char* port = getenv("LIBDIAG_PORT");
    return port != nullptr && *port != '\0' ? port : nullptr;
}

diag_wire::FramingKind framing_env() {
    diag_wire::FramingKind kind = diag_wire::FramingKind::kHdlc;
    const char* v = getenv("LIBDIAG_FRAMING");
    if (v != nullptr && *v != '\0' && !diag_wire::parse_framing(v, &kind)) {
        fprintf(stderr, "libdiag: ignoring LIBDIAG_FRAMING=%s (want hdlc or nhdlc)\n", v);
    }
    return kind;
}

// A device's baud rate, read as the device is opened (at Diag_LSM_Init).
long baud_env() {
    const char* v = getenv("LIBDIAG_BAUD");
    if (v == nullptr || *v == '\0') return diag_port::kDefaultBaud;
    long long n = 0;
    if (diag_wire::parse_number(v, &n) && diag_port::is_standard_baud(n)) return n;
    fprintf(stderr, "libdiag: ignoring LIBDIAG_BAUD=%s (want a standard rate, 9600..4000000)\n", v);
    return diag_port::kDefaultBaud;
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

bool load_answers_file(const std::string& path, diag_modem::Overrides* answers) {
    diag_modem::ParsedAnswers parsed = diag_modem::parse_answers_file(path);
    for (auto& [prefix, answer] : diag_modem::overrides_of(parsed)) {
        (*answers)[prefix] = std::move(answer);
    }
    for (const std::string& e : parsed.errors) fprintf(stderr, "libdiag: %s\n", e.c_str());
    return parsed.errors.empty();
}

}  // namespace

bool valid_proc(int proc) {
    return proc >= 0 && proc <= kMaxProc;
}

State::State()
    : queue(mu,
            [this](Delivery& d) {
                if (!wanted(d)) return false;
                if (d.kind == Kind::kCallback) {
                    d.cb = callbacks[d.proc].cb;
                    d.ctx = callbacks[d.proc].ctx;
                }
                return true;
            }),
      simulated(&queue, this) {
    settings.delay =
            milliseconds(env_number("LIBDIAG_SIM_DELAY_MS", 0, diag_modem::kMaxAnswerDelay.count()));
    settings.remote_mask = env_number("LIBDIAG_SIM_REMOTE_MASK", 0, 0xFFFF);
    settings.support_list = env_number("LIBDIAG_SIM_SUPPORT_LIST", 0x0002, 0xFFFF);
    settings.responders = env_number("LIBDIAG_SIM_RESPONDERS", 0, 0xFFFF);
    settings.linger = milliseconds(env_number("LIBDIAG_LINGER_MS", 200, 60000));
    settings.log_every = milliseconds(env_number("LIBDIAG_SIM_LOG_EVERY_MS", 0, 60000));
    if (const char* subs = getenv("LIBDIAG_SIM_SUBSCRIPTIONS"); subs && *subs) {
        if (!diag_wire::parse_numbers(subs, 0xFFFFFFFFLL, &settings.subscriptions)) {
            fprintf(stderr,
                    "libdiag: ignoring LIBDIAG_SIM_SUBSCRIPTIONS=%s (want numbers such as 0,1)\n",
                    subs);
            settings.subscriptions.clear();
        }
    }
    traffic_ = diag_modem::Traffic(settings.subscriptions);
    if (const char* path = getenv("LIBDIAG_SIM_ANSWERS"); path && *path) {
        answers_broken = !load_answers_file(path, &settings.answers);
    }
    const char* trace = getenv("LIBDIAG_SIM_TRACE");
    trace_ = trace != nullptr && strcmp(trace, "1") == 0;
}

bool State::take_programmed(const std::string& name, Outcome* o) {
    auto it = programmed.find(name);
    if (it == programmed.end()) return false;
    o->result = it->second.result;
    o->err = it->second.err;
    if (it->second.times > 0 && --it->second.times == 0) programmed.erase(it);
    return true;
}

void State::record(Call c, const Outcome& o) {
    c.result = o.result;
    if (trace_) fprintf(stderr, "libdiag: %s\n", c.str().c_str());
    if (journal.size() == kJournalMax) journal.pop_front();
    journal.push_back(std::move(c));
}

bool State::port_named() const {
    return port_env() != nullptr;
}

bool State::connect(Released* released) {
    const char* address = port_env();
    // A connection still open ends first: its port may be another one now.
    if (on_port && port != nullptr) released->connection = port->disconnect();
    on_port = false;
    if (address == nullptr) {
        connected = true;
        if (settings.log_every.count() > 0) schedule_traffic(settings.log_every);
        return true;
    }
    diag_wire::FramingKind framing = framing_env();
    if (port == nullptr || port->address() != address || port->framing() != framing) {
        released->port = std::move(port);
        port = std::make_unique<PortModem>(address, framing, settings.linger, this);
    }
    std::string error;
    // A TCP port has no baud rate.
    if (!port->resume(&released->stale) &&
        !port->open(diag_port::is_tcp_address(address) ? 0 : baud_env(), &error)) {
        fprintf(stderr, "libdiag: cannot open diag port %s: %s\n", address, error.c_str());
        return false;
    }
    connected = on_port = true;
    return true;
}

void State::disconnect(Scope& scope) {
    connected = false;
    ++epoch;
    callbacks = {};
    queue.drop(0, scope.lock);
    if (on_port && port != nullptr) scope.released.connection = port->disconnect();
    on_port = false;
}

bool State::send(int proc, const Bytes& request, const Delivery& reply_to) {
    if (std::optional<Answer> a = diag_modem::find_override(settings.answers, request)) {
        schedule(*a, reply_to, Clock::now());
        return true;
    }
    if (on_port) return port->send(proc, request, reply_to);
    return simulated.send(proc, request, reply_to);
}

void State::release_client(int id, std::unique_lock<std::mutex>& lk) {
    clients.erase(id);
    queue.drop(id, lk);
    if (port != nullptr) port->orphan_client(id);
}

void State::schedule(const Answer& a, const Delivery& reply_to, Clock::time_point sent) {
    Clock::time_point due = sent + std::min(settings.delay, diag_modem::kMaxAnswerDelay);
    for (const Response& r : a.responses) {
        // each step is bounded, so a programmed day-long delay cannot overflow the clock
        due += std::clamp(r.delay, milliseconds(0), diag_modem::kMaxAnswerDelay);
        Delivery d = reply_to;
        d.bytes = r.bytes;
        d.pieces = r.pieces;
        if (reply_to.kind != Kind::kCallback) {
            queue.push(std::move(d), due);
            continue;
        }
        if (!valid_proc(r.proc)) continue;
        // the local reply, each followed by the same reply from every remote responder
        d.proc = r.proc;
        queue.push(d, due);
        for (int bit = 0; bit < kMaxProc; ++bit) {
            if ((settings.responders & (1u << bit)) && bit + 1 != r.proc) {
                d.proc = bit + 1;
                queue.push(d, due);
            }
        }
    }
}

void State::stream(const Bytes& record, bool log) {
    if (!connected) return;
    for (const auto& [id, client] : clients) {
        Delivery d;
        d.kind = Kind::kStream;
        d.epoch = epoch;
        d.client = id;
        d.bytes = record;
        d.stream_fn = log ? client.log_fn : client.event_fn;
        if (d.stream_fn != nullptr) queue.push(std::move(d), Clock::now());
    }
}

void State::schedule_traffic(milliseconds after) {
    Delivery tick;
    tick.kind = Kind::kTraffic;
    tick.epoch = epoch;
    tick.task = [this, e = epoch, gen = traffic_gen_] {
        std::lock_guard<std::mutex> lk(mu);
        if (!connected || e != epoch || gen != traffic_gen_ || on_port ||
            settings.log_every.count() == 0) {
            return;
        }
        stream(traffic_.next_log(), true);
        schedule_traffic(settings.log_every);
    };
    queue.push(std::move(tick), Clock::now() + after);
}

void State::restart_traffic() {
    ++traffic_gen_;
    traffic_ = diag_modem::Traffic(settings.subscriptions);
    if (connected && !on_port && settings.log_every.count() > 0) {
        schedule_traffic(settings.log_every);
    }
}

bool State::wanted(const Delivery& d) const {
    if (!connected || d.epoch != epoch) return false;
    if (d.kind == Kind::kTraffic) return true;
    if (d.kind == Kind::kCallback) return callbacks[d.proc].cb != nullptr;
    return clients.count(d.client) != 0;
}

void State::reply(Delivery to, Bytes bytes) {
    std::lock_guard<std::mutex> lk(mu);
    to.bytes = std::move(bytes);
    queue.push(std::move(to), Clock::now());
}

void State::answered(const Answer& answer, const Delivery& to, Clock::time_point sent) {
    std::lock_guard<std::mutex> lk(mu);
    schedule(answer, to, sent);
}

void State::unsolicited(Bytes packet) {
    std::lock_guard<std::mutex> lk(mu);
    diag_wire::Unwrapped u = diag_wire::unwrap(packet.data(), packet.size());
    bool event = u.inner_len > 0 && u.inner[0] == diag_wire::kEventReport;
    bool handled = false;
    for (const auto& [id, client] : clients) {
        handled = handled || (event ? client.event_fn : client.log_fn) != nullptr;
    }
    if (connected && handled) {
        trace("port: unsolicited 0x%02x, %zu bytes, to the %s stream", packet[0], packet.size(),
              event ? "event" : "log");
        stream(packet, !event);
    } else {
        trace("port: unsolicited 0x%02x, %zu bytes, dropped", packet[0], packet.size());
    }
}

void State::trace(const char* fmt, ...) {
    if (!trace_) return;
    char line[256];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    fprintf(stderr, "libdiag: %s\n", line);
}

void State::restore_defaults(Released* released, std::unique_lock<std::mutex>& lk) {
    queue.drop(0, lk);
    settings = Settings{};
    restart_traffic();
    answers_broken = false;
    std::shared_ptr<AnswerTable> builtin = diag_modem::make_builtin_table();
    simulated.set_table(builtin);
    if (port != nullptr) released->connection = port->disconnect();
    released->port = std::move(port);
    programmed.clear();
    journal.clear();
    connected = on_port = false;
    ++epoch;
    next_client = 1;
    clients.clear();
    callbacks = {};
    logging_mode = kNoMode;
}

State& state() {
    // Never destroyed: the delivery thread is detached and callers may still come in while the
    // process exits.
    static State* s = new State();
    return *s;
}

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
    State& s = state();
    Released released;  // a port closes once the lock is released
    std::unique_lock<std::mutex> lk(s.mu);
    s.restore_defaults(&released, lk);
    lk.unlock();
}

std::vector<Call> journal() {
    return locked([](State& s) { return std::vector<Call>(s.journal.begin(), s.journal.end()); });
}

std::vector<std::string> journal_names() {
    std::vector<std::string> names;
    for (const Call& c : journal()) names.push_back(c.name);
    return names;
}

void clear_journal() {
    locked([](State& s) { s.journal.clear(); });
}

void program_result(const std::string& call, long long result, int times, int err) {
    locked([&](State& s) {
        if (times == 0) {
            s.programmed.erase(call);
        } else {
            s.programmed[call] = Programmed{result, times, err};
        }
    });
}

void set_answer(const Bytes& request_prefix, const Answer& answer) {
    locked([&](State& s) { s.settings.answers[request_prefix] = answer; });
}

bool load_answers(const std::string& path) {
    diag_modem::Overrides answers;
    bool ok = load_answers_file(path, &answers);
    locked([&](State& s) {
        for (auto& [prefix, answer] : answers) s.settings.answers[prefix] = std::move(answer);
    });
    return ok;
}

void clear_answers() {
    locked([](State& s) { s.settings.answers.clear(); });
}

void set_answer_table(std::unique_ptr<AnswerTable> table) {
    std::shared_ptr<AnswerTable> t = table ? std::move(table) : diag_modem::make_builtin_table();
    locked([&](State& s) { s.simulated.set_table(t); });
    // the old table dies here, outside the lock, once no answer is using it
}

void set_traffic(milliseconds log_every, std::vector<uint32_t> subscriptions) {
    locked([&](State& s) {
        s.settings.log_every = log_every;
        s.settings.subscriptions = std::move(subscriptions);
        s.restart_traffic();
    });
}

void set_answer_delay(milliseconds delay) {
    locked([&](State& s) { s.settings.delay = delay; });
}

void set_remote_mask(uint16_t mask) {
    locked([&](State& s) { s.settings.remote_mask = mask; });
}

void set_support_list(uint16_t list) {
    locked([&](State& s) { s.settings.support_list = list; });
}

void set_remote_responders(uint16_t mask) {
    locked([&](State& s) { s.settings.responders = mask; });
}

void emit_log_record(const Bytes& record) {
    locked([&](State& s) { s.stream(record, true); });
}

void emit_event_record(const Bytes& record) {
    locked([&](State& s) { s.stream(record, false); });
}

bool wait_idle(milliseconds limit) {
    State& s = state();
    std::unique_lock<std::mutex> lk(s.mu);
    return s.queue.wait_idle(limit, lk);
}

bool connected() {
    return locked([](State& s) { return s.connected; });
}

int logging_mode() {
    return locked([](State& s) { return s.logging_mode; });
}

PortStats port_stats() {
    return locked([](State& s) { return s.port != nullptr ? s.port->stats() : PortStats{}; });
}

void close_idle_port() {
    Released released;  // closes once the lock is released
    locked([&](State& s) {
        if (!s.on_port && s.port != nullptr) released.stale = s.port->take_idle();
    });
}

std::string port_note() {
    return locked([](State& s) { return s.port != nullptr ? s.port->note() : std::string(); });
}

}  // namespace libdiag_sim

extern "C" size_t libdiag_sim_port_note(char* buf, size_t size) {
    std::string note = libdiag_sim::port_note();
    if (buf != nullptr && size > 0) snprintf(buf, size, "%s", note.c_str());
    return note.size();
}
