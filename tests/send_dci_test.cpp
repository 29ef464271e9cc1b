// DCI transport: response check, wait timer, DCI handler, the synchronous send and the worker.

#include <errno.h>
#include <signal.h>

#include <gtest/gtest.h>

#include "libdiag_sim.h"
#include "test_support.h"
#include "tolven_diag_internal.h"

namespace {

using namespace std::chrono_literals;
using libdiag_sim::Answer;
using libdiag_sim::Bytes;
using libdiag_sim::Response;
using Names = std::vector<std::string>;
using Args = std::vector<intptr_t>;

const Bytes kVersionRequest = {0x00};

std::string banner(int channel, const char* name, int len) {
    return "================ response from " + std::to_string(channel) + "[" + name +
           "], len = " + std::to_string(len) + " ========================";
}

// The timer body run on the test's thread: ticks, posts, the time-out flag and its last line. A
// timer times only the command that started it (|own|: its command is the one armed last), and
// counts whole pieces as an answer only when a response to that command stored them (|mine|);
// once its command is released it still logs its lines but posts nothing.
TEST(WaitTimer, TicksPostsAndFlag) {
    struct Row {
        bool own, waiting, mine;
        int limit, length, ticks, posts;
        bool timed_out;
        const char* last;  // the line before the exit mark; nullptr: none of the two
    };
    constexpr const char* kSuccess = "stop waiting, receive success, length is times of 4096";
    constexpr const char* kStop = "stop waiting";
    const Row rows[] = {
            {true, true, true, 2, 0, 2, 1, true, kStop},
            {true, true, true, 0, 0, 1, 1, true, kStop},  // one tick
            {true, true, true, -3, 0, 1, 1, true, kStop},
            {true, true, true, 2, 4097, 2, 1, true, kStop},
            {true, true, true, 2, 4096, 2, 1, false, kSuccess},  // its full pieces: answered
            {true, true, false, 2, 4096, 2, 1, true, kStop},     // an earlier command's: not
            {true, true, false, 2, 8192, 2, 1, true, kStop},
            {true, false, true, 30, 0, 1, 0, false, nullptr},  // already released
            {true, false, true, 30, 4095, 1, 0, false, nullptr},
            {true, false, true, 30, 8192, 1, 0, false, kSuccess},
            {true, false, false, 30, 8192, 1, 0, false, kSuccess},
            {false, true, false, 1, 0, 1, 0, false, nullptr},  // a later command is not this timer's
            {false, true, false, 1, 4096, 1, 0, false, kSuccess},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::Message()
                     << "own " << row.own << " waiting " << row.waiting << " mine " << row.mine
                     << " limit " << row.limit << " length " << row.length);
        LogCapture log;
        sem_init(&g_diag_rsp_sem, 0, 0);
        const uint32_t cmd = row.own ? 7 : 6;
        g_diag_rsp_timed_out = false;
        g_diag_rsp_waiting = row.waiting;
        g_diag_cmd_time_100ms = row.limit;
        g_diag_cmd_seq = 7;
        g_qcril_diag_rsp_buf.length = row.length;
        g_diag_rsp_stored_by = row.mine ? cmd : cmd - 1;
        run_thread_body(tolven_diag_cmd_send_with_result_wait_thread_proc,
                        reinterpret_cast<void*>(static_cast<uintptr_t>(cmd)));
        EXPECT_EQ(sem_posts(), row.posts);
        EXPECT_EQ(g_diag_rsp_timed_out.load(), row.timed_out);
        EXPECT_EQ(log.count("cnt_of_100ms = "), row.ticks);
        std::vector<std::string> m = log.messages();
        ASSERT_GE(m.size(), 2u);
        EXPECT_EQ(m.back(), "function exit <-------------");
        EXPECT_EQ(log.count(kStop), row.last == nullptr ? 0 : 1);
        if (row.last != nullptr) {
            EXPECT_EQ(m[m.size() - 2], row.last);
        }
        sem_destroy(&g_diag_rsp_sem);
    }
}

