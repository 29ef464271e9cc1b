// Callback transport: registration walk, response handler, synchronous send and worker.

#include <thread>

#include <gtest/gtest.h>

#include "libdiag_sim.h"
#include "test_support.h"
#include "tolven_diag_internal.h"

namespace {

using namespace std::chrono_literals;
using libdiag_sim::Answer;
using libdiag_sim::Bytes;
using Names = std::vector<std::string>;

const Bytes kVersionRequest = {0x00};
const SendFn kSend = tolven_diag_cmd_send_with_result_by_callback_mode;

TEST_F(DiagTest, RegistrationWalksTheRemoteMask) {
    struct Row {
        uint16_t mask;
        std::vector<intptr_t> remote_procs;
        const char* mask_text;  // named by its lowest bit among bits 0 to 5
    };
    const Row rows[] = {
            {0x0000, {}, "[0]"}, {0x0005, {1, 3}, "[5] APSS"}, {0x8000, {16}, "[32768]"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.mask);
        libdiag_sim::reset();
        log.clear();
        libdiag_sim::set_remote_mask(row.mask);
        tolven_diag_register_callback(tolven_diag_cmd_response_by_callback);

        std::vector<libdiag_sim::Call> calls = libdiag_sim::journal();
        ASSERT_EQ(calls.size(), 2 + row.remote_procs.size());
        EXPECT_EQ(calls[0].args[0], fn_addr(tolven_diag_cmd_response_by_callback));
        EXPECT_EQ(*reinterpret_cast<const int*>(calls[0].args[1]), 0);
        EXPECT_EQ(calls[1].name, "diag_has_remote_device");
        for (size_t i = 0; i < row.remote_procs.size(); ++i) {
            const libdiag_sim::Call& remote = calls[2 + i];
            EXPECT_EQ(remote.args[1], row.remote_procs[i]);
            // One shared slot, holding the highest processor after the walk.
            EXPECT_EQ(*reinterpret_cast<const int*>(remote.args[2]), row.remote_procs.back());
            EXPECT_TRUE(log.has("register remote call back, data_remote = " +
                                std::to_string(row.remote_procs[i])));
        }
        EXPECT_EQ(log.messages()[0],
                  std::string("register call back, g_diag_channel = [0]MSM, data_primary = 0, "
                              "remote_mask = ") +
                          row.mask_text);
    }
}

TEST_F(DiagTest, CallbackSendSwitchesModesAroundTheSend) {
    SendOutcome out = send_packet(kSend, kVersionRequest, 3000);
    EXPECT_EQ(out.result, 0);
    ASSERT_EQ(out.reply_len, 55);
    EXPECT_EQ(out.reply[0], 0x00);

    std::vector<libdiag_sim::Call> calls = libdiag_sim::journal();
    ASSERT_EQ(libdiag_sim::journal_names(),
              (Names{"Diag_LSM_Init", "diag_register_callback", "diag_has_remote_device",
                     "diag_switch_logging", "diag_callback_send_data", "diag_switch_logging",
                     "Diag_LSM_DeInit"}));
    EXPECT_EQ(calls[3].args, (std::vector<intptr_t>{6, 0}));
    EXPECT_EQ(calls[4].args, (std::vector<intptr_t>{0, 1}));
    EXPECT_EQ(calls[4].data, kVersionRequest);
    EXPECT_EQ(calls[5].args, (std::vector<intptr_t>{1, 0}));
    EXPECT_TRUE(log.has("response from 0[MSM], len = 55"));
    EXPECT_TRUE(log.has("callback, cmd_code = 0x00, data_size = 55"));
    EXPECT_NE(g_qcril_diag_rsp_buf.data, nullptr);  // kept, unlike in DCI mode
}

TEST_F(DiagTest, CallbackTimeLimitRule) {
    const std::pair<int, int> rows[] = {{0, 30}, {-5, 30}, {60001, 30}, {50, 0}, {60000, 600}};
    for (const auto& [timeout_ms, ticks] : rows) {
        log.clear();
        EXPECT_EQ(send_packet(kSend, kVersionRequest, timeout_ms).result, 0);
        EXPECT_TRUE(log.has("Command time = " + std::to_string(ticks) + " * 100ms")) << timeout_ms;
        EXPECT_EQ(log.has("Time out is invalid, set default"), ticks == 30) << timeout_ms;
    }
}

TEST_F(DiagTest, CallbackTimeOutHandsBackThePreviousResponse) {
    libdiag_sim::set_answer({0x1C}, Answer{});
    SendOutcome first = send_packet(kSend, {0x1C}, 100);
    EXPECT_EQ(first.result, 1);
    EXPECT_EQ(first.reply_len, 0);  // nothing stored yet
    ASSERT_EQ(send_packet(kSend, kVersionRequest, 3000).result, 0);

    SendOutcome out = send_packet(kSend, {0x1C}, 300, 40);
    EXPECT_EQ(out.result, 1);
    EXPECT_GE(out.elapsed, 300ms - kClockSlack);
    EXPECT_EQ(out.reply_len, 40);
    EXPECT_EQ(out.reply[0], 0x00);  // the version reply, cut to the capacity
    EXPECT_FALSE(g_diag_rsp_timed_out.load());
}

TEST_F(DiagTest, CallbackSendFailureStartsNoTimerAndLeavesTheReply) {
    libdiag_sim::program_result("diag_callback_send_data", -1);
    SendOutcome out = send_packet(kSend, kVersionRequest, 300, 16);
    EXPECT_EQ(out.result, 1);
    EXPECT_EQ(out.reply_len, 16);
    EXPECT_EQ(out.reply, Bytes(16, 0xEE));
    EXPECT_TRUE(log.has("ret_send = -1, will wait callback"));
    EXPECT_TRUE(log.has("Fail to send diag cmd"));
    Names names = libdiag_sim::journal_names();
    EXPECT_EQ(Names(names.end() - 3, names.end()),
              (Names{"diag_callback_send_data", "diag_switch_logging", "Diag_LSM_DeInit"}));
    std::this_thread::sleep_for(150ms);  // a timer would have ticked by now
    EXPECT_FALSE(log.has("cnt_of_100ms"));

    // Refused parameters reach no diag call.
    EXPECT_EQ(send_packet(kSend, Bytes(4097), 300).result, 1);
    EXPECT_EQ(send_packet(tolven_diag_cmd_send_with_result, kVersionRequest, 300, 0).result, 1);
    EXPECT_TRUE(log.has("tolven_diag_comand_param_check fail"));
    EXPECT_TRUE(log.has("tolven_diag_comand_output_check fail"));
    EXPECT_EQ(libdiag_sim::journal_names().size(), names.size());
}

TEST_F(DiagTest, RemoteProcessorsAnswerThroughTheirOwnContext) {
    // A send closes the connection at the first answer; here both answers are awaited first.
    libdiag_sim::set_remote_mask(0x0001);
    libdiag_sim::set_remote_responders(0x0001);
    tolven_diag_init_with_result();
    tolven_diag_register_callback(tolven_diag_cmd_response_by_callback);
    unsigned char packet[] = {0x1C};
    ASSERT_EQ(diag_callback_send_data(0, packet, 1), 0);
    EXPECT_TRUE(log.wait_for("response from 1[MDM]"));
    EXPECT_TRUE(log.wait_for("response from 0[MSM]"));
    ASSERT_TRUE(libdiag_sim::wait_idle());
    EXPECT_EQ(sem_posts(), 2);
    tolven_diag_deinit_with_result();
}

// What the store holds and when the handler posts is checked by fuzz/handlers_fuzzer.cpp; here,
// what the handlers log.
TEST_F(DiagTest, CallbackHandlersLog) {
    sem_init(&g_diag_rsp_sem, 0, 0);
    Bytes big = ramp(10241, 0x10);
    EXPECT_EQ(tolven_diag_cmd_response_by_callback(big.data(), 10241, nullptr), 1);
    EXPECT_EQ(tolven_diag_cmd_response_by_callback(big.data() + 0x6F, 1, nullptr), 0);
    EXPECT_TRUE(log.has("Invalid parameter, len = 10241"));
    EXPECT_TRUE(log.has("tolven_diag_cmd_response_check fail"));
    EXPECT_TRUE(log.has("callback, cmd_code = 0x7f, data_size = 1"));
    EXPECT_EQ(tolven_diag_cmd_response_by_callback_no_handle(nullptr, -4, nullptr), 0);
    EXPECT_TRUE(log.has("len = -4"));
}

// The worker body, run on the test's thread.
struct WorkerCase {
    const char* name;
    int answer_delay_ms;
    bool init_fails;
    bool answer_logged;
};

void PrintTo(const WorkerCase& c, std::ostream* os) {
    *os << c.name;
}

class CallbackWorker : public DiagTest, public ::testing::WithParamInterface<WorkerCase> {};

TEST_P(CallbackWorker, AnswersGetTwoHundredMilliseconds) {
    const WorkerCase& c = GetParam();
    libdiag_sim::set_answer_delay(std::chrono::milliseconds(c.answer_delay_ms));
    if (c.init_fails) libdiag_sim::program_result("Diag_LSM_Init", 0);
    run_thread_body(tolven_diag_cmd_send_without_result_by_callback_mode_thread_proc,
                    worker_request({0x00}));
    libdiag_sim::wait_idle();

    std::vector<libdiag_sim::Call> calls = libdiag_sim::journal();
    if (c.init_fails) {
        EXPECT_EQ(libdiag_sim::journal_names(), Names{"Diag_LSM_Init"});
    } else {
        EXPECT_EQ(libdiag_sim::journal_names(),
                  (Names{"Diag_LSM_Init", "diag_register_callback", "diag_has_remote_device",
                         "diag_switch_logging", "diag_callback_send_data", "diag_switch_logging",
                         "Diag_LSM_DeInit"}));
        EXPECT_EQ(calls[1].args[0], fn_addr(tolven_diag_cmd_response_by_callback_no_handle));
        EXPECT_GE(calls[6].at - calls[4].at, 200ms - kClockSlack);
    }
    EXPECT_EQ(log.has("len = 55"), c.answer_logged);
    EXPECT_EQ(log.has("LSM init failed"), c.init_fails);
    EXPECT_TRUE(log.has("will sleep 3s before quit"));
}

INSTANTIATE_TEST_SUITE_P(Window, CallbackWorker,
                         ::testing::Values(WorkerCase{"AnswerAt150ms", 150, false, true},
                                           WorkerCase{"AnswerAt300ms", 300, false, false},
                                           WorkerCase{"InitFails", 0, true, false}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
