// A modem on a diag port: the link hands bytes to the framing the port was opened with, the
// framing hands frames to the matcher, and the matcher hands replies to the delivery queue.
#include <stdio.h>

#include "modem.h"
#include "port_link.h"
#include "port_users.h"

namespace libdiag_sim {

using diag_port::Link;
using diag_wire::FramingKind;

// One opening of the port: its link and the framing that decodes what the link reads. The link's
// I/O thread runs the handlers here, which keep the port's books under its lock; the port
// outlives it.
class PortModem::Connection final : public diag_port::LinkSink, public diag_wire::FrameSink {
  public:
    Connection(PortModem* port, uint64_t session)
        : port_(port), session_(session), framing_(open_framing(port->framing_, this)) {}

    ~Connection() {
        if (link_ == nullptr) return;  // never opened
        std::string waited_for = link_->waiting_for();
        link_.reset();  // joins the I/O thread: the counts below are final
        if (!unanswered_) return;
        std::string note = explain(waited_for, framing_->counts());
        std::lock_guard<std::mutex> lk(port_->mu_);
        port_->note_ = note;
    }

    bool open(long baud, std::string* error) {
        link_ = diag_port::open_link(port_->address_, baud, this, error);
        return link_ != nullptr;
    }

    Link& link() { return *link_; }
    void set_unanswered() { unanswered_ = true; }

    void on_bytes(const uint8_t* data, size_t n) override {
        bytes_in_ += n;
        framing_->feed(data, n);
        uint64_t foreign = framing_->counts().foreign;
        if (foreign == foreign_seen_) return;
        {
            std::lock_guard<std::mutex> lk(port_->mu_);
            port_->stats_.foreign += foreign - foreign_seen_;
        }
        foreign_seen_ = foreign;
    }

    void on_ready(const std::string& caveat) override {
        port_->sink_->trace("port %s: the lock is ours now", port_->address_.c_str());
        trace_caveat(caveat);
    }

    void trace_caveat(const std::string& caveat) {
        if (!caveat.empty())
            port_->sink_->trace("port %s: %s", port_->address_.c_str(), caveat.c_str());
    }

    void on_gone(const std::string& why) override {
        {
            std::lock_guard<std::mutex> lk(port_->mu_);
            ++port_->stats_.vanished;
            // The modem behind a port that went away starts afresh: what was sent is lost.
            const uint64_t session = session_;
            port_->pending_.forget([session](const Sent& s) { return s.session <= session; });
        }
        fprintf(stderr, "libdiag: diag port %s: %s; closed\n", port_->address_.c_str(), why.c_str());
    }

    void on_stalled(size_t bytes) override {
        {
            std::lock_guard<std::mutex> lk(port_->mu_);
            ++port_->stats_.stalls;
        }
        fprintf(stderr, "libdiag: diag port %s: no write for %lld ms, %zu bytes dropped\n",
                port_->address_.c_str(), static_cast<long long>(diag_port::kWriteLimit.count()),
                bytes);
    }

    void on_frame(const uint8_t* frame, size_t n) override {
        Sent to;
        matcher::Outcome outcome;
        {
            std::lock_guard<std::mutex> lk(port_->mu_);
            PortStats& stats = port_->stats_;
            ++stats.frames;
            outcome = port_->pending_.match(frame, n, Clock::now(), &to);
            switch (outcome) {
                case matcher::Outcome::kReply:
                    ++stats.replies;
                    break;
                case matcher::Outcome::kLate:
                    ++stats.late;
                    break;
                case matcher::Outcome::kUnsolicited:
                    ++stats.unsolicited;
                    break;
            }
        }
        ModemSink* sink = port_->sink_;
        switch (outcome) {
            case matcher::Outcome::kReply:
                sink->trace("port: reply 0x%02x, %zu bytes", frame[0], n);
                to.to.bytes.assign(frame, frame + n);
                port_->queue_->post(std::move(to.to));
                return;
            case matcher::Outcome::kLate:
                sink->trace("port: late reply 0x%02x, %zu bytes, dropped: its caller has gone",
                            frame[0], n);
                return;
            case matcher::Outcome::kUnsolicited:
                sink->unsolicited(Bytes(frame, frame + n));
                return;
        }
    }

    void on_drop(const char* why) override {
        uint64_t dropped;
        {
            std::lock_guard<std::mutex> lk(port_->mu_);
            dropped = ++port_->stats_.dropped;
        }
        port_->sink_->trace("port: frame dropped (%s), %llu so far", why,
                            static_cast<unsigned long long>(dropped));
    }

