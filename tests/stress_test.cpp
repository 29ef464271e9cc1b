// Back-to-back synchronous sends from 8 threads, both transports mixed, replies of 1 to 16,384
// bytes (several DCI pieces), callback mode with four answering processors, and fire-and-forget
// sends in between. Every result and every reply byte is checked against the simulated modem.
// Then the same over a diag port to a dual-SIM modem whose log traffic, wrapped for each
// subscription, comes before every reply and all along.
//
// TOLVEN_STRESS_SECONDS sets the length of the run (default 20, the port's half of it);
// TOLVEN_STRESS_SEED replays one.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <android/log.h>
#include <gtest/gtest.h>

#include "answer_table.h"
#include "libdiag_sim.h"
#include "pty_modem.h"
#include "tolven_diag.h"
#include "tolven_utils_host.h"

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

constexpr int kThreads = 8;
constexpr int kPieceLen = 4096;
constexpr int kMaxSimReply = 16384;
constexpr int kCallbackMaxRsp = 10240;  // larger callback responses are refused by the library
constexpr int kTimeoutMs = 3000;
constexpr uint8_t kSentinel = 0xEE;

enum class Phase { kStrict, kWithWorkers };

// What the workers send: an echo whose marked payload no synchronous send uses, so that its
// answer is known wherever it lands.
const Bytes kWorkerPacket = {0x4B, 0xFE, 0x01, 0x00, 0xF1, 0x2E, 0x5A};

struct Expect {
    Bytes request;
    Bytes reply;    // what the modem answers
    bool answered;  // false: the library refuses the response, the send must time out
    int timeout_ms = kTimeoutMs;
};

Bytes g_version_reply;  // learnt once, spaced, before the run

Bytes le16(int n) {
    return {static_cast<uint8_t>(n & 0xFF), static_cast<uint8_t>(n >> 8)};
}

// A reply length that is a non-zero multiple of 4096 completes only at the time limit, and leaves
// a stale length that the next unanswered command would count as answered: kept out of the run.
bool full_pieces(size_t total) {
    return total % kPieceLen == 0;
}

Expect make_command(std::mt19937& rng, bool callback) {
    Expect e;
    int kind = std::uniform_int_distribution<int>(0, 99)(rng);
    if (kind < 10) {
        e.request = {0x00};
        e.reply = g_version_reply;
    } else if (kind < 20) {
        e.request = {0x1C};
        e.reply = {0x1C, 0x08, 0x00};
    } else if (kind < 45) {
        // Echo: the reply is the request, up to the largest packet.
        size_t payload = std::uniform_int_distribution<size_t>(0, 4092)(rng);
        while (full_pieces(4 + payload)) --payload;
        e.request = {0x4B, 0xFE, 0x01, 0x00};
        for (size_t i = 0; i < payload; ++i) e.request.push_back(static_cast<uint8_t>(rng()));
        e.reply = e.request;
    } else {
        // Pattern: header and n bytes 0, 1, 2, ...; long ones come in several DCI pieces.
        int max = callback && kind < 98 ? kCallbackMaxRsp : kMaxSimReply;
        int n = std::uniform_int_distribution<int>(0, max - 4)(rng);
        while (full_pieces(4 + n)) --n;
        e.request = {0x4B, 0xFE, 0x02, 0x00};
        Bytes len = le16(n);
        e.request.insert(e.request.end(), len.begin(), len.end());
        e.reply = {0x4B, 0xFE, 0x02, 0x00};
        for (int i = 0; i < n; ++i) e.reply.push_back(static_cast<uint8_t>(i & 0xFF));
    }
    e.answered = !callback || e.reply.size() <= static_cast<size_t>(kCallbackMaxRsp);
    // A refused callback response waits for the limit: keep that short.
    if (!e.answered) e.timeout_ms = 150;
    return e;
}

struct Tally {
    std::atomic<long> sends{0}, dci{0}, callback{0}, cut{0}, refused{0}, pieces{0}, fire{0};
    std::atomic<long> overlapped_timeouts{0}, overlapped_full_pieces{0}, worker_answers{0};
    std::mutex lock;
    std::vector<std::string> failures;

    void fail(const std::string& what) {
        std::lock_guard<std::mutex> guard(lock);
        if (failures.size() < 20) failures.push_back(what);
    }
};

