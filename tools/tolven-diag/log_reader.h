// Reads the library's log back: every command that it ran, rebuilt from its trace lines, with
// what happened and why. Lines go to their command by process and thread: the caller's by pid
// and tid; the wait timer's and the response handlers' by pid and the command in flight
// (synchronous sends are serialised per process); a fire-and-forget worker's by its own tid. A
// new timer or worker thread belongs to the oldest command of its process that started one and
// has none yet; a timer that outlives its command stays with it. Without thread ids (logcat -v
// time or -v brief, the shell sink's lines) lines go by their order within the process.
//
// The reader streams: it keeps the commands in flight and the completed ones that wait for an
// earlier one, and hands each command over, in the order the commands started, as soon as it and
// every command before it are complete.
#pragma once

#include <stdint.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "library_model.h"
#include "log_lines.h"

namespace tolven_diag_tool {

enum class CommandKind { kSync, kNoWait };
const char* command_kind_name(CommandKind kind);  // "sync", "no-wait"

// As a live send names them, and kUnknown for a command whose lines stop before its end.
enum class LoggedOutcome { kOk, kRefused, kDiagError, kTimedOut, kUnknown };
const char* logged_outcome_name(LoggedOutcome outcome);  // "ok", ..., "unknown"

// The call of libdiag (or of the platform) that failed.
struct FailedCall {
    std::string call;  // "diag_register_dci_client", "Diag_LSM_Init", "malloc", ...
    bool has_value = false;
    long long value = 0;
    bool has_errno = false;
    int err = 0;
    std::string meaning;  // what the value says, when the reader knows
};

// One command as the log shows it. A field the log does not give keeps its "unknown" value.
struct LoggedCommand {
    uint64_t seq = 0;     // 1, 2, ... in the order the commands started
    int pid = -1;         // -1: the format has none
    int tid = -1;         // the caller's thread; -1: the format has none
    std::string process;  // the name in [...]; empty for an instance
    int instance = -1;    // the number in SUB[...]; -1 for a named process
    std::string start;    // the time text of the command's first line
    CommandKind kind = CommandKind::kSync;
    bool mode_known = false;
    Mode mode = Mode::kDci;

    // The packet: its bytes from the dump, or only its length when the dump is missing.
    bool request_known = false;
    std::vector<uint8_t> request;
    int request_len = -1;

    int capacity = -1;    // the reply buffer's size; -1: not logged
    int ticks = -1;       // the time limit in 100 ms ticks, as the library counts it
    int timeout_ms = -1;  // the longest the library waits: max(ticks, 1) * 100

    // The reply handed to the caller: reply_len bytes (the stored response cut to the capacity).
    // reply_known is false where dumps are missing; the bytes are then empty and a note says why.
    int reply_len = -1;
    bool reply_known = false;
    std::vector<uint8_t> reply;
    int stored_len = -1;  // the stored length the library reported with the reply

    // What the modem answered this command, whole, for an answers file: its bytes (when every
    // piece's dump is there), its length and the milliseconds from the send to its last piece.
    bool answered = false;
    bool response_known = false;
    std::vector<uint8_t> response;
    int response_len = 0;
    double response_ms = -1;
    bool response_dropped = false;  // callback mode: over 10,240 bytes, dropped by the library
    // A fire-and-forget worker keeps only the length of each answer.
    std::vector<int> answer_lens;

    int result = -1;  // 0 or 1 as the library returned it; -1: not known
    LoggedOutcome outcome = LoggedOutcome::kUnknown;
    double elapsed_ms = -1;  // from the command's first line to its end; -1: no times
    bool sent = false;       // the packet reached libdiag's send call
    FailedCall failure;      // for kDiagError (and a worker's failed call)
    std::vector<std::string> notes;
    bool complete = false;  // its lines ran to its end
};

struct LogSummary {
    uint64_t commands = 0;
    uint64_t sync = 0, no_wait = 0;
    uint64_t outcomes[5] = {};  // by LoggedOutcome
    // "NAME (pid N)" or "SUB[n] (pid N)" -> commands
    std::map<std::string, uint64_t> per_process;
    // Synchronous commands that ended ok, in milliseconds.
    bool has_latency = false;
    double latency_min = 0, latency_median = 0, latency_max = 0;
    // Lines of the input, of the library, too long to read, and of the library but of no command.
    uint64_t lines = 0, trace_lines = 0, long_lines = 0, stray_lines = 0;
};

class LogReader {
  public:
    using Sink = std::function<void(const LoggedCommand&)>;
    explicit LogReader(Sink sink);
    ~LogReader();
    LogReader(const LogReader&) = delete;
    LogReader& operator=(const LogReader&) = delete;

    // Bytes of a log, in pieces of any size.
    void feed(const char* data, size_t size);
    // A line of a live process: its own pid, tid and wall-clock time, and the message as the
    // library wrote it to the system log.
    void feed_message(int pid, int tid, int64_t epoch_ms, std::string_view message);
    // |sink| also gets each command as its call returns to the caller, with the result that it
    // returned; a timer or a worker may still add lines to it (a live send's account).
    void on_return(Sink sink);
    // The end of the log: every command still open is handed over with a note.
    void finish();

    LogSummary summary() const;
    // Commands held: the ones in flight and the completed ones that wait for an earlier one.
    size_t held() const;

    // Lines longer than this are skipped: the longest line of the library is a 4096-byte dump
    // (12,287 characters) and its prefix.
    static constexpr size_t kMaxLine = 64 * 1024;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Reads the log at |path| into |reader|: a text log, a bugreport .txt, or a bugreport .zip read
// inside (its main entry, or its bugreport*.txt); "-" is standard input. Only regular files (and
// standard input) are read. Returns false with a message of one line in |*error|; the reader
// then has what came before the problem, not finished.
bool read_log(const std::string& path, LogReader* reader, std::string* error);

// An answers file for the simulated modem (LIBDIAG_SIM_ANSWERS) from the commands of a log: what
// the modem answered each request, "REQUEST -> REPLY @ MS", or "REQUEST -> none" for one never
// answered; where a request got several answers, a comment says so and the last is kept. Where
// the log lacks an answer's bytes, a comment says so instead. It keeps one answer per request,
// not the commands, so that it can take them as the reader hands them over.
class AnswersFile {
  public:
    void add(const LoggedCommand& c);
    // The file's text; |source| names the log in its first comment.
    std::string text(const std::string& source) const;

  private:
    struct Entry {
        std::string request;
        std::string answer;   // the last one
        std::string comment;  // the last command's, when it has one
        std::vector<uint64_t> seqs;
        bool differ = false;
    };
    std::vector<Entry> entries_;  // by first appearance
    std::map<std::string, size_t> index_;
    std::string unknown_;  // comments on answers the log has no bytes of
};

}  // namespace tolven_diag_tool
