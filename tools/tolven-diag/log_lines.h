// The library's trace lines in the log formats engineers have: logcat -v threadtime (also with a
// year, and with a uid column as a bugreport's system log has it), -v time, -v brief, the host
// liblog's standard error (tag L MM-DD hh:mm:ss pid tid message) and the shell sink's RIL[...]
// lines. A line is the library's by its prefix, not by its tag: SUB[n][file:line] func: ,
// [name][file:line] func: or RIL[file:line] func: .
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <string>
#include <string_view>

namespace tolven_diag_tool {

// One trace line of the library, taken apart; the views point into the line given.
struct TraceLine {
    int pid = -1;  // -1: the format has none
    int tid = -1;
    // Milliseconds, comparable within one log (from the start of the year, or of the year given);
    // time_step_ms is what one unit of the format's clock is: 1, or 1000 for whole seconds.
    bool has_time = false;
    int64_t time_ms = 0;
    int time_step_ms = 1;
    std::string_view time_text;
    int instance = -1;         // SUB[n]
    std::string_view process;  // [name]; empty with SUB[n] and RIL[...]
    std::string_view func;
    std::string_view message;
};

// Takes |line| (without its newline) apart; false when it is not a line of the library.
bool parse_trace_line(std::string_view line, TraceLine* out);

// Takes the library's prefix off a message as the system log holds it ("SUB[1][f.cpp:12] fn: x"),
// leaving pid, tid and time to the caller; false when it has none.
bool parse_trace_prefix(std::string_view message, TraceLine* out);

// "MM-DD hh:mm:ss.mmm" of a time of day as logcat writes it, and its value as parse_trace_line
// computes it, for lines that come with their own clock (a reader in the process).
std::string logcat_time_text(int64_t epoch_ms, int64_t* time_ms);

// Cuts bytes into lines at '\n', whatever the pieces; a line longer than |max_line| bytes is
// dropped whole without being kept, so memory stays bounded whatever comes.
class LineSplitter {
  public:
    using LineFn = std::function<void(std::string_view)>;
    LineSplitter(size_t max_line, LineFn on_line) : max_line_(max_line), on_line_(on_line) {}
    void feed(const char* data, size_t size);
    // The last line when it has no newline.
    void finish();
    uint64_t dropped() const { return dropped_; }

  private:
    size_t max_line_;
    LineFn on_line_;
    std::string partial_;
    bool skipping_ = false;
    uint64_t dropped_ = 0;
};

}  // namespace tolven_diag_tool
