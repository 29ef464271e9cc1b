// Run-time switches of the host libtolven_utils. The same switches come from the environment
// when the library is first used:
//   TOLVEN_LOG_SYSLOG   levels whose system-log output is on: "1,4", "all" or "none" (default "1")
//   TOLVEN_LOG_SHELL    levels whose standard-output line is on, same syntax (default "none")
//   TOLVEN_INSTANCE_ID  subscription instance of the process; 255 means none (default 255)
//   TOLVEN_PROCESS_NAME process name shown when the instance is 255 (default: the process's own)
//   TOLVEN_LOG_FILE     a file that every system-log line is also appended to, as
//                       `logcat -v threadtime` shows it (default: none)
// Level 1 is error, level 4 is debug. System-log lines go through liblog under the tag below;
// on a host liblog prints them to standard error.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#define TOLVEN_UTILS_LOG_TAG "tolven"

// Bit L of |levels| switches level L on.
void tolven_utils_host_set_logcat_levels(unsigned levels);
void tolven_utils_host_set_shell_levels(unsigned levels);
void tolven_utils_host_set_instance_id(int id);
// NULL goes back to the process's own name.
void tolven_utils_host_set_process_name(const char* name);
// Reads the environment variables again.
void tolven_utils_host_reload_env(void);

// One system-log line as it is written, for a reader in the same process.
struct tolven_utils_line {
    int level;  // 4 debug, 1 error
    int pid;
    int tid;
    long long time_ms;  // wall clock, milliseconds since the epoch
    const char* text;   // as the library wrote it, with its prefix
};
typedef void (*tolven_utils_line_hook)(const struct tolven_utils_line* line, void* context);
// Hands every system-log line from now on to |hook| with |context|, one at a time, whatever the
// capture and liblog do with it, at every level: while a hook is in place the library writes
// lines of all levels, and those of levels TOLVEN_LOG_SYSLOG leaves off go to the hook alone.
// NULL removes it. The hook must not log. A tool finds this with dlsym, so that it builds for a
// device, whose utility library has no such call.
void tolven_utils_host_set_line_hook(tolven_utils_line_hook hook, void* context);

#ifdef __cplusplus
}

#include <chrono>
#include <string>
#include <vector>

// Capture of the system-log lines, for tests and tools that check what a process logged.
namespace tolven_utils_host {

struct Line {
    int level;  // 4 debug, 1 error
    std::string text;
};

// Keeps every system-log line from now on, in order; |quiet| stops them reaching liblog.
__attribute__((visibility("default"))) void start_capture(bool quiet = true);
__attribute__((visibility("default"))) void stop_capture();
__attribute__((visibility("default"))) std::vector<Line> captured();
// Waits until a captured line contains |part|; false on |limit|.
__attribute__((visibility("default"))) bool wait_for_line(const std::string& part,
                                                          std::chrono::milliseconds limit);

}  // namespace tolven_utils_host
#endif
