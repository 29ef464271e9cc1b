// Control API of the simulated modem behind the host libdiag. Tests and tools use it to program
// results, answers and delays, and to read the journal of every libdiag call.
#pragma once

#include <stdint.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace libdiag_sim {

using Bytes = std::vector<uint8_t>;

// Success code of every DCI call; the failure codes are the simulator's own.
constexpr int kDciOk = 1001;
constexpr int kDciFailure = 1002;        // generic refusal
constexpr int kDciNoConnection = 1003;   // no Diag_LSM_Init before the call
constexpr int kDciUnknownClient = 1004;  // client id not registered (or released twice)

// One response from a processor: the whole reply, cut into pieces of at most 4096 bytes on
// the DCI path unless |pieces| gives the cut explicitly.
struct Response {
    int proc = 0;             // 0 local modem; 1..16 remote processors (callback mode only)
    Bytes bytes;              // the whole reply
    std::vector<int> pieces;  // DCI piece sizes, summing to bytes.size(); empty: 4096 rule
    std::chrono::milliseconds delay{0};  // after the request (or after the previous response)
};

// What the modem does with one request. No responses: the request is never answered.
struct Answer {
    std::vector<Response> responses;
};

// Replaceable answer table behind the libdiag front (when no LIBDIAG_PORT is set). answer() runs
// on the library's delivery thread, after the send that asked has returned.
class Backend {
  public:
    virtual ~Backend() = default;
    virtual Answer answer(int proc, const Bytes& request) = 0;
};

// The built-in answer table (version info, build id, diag version, event report, subsystem
// dispatch, error replies).
std::unique_ptr<Backend> make_simulated_modem();
// Installs |backend| for all later requests; nullptr restores the simulated modem.
void set_backend(std::unique_ptr<Backend> backend);

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
// backend's. An Answer without responses makes such requests go unanswered.
void set_answer(const Bytes& request_prefix, const Answer& answer);
void clear_answers();
// Adds the overrides of a text file, one per line: "REQUEST_HEX_PREFIX -> REPLY_HEX" or
// "REQUEST_HEX_PREFIX -> none", optionally followed by "@ DELAY_MS"; '#' starts a comment. False
// when the file cannot be read or a line is malformed (the good lines still count; each bad one
// is reported on stderr).
bool load_answers(const std::string& path);

// The longest delay an answers line may ask for; longer delays anywhere are cut to it.
constexpr std::chrono::milliseconds kMaxAnswerDelay = std::chrono::hours(24);

// One accepted line of an answers file.
struct AnswerLine {
    int line = 0;  // 1-based
    Bytes request_prefix;
    bool silent = false;  // "-> none"
    Bytes reply;          // empty when silent
    std::chrono::milliseconds delay{0};
};
struct ParsedAnswers {
    std::vector<AnswerLine> lines;    // in file order
    std::vector<std::string> errors;  // one per refused line: "NAME:LINE: what is wrong"
};
// Parses the text of an answers file; |name| prefixes the error messages. Every line that is
// neither blank nor a comment ends up in exactly one of the two lists.
ParsedAnswers parse_answers(const std::string& text, const std::string& name);
// Reads and parses the answers file at |path|; a file that cannot be read is one error,
// "cannot read PATH: why".
ParsedAnswers parse_answers_file(const std::string& path);
// The overrides |parsed| makes: a later line replaces an earlier one of the same prefix.
std::map<Bytes, Answer> answers_of(const ParsedAnswers& parsed);
// The answer whose request prefix is the longest one that |request| starts with, or null.
const Answer* find_answer(const std::map<Bytes, Answer>& answers, const Bytes& request);

// Delay before the first response of every answer, on top of each Response's own delay.
void set_answer_delay(std::chrono::milliseconds delay);
// Remote processors present (bit i = processor i + 1), as diag_has_remote_device reports it.
void set_remote_mask(uint16_t mask);
// Peripheral support list that diag_get_dci_support_list_proc reports (bit 1 = MPSS).
void set_support_list(uint16_t list);
// Remote processors (bit i = processor i + 1) that answer callback-mode requests as well as
// the local one, with the same reply.
void set_remote_responders(uint16_t mask);

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
};
PortStats port_stats();

// Whether Diag_LSM_Init has connected the simulator (and no Diag_LSM_DeInit since).
bool connected();
// The mode of the last diag_switch_logging call; -1 before any.
int logging_mode();

}  // namespace libdiag_sim
