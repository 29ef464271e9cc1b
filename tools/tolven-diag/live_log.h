// The library's own lines of what this process sends, read back by the log reader as they are
// written, so that a live send is explained as a log of it would be: one reader for both. It
// needs the host utility library's line hook; a device's has none, and then nothing is known.
#pragma once

#include <mutex>
#include <optional>
#include <vector>

#include "log_reader.h"

namespace tolven_diag_tool {

class LiveLog {
  public:
    // The one of this process, hooked in at its first use.
    static LiveLog& get();
    // Unhooks it, if it was hooked in, once a line being read is done: the library's detached
    // threads may still log while the process exits, after the reader's statics are gone.
    static void stop();

    bool available() const { return set_hook_ != nullptr; }
    // The command whose call last returned on this thread, as it returned; nothing when none
    // has since the last time.
    std::optional<LoggedCommand> returned();
    // The fire-and-forget commands handed over whole, their worker's end included, since the
    // last time.
    std::vector<LoggedCommand> handed();

  private:
    LiveLog();
    static void on_line(const void* line, void* self);

    using SetHook = void (*)(void (*)(const void*, void*), void*);
    SetHook set_hook_ = nullptr;
    std::mutex mu_;  // the reader is fed on the library's threads
    LogReader reader_;
    std::vector<std::pair<int, LoggedCommand>> returned_;  // by the caller's tid
    std::vector<LoggedCommand> handed_;
};

}  // namespace tolven_diag_tool
