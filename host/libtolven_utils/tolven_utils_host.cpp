// Host implementation of libtolven_utils, the vendor utility library of the device, for machines
// without its logging switches: the switches and the process identity come from environment
// variables (see tolven_utils_host.h), and both syslog sinks write through Android's host liblog,
// and to a file as logcat shows the lines (TOLVEN_LOG_FILE), for tests to make real logs.

#include "tolven_utils_host.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

#include <android/log.h>

#include "tolven_diag_platform.h"

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr unsigned kDefaultSyslogLevels = 1u << 1;
constexpr int kNoInstance = 255;

std::atomic<unsigned> g_syslog_levels{kDefaultSyslogLevels};
std::atomic<unsigned> g_shell_levels{0};
std::atomic<int> g_instance_id{kNoInstance};
// The name is read from detached threads at any time, also during exit: never destroyed.
std::mutex& g_name_lock = *new std::mutex;
std::string& g_process_name = *new std::string;
std::once_flag g_env_once;

struct Capture {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<tolven_utils_host::Line> lines;
    std::atomic<bool> active{false};
    bool quiet = true;
};
Capture& g_capture = *new Capture;

// Where every system-log line also goes, as `logcat -v threadtime` shows it, and the hook that
// reads them in-process. Under one lock: the hook need not be thread-safe, and the file can be
// swapped while detached threads log.
struct Tee {
    std::mutex lock;
    int fd = -1;
    std::string path;
    tolven_utils_line_hook hook = nullptr;
    void* context = nullptr;
};
Tee& g_tee = *new Tee;
// A hook wants every line, whatever levels the switches let through to the system log.
std::atomic<bool> g_hooked{false};

// The levels the library logs at.
constexpr unsigned kKnownLevels = (1u << 1) | (1u << 4);

// "1,4", "all" or "none"; a value that is none of these is named and the default kept, as the
// other stand-ins do with their variables.
unsigned parse_levels(const char* name, unsigned fallback) {
    const char* text = getenv(name);
    if (text == nullptr) return fallback;
    if (strcmp(text, "all") == 0) return ~0u;
    if (strcmp(text, "none") == 0) return 0;
    unsigned levels = 0;
    const char* p = text;
    while (*p != '\0') {
        char* end = nullptr;
        long level = strtol(p, &end, 10);
        if (end == p || level < 0 || level > 31 || !((kKnownLevels >> level) & 1u) ||
            (*end != ',' && *end != '\0')) {
            fprintf(stderr, "libtolven_utils: ignoring %s=%s (want 1, 4, 1,4, all or none)\n", name,
                    text);
            return fallback;
        }
        levels |= 1u << level;
        p = *end == ',' ? end + 1 : end;
    }
    return levels;
}

int parse_instance(const char* name) {
    const char* text = getenv(name);
    if (text == nullptr) return kNoInstance;
    char* end = nullptr;
    long id = strtol(text, &end, 10);
    if (*text == '\0' || *end != '\0' || id < 0 || id > kNoInstance) {
        fprintf(stderr, "libtolven_utils: ignoring %s=%s (want 0..255; 255 is none)\n", name, text);
        return kNoInstance;
    }
    return static_cast<int>(id);
}

void load_env() {
    g_syslog_levels.store(parse_levels("TOLVEN_LOG_SYSLOG", kDefaultSyslogLevels),
                          std::memory_order_relaxed);
    g_shell_levels.store(parse_levels("TOLVEN_LOG_SHELL", 0), std::memory_order_relaxed);
    g_instance_id.store(parse_instance("TOLVEN_INSTANCE_ID"), std::memory_order_relaxed);
    const char* name = getenv("TOLVEN_PROCESS_NAME");
    {
        std::lock_guard<std::mutex> lock(g_name_lock);
        g_process_name = name != nullptr ? name : program_invocation_short_name;
    }
    const char* file = getenv("TOLVEN_LOG_FILE");
    std::string path = file != nullptr ? file : "";
    std::lock_guard<std::mutex> lock(g_tee.lock);
    if (path == g_tee.path) return;
    if (g_tee.fd >= 0) close(g_tee.fd);
    g_tee.fd = -1;
    g_tee.path = path;
    if (path.empty()) return;
    g_tee.fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (g_tee.fd < 0) {
        fprintf(stderr,
                "libtolven_utils: cannot open TOLVEN_LOG_FILE %s: %s; lines are not written "
                "there\n",
                path.c_str(), strerror(errno));
    }
}

void ensure_init() {
    std::call_once(g_env_once, [] {
        // Host liblog drops debug lines unless asked not to; the gates decide instead.
        __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
        load_env();
    });
}

bool level_on(const std::atomic<unsigned>& levels, int level) {
    ensure_init();
    return level >= 0 && level < 32 && (levels.load(std::memory_order_relaxed) >> level) & 1u;
}

// Returns true when the line is kept from liblog.
bool capture_line(int level, const char* text) {
    if (!g_capture.active.load(std::memory_order_relaxed)) return false;
    std::lock_guard<std::mutex> lock(g_capture.lock);
    g_capture.lines.push_back({level, text});
    g_capture.changed.notify_all();
    return g_capture.quiet;
}