  private:
    // Why requests went unanswered, as far as the port can tell; also said on standard error,
    // for callers that only see a time-out.
    std::string explain(const std::string& waited_for, const diag_wire::FramingCounts& counts) {
        const std::string& port = port_->address_;
        std::string note;
        if (!waited_for.empty()) {
            note = "the port " + port + " was busy: " + waited_for +
                   " holds its lock; nothing was sent";
        } else if (counts.frames == 0 && counts.foreign > 0) {
            note = "no HDLC frame came back from " + port + ", but " +
                   std::to_string(counts.foreign) +
                   " non-HDLC frames did: the modem seems to speak non-HDLC framing "
                   "(LIBDIAG_FRAMING=nhdlc, tolven-diag --framing nhdlc)";
        } else if (counts.bad_crc > 0 && counts.frames == 0) {
            const uint64_t n = counts.bad_crc;
            note = std::to_string(n) + (n == 1 ? " frame" : " frames") + " from " + port +
                   (n == 1 ? " was" : " were") +
                   " dropped for a bad CRC, and none came whole: a wrong baud rate (LIBDIAG_BAUD) "
                   "or a line that garbles bytes?";
        } else if (bytes_in_ > 0 && counts.frames == 0 && counts.dropped == 0) {
            note = std::to_string(bytes_in_) + (bytes_in_ == 1 ? " byte" : " bytes") +
                   " came back from " + port +
                   " but formed no frame: is it the modem's diag port, at the right baud rate?";
        } else {
            std::vector<std::string> users = diag_port::is_tcp_address(port)
                                                     ? std::vector<std::string>{}
                                                     : diag_port::other_users(port);
            if (!users.empty()) {
                note = "the port " + port + " is also open in ";
                for (size_t i = 0; i < users.size(); ++i) note += (i ? ", " : "") + users[i];
                note += ", which may take the modem's answers";
            } else if (bytes_in_ == 0) {
                note = "no bytes came back from " + port +
                       ": is the modem on, and is this its diag port?";
            }
        }
        if (!note.empty()) fprintf(stderr, "libdiag: %s\n", note.c_str());
        return note;
    }

    PortModem* const port_;
    const uint64_t session_;
    const std::unique_ptr<diag_wire::Framing> framing_;  // I/O thread only, until it ends
    uint64_t foreign_seen_ = 0;
    // What came back, for the note on an unanswered command: I/O thread only, until it ends.
    uint64_t bytes_in_ = 0;
    bool unanswered_ = false;
    std::unique_ptr<Link> link_;  // last: its thread goes first
};

PortModem::PortModem(std::string address, FramingKind framing, std::chrono::milliseconds linger,
                     DeliveryQueue* queue, ModemSink* sink)
    : address_(std::move(address)),
      framing_(framing),
      linger_(linger),
      queue_(queue),
      sink_(sink),
      encoder_(open_framing(framing, nullptr)) {}

PortModem::~PortModem() {
    connection_.reset();
}

void PortModem::Closer::operator()(Connection* c) const {
    delete c;
}

bool PortModem::resume(ConnectionPtr* stale) {
    std::lock_guard<std::mutex> lk(mu_);
    if (connection_ == nullptr) return false;
    Link& link = connection_->link();
    if (link.resume() && !link.others_waiting()) {
        note_.clear();
        return true;
    }
    *stale = std::move(connection_);
    return false;
}

bool PortModem::open(long baud, std::string* error) {
    uint64_t session;
    {
        std::lock_guard<std::mutex> lk(mu_);
        session = ++sessions_;
    }
    ConnectionPtr c(new Connection(this, session));
    if (!c->open(baud, error)) return false;
    if (c->link().waiting_for().empty()) c->trace_caveat(c->link().caveat());
    std::lock_guard<std::mutex> lk(mu_);
    note_.clear();
    ++stats_.opens;
    if (!c->link().waiting_for().empty()) {
        ++stats_.lock_waits;
        // Another process has the port: answers to our earlier requests go to it, not to us.
        pending_.clear();
    }
    connection_ = std::move(c);
    return true;
}

PortModem::ConnectionPtr PortModem::disconnect() {
    std::lock_guard<std::mutex> lk(mu_);
    if (connection_ == nullptr) return nullptr;
    Link& link = connection_->link();
    const bool unanswered = pending_.waiting() > 0;
    // Requests that never left (the port was another process's all along) get no late answer.
    if (!link.waiting_for().empty()) {
        const uint64_t session = sessions_;
        pending_.forget([session](const Sent& s) { return s.session == session; });
    }
    pending_.orphan([](const Sent&) { return true; });
    if (!unanswered && linger_.count() > 0 && link.alive() && link.waiting_for().empty() &&
        !link.others_waiting()) {
        link.linger(Clock::now() + linger_);
        return nullptr;
    }
    if (unanswered) connection_->set_unanswered();
    return std::move(connection_);
}

PortModem::ConnectionPtr PortModem::take_idle() {
    std::lock_guard<std::mutex> lk(mu_);
    return std::move(connection_);
}

bool PortModem::send(int, const Bytes& request, const Delivery& reply_to) {
    Bytes frame;
    std::lock_guard<std::mutex> lk(mu_);
    if (connection_ == nullptr || !connection_->link().alive() ||
        !encoder_->encode(request.data(), request.size(), &frame)) {
        return false;
    }
    pending_.add(request, Sent{reply_to, sessions_}, Clock::now());
    if (!connection_->link().write(frame)) {
        pending_.pop_newest();
        return false;
    }
    sink_->trace("port %s: sent command 0x%02x, %zu bytes", address_.c_str(), request[0],
                 request.size());
    return true;
}

void PortModem::orphan_client(int client) {
    std::lock_guard<std::mutex> lk(mu_);
    pending_.orphan([client](const Sent& s) { return s.to.client == client; });
}

PortStats PortModem::stats() const {
    std::lock_guard<std::mutex> lk(mu_);
    PortStats s = stats_;
    s.open = connection_ != nullptr && connection_->link().alive();
    return s;
}

std::string PortModem::note() const {
    std::lock_guard<std::mutex> lk(mu_);
    return note_;
}

}  // namespace libdiag_sim
