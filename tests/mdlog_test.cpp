// Offline-log output directory. This program takes the place of mkdir so that paths under
// /data land in a private temporary folder: no test touches the machine's real /data.

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <mutex>
#include <string>

#include <gtest/gtest.h>

#include "properties_host.h"
#include "test_support.h"
#include "tolven_diag.h"

namespace {

std::mutex g_mkdir_lock;
std::vector<std::pair<std::string, mode_t>> g_mkdir_calls;
std::string g_root;

int real_mkdir(const std::string& path, mode_t mode) {
    return static_cast<int>(syscall(SYS_mkdirat, AT_FDCWD, path.c_str(), mode));
}

}  // namespace

extern "C" int mkdir(const char* path, mode_t mode) {
    std::lock_guard<std::mutex> lock(g_mkdir_lock);
    g_mkdir_calls.emplace_back(path, mode);
    std::string target = path;
    if (target.rfind("/data/", 0) == 0) target = g_root + target;
    return real_mkdir(target, mode);
}

namespace {

constexpr char kRoot[] = "/data/vendor/modem/diag_logs/";
using MkdirCalls = std::vector<std::pair<std::string, mode_t>>;

class OfflineLog : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/mdlog_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        g_root = tmpl;
        for (const char* dir : {"/data", "/data/vendor", "/data/vendor/modem"}) {
            real_mkdir(g_root + dir, 0755);
        }
    }
    void TearDown() override { EXPECT_EQ(system(("rm -rf '" + g_root + "'").c_str()), 0); }
    // Sets the switch, trigger, module and enable properties, then runs the update.
    std::string update(const std::vector<const char*>& props, const char* date_info,
                       const char* old_dir = "/old/dir", int len = 500) {
        const char* keys[] = {"persist.vendor.radio.diag_log_auto",
                              "persist.vendor.radio.diag_log_trriger", "debug.offline_log.module",
                              "debug.offline_log.enable"};
        for (size_t i = 0; i < props.size(); ++i) property_set(keys[i], props[i]);
        log.clear();
        g_mkdir_calls.clear();
        memset(dir, 'X', sizeof(dir));
        dir[sizeof(dir) - 1] = '\0';
        snprintf(dir, sizeof(dir), "%s", old_dir);
        diag_mdlog_update_output_dir_for_offline_log_auto_start(date_info, dir, len);
        return dir;
    }
    char dir[700];
    LogCapture log;
};

TEST_F(OfflineLog, DecisionTable) {
    EXPECT_EQ(update({"", "", "", ""}, "d1"), "/old/dir");
    EXPECT_EQ(log.messages(),
              std::vector<std::string>{"-------- Offline log, switch: null, prop_tr: null, module: "
                                       "null, enable: false"});
    // Switch, trigger and module must all name one module other than "null", and enable be
    // exactly "true".
    const std::vector<const char*> refused[] = {{"modem", "other", "modem", "true"},
                                                {"modem", "modem", "other", "true"},
                                                {"null", "null", "null", "true"},
                                                {"modem", "modem", "modem", "TRUE"},
                                                {"modem", "modem", "modem", "1"}};
    for (const auto& props : refused) {
        EXPECT_EQ(update(props, "d1"), "/old/dir") << props[0] << props[1] << props[2] << props[3];
        EXPECT_EQ(log.messages().size(), 1u);
        EXPECT_TRUE(g_mkdir_calls.empty());
    }

    EXPECT_EQ(update({"modem", "modem", "modem", "true"}, "d1"), std::string(kRoot) + "d1");
    EXPECT_EQ(log.messages(),
              (std::vector<std::string>{
                      "-------- Offline log, switch: modem, prop_tr: modem, module: modem, "
                      "enable: true",
                      "-------- Offline log auto-starting feature is started for modem",
                      "-------- Old output_dir: /old/dir, len_output_dir_msm 500, date_info d1",
                      "-------- New output_dir: /data/vendor/modem/diag_logs/d1"}));
    EXPECT_EQ(g_mkdir_calls, (MkdirCalls{{kRoot, 0777}, {dir, 0777}}));
    struct stat st;
    EXPECT_EQ(stat((g_root + dir).c_str(), &st), 0);
}

TEST_F(OfflineLog, BufferEdges) {
    const std::vector<const char*> on = {"modem", "modem", "modem", "true"};
    const std::string root = kRoot;
    struct Row {
        std::string date_info;
        int len;
        std::string expected;
        size_t kept_from;  // bytes from here on keep their old 'X', but for index 499
    };
    const Row rows[] = {
            {std::string(600, 'd'), 700, root + std::string(499 - root.size(), 'd'), 700},
            // Only |len| bytes are cleared; the path is written all the same.
            {"a", 10, root + "a", root.size() + 2},
            {"b", -1, root + "b", root.size() + 2},
            {"", 700, root, 700},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.len);
        EXPECT_EQ(update(on, row.date_info.c_str(), std::string(699, 'X').c_str(), row.len),
                  row.expected);
        EXPECT_EQ(dir[499], '\0');
        for (size_t i = row.kept_from; i < sizeof(dir) - 1; ++i) {
            ASSERT_TRUE(i == 499 || dir[i] == 'X') << i;
        }
        EXPECT_EQ(g_mkdir_calls, (MkdirCalls{{kRoot, 0777}, {row.expected, 0777}}));
    }

    update(on, nullptr);
    EXPECT_EQ(log.messages().back(), "date_info is null");
    EXPECT_EQ(log.lines().back().level, 1);  // error level, from this file
    EXPECT_NE(log.lines().back().text.find("[tolven_diag_mdlog.cpp:"), std::string::npos);
    diag_mdlog_update_output_dir_for_offline_log_auto_start("x", nullptr, 500);
    EXPECT_EQ(log.messages().back(), "output_dir_msm is null");
    EXPECT_TRUE(g_mkdir_calls.empty());
}

}  // namespace
