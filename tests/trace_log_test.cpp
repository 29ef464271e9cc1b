// The trace log line: prefixes, sinks, gates and the instance-id rule.

#include <deque>
#include <mutex>

#include <android-base/test_utils.h>
#include <gtest/gtest.h>

#include "test_support.h"
#include "tolven_diag_internal.h"
#include "tolven_utils_host.h"

namespace {
std::mutex g_id_lock;
std::deque<int> g_id_script;
int g_id_fetches;
}  // namespace

// Takes the place of the host libtolven_utils' instance id in this program, to count the fetches
// and to hand out a different value on each call.
extern "C" int tolven_get_qcril_process_instance_id(void) {
    std::lock_guard<std::mutex> lock(g_id_lock);
    ++g_id_fetches;
    if (g_id_script.empty()) return 255;
    int id = g_id_script.front();
    g_id_script.pop_front();
    return id;
}

namespace {

constexpr unsigned kDebug = 1u << 4;
constexpr unsigned kError = 1u << 1;

// The message of one debug site, after its prefix.
const std::string kSite =
        "[tolven_diag_send.cpp:N] tolven_diag_comand_output_check: reply_buf is null";

// |text| with the line number of "file.cpp:123]" replaced by N.
std::string any_line(std::string text) {
    size_t colon = text.find(".cpp:");
    size_t end = text.find(']', colon);
    if (colon != std::string::npos && end != std::string::npos) {
        text.replace(colon + 5, end - colon - 5, "N");
    }
    return text;
}

struct TraceCase {
    unsigned syslog_levels;
    unsigned shell_levels;
    std::deque<int> ids;
    const char* syslog_prefix;  // nullptr when no system-log line is expected
    bool shell_line;
    int fetches;
};

const TraceCase kCases[] = {
        {kDebug, 0, {255}, "[tracer]", false, 1},
        // The first id only serves the comparison; the second one is printed.
        {kDebug, 0, {7, 1}, "SUB[1]", false, 2},
        {kDebug, 0, {0, 0}, "SUB[0]", false, 2},
        {kDebug, 0, {-3, -3}, "SUB[-3]", false, 2},
        {0, kDebug, {}, nullptr, true, 0},  // the shell line never fetches the id
        {kDebug, kDebug, {255}, "[tracer]", true, 1},
        {kError, kError, {}, nullptr, false, 0},
};

TEST(TraceLog, PrefixesSinksAndGates) {
    tolven_utils_host_set_process_name("tracer");
    for (const TraceCase& c : kCases) {
        SCOPED_TRACE(::testing::Message()
                     << c.syslog_levels << "/" << c.shell_levels << " ids " << c.ids.size());
        LogCapture log;
        tolven_utils_host_set_logcat_levels(c.syslog_levels);
        tolven_utils_host_set_shell_levels(c.shell_levels);
        {
            std::lock_guard<std::mutex> lock(g_id_lock);
            g_id_script = c.ids;
            g_id_fetches = 0;
        }
        CapturedStdout out;
        tolven_diag_comand_output_check(nullptr, nullptr);
        fflush(stdout);
        out.Stop();

        std::vector<tolven_utils_host::Line> lines = log.lines();
        ASSERT_EQ(lines.size(), c.syslog_prefix != nullptr ? 1u : 0u);
        if (c.syslog_prefix != nullptr) {
            EXPECT_EQ(lines[0].level, 4);
            EXPECT_EQ(any_line(lines[0].text), c.syslog_prefix + kSite) << lines[0].text;
        }
        EXPECT_EQ(any_line(out.str()), c.shell_line ? "RIL" + kSite + "\n" : "") << out.str();
        std::lock_guard<std::mutex> lock(g_id_lock);
        EXPECT_EQ(g_id_fetches, c.fetches);
    }
}

}  // namespace