std::string hex_prefix(const Bytes& b) {
    std::string s;
    char buf[4];
    for (size_t i = 0; i < b.size() && i < 8; ++i) {
        snprintf(buf, sizeof buf, "%02X ", b[i]);
        s += buf;
    }
    return s;
}

// One synchronous send, checked. Under fire-and-forget workers (which close the process's diag
// connection and take the callbacks over) a send may time out, end early with a multiple of 4096
// bytes by the full-piece rule, or, in callback mode, be handed a worker's answer by the callback
// it registered after the worker's; the bytes it does hand over are still checked.
void send_and_check(std::mt19937& rng, Phase phase, Tally& tally) {
    const bool callback = std::uniform_int_distribution<int>(0, 1)(rng) == 1;
    Expect e = make_command(rng, callback);
    int capacity = static_cast<int>(e.reply.size());
    int pick = std::uniform_int_distribution<int>(0, 9)(rng);
    if (pick == 0) capacity = std::uniform_int_distribution<int>(1, capacity)(rng);
    if (pick >= 8) capacity = 16384;
    Bytes buf(capacity + 64, kSentinel);
    int reply_len = capacity;
    const int len = static_cast<int>(e.request.size());
    int result;
    if (callback) {
        result = tolven_diag_cmd_send_with_result_by_callback_mode(
                e.request.data(), len, e.timeout_ms, buf.data(), &reply_len);
        tally.callback++;
    } else {
        result = (pick & 1 ? tolven_diag_cmd_send_with_result
                           : tolven_diag_cmd_send_with_result_by_dci_mode)(
                e.request.data(), len, e.timeout_ms, buf.data(), &reply_len);
        tally.dci++;
        tally.pieces += static_cast<long>(e.reply.size() / kPieceLen + 1);
    }
    tally.sends++;
    const std::string what = std::string(phase == Phase::kStrict ? "" : "beside workers, ") +
                             (callback ? "callback" : "dci") + " request " + hex_prefix(e.request) +
                             "(" + std::to_string(len) + " bytes), reply " +
                             std::to_string(e.reply.size()) + ", capacity " +
                             std::to_string(capacity) + ": result " + std::to_string(result) +
                             ", reply_len " + std::to_string(reply_len);

    // Nothing is ever written past the capacity.
    if (std::any_of(buf.begin() + capacity, buf.end(), [](uint8_t b) { return b != kSentinel; })) {
        tally.fail(what + ": written past the capacity");
    }
    if (!e.answered) {
        tally.refused++;
        if (result != 1) tally.fail(what + ": a refused response must time out");
        return;
    }
    const int want_len = std::min<int>(capacity, static_cast<int>(e.reply.size()));
    if (result == 1) {
        if (phase == Phase::kWithWorkers) {
            tally.overlapped_timeouts++;
        } else {
            tally.fail(what + ": spurious failure");
        }
        return;
    }
    if (reply_len == want_len && std::equal(buf.begin(), buf.begin() + want_len, e.reply.begin())) {
        if (want_len < static_cast<int>(e.reply.size())) tally.cut++;
        return;
    }
    if (phase == Phase::kWithWorkers && reply_len > 0 && reply_len % kPieceLen == 0) {
        tally.overlapped_full_pieces++;
        return;
    }
    const int worker_len = std::min<int>(capacity, static_cast<int>(kWorkerPacket.size()));
    if (phase == Phase::kWithWorkers && callback && reply_len == worker_len &&
        std::equal(buf.begin(), buf.begin() + worker_len, kWorkerPacket.begin())) {
        tally.worker_answers++;
        return;
    }
    auto diff = std::mismatch(buf.begin(), buf.begin() + std::min(reply_len, capacity),
                              e.reply.begin(), e.reply.end());
    tally.fail(what + ": wrong reply, want " + std::to_string(want_len) +
               " bytes, first wrong byte at " + std::to_string(diff.first - buf.begin()));
}

void discard_logger(const struct __android_logger_data*, const char*) {}

int env_int(const char* name, int fallback) {
    const char* v = getenv(name);
    return v != nullptr && atoi(v) > 0 ? atoi(v) : fallback;
}

