// The exported fire-and-forget functions and the remote modem query.

#include <dirent.h>
#include <errno.h>

#include <fstream>

#include <gtest/gtest.h>

#include "libdiag_sim.h"
#include "test_support.h"
#include "tolven_diag_internal.h"

namespace {

using namespace std::chrono_literals;
using libdiag_sim::Bytes;
using Names = std::vector<std::string>;
using FireFn = int (*)(const uint8_t*, int);

int threads_named(const std::string& name) {
    int n = 0;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* entry = readdir(dir)) {
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string text;
        n += std::getline(comm, text) && text == name;
    }
    closedir(dir);
    return n;
}

struct ModeCase {
    const char* name;
    FireFn send;
    int mode;
    const char* send_call;
};

void PrintTo(const ModeCase& c, std::ostream* os) {
    *os << c.name;
}

class FireMode : public DiagTest, public ::testing::WithParamInterface<ModeCase> {};

TEST_P(FireMode, RefusesBadPacketsAtOnceAndHandsTheWorkerACopy) {
    const ModeCase& c = GetParam();
    const uint8_t big[4097] = {};
    for (const auto& [data, len] :
         {std::pair<const uint8_t*, int>{nullptr, 1}, {big, 0}, {big, 4097}}) {
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(c.send(data, len), 1) << len;
        EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms) << len;
    }
    EXPECT_EQ(log.count("tolven_diag_comand_input_check fail"), 3);
    EXPECT_EQ(g_diag_live_threads.load(), 0);
    // The simulator's own thread may carry the name it inherited from an earlier worker.
    const int named_before = threads_named("TOLV DIAG");

    Bytes packet = {0x00};
    // Holding the worker lock keeps the worker from sending until the caller has returned.
    pthread_mutex_lock(&g_diag_worker_lock);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(c.send(packet.data(), 1), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1000ms - kClockSlack);
    EXPECT_EQ(threads_named("TOLV DIAG"), named_before + 1);
    packet[0] = 0x7C;
    pthread_mutex_unlock(&g_diag_worker_lock);

    ASSERT_TRUE(log.wait_for("will sleep 3s before quit"));
    std::vector<libdiag_sim::Call> calls = libdiag_sim::journal();
    auto sent = std::find_if(calls.begin(), calls.end(),
                             [&](const auto& call) { return call.name == c.send_call; });
    ASSERT_NE(sent, calls.end());
    EXPECT_EQ(sent->data, Bytes{0x00});
    EXPECT_TRUE(log.has("tolven daig is created, conf = 0, diag_work_mode = " +
                        std::to_string(c.mode)));
    EXPECT_TRUE(log.has("Will wait 1s, wait_cnt = 0(max:0)"));
}

INSTANTIATE_TEST_SUITE_P(
        Modes, FireMode,
        ::testing::Values(ModeCase{"Plain", tolven_diag_cmd_send_without_result, 1,
                                   "diag_send_dci_async_req"},
                          ModeCase{"Dci", tolven_diag_cmd_send_without_result_by_dci_mode, 1,
                                   "diag_send_dci_async_req"},
                          ModeCase{"Callback", tolven_diag_cmd_send_without_result_by_callback_mode,
                                   0, "diag_callback_send_data"}),
        [](const auto& info) { return std::string(info.param.name); });

TEST_F(DiagTest, WorkersOfBothTransportsSerialise) {
    const uint8_t packet[] = {0x1C};
    ASSERT_EQ(tolven_diag_cmd_send_without_result(packet, 1), 0);
    ASSERT_EQ(tolven_diag_cmd_send_without_result_by_callback_mode(packet, 1), 0);
    ASSERT_TRUE(log.wait_for("ret_send = 0, will wait callback"));
    Names names = libdiag_sim::journal_names();
    auto second_init = std::find(names.begin() + 1, names.end(), "Diag_LSM_Init");
    // The DCI worker released its client before the callback worker opened its connection.
    ASSERT_NE(second_init, names.end());
    EXPECT_EQ(*(second_init - 1), "diag_release_dci_client");
}

TEST_F(DiagTest, RemoteModemQuery) {
    const std::tuple<uint16_t, int, const char*> rows[] = {{0x0000, 0, "remote_mask = 0"},
                                                           {0x0002, 0, "remote_mask = 2"},
                                                           {0x0003, 1, "remote_mask = 3"}};
    for (const auto& [mask, supported, message] : rows) {
        log.clear();
        libdiag_sim::set_remote_mask(mask);
        EXPECT_EQ(tolven_diag_is_mdm_supported(), supported) << mask;
        EXPECT_EQ(log.messages(), Names{message});
    }
    log.clear();
    libdiag_sim::program_result("diag_has_remote_device", 0, 1, EAGAIN);
    EXPECT_EQ(tolven_diag_is_mdm_supported(), 0);
    EXPECT_EQ(log.messages(),
              Names{"diag_callback_sample: Unable to check for MDM support, err: 11"});
}

}  // namespace
