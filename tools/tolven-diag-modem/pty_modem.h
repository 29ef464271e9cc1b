// A modem on a pseudo-terminal: serves the simulated modem's answers in HDLC frames on the pty,
// as a USB modem module does on its diag port, with the misbehaviour of real ones on demand.
#pragma once

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "libdiag_sim.h"

namespace pty_modem {

using libdiag_sim::Answer;
using libdiag_sim::Bytes;

struct Options {
    std::chrono::milliseconds log_every{0};    // an unsolicited log packet this often; 0: none
    std::chrono::milliseconds event_every{0};  // an unsolicited event report this often; 0: none
    std::chrono::microseconds byte_gap{0};     // replies go out one byte at a time, this apart
    std::chrono::milliseconds reply_delay{0};  // before every reply
    int corrupt_every = 0;  // every Nth reply comes after a copy of it with a bad CRC; 0: never
    bool garbage = false;   // replies are noise that never decodes
    std::map<Bytes, Answer> answers;  // overrides of the answer table, longest prefix wins
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
    Modem(std::string path, int master, int slave, int wake, Options options);

    const std::string path_;
    std::unique_ptr<Impl> impl_;
    std::thread thread_;
};

}  // namespace pty_modem
