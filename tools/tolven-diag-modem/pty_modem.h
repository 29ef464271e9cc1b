// A modem on a pseudo-terminal: serves the built-in answer table in HDLC (or non-HDLC) frames on
// the pty, as a USB modem module does on its diag port, with the misbehaviour and the unsolicited
// traffic of real ones on demand.
#pragma once

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <vector>

#include "answer_table.h"
#include "framing.h"

namespace pty_modem {

using diag_wire::Answer;
using diag_wire::Bytes;

struct Options {
    diag_wire::FramingKind framing = diag_wire::FramingKind::kHdlc;
    std::chrono::milliseconds log_every{0};    // an unsolicited log packet this often; 0: none
    std::chrono::milliseconds event_every{0};  // an unsolicited event report this often; 0: none
    int logs_before_reply = 0;                 // unsolicited log packets right before every reply
    // Unsolicited packets go out wrapped for these subscriptions in turn; empty: plain.
    std::vector<uint32_t> subscriptions;
    std::chrono::microseconds byte_gap{0};     // replies go out one byte at a time, this apart
    std::chrono::milliseconds reply_delay{0};  // before every reply
    int corrupt_every = 0;           // every Nth reply comes after a broken copy of it; 0: never
    int unanswered_every = 0;        // every Nth request goes unanswered; 0: none
    bool garbage = false;            // replies are noise that never decodes
    bool hang_up_mid_reply = false;  // the first reply stops halfway and the pty closes
    diag_wire::Overrides answers;    // in front of the answer table, longest prefix wins
};

struct Stats {
    uint64_t requests = 0;      // good frames received
    uint64_t bad_requests = 0;  // frames dropped by the decoder
    uint64_t replies = 0;
    uint64_t unsolicited = 0;
};

class Modem {
  public:
    // Opens a pty pair; nullptr with the reason in |*error|.
    static std::unique_ptr<Modem> open(Options options, std::string* error);
    // Serves on the pty whose master side |master| is, as another owner hands it over (a test
    // bed that fakes a device on a pty); the modem works on a copy of it, which it closes.
    static std::unique_ptr<Modem> adopt(int master, Options options, std::string* error);
    ~Modem();
    Modem(const Modem&) = delete;
    Modem& operator=(const Modem&) = delete;

    // The slave side, for LIBDIAG_PORT.
    const std::string& path() const { return path_; }

    // Serves on the calling thread until stop() or close_pty().
    void serve();
    // Serves on a thread of its own.
    void start();
    // Ends serve(); async-signal-safe.
    void stop();
    // Closes the pty under whoever has it open, as an unplugged modem does; serving ends.
    void close_pty();

    Stats stats() const;

  private:
    struct Impl;
    static std::unique_ptr<Modem> serve_master(int master, Options options, std::string* error);
    Modem(std::string path, int master, int slave, int wake, Options options);

    const std::string path_;
    std::unique_ptr<Impl> impl_;
    std::thread thread_;
};

}  // namespace pty_modem
