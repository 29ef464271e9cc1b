// The host libdiag's process-wide state, behind the C entry points and the control API: the
// connection, the DCI clients and callbacks, the journal, and the modems. Everything here is
// guarded by State::mu; the modems hand replies to its delivery queue and the rest to it, their
// ModemSink.
#pragma once

#include <errno.h>
#include <stdarg.h>

#include <array>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "delivery.h"
#include "modem.h"
#include "sim_internal.h"

namespace libdiag_sim {

using std::chrono::milliseconds;

constexpr int kMaxProc = 16;
constexpr int kNoMode = -1;

struct Settings {
    milliseconds delay{0};
    milliseconds linger{200};  // a port stays open this long after a connection
    uint16_t remote_mask = 0;
    uint16_t support_list = 0x0002;
    uint16_t responders = 0;
    diag_wire::Overrides answers;
    milliseconds log_every{0};  // the simulated modem's unsolicited log packets
    std::vector<uint32_t> subscriptions;
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

// What a call lets go of, destroyed once the lock is released: closing a port joins its thread,
// which may be waiting for the lock.
struct Released {
    PortModem::ConnectionPtr connection;
    PortModem::ConnectionPtr stale;  // a lingering one that could not be taken back
    std::unique_ptr<PortModem> port;
};

// One libdiag call under way, as its body sees it.
struct Scope {
    const Call& call;
    Outcome& out;
    Released& released;
    std::unique_lock<std::mutex>& lock;  // on State::mu
};

bool valid_proc(int proc);
// Adds the overrides of the answers file at |path| to |*answers|; false when it cannot be read
// or has bad lines, each said on standard error.
bool load_answers_file(const std::string& path, diag_wire::Overrides* answers);

class State : public ModemSink {
  public:
    State();

    std::mutex mu;
    Settings settings;
    // A LIBDIAG_SIM_ANSWERS that cannot be read or has bad lines fails every Diag_LSM_Init: a run
    // on half an answers file would answer something else than the user meant.
    bool answers_broken = false;
    DeliveryQueue queue;
    SimulatedModem simulated;
    std::unique_ptr<PortModem> port;  // the port LIBDIAG_PORT named at the last Diag_LSM_Init
    std::map<std::string, Programmed> programmed;
    std::deque<Call> journal;  // the most recent kJournalMax calls
    bool connected = false;
    bool on_port = false;  // the connection goes to |port|
    uint64_t epoch = 0;    // bumped by DeInit and reset so that older deliveries are dropped
    int next_client = 1;
    std::map<int, Client> clients;
    std::array<Registration, kMaxProc + 1> callbacks;
    int logging_mode = kNoMode;

    // Runs one libdiag call: journals it, and runs |body|(Scope&) under the lock unless a
    // programmed result stands in for it.
    template <typename Body>
    long long call(const char* name, std::vector<intptr_t> args, const void* data, int len,
                   Body&& body) {
        Call c;
        c.name = name;
        c.args = std::move(args);
        c.at = Clock::now();
        if (data != nullptr && len > 0) {
            const auto* p = static_cast<const uint8_t*>(data);
            c.data.assign(p, p + len);
        }
        Released released;
        Outcome o;
        {
            std::unique_lock<std::mutex> lk(mu);
            Scope scope{c, o, released, lk};
            if (!take_programmed(c.name, &o)) body(scope);
            record(std::move(c), o);
        }
        released.connection.reset();  // closes the port: its thread may want the lock
        released.stale.reset();
        released.port.reset();
        // Last, so that nothing clobbers it.
        if (o.err != 0) errno = o.err;
        return o.result;
    }

    // Consumes one programmed result of |name|, if any.
    bool take_programmed(const std::string& name, Outcome* o);

    // Connects to the port LIBDIAG_PORT names, or to the simulated modem.
    bool connect(Released* released);
    void disconnect(Scope& scope);
    bool port_named() const;
    // Sends |request| to the override table or the modem; the reply goes where |reply_to| says.
    bool send(int proc, const Bytes& request, const Delivery& reply_to);
    void release_client(int id, std::unique_lock<std::mutex>& lk);
    // Whether the recipient of |d| still waits.
    bool wanted(const Delivery& d) const;
    // Queues |record| for the log (or event) stream handler of every DCI client.
    void stream(const Bytes& record, bool log);
    // The simulated modem's next unsolicited log packet, due |after|, for this connection.
    void schedule_traffic(milliseconds after);
    // Starts the traffic afresh after its settings changed.
    void restart_traffic();

    // Back to the built-in defaults.
    void restore_defaults(Released* released, std::unique_lock<std::mutex>& lk);

    // ModemSink
    void answered(const Answer& answer, const Delivery& to, Clock::time_point sent) override;
    void unsolicited(Bytes packet) override;
    __attribute__((format(printf, 2, 3))) void trace(const char* fmt, ...) override;

  private:
    void record(Call c, const Outcome& o);
    diag_wire::Traffic traffic_;
    uint64_t traffic_gen_ = 0;  // ticks of an earlier setting stop
    void schedule(const Answer& a, const Delivery& reply_to, Clock::time_point sent);

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

}  // namespace libdiag_sim