// A command released by its handler with a stored length that is a multiple of 4096: its timer
// logs the success line at its next tick, and the command sent right after it is neither released
// nor timed out by that timer.
TEST_F(DiagTest, ReleasedTimerLogsTheSuccessLineOnly) {
    struct Row {
        const char* name;
        SendFn send;
        int length;
        std::vector<int> pieces;  // DCI cut; empty: 4096-byte pieces
        bool line;
    };
    const Row rows[] = {
            {"callback, one 4096-byte response",
             tolven_diag_cmd_send_with_result_by_callback_mode,
             4096,
             {},
             true},
            {"DCI, one 8192-byte piece",
             tolven_diag_cmd_send_with_result_by_dci_mode,
             8192,
             {8192},
             true},
            {"callback, 4097 bytes",
             tolven_diag_cmd_send_with_result_by_callback_mode,
             4097,
             {},
             false},
            {"DCI, 4096 + 1808 bytes", tolven_diag_cmd_send_with_result_by_dci_mode, 5904, {}, false},
    };
    const Bytes request = {0x4B, 0xFE, 0x7E, 0x00};
    const Bytes next_request = {0x4B, 0xFE, 0x7F, 0x00};
    const Bytes next_reply = ramp(40, 0x4B);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_TRUE(tolven_diag_reset_for_test(10000 * time_scale()));
        libdiag_sim::reset();
        log.clear();
        const Bytes reply = ramp(row.length, 0x4B);
        libdiag_sim::set_answer(request, Answer{{Response{0, reply, row.pieces, 0ms}}});
        // Answered after the first command's timer has had its next tick.
        libdiag_sim::set_answer(next_request, Answer{{Response{0, next_reply, {}, 250ms}}});
        SendOutcome out = send_packet(row.send, request, 3000);
        EXPECT_EQ(out.result, 0);
        EXPECT_EQ(out.reply, reply);
        out = send_packet(row.send, next_request, 3000);
        EXPECT_EQ(out.result, 0);
        EXPECT_GE(out.elapsed, 250ms - kClockSlack);
        EXPECT_EQ(out.reply, next_reply);
        ASSERT_TRUE(tolven_diag_reset_for_test(10000 * time_scale()));
        int lines = 0;
        for (const auto& l : log.lines()) {
            lines += l.text.find(
                             "] tolven_diag_cmd_send_with_result_wait_thread_proc: stop "
                             "waiting, receive success, length is times of 4096") !=
                     std::string::npos;
        }
        EXPECT_EQ(lines, row.line ? 1 : 0);
        EXPECT_EQ(log.count("stop waiting"), lines);
    }
}

// What the store holds and when the handler posts is checked by fuzz/handlers_fuzzer.cpp; here,
// what it logs.
TEST_F(DiagTest, DciHandlerLogsEveryPiece) {
    sem_init(&g_diag_rsp_sem, 0, 0);
    tolven_diag_cmd_response_by_dci(nullptr, 4, nullptr);
    // The synchronous send registers no context: every piece is reported from channel -1.
    EXPECT_EQ(log.messages(),
              (Names{"function entry ------------->", "context_data is null",
                     banner(-1, "Unknown", 4), "ptr is null", "tolven_diag_cmd_response_check fail",
                     "function exit <-------------"}));
    Bytes whole = ramp(10000, 0x10);
    size_t offset = 0;
    for (size_t size : {4096, 4096, 1808}) {
        tolven_diag_cmd_response_by_dci(whole.data() + offset, static_cast<int>(size), nullptr);
        offset += size;
    }
    // The code printed is the first byte of each piece.
    EXPECT_EQ(log.count("response, cmd_code = 0x10, data_size = 4096"), 2);
    EXPECT_TRUE(log.has("response, cmd_code = 0x10, data_size = 1808"));
}

class DciSend : public DiagTest {};

TEST_F(DciSend, VersionRequestRunsTheWholeSequence) {
    SendOutcome out = send_packet(tolven_diag_cmd_send_with_result, kVersionRequest, 3000);
    EXPECT_EQ(out.result, 0);
    ASSERT_EQ(out.reply_len, 55);
    EXPECT_EQ(out.reply[0], 0x00);

    std::vector<libdiag_sim::Call> calls = libdiag_sim::journal();
    ASSERT_EQ(libdiag_sim::journal_names(),
              (Names{"Diag_LSM_Init", "diag_register_dci_client", "diag_register_dci_signal_data",
                     "diag_get_dci_support_list_proc", "diag_register_dci_stream_proc",
                     "diag_send_dci_async_req", "Diag_LSM_DeInit", "diag_release_dci_client"}));
    const intptr_t client = calls[5].args[0];
    EXPECT_EQ(calls[1].args, (Args{0, 2, 0, 18}));
    EXPECT_EQ(calls[2].args, (Args{client, __libc_current_sigrtmin() + 30}));
    EXPECT_EQ(calls[3].args, (Args{0}));
    EXPECT_EQ(calls[4].args, (Args{client, fn_addr(tolven_diag_cmd_response_by_dci_log_stream),
                                   fn_addr(tolven_diag_cmd_response_by_dci_event_stream)}));
    EXPECT_EQ(calls[5].args, (Args{client, 1, 16384, fn_addr(tolven_diag_cmd_response_by_dci), 0}));
    EXPECT_EQ(calls[5].data, kVersionRequest);
    EXPECT_EQ(calls[7].args, (Args{client}));

    // Shared steps log under the name of the send.
    std::string text;
    for (const auto& line : log.lines()) text += line.text + "\n";
    for (const char* line : {"MPSS on ch:0: UP", "Dci Command time = 30",
                             "req end, data_size = 55, g_qcril_diag_rsp_buf.length = 55, "
                             "reply_len = 16384",
                             "Releasing DCI connection, err: 1001"}) {
        EXPECT_NE(text.find(std::string("] tolven_diag_cmd_send_with_result_by_dci_mode: ") + line),
                  std::string::npos)
                << line;
    }
    // The stored reply is freed, its length kept.
    EXPECT_EQ(g_qcril_diag_rsp_buf.data, nullptr);
    EXPECT_EQ(g_qcril_diag_rsp_buf.prev, nullptr);
    EXPECT_EQ(g_qcril_diag_rsp_buf.length.load(), 55);
    EXPECT_EQ(g_diag_cmd_time_100ms.load(), 30);
    EXPECT_FALSE(g_diag_rsp_waiting.load());
}