TEST(Stress, BackToBackSendsFromEightThreads) {
    const auto run_for = std::chrono::seconds(env_int("TOLVEN_STRESS_SECONDS", 20));
    const unsigned seed = static_cast<unsigned>(
            env_int("TOLVEN_STRESS_SEED", static_cast<int>(std::random_device{}() & 0x7FFFFFFF)));
    printf("TOLVEN_STRESS_SEED=%u TOLVEN_STRESS_SECONDS=%lld\n", seed,
           static_cast<long long>(run_for.count()));

    libdiag_sim::reset();
    // Callback responses come from the local modem and three remote processors.
    libdiag_sim::set_remote_mask(0x7);
    libdiag_sim::set_remote_responders(0x7);
    // The whole trace is formatted (every piece dumped in hex) and then dropped.
    __android_log_set_logger(discard_logger);
    tolven_utils_host_set_logcat_levels((1u << 1) | (1u << 4));
    tolven_utils_host_set_shell_levels(0);

    g_version_reply.assign(64, 0);
    int version_len = 64;
    const uint8_t version_request = 0x00;
    ASSERT_EQ(tolven_diag_cmd_send_with_result(&version_request, 1, kTimeoutMs,
                                               g_version_reply.data(), &version_len),
              0);
    ASSERT_EQ(version_len, 55);
    g_version_reply.resize(55);

    // Strict, then fire-and-forget sends beside the others, a drain for the last worker's
    // connection, then strict again: after the workers every command must succeed.
    const Clock::time_point start = Clock::now();
    const Clock::time_point workers_from = start + run_for * 3 / 10;
    const Clock::time_point workers_until = start + run_for * 6 / 10;
    const Clock::time_point strict_again = workers_until + 2500ms;
    const Clock::time_point end = std::max(start + run_for, strict_again + 2s);
    auto phase_now = [&] {
        Clock::time_point now = Clock::now();
        return now >= workers_from && now < strict_again ? Phase::kWithWorkers : Phase::kStrict;
    };

    Tally tally;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(seed + t);
            while (Clock::now() < end) {
                Phase phase = phase_now();
                if (t == 0 && phase == Phase::kWithWorkers && Clock::now() < workers_until) {
                    // One worker at a time, spaced so that they never queue up.
                    const int len = static_cast<int>(kWorkerPacket.size());
                    int r = tally.fire % 2 == 0
                                    ? tolven_diag_cmd_send_without_result(kWorkerPacket.data(), len)
                                    : tolven_diag_cmd_send_without_result_by_callback_mode(
                                              kWorkerPacket.data(), len);
                    if (r != 0) tally.fail("fire-and-forget refused");
                    tally.fire++;
                    std::this_thread::sleep_for(500ms);
                    continue;
                }
                send_and_check(rng, phase, tally);
            }
        });
    }
    for (std::thread& th : threads) th.join();

    printf("%ld sends (%ld DCI, %ld callback, ~%ld DCI pieces), %ld cut to the capacity, %ld "
           "refused callback responses, %ld fire-and-forget; beside workers: %ld time-outs, %ld "
           "full-piece endings, %ld workers' answers\n",
           tally.sends.load(), tally.dci.load(), tally.callback.load(), tally.pieces.load(),
           tally.cut.load(), tally.refused.load(), tally.fire.load(),
           tally.overlapped_timeouts.load(), tally.overlapped_full_pieces.load(),
           tally.worker_answers.load());
    for (const std::string& f : tally.failures) ADD_FAILURE() << f;
    EXPECT_GT(tally.fire.load(), 0);
    EXPECT_GT(tally.sends.load(), 100);
}

// A command for the port: plain or wrapped for a subscription, of every size the library takes,
// with the modem's own reply.
Expect make_port_command(std::mt19937& rng, bool callback, diag_modem::AnswerTable& table) {
    const int wrapper = std::uniform_int_distribution<int>(0, 2)(rng) == 0 ? 0 : 8;
    Expect e;
    for (;;) {
        int kind = std::uniform_int_distribution<int>(0, 9)(rng);
        Bytes packet;
        if (kind < 2) {
            packet = {static_cast<uint8_t>(kind == 0 ? 0x00 : 0x7C)};
        } else if (kind < 5) {
            size_t payload = std::uniform_int_distribution<size_t>(0, 4092 - wrapper)(rng);
            packet = {0x4B, 0xFE, 0x01, 0x00};
            for (size_t i = 0; i < payload; ++i) packet.push_back(static_cast<uint8_t>(rng()));
        } else {
            int max = (callback ? kCallbackMaxRsp : kMaxSimReply) - 4 - wrapper;
            Bytes n = le16(std::uniform_int_distribution<int>(0, max)(rng));
            packet = {0x4B, 0xFE, 0x02, 0x00, n[0], n[1]};
        }
        e.request = wrapper == 0
                            ? packet
                            : diag_wire::wrap(std::uniform_int_distribution<uint32_t>(0, 1)(rng),
                                              packet);
        e.reply = table.answer(0, e.request).responses[0].bytes;
        if (!full_pieces(e.reply.size())) break;
    }
    e.answered = true;
    return e;
}

