// The trace log line: every message of the library goes through TOLVEN_LOGD or TOLVEN_LOGE,
// which write it to the system log and to standard output, each when libtolven_utils switches
// that output on for the level.
#pragma once

#include <stdio.h>

#include "tolven_diag_platform.h"

#define TOLVEN_LOG_LEVEL_ERROR 1
#define TOLVEN_LOG_LEVEL_DEBUG 4
#define TOLVEN_NO_INSTANCE_ID 255

constexpr const char* tolven_diag_base_name(const char* path) {
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') base = p + 1;
    }
    return base;
}

// |func| is the function named in the prefix. The arguments are evaluated once per enabled
// output, and not at all when both outputs are off.
#define TOLVEN_TRACE_AT(level, sink, func, fmt, ...)                                               \
    do {                                                                                           \
        constexpr const char* tolven_trace_file_ = tolven_diag_base_name(__FILE__);                \
        if (tolven_hal_get_logcat_print_flag(level)) {                                             \
            if (tolven_get_qcril_process_instance_id() == TOLVEN_NO_INSTANCE_ID) {                 \
                sink("[%s][%s:%d] %s: " fmt, tolven_get_current_pid_name(), tolven_trace_file_,    \
                     __LINE__, func, ##__VA_ARGS__);                                               \
            } else {                                                                               \
                sink("SUB[%d][%s:%d] %s: " fmt, tolven_get_qcril_process_instance_id(),            \
                     tolven_trace_file_, __LINE__, func, ##__VA_ARGS__);                           \
            }                                                                                      \
        }                                                                                          \
        if (tolven_hal_get_shell_print_flag(level)) {                                              \
            printf("RIL[%s:%d] %s: " fmt "\n", tolven_trace_file_, __LINE__, func, ##__VA_ARGS__); \
        }                                                                                          \
    } while (0)

#define TOLVEN_LOGD(fmt, ...) \
    TOLVEN_TRACE_AT(TOLVEN_LOG_LEVEL_DEBUG, tolven_utils_syslog_dbg, __func__, fmt, ##__VA_ARGS__)
// For code shared by several functions that logs as if written inline in |caller|.
#define TOLVEN_LOGD_AS(caller, fmt, ...) \
    TOLVEN_TRACE_AT(TOLVEN_LOG_LEVEL_DEBUG, tolven_utils_syslog_dbg, caller, fmt, ##__VA_ARGS__)
#define TOLVEN_LOGE(fmt, ...) \
    TOLVEN_TRACE_AT(TOLVEN_LOG_LEVEL_ERROR, tolven_utils_syslog_err, __func__, fmt, ##__VA_ARGS__)

#define TOLVEN_LOG_ENTRY() TOLVEN_LOGD("function entry ------------->")
#define TOLVEN_LOG_EXIT() TOLVEN_LOGD("function exit <-------------")