struct SetupFailure {
    const char* call;
    const char* message;
    bool released;
};

void PrintTo(const SetupFailure& f, std::ostream* os) {
    *os << f.call;
}

class DciSetupFailure : public DiagTest, public ::testing::WithParamInterface<SetupFailure> {};

TEST_P(DciSetupFailure, UndoesExactlyWhatWasDone) {
    const SetupFailure& f = GetParam();
    libdiag_sim::program_result(f.call, 1002, 1, EIO);
    SendOutcome out =
            send_packet(tolven_diag_cmd_send_with_result_by_dci_mode, kVersionRequest, 1000, 64);
    EXPECT_EQ(out.result, 1);
    EXPECT_EQ(out.reply_len, 64);  // untouched, and so is the buffer
    EXPECT_EQ(out.reply, Bytes(64, 0xEE));
    EXPECT_TRUE(log.has(f.message)) << f.message;

    Names names = libdiag_sim::journal_names();
    Names tail(std::find(names.begin(), names.end(), f.call) + 1, names.end());
    Names expected_tail = {"Diag_LSM_DeInit"};
    if (f.released) expected_tail.push_back("diag_release_dci_client");
    EXPECT_EQ(tail, expected_tail);
}

INSTANTIATE_TEST_SUITE_P(
        Exits, DciSetupFailure,
        ::testing::Values(
                SetupFailure{"diag_register_dci_client",
                             "Could not register with DCI, err: 1002, errno: 5 ch:0", false},
                SetupFailure{"diag_register_dci_signal_data",
                             "Could not register signal for DCI Data for ch:0, err: 1002, errno: 5",
                             true},
                SetupFailure{"diag_get_dci_support_list_proc",
                             "Could not get support list for ch 0, err: 1002, errno: 5", true},
                SetupFailure{"diag_register_dci_stream_proc",
                             "Unable to register DCI stream for ch:0, err: 1002, errno: 5", true},
                // The error code fills the "peripheral" field.
                SetupFailure{"diag_send_dci_async_req",
                             "Error sending SEND_REQUEST_ASYNC to peripheral 1002 for ch:0", true}),
        [](const auto& info) { return std::string(info.param.call); });

TEST_F(DciSend, ModemReportedDownStillGetsTheCommand) {
    libdiag_sim::set_support_list(0x0001);
    EXPECT_EQ(send_packet(tolven_diag_cmd_send_with_result, kVersionRequest, 1000).result, 0);
    EXPECT_TRUE(log.has("MPSS on ch:0: DOWN"));
}

TEST_F(DciSend, TimeOutHandsBackTheStaleLengthWithoutBytes) {
    ASSERT_EQ(send_packet(tolven_diag_cmd_send_with_result, kVersionRequest, 3000).result, 0);
    libdiag_sim::set_answer({0x1C}, Answer{});
    SendOutcome out = send_packet(tolven_diag_cmd_send_with_result, {0x1C}, 300);
    EXPECT_EQ(out.result, 1);
    EXPECT_GE(out.elapsed, 300ms - kClockSlack);
    EXPECT_EQ(out.reply_len, 55);  // the previous reply's length, while its bytes are gone
    EXPECT_EQ(out.reply, Bytes(55, 0xEE));
    EXPECT_TRUE(log.has("stop waiting"));
    EXPECT_FALSE(g_diag_rsp_timed_out.load());

    // Time limits below one tick still wait one; the time-out does not leak into the next send,
    // which follows at once.
    for (int timeout_ms : {0, -250}) {
        out = send_packet(tolven_diag_cmd_send_with_result, {0x1C}, timeout_ms);
        EXPECT_EQ(out.result, 1);
        EXPECT_GE(out.elapsed, 100ms - kClockSlack);
        EXPECT_TRUE(log.has("Dci Command time = " + std::to_string(timeout_ms / 100)));
    }
    EXPECT_EQ(send_packet(tolven_diag_cmd_send_with_result, kVersionRequest, 3000).result, 0);
}

