// The control API of the host libdiag (libdiag_sim.h), over its state (state.h): programmed
// results, answer overrides, the call journal, the port's counts and notes.
#include <inttypes.h>
#include <stdio.h>

#include <algorithm>

#include "state.h"

namespace libdiag_sim {
namespace {

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
    diag_wire::Overrides answers;
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
    std::shared_ptr<AnswerTable> t = table ? std::move(table) : diag_wire::make_builtin_table();
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
