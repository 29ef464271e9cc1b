// The modems behind the libdiag front: the simulated one in this process, and a modem on a port.
// A modem is handed, when it is made, the delivery queue its answers go to and the sink it
// reports the rest to.
#pragma once

#include <memory>
#include <string>

#include "answer_table.h"
#include "delivery.h"
#include "framing.h"
#include "matcher.h"

namespace libdiag_sim {

using diag_wire::Answer;
using diag_wire::AnswerTable;

// Where a modem reports what is not a reply for the queue. Each call but trace() takes the
// library's lock: call with none held.
class ModemSink {
  public:
    // The responses of |answer| for |to|, each due after its delay, counted from |sent|.
    virtual void answered(const Answer& answer, const Delivery& to, Clock::time_point sent) = 0;
    // A log packet, event report or message: for the stream handlers of the DCI clients.
    virtual void unsolicited(Bytes packet) = 0;
    virtual void trace(const char* fmt, ...) __attribute__((format(printf, 2, 3))) = 0;

  protected:
    ~ModemSink() = default;
};

class Modem {
  public:
    virtual ~Modem() = default;
    // Hands |request| over and returns at once, with the library's lock held. The reply, if
    // any, comes later as |reply_to| with the bytes filled in. False when the modem cannot take
    // it.
    virtual bool send(int proc, const Bytes& request, const Delivery& reply_to) = 0;
};

// Answers from |table| on the delivery thread, so that a slow table holds up deliveries, not
// the sender.
class SimulatedModem : public Modem {
  public:
    SimulatedModem(DeliveryQueue* queue, ModemSink* sink)
        : queue_(queue), sink_(sink), table_(diag_wire::make_builtin_table()) {}
    bool send(int proc, const Bytes& request, const Delivery& reply_to) override;
    // Swaps |table| in and hands the old one back: it goes when no answer uses it any more.
    void set_table(std::shared_ptr<AnswerTable>& table) { table_.swap(table); }

  private:
    DeliveryQueue* const queue_;
    ModemSink* const sink_;
    std::shared_ptr<AnswerTable> table_;
};

// A modem on a diag port. It lives as long as the port stays the one the environment names; each
// connection opens the port anew, while the requests of earlier connections are remembered, so
// that a late answer to one of them is known for what it is.
class PortModem : public Modem {
  public:
    class Connection;
    // Destroying a connection closes the port and joins its I/O thread.
    struct Closer {
        void operator()(Connection* c) const;
    };
    using ConnectionPtr = std::unique_ptr<Connection, Closer>;

    // A connection's port stays open |linger| after it ends, for the next one. Replies go to
    // |queue| from the port's I/O thread.
    PortModem(std::string address, diag_wire::FramingKind framing, std::chrono::milliseconds linger,
              DeliveryQueue* queue, ModemSink* sink);
    // Closes a connection still open first.
    ~PortModem() override;

    const std::string& address() const { return address_; }
    diag_wire::FramingKind framing() const { return framing_; }

    // Takes back the connection that lingers; false when there is none. One that cannot be
    // used (gone, or another process waits for the port) goes to |*stale|.
    bool resume(ConnectionPtr* stale);
    // Opens the port for a connection, a device at |baud|; false with the reason in |*error|.
    bool open(long baud, std::string* error);
    // Ends the connection: callers still waiting have gone. Its port lingers when nothing went
    // wrong and no other process waits for it; otherwise it is handed back, to be destroyed with
    // no lock held, which closes the port and settles note().
    ConnectionPtr disconnect();
    // The connection whose port lingers, if any, to be destroyed with no lock held.
    ConnectionPtr take_idle();

    bool send(int proc, const Bytes& request, const Delivery& reply_to) override;
    // The DCI client |client| was released: its requests have no caller any more.
    void orphan_client(int client);

    PortStats stats() const;
    // What the last connection that left requests unanswered found: the port busy, frames of
    // the other framing, or other processes with the port open. "" when nothing.
    std::string note() const;

  private:
    // A request and the connection it went out on.
    struct Sent {
        Delivery to;
        uint64_t session = 0;
    };

    const std::string address_;
    const diag_wire::FramingKind framing_;
    const std::chrono::milliseconds linger_;
    DeliveryQueue* const queue_;
    ModemSink* const sink_;
    const std::unique_ptr<diag_wire::Framing> encoder_;  // encodes only

    mutable std::mutex mu_;  // after the library's lock
    matcher::Pending<Sent> pending_;
    uint64_t sessions_ = 0;  // connections made
    PortStats stats_;
    std::string note_;
    ConnectionPtr connection_;
};

}  // namespace libdiag_sim