TEST(Stress, BackToBackOverAPortThroughWrappedTraffic) {
    const auto run_for = std::chrono::seconds(env_int("TOLVEN_STRESS_SECONDS", 20)) / 2;
    const unsigned seed = static_cast<unsigned>(
            env_int("TOLVEN_STRESS_SEED", static_cast<int>(std::random_device{}() & 0x7FFFFFFF)));
    printf("TOLVEN_STRESS_SEED=%u TOLVEN_STRESS_SECONDS=%lld\n", seed,
           static_cast<long long>(run_for.count() * 2));
    pty_modem::Options options;
    options.subscriptions = {0, 1};
    options.logs_before_reply = 5;
    options.log_every = 1ms;
    options.event_every = 3ms;
    options.corrupt_every = 7;
    std::string error;
    std::unique_ptr<pty_modem::Modem> modem = pty_modem::Modem::open(options, &error);
    ASSERT_NE(modem, nullptr) << error;
    modem->start();
    setenv("LIBDIAG_PORT", modem->path().c_str(), 1);
    libdiag_sim::reset();
    __android_log_set_logger(discard_logger);
    tolven_utils_host_set_logcat_levels((1u << 1) | (1u << 4));
    tolven_utils_host_set_shell_levels(0);

    Tally tally;
    const Clock::time_point end = Clock::now() + run_for;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(seed + t);
            std::unique_ptr<diag_modem::AnswerTable> table = diag_modem::make_builtin_table();
            while (Clock::now() < end) {
                const bool callback = std::uniform_int_distribution<int>(0, 1)(rng) == 1;
                Expect e = make_port_command(rng, callback, *table);
                int capacity = std::uniform_int_distribution<int>(0, 3)(rng) == 0
                                       ? std::uniform_int_distribution<int>(
                                                 1, static_cast<int>(e.reply.size()))(rng)
                                       : 16384;
                Bytes buf(capacity + 64, kSentinel);
                int reply_len = capacity;
                const int len = static_cast<int>(e.request.size());
                int result =
                        callback
                                ? tolven_diag_cmd_send_with_result_by_callback_mode(
                                          e.request.data(), len, kTimeoutMs, buf.data(), &reply_len)
                                : tolven_diag_cmd_send_with_result(
                                          e.request.data(), len, kTimeoutMs, buf.data(), &reply_len);
                tally.sends++;
                (callback ? tally.callback : tally.dci)++;
                const int want = std::min<int>(capacity, static_cast<int>(e.reply.size()));
                const std::string what = std::string(callback ? "callback" : "dci") + " " +
                                         hex_prefix(e.request) + "(" + std::to_string(len) +
                                         " bytes): result " + std::to_string(result) +
                                         ", reply_len " + std::to_string(reply_len) + ", want " +
                                         std::to_string(want);
                if (result != 0 || reply_len != want ||
                    !std::equal(buf.begin(), buf.begin() + want, e.reply.begin())) {
                    tally.fail(what + ": wrong result or reply");
                }
                if (std::any_of(buf.begin() + capacity, buf.end(),
                                [](uint8_t b) { return b != kSentinel; })) {
                    tally.fail(what + ": written past the capacity");
                }
            }
        });
    }
    for (std::thread& th : threads) th.join();
    libdiag_sim::PortStats st = libdiag_sim::port_stats();
    printf("%ld sends over the port (%ld DCI, %ld callback); %llu frames, %llu unsolicited, %llu "
           "dropped, %llu late\n",
           tally.sends.load(), tally.dci.load(), tally.callback.load(),
           static_cast<unsigned long long>(st.frames),
           static_cast<unsigned long long>(st.unsolicited),
           static_cast<unsigned long long>(st.dropped), static_cast<unsigned long long>(st.late));
    for (const std::string& f : tally.failures) ADD_FAILURE() << f;
    EXPECT_GT(tally.sends.load(), 100);
    EXPECT_EQ(st.replies, static_cast<uint64_t>(tally.sends.load()));
    libdiag_sim::reset();  // the port closes before the modem goes
    unsetenv("LIBDIAG_PORT");
}

}  // namespace
