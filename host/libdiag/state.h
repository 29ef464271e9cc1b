// The host libdiag's process-wide state, shared by the C entry points, the control API and the
// modems behind them. Everything here is guarded by State::mu.
#pragma once

#include <stdarg.h>

#include <array>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "delivery.h"
#include "reply_match.h"
#include "sim_internal.h"

namespace libdiag_sim {

using std::chrono::milliseconds;

constexpr int kMaxProc = 16;
constexpr int kNoMode = -1;

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

// What a call returns, and the errno it leaves when programmed.
struct Outcome {
    long long result = 0;
    int err = 0;
};

// A modem behind the libdiag front.
class Modem {
  public:
    virtual ~Modem() = default;
    // Hands |request| over and returns at once, with State::mu held. The reply, if any, comes
    // later through the delivery queue as a copy of |reply_to| with the bytes filled in. False
    // when the modem cannot take it.
    virtual bool send(int proc, const Bytes& request, const Delivery& reply_to) = 0;
    // A serial port: one processor, no logging modes.
    virtual bool is_port() const = 0;
    virtual bool alive() const { return true; }
    virtual const std::string& path() const;
};

// The answer table (State::table) on the delivery thread.
std::unique_ptr<Modem> make_table_modem();
// The diag port at |path|; nullptr with the reason in |*error|.
std::unique_ptr<Modem> open_port_modem(const std::string& path, std::string* error);

bool valid_proc(int proc);

class State {
  public:
    State();

    std::mutex mu;
    Settings settings;
    // A LIBDIAG_SIM_ANSWERS that cannot be read or has bad lines fails every Diag_LSM_Init: a run
    // on half an answers file would answer something else than the user meant.
    bool answers_broken = false;
    std::shared_ptr<Backend> table;  // what the table modem answers from
    std::unique_ptr<Modem> modem;    // chosen by Diag_LSM_Init
    std::map<std::string, Programmed> programmed;
    std::deque<Call> journal;  // the most recent kJournalMax calls
    bool connected = false;
    uint64_t epoch = 0;  // bumped by DeInit and reset so that older deliveries are dropped
    int next_client = 1;
    std::map<int, Client> clients;
    std::array<Registration, kMaxProc + 1> callbacks;
    int logging_mode = kNoMode;
    DeliveryQueue queue;
    reply_match::Pending<Delivery> pending;  // requests sent to the port
    PortStats port_stats;

    Call begin(const char* name, std::vector<intptr_t> args);
    // Consumes one programmed result of |name|, if any.
    bool take_programmed(const std::string& name, Outcome* o);
    // Journals |c| and returns the outcome, setting errno last so nothing clobbers it.
    long long finish(Call c, const Outcome& o, std::unique_lock<std::mutex>& lk);

    // Sends |request| to the override table or the modem; the reply goes where |reply_to| says.
    bool send(int proc, const Bytes& request, const Delivery& reply_to);
    // Queues one delivery per response of |a|, each after the previous one, counted from |sent|.
    void schedule(const Answer& a, const Delivery& reply_to, Clock::time_point sent);
    // Queues |record| for the log (or event) stream handler of every DCI client.
    void stream(const Bytes& record, bool log);
    // Whether the recipient of |d| still waits.
    bool wanted(const Delivery& d) const;

    // Picks the modem for a new connection: the port named by LIBDIAG_PORT, else the table.
    // A modem it replaces is handed back in |*old| to be destroyed once the lock is released.
    bool choose_modem(std::unique_ptr<Modem>* old);
    // The modem is no longer needed for now (a port is closed); destroy |*old| unlocked.
    void release_modem(std::unique_ptr<Modem>* old);
    bool on_port() const;

    // Events of the port modem, each taking the lock.
    void port_frame(const uint8_t* frame, size_t n);
    void port_dropped(const char* why);
    void port_gone(const std::string& path, const std::string& why);
    void port_stalled(const std::string& path, size_t bytes);

    void trace(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    // Back to the built-in defaults; a port modem is handed back in |*old|.
    void restore_defaults(std::unique_ptr<Modem>* old);

  private:
    bool trace_ = false;
};

State& state();

// Runs |f| on the state under its lock and returns what it returns.
template <typename F>
auto locked(F f) {
    State& s = state();
    std::lock_guard<std::mutex> lk(s.mu);
    return f(s);
}

// Answers files: the parser's helpers, and loading a file into an override table.
bool parse_number(const std::string& text, long long* out);
bool load_answers_file(const std::string& path, std::map<Bytes, Answer>* answers);

}  // namespace libdiag_sim