// One write per line: with O_APPEND, lines of several processes never mix. The file gets the
// lines of the levels switched on, as the system log does.
void tee_line(int level, const char* text, bool logged) {
    std::lock_guard<std::mutex> lock(g_tee.lock);
    if (g_tee.fd < 0 && g_tee.hook == nullptr) return;
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tolven_utils_line record{level, getpid(), static_cast<int>(syscall(SYS_gettid)),
                             now.tv_sec * 1000LL + now.tv_nsec / 1000000, text};
    if (g_tee.hook != nullptr) g_tee.hook(&record, g_tee.context);
    if (g_tee.fd < 0 || !logged) return;
    tm local;
    localtime_r(&now.tv_sec, &local);
    char head[64];
    snprintf(head, sizeof head, "%02d-%02d %02d:%02d:%02d.%03ld %5d %5d %c %-8s: ", local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, now.tv_nsec / 1000000,
             record.pid, record.tid, level == 1 ? 'E' : 'D', TOLVEN_UTILS_LOG_TAG);
    std::string line = head;
    line += text;
    line += '\n';
    ssize_t ignored = write(g_tee.fd, line.data(), line.size());
    (void)ignored;
}

void write_line(int level, int priority, const char* fmt, va_list ap) {
    ensure_init();
    // Large enough for the longest hex dump line, so that it is formatted once.
    char small[16384];
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(small, sizeof(small), fmt, copy);
    va_end(copy);
    if (n < 0) return;
    std::string big;
    const char* text = small;
    if (static_cast<size_t>(n) >= sizeof(small)) {
        big.resize(static_cast<size_t>(n) + 1);
        vsnprintf(big.data(), big.size(), fmt, ap);
        text = big.c_str();
    }
    // With a hook, lines of levels switched off are written for the hook alone.
    const bool logged = level_on(g_syslog_levels, level);
    tee_line(level, text, logged);
    if (logged && !capture_line(level, text)) {
        __android_log_write(priority, TOLVEN_UTILS_LOG_TAG, text);
    }
}

}  // namespace

EXPORT bool tolven_hal_get_logcat_print_flag(int level) {
    return level_on(g_syslog_levels, level) || g_hooked.load(std::memory_order_relaxed);
}

EXPORT bool tolven_hal_get_shell_print_flag(int level) {
    return level_on(g_shell_levels, level);
}

EXPORT int tolven_get_qcril_process_instance_id(void) {
    ensure_init();
    return g_instance_id.load(std::memory_order_relaxed);
}

EXPORT const char* tolven_get_current_pid_name(void) {
    ensure_init();
    // The pointer stays valid until the name is set again, which only tests and tools do.
    std::lock_guard<std::mutex> lock(g_name_lock);
    return g_process_name.c_str();
}

EXPORT void tolven_utils_syslog_dbg(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    write_line(4, ANDROID_LOG_DEBUG, fmt, ap);
    va_end(ap);
}

EXPORT void tolven_utils_syslog_err(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    write_line(1, ANDROID_LOG_ERROR, fmt, ap);
    va_end(ap);
}

EXPORT void tolven_utils_host_set_logcat_levels(unsigned levels) {
    ensure_init();
    g_syslog_levels.store(levels, std::memory_order_relaxed);
}

EXPORT void tolven_utils_host_set_shell_levels(unsigned levels) {
    ensure_init();
    g_shell_levels.store(levels, std::memory_order_relaxed);
}

EXPORT void tolven_utils_host_set_instance_id(int id) {
    ensure_init();
    g_instance_id.store(id, std::memory_order_relaxed);
}

EXPORT void tolven_utils_host_set_process_name(const char* name) {
    ensure_init();
    std::lock_guard<std::mutex> lock(g_name_lock);
    g_process_name = name != nullptr ? name : program_invocation_short_name;
}

EXPORT void tolven_utils_host_reload_env(void) {
    ensure_init();
    load_env();
}

EXPORT void tolven_utils_host_set_line_hook(tolven_utils_line_hook hook, void* context) {
    ensure_init();
    std::lock_guard<std::mutex> lock(g_tee.lock);
    g_tee.hook = hook;
    g_tee.context = context;
    g_hooked.store(hook != nullptr, std::memory_order_relaxed);
}

namespace tolven_utils_host {

void start_capture(bool quiet) {
    std::lock_guard<std::mutex> lock(g_capture.lock);
    g_capture.lines.clear();
    g_capture.quiet = quiet;
    g_capture.active.store(true, std::memory_order_relaxed);
}

void stop_capture() {
    g_capture.active.store(false, std::memory_order_relaxed);
}

std::vector<Line> captured() {
    std::lock_guard<std::mutex> lock(g_capture.lock);
    return g_capture.lines;
}

bool wait_for_line(const std::string& part, std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(g_capture.lock);
    return g_capture.changed.wait_for(lock, limit, [&] {
        for (const Line& line : g_capture.lines) {
            if (line.text.find(part) != std::string::npos) return true;
        }
        return false;
    });
}

}  // namespace tolven_utils_host
