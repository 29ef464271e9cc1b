#include "log_capture.h"

#include <stdarg.h>
#include <stdio.h>

#include <atomic>
#include <mutex>

#include "contract.h"
#include "tolven_diag_platform.h"

namespace {

std::atomic<unsigned> g_levels{0};
std::mutex g_lock;
bool g_keeping = false;
std::vector<std::string> g_lines;

void write_line(const char* fmt, va_list ap) {
    // Formatted whether kept or not, as liblog would, so that every message is exercised.
    va_list copy;
    va_copy(copy, ap);
    const int n = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    require(n >= 0, "log line formats");
    std::vector<char> text(static_cast<size_t>(n) + 1);
    vsnprintf(text.data(), text.size(), fmt, ap);
    std::lock_guard<std::mutex> lock(g_lock);
    if (g_keeping) g_lines.emplace_back(text.data(), static_cast<size_t>(n));
}

}  // namespace

namespace fuzz_log {

void set_levels(unsigned levels) {
    g_levels.store(levels);
}

void start_keeping() {
    std::lock_guard<std::mutex> lock(g_lock);
    g_lines.clear();
    g_keeping = true;
}

std::vector<std::string> kept() {
    std::lock_guard<std::mutex> lock(g_lock);
    return g_lines;
}

}  // namespace fuzz_log

bool tolven_hal_get_logcat_print_flag(int level) {
    return level >= 0 && level < 32 && ((g_levels.load() >> level) & 1u) != 0;
}

bool tolven_hal_get_shell_print_flag(int) {
    return false;
}

int tolven_get_qcril_process_instance_id(void) {
    return 255;
}

const char* tolven_get_current_pid_name(void) {
    return "fuzzer";
}

void tolven_utils_syslog_dbg(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    write_line(fmt, ap);
    va_end(ap);
}

void tolven_utils_syslog_err(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    write_line(fmt, ap);
    va_end(ap);
}