TEST_F(DciSend, FullPiecesAtTheLimitCountAsAnswered) {
    const Bytes request = {0x4B, 0xFE, 0x7E, 0x00};
    const Bytes first = ramp(4096, 0x4B);
    // The rest comes too late; what arrived is a multiple of 4096 and so a success.
    libdiag_sim::set_answer(
            request, Answer{{Response{0, first, {}, 0ms}, Response{0, ramp(100), {}, 2000ms}}});
    SendOutcome out = send_packet(tolven_diag_cmd_send_with_result, request, 300);
    EXPECT_EQ(out.result, 0);
    EXPECT_GE(out.elapsed, 300ms - kClockSlack);
    EXPECT_EQ(out.reply, first);
    EXPECT_TRUE(log.has("stop waiting, receive success, length is times of 4096"));
}

// What the simulated modem answers to the test subsystem's pattern command for |n| bytes.
Bytes pattern_reply(int n) {
    Bytes reply = {0x4B, 0xFE, 0x02, 0x00};
    for (int i = 0; i < n; ++i) reply.push_back(static_cast<uint8_t>(i & 0xFF));
    return reply;
}

Bytes pattern_request(int n) {
    return {0x4B, 0xFE, 0x02, 0x00, static_cast<uint8_t>(n & 0xFF), static_cast<uint8_t>(n >> 8)};
}

// Commands back to back in either transport: a stored length of whole 4096-byte pieces answers
// only the command whose response stored it. An unanswered command hands back the stored length
// as it stands, with the stored bytes where the store still holds them (callback mode keeps
// them; a DCI send frees them), and never a success.
TEST_F(DiagTest, StoredLengthAnswersOnlyItsOwnCommand) {
    enum Buf { kOwn, kPrevious, kUntouched };
    struct Step {
        SendFn send;
        Bytes request;
        int result, reply_len;
        Buf buf;
        bool at_limit = false;  // whole pieces of its own: complete only when the limit runs out
    };
    const SendFn dci = tolven_diag_cmd_send_with_result_by_dci_mode;
    const SendFn cb = tolven_diag_cmd_send_with_result_by_callback_mode;
    const Bytes silent = {0x1D};                     // never answered
    const Bytes oversized = pattern_request(10237);  // 10241 bytes: callback mode drops it
    const Bytes whole1 = pattern_request(4092), whole2 = pattern_request(8188);
    const Bytes version = {0x1C};
    const struct {
        const char* name;
        std::vector<Step> steps;
    } rows[] = {
            {"dci: whole pieces, then unanswered",
             {{dci, whole1, 0, 4096, kOwn, true}, {dci, silent, 1, 4096, kUntouched}}},
            {"callback: whole pieces, then unanswered",
             {{cb, whole1, 0, 4096, kOwn}, {cb, silent, 1, 4096, kPrevious}}},
            {"callback whole pieces, then unanswered dci",
             {{cb, whole2, 0, 8192, kOwn}, {dci, silent, 1, 8192, kUntouched}}},
            {"dci whole pieces, then unanswered callback",
             {{dci, whole2, 0, 8192, kOwn, true}, {cb, silent, 1, 8192, kUntouched}}},
            {"callback whole pieces, then a dropped callback response",
             {{cb, whole1, 0, 4096, kOwn}, {cb, oversized, 1, 4096, kPrevious}}},
            {"a short reply in between",
             {{cb, whole1, 0, 4096, kOwn},
              {dci, version, 0, 3, kOwn},
              {dci, whole1, 0, 4096, kOwn, true},
              {cb, version, 0, 3, kOwn},
              {cb, silent, 1, 3, kPrevious},
              {dci, silent, 1, 3, kUntouched}}},
            {"whole pieces of its own after whole pieces",
             {{dci, whole1, 0, 4096, kOwn, true},
              {dci, whole2, 0, 8192, kOwn, true},
              {cb, whole1, 0, 4096, kOwn},
              {dci, whole1, 0, 4096, kOwn, true},
              {dci, silent, 1, 4096, kUntouched}}},
    };
    const int limit_ms = 300 * time_scale();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_TRUE(tolven_diag_reset_for_test(10000 * time_scale()));
        libdiag_sim::reset();
        libdiag_sim::set_answer(silent, Answer{});
        Bytes stored;  // the reply of the last command answered
        for (size_t i = 0; i < row.steps.size(); ++i) {
            const Step& step = row.steps[i];
            SCOPED_TRACE(::testing::Message() << "step " << i + 1);
            SendOutcome out = send_packet(step.send, step.request, limit_ms);
            EXPECT_EQ(out.result, step.result);
            ASSERT_EQ(out.reply_len, step.reply_len);
            const Bytes own = step.request == version ? Bytes{0x1C, 0x08, 0x00}
                                                      : pattern_reply(out.reply_len - 4);
            const Bytes want = step.buf == kOwn        ? own
                               : step.buf == kPrevious ? stored
                                                       : Bytes(out.reply_len, 0xEE);
            EXPECT_EQ(out.reply, want);
            if (step.at_limit) {
                EXPECT_GE(out.elapsed, std::chrono::milliseconds(limit_ms) - kClockSlack);
            }
            if (step.buf == kOwn) stored = own;
        }
    }
}

