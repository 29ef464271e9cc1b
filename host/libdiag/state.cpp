// The host libdiag's process-wide state (state.h): settings from the environment, programmed
// results, the call journal, the DCI clients and callbacks, and the choice of modem. The
// environment it reads is the table "Environment variables of the host stand-ins" in README.md;
// libdiag_sim::reset() goes back to the built-in defaults, not to those (tracing stays).
#include "state.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "answers_file.h"
#include "serial_device.h"
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

}  // namespace

bool load_answers_file(const std::string& path, diag_wire::Overrides* answers) {
    diag_wire::ParsedAnswers parsed = diag_wire::parse_answers_file(path);
    for (auto& [prefix, answer] : diag_wire::overrides_of(parsed)) {
        (*answers)[prefix] = std::move(answer);
    }
    for (const std::string& e : parsed.errors) fprintf(stderr, "libdiag: %s\n", e.c_str());
    for (const std::string& w : parsed.warnings) {
        fprintf(stderr, "libdiag: warning: %s\n", w.c_str());
    }
    return parsed.errors.empty();
}

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
            milliseconds(env_number("LIBDIAG_SIM_DELAY_MS", 0, diag_wire::kMaxAnswerDelay.count()));
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
    traffic_ = diag_wire::Traffic(settings.subscriptions);
    if (const char* path = getenv("LIBDIAG_SIM_ANSWERS"); path && *path) {
        answers_broken = !load_answers_file(path, &settings.answers);
    }
    const char* trace = getenv("LIBDIAG_SIM_TRACE");
    trace_ = trace != nullptr && strcmp(trace, "1") == 0;
    if (trace != nullptr && *trace != '\0' && !trace_ && strcmp(trace, "0") != 0) {
        fprintf(stderr, "libdiag: ignoring LIBDIAG_SIM_TRACE=%s (want 1 or 0)\n", trace);
    }
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
        port = std::make_unique<PortModem>(address, framing, settings.linger, &queue, this);
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
    if (std::optional<Answer> a = diag_wire::find_override(settings.answers, request)) {
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
    Clock::time_point due = sent + std::min(settings.delay, diag_wire::kMaxAnswerDelay);
    for (const Response& r : a.responses) {
        // each step is bounded, so a programmed day-long delay cannot overflow the clock
        due += std::clamp(r.delay, milliseconds(0), diag_wire::kMaxAnswerDelay);
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
    traffic_ = diag_wire::Traffic(settings.subscriptions);
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
    std::shared_ptr<AnswerTable> builtin = diag_wire::make_builtin_table();
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

}  // namespace libdiag_sim
