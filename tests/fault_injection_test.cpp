// Threads the library cannot start. This program's pthread_create stands in front of libc's (the
// library's objects are linked in) and refuses the next thread of a chosen body.

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>

#include <atomic>

#include <gtest/gtest.h>

#include "libdiag_sim.h"
#include "test_support.h"
#include "tolven_diag_internal.h"

namespace {

using namespace std::chrono_literals;
using libdiag_sim::Answer;
using libdiag_sim::Bytes;
using ThreadBody = void* (*)(void*);

std::atomic<ThreadBody> g_refused_body{nullptr};
std::atomic<int> g_refusals{0};

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, ThreadBody body,
                              void* arg) {
    static const auto real =
            reinterpret_cast<int (*)(pthread_t*, const pthread_attr_t*, ThreadBody, void*)>(
                    dlsym(RTLD_NEXT, "pthread_create"));
    if (body == g_refused_body.load() && g_refusals.load() > 0) {
        g_refusals--;
        return EAGAIN;
    }
    return real(thread, attr, body, arg);
}

namespace {

void refuse_next(ThreadBody body) {
    g_refused_body = body;
    g_refusals = 1;
}

// Without its timer a send waits its own limit plus one tick, fails, and leaves nothing behind
// that would stop the next command.
TEST_F(DiagTest, SendWithoutTimerEndsAtItsLimitPlusOneTick) {
    struct Row {
        const char* name;
        SendFn send;
        int timeout_ms;
        bool answered;
        int result;
        std::chrono::milliseconds at_least;
    };
    const Row rows[] = {
            {"dci, unanswered", tolven_diag_cmd_send_with_result, 300, false, 1, 400ms},
            {"dci, below one tick", tolven_diag_cmd_send_with_result, 50, false, 1, 100ms},
            {"callback, unanswered", tolven_diag_cmd_send_with_result_by_callback_mode, 200, false,
             1, 300ms},
            {"dci, answered", tolven_diag_cmd_send_with_result, 300, true, 0, 0ms},
            {"callback, answered", tolven_diag_cmd_send_with_result_by_callback_mode, 300, true, 0,
             0ms},
    };
    const Bytes silent = {0x1C};
    libdiag_sim::set_answer(silent, Answer{});
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        log.clear();
        refuse_next(tolven_diag_cmd_send_with_result_wait_thread_proc);
        SendOutcome out = send_packet(row.send, row.answered ? Bytes{0x00} : silent, row.timeout_ms);
        EXPECT_EQ(g_refusals.load(), 0);
        EXPECT_TRUE(log.has("tolven daig is created, conf = " + std::to_string(EAGAIN)));
        EXPECT_EQ(out.result, row.result);
        EXPECT_GE(out.elapsed, row.at_least - kClockSlack);
        // Upper bounds on timing are loose: the limit plus one tick, plus scheduling.
        EXPECT_LT(out.elapsed, row.at_least + 300ms * time_scale());
        EXPECT_FALSE(g_diag_rsp_timed_out.load());

        SendOutcome next = send_packet(row.send, {0x00}, 3000);
        EXPECT_EQ(next.result, 0);
        EXPECT_EQ(next.reply_len, 55);
    }
}

// A worker that cannot be started takes its request with it (the sanitizer build checks for the
// leak); the caller is answered as before.
TEST_F(DiagTest, WorkerThatCannotStartFreesItsRequest) {
    const uint8_t packet[] = {0x1C};
    for (int mode : {0, 1}) {
        refuse_next(mode == 0 ? tolven_diag_cmd_send_without_result_by_callback_mode_thread_proc
                              : tolven_diag_cmd_send_without_result_by_dci_mode_thread_proc);
        EXPECT_EQ(tolven_diag_cmd_send_without_result_start_thread(packet, 1, mode), 0);
        EXPECT_EQ(g_refusals.load(), 0);
        EXPECT_TRUE(log.has("tolven daig is created, conf = " + std::to_string(EAGAIN) +
                            ", diag_work_mode = " + std::to_string(mode)));
    }
    EXPECT_TRUE(libdiag_sim::journal().empty());
}

}  // namespace