// The worker body, run on the test's thread.
struct WorkerCase {
    const char* name;
    const char* failing_call;  // nullptr: none
    long long failing_result;
    size_t calls;  // how much of the full sequence is made
    const char* message;
};

void PrintTo(const WorkerCase& c, std::ostream* os) {
    *os << c.name;
}

class DciWorker : public DiagTest, public ::testing::WithParamInterface<WorkerCase> {};

const Names kFullWorker = {"Diag_LSM_Init",
                           "diag_register_dci_client",
                           "diag_register_dci_signal_data",
                           "diag_get_dci_support_list_proc",
                           "diag_register_dci_stream_proc",
                           "diag_send_dci_async_req",
                           "Diag_LSM_DeInit",
                           "diag_release_dci_client"};

TEST_P(DciWorker, ExitsAndTeardown) {
    const WorkerCase& c = GetParam();
    if (c.failing_call != nullptr) libdiag_sim::program_result(c.failing_call, c.failing_result);
    auto start = std::chrono::steady_clock::now();
    run_thread_body(tolven_diag_cmd_send_without_result_by_dci_mode_thread_proc,
                    worker_request({0x7C}));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 3000ms - kClockSlack);

    std::vector<libdiag_sim::Call> calls = libdiag_sim::journal();
    Names names = libdiag_sim::journal_names();
    Names expected(kFullWorker.begin(), kFullWorker.begin() + c.calls);
    // A failure before the client exists closes the connection without a release.
    if (c.calls == 2) expected.push_back("Diag_LSM_DeInit");
    if (c.calls > 2 && c.calls < 6)
        expected.insert(expected.end(), {"Diag_LSM_DeInit", "diag_release_dci_client"});
    EXPECT_EQ(names, expected);
    EXPECT_TRUE(log.has(c.message)) << c.message;
    const std::string last = log.lines().back().text;
    EXPECT_NE(last.find("] tolven_diag_cmd_send_without_result_by_dci_mode_thread_proc: "
                        "function exit"),
              std::string::npos)
            << last;
    if (c.failing_call == nullptr) {
        EXPECT_EQ(calls[4].args[1], fn_addr(tolven_diag_cmd_response_by_dci_log_stream_no_handle));
        EXPECT_EQ(calls[5].args[3], fn_addr(tolven_diag_cmd_response_by_dci_no_handle));
        EXPECT_EQ(calls[5].data, Bytes{0x7C});
        // The modem got a second to answer before the connection closed.
        EXPECT_GE(calls[6].at - calls[5].at, 1000ms - kClockSlack);
    }
}

INSTANTIATE_TEST_SUITE_P(
        Paths, DciWorker,
        ::testing::Values(WorkerCase{"InitFails", "Diag_LSM_Init", 0, 1, "LSM init failed"},
                          WorkerCase{"ExitA", "diag_register_dci_client", 1002, 2,
                                     "Could not register with DCI, err: 1002"},
                          WorkerCase{"ExitB", "diag_get_dci_support_list_proc", 1002, 4,
                                     "Releasing DCI connection, err: 1001"},
                          WorkerCase{
                                  "SendFails", "diag_send_dci_async_req", 1002, 8,
                                  "Error sending SEND_REQUEST_ASYNC to peripheral 1002 for ch:0"},
                          WorkerCase{"Success", nullptr, 0, 8, "len = 56"}),
        [](const auto& info) { return std::string(info.param.name); });

}  // namespace
