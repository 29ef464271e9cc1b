// Control API of the simulated modem behind the host libdiag. Tests and tools use it to program
// results, answers and delays, and to read the journal of every libdiag call.
#pragma once

#include <stdint.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "answer_table.h"

namespace libdiag_sim {

using diag_wire::Answer;
using diag_wire::AnswerTable;
using diag_wire::Bytes;
using diag_wire::Response;

// Success code of every DCI call; the failure codes are the simulator's own.
constexpr int kDciOk = 1001;
constexpr int kDciFailure = 1002;        // generic refusal
constexpr int kDciNoConnection = 1003;   // no Diag_LSM_Init before the call
constexpr int kDciUnknownClient = 1004;  // client id not registered (or released twice)

// Installs |table| for all later requests to the simulated modem; nullptr restores the
// built-in one. Its answer() runs on the library's delivery thread, after the send that asked
// has returned.
void set_answer_table(std::unique_ptr<AnswerTable> table);

// One libdiag call as it arrived. |args| holds the integer arguments in order; a pointer
// argument is recorded as the value it pointed at on entry (for client ids, masks, signal
// types) or as its address (callbacks, contexts, buffers). |data| holds a sent packet.
struct Call {
    std::string name;
    std::vector<intptr_t> args;
    Bytes data;
    long long result = 0;  // what the call returned (0 for void calls)
    std::chrono::steady_clock::time_point at;
    std::string str() const;  // "name(a, b, ...) = result", for messages and the tool's trace
};

// Forgets the journal, programmed results, answer overrides, registrations and the connection;
// restores the defaults (answer delay 0, support list 0x0002, no remote processors).
void reset();

// The most recent calls (at most 4096), oldest first.
std::vector<Call> journal();
std::vector<std::string> journal_names();
void clear_journal();

// The next |times| calls of |call| return |result| (for Diag_LSM_Init: 0 or 1) and set errno to
// |err| when it is not 0; times < 0 means every call from now on. Such a call does nothing else.
void program_result(const std::string& call, long long result, int times = 1, int err = 0);

// Answers for requests that start with |request_prefix| (longest prefix wins) replace the
// table's; a request wrapped for a subscription also takes the answer of the packet inside,
// wrapped the same way. An Answer without responses makes such requests go unanswered.
void set_answer(const Bytes& request_prefix, const Answer& answer);
void clear_answers();
// Adds the overrides of an answers file (answers_file.h). False when the file cannot be read or
// a line is malformed (the good lines still count; each bad one is reported on stderr).
bool load_answers(const std::string& path);

// Delay before the first response of every answer, on top of each Response's own delay.
void set_answer_delay(std::chrono::milliseconds delay);
// Remote processors present (bit i = processor i + 1), as diag_has_remote_device reports it.
void set_remote_mask(uint16_t mask);
// Peripheral support list that diag_get_dci_support_list_proc reports (bit 1 = MPSS).
void set_support_list(uint16_t list);
// Remote processors (bit i = processor i + 1) that answer callback-mode requests as well as
// the local one, with the same reply.
void set_remote_responders(uint16_t mask);

// Unsolicited traffic of the simulated modem while connected: a log packet every |log_every|
// (0: none), wrapped for |subscriptions| in turn (empty: plain), to the log stream handlers of
// the DCI clients, as a busy modem sends them.
void set_traffic(std::chrono::milliseconds log_every, std::vector<uint32_t> subscriptions = {});

// Log and event stream records, delivered on the simulator's thread to the stream handlers of
// every registered DCI client.
void emit_log_record(const Bytes& record);
void emit_event_record(const Bytes& record);

// Blocks until every scheduled delivery has been made or dropped; false on |limit|.
bool wait_idle(std::chrono::milliseconds limit = std::chrono::seconds(10));

// What the diag port (LIBDIAG_PORT) has seen since the last reset().
struct PortStats {
    bool open = false;         // a port is open now
    uint64_t opens = 0;        // successful opens
    uint64_t frames = 0;       // good frames received
    uint64_t replies = 0;      // frames that answered a waiting caller
    uint64_t late = 0;         // answers that came after their caller had gone; dropped
    uint64_t unsolicited = 0;  // log packets, events, messages and frames that answer nothing
    uint64_t dropped = 0;      // bad CRC, escape before the flag, too short or too long
    uint64_t stalls = 0;       // writes that the port did not take in time
    uint64_t vanished = 0;     // the port went away (unplugged, pseudo-terminal closed)
    uint64_t lock_waits = 0;   // opens that found the port locked by another process
    uint64_t foreign = 0;      // frames of the other framing (non-HDLC ones at HDLC)
};
PortStats port_stats();
// Closes the port that lingers open after its last connection (LIBDIAG_LINGER_MS), so that
// another user can have it now; a connection open on it stays.
void close_idle_port();
// What the last connection to the port that left requests unanswered found out: the port was
// busy, the modem seems to speak the other framing, or other processes have the port open.
// Empty when it found nothing (or no port is in use).
std::string port_note();

// Whether Diag_LSM_Init has connected the simulator (and no Diag_LSM_DeInit since).
bool connected();
// The mode of the last diag_switch_logging call; -1 before any.
int logging_mode();

}  // namespace libdiag_sim

// port_note() for programs that look libdiag up at run time (dlsym): copies it, cut to |size|
// bytes with its terminator, and returns its whole length.
extern "C" size_t libdiag_sim_port_note(char* buf, size_t size);
