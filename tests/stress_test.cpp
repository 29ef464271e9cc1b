// Back-to-back synchronous sends from 8 threads, both transports mixed, replies of 1 to 16,384
// bytes (several DCI pieces, whole 4096-byte pieces among them), commands the modem never
// answers, callback mode with four answering processors, and fire-and-forget sends in between.
// Then the same over a diag port to a dual-SIM modem whose log traffic, wrapped for each
// subscription, comes before every reply and all along.
//
// The invariant: a result of 0 comes only with the sending command's own reply, byte for byte
// (cut to the capacity); an unanswered command always ends as a time-out, also right after a
// reply of whole pieces left its length stored (among the threads when no other sender comes in
// between, and each pair of transports once alone at the end).
//
// TOLVEN_STRESS_SECONDS sets the length of the run (default 20, the port's half of it);
// TOLVEN_STRESS_SEED replays one.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
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

// What the workers send: an echo whose marked payload no synchronous send uses, answered on the
// DCI worker's own client. A callback-mode worker's answer would go to whichever response
// callback the process registered last, a waiting synchronous send's among them (libdiag keeps
// one per processor), so the callback worker sends a command the modem never answers.
const Bytes kWorkerPacket = {0x4B, 0xFE, 0x01, 0x00, 0xF1, 0x2E, 0x5A};
// Commands with this prefix are never answered.
const Bytes kSilentPrefix = {0x4B, 0xFE, 0x03, 0x00};
const Bytes kCallbackWorkerPacket = {0x4B, 0xFE, 0x03, 0x00, 0xF1, 0x2E, 0x5A};

struct Expect {
    Bytes request;
    Bytes reply;    // what the modem answers
    bool answered;  // false: never answered, or refused by the library: the send must time out
    int timeout_ms = kTimeoutMs;
    bool silent = false;  // never answered by the modem
};

Bytes g_version_reply;  // learnt once, spaced, before the run

int env_int(const char* name, int fallback) {
    const char* v = getenv(name);
    return v != nullptr && atoi(v) > 0 ? atoi(v) : fallback;
}

// Sanitizers and emulation run slower; short limits grow with them.
int scaled_ms(int ms) {
    return ms * env_int("TOLVEN_TEST_TIME_SCALE", 1);
}

Bytes le16(int n) {
    return {static_cast<uint8_t>(n & 0xFF), static_cast<uint8_t>(n >> 8)};
}

// A DCI reply of whole 4096-byte pieces completes only at the time limit.
bool full_pieces(size_t total) {
    return total > 0 && total % kPieceLen == 0;
}

// Short limits for the commands that end at theirs, so that they hold the command lock briefly.
void set_limit(Expect& e, bool callback) {
    if (e.silent || !e.answered) {
        e.timeout_ms = 100;
    } else if (!callback && full_pieces(e.reply.size())) {
        e.timeout_ms = scaled_ms(200);
    }
}

Expect silent_command(std::mt19937& rng) {
    Expect e;
    e.request = kSilentPrefix;
    int tail = std::uniform_int_distribution<int>(0, 8)(rng);
    for (int i = 0; i < tail; ++i) e.request.push_back(static_cast<uint8_t>(rng()));
    e.answered = false;
    e.silent = true;
    return e;
}

// Pattern: the header and n bytes 0, 1, 2, ...
Expect pattern_command(int n) {
    Expect e;
    e.request = {0x4B, 0xFE, 0x02, 0x00};
    Bytes len = le16(n);
    e.request.insert(e.request.end(), len.begin(), len.end());
    e.reply = {0x4B, 0xFE, 0x02, 0x00};
    for (int i = 0; i < n; ++i) e.reply.push_back(static_cast<uint8_t>(i & 0xFF));
    e.answered = true;
    return e;
}

// A reply of whole pieces: 4096 to 16384 bytes, at most 8192 in callback mode.
Expect whole_pieces_command(std::mt19937& rng, bool callback) {
    int pieces = std::uniform_int_distribution<int>(1, callback ? 2 : 4)(rng);
    return pattern_command(pieces * kPieceLen - 4);
}

Expect make_command(std::mt19937& rng, bool callback) {
    Expect e;
    int kind = std::uniform_int_distribution<int>(0, 999)(rng);
    if (kind < 2) {
        e = silent_command(rng);
    } else if (kind < 5) {
        e = whole_pieces_command(rng, callback);
    } else if (kind < 108) {
        e.request = {0x00};
        e.reply = g_version_reply;
    } else if (kind < 208) {
        e.request = {0x1C};
        e.reply = {0x1C, 0x08, 0x00};
    } else if (kind < 458) {
        // Echo: the reply is the request, up to the largest packet.
        size_t payload = std::uniform_int_distribution<size_t>(0, 4092)(rng);
        e.request = {0x4B, 0xFE, 0x01, 0x00};
        for (size_t i = 0; i < payload; ++i) e.request.push_back(static_cast<uint8_t>(rng()));
        e.reply = e.request;
    } else {
        // Long ones come in several DCI pieces.
        int max = callback && kind < 980 ? kCallbackMaxRsp : kMaxSimReply;
        e = pattern_command(std::uniform_int_distribution<int>(0, max - 4)(rng));
    }
    if (!e.silent) e.answered = !callback || e.reply.size() <= static_cast<size_t>(kCallbackMaxRsp);
    set_limit(e, callback);
    return e;
}

struct Tally {
    std::atomic<long> sends{0}, dci{0}, callback{0}, cut{0}, refused{0}, pieces{0}, fire{0};
    std::atomic<long> silent{0}, whole{0}, stale_whole{0};
    std::atomic<long> overlapped_timeouts{0}, overlapped_cut_pieces{0};
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

// One synchronous send of |e| with a buffer of |capacity| bytes (and a guard behind it), checked:
// a result of 0 hands over the command's own reply, cut to the capacity, and nothing else. Beside
// fire-and-forget workers, which close the process's diag connection under a waiting send, a
// send may time out, or end at its limit with the whole pieces of its own reply that came
// before the close.
void send_and_check(const Expect& e, bool callback, int capacity, bool plain_entry, Phase phase,
                    Tally& tally) {
    Bytes buf(capacity + 64, kSentinel);
    int reply_len = capacity;
    const int len = static_cast<int>(e.request.size());
    int result;
    if (callback) {
        result = tolven_diag_cmd_send_with_result_by_callback_mode(
                e.request.data(), len, e.timeout_ms, buf.data(), &reply_len);
        tally.callback++;
    } else {
        result = (plain_entry ? tolven_diag_cmd_send_with_result
                              : tolven_diag_cmd_send_with_result_by_dci_mode)(
                e.request.data(), len, e.timeout_ms, buf.data(), &reply_len);
        tally.dci++;
        tally.pieces += static_cast<long>(e.reply.size() / kPieceLen + 1);
    }
    tally.sends++;
    const std::string what = std::string(phase == Phase::kStrict ? "" : "beside workers, ") +
                             (callback ? "callback" : "dci") + " request " + hex_prefix(e.request) +
                             "(" + std::to_string(len) + " bytes), reply " +
                             (e.silent ? "none" : std::to_string(e.reply.size())) + ", capacity " +
                             std::to_string(capacity) + ": result " + std::to_string(result) +
                             ", reply_len " + std::to_string(reply_len);

    // Nothing is ever written past the capacity.
    if (std::any_of(buf.begin() + capacity, buf.end(), [](uint8_t b) { return b != kSentinel; })) {
        tally.fail(what + ": written past the capacity");
    }
    if (full_pieces(e.reply.size())) tally.whole++;
    if (!e.answered) {
        (e.silent ? tally.silent : tally.refused)++;
        // The stored length handed back is an earlier command's: whole pieces of it, too, are
        // no answer to this one.
        if (result == 0) {
            tally.fail(what + ": success without an answer");
        } else if (reply_len > 0 && reply_len < capacity && full_pieces(reply_len)) {
            tally.stale_whole++;
        }
        return;
    }
    if (result == 1) {
        if (phase == Phase::kWithWorkers) {
            tally.overlapped_timeouts++;
        } else {
            tally.fail(what + ": spurious failure");
        }
        return;
    }
    const int want_len = std::min<int>(capacity, static_cast<int>(e.reply.size()));
    if (reply_len == want_len && std::equal(buf.begin(), buf.begin() + want_len, e.reply.begin())) {
        if (want_len < static_cast<int>(e.reply.size())) tally.cut++;
        return;
    }
    if (phase == Phase::kWithWorkers && !callback && full_pieces(reply_len) &&
        reply_len < want_len && std::equal(buf.begin(), buf.begin() + reply_len, e.reply.begin())) {
        tally.overlapped_cut_pieces++;
        return;
    }
    const int shown = std::clamp(reply_len, 0, capacity);
    auto diff = std::mismatch(buf.begin(), buf.begin() + std::min(shown, want_len), e.reply.begin());
    tally.fail(what + ": success with a wrong reply, want " + std::to_string(want_len) +
               " bytes, first wrong byte at " + std::to_string(diff.first - buf.begin()));
}

// A thread's next send: mostly one command, at times a reply of whole pieces followed at once by
// a command that is never answered, which then finds that length stored.
void send_some(std::mt19937& rng, Phase phase, Tally& tally,
               const std::function<Expect(bool)>& make) {
    auto capacity_for = [&](const Expect& e) {
        int capacity = std::max<int>(1, static_cast<int>(e.reply.size()));
        int pick = std::uniform_int_distribution<int>(0, 9)(rng);
        if (pick == 0) capacity = std::uniform_int_distribution<int>(1, capacity)(rng);
        if (pick >= 8 || e.silent) capacity = 16384 + 1;
        return capacity;
    };
    auto transport = [&] { return std::uniform_int_distribution<int>(0, 1)(rng) == 1; };
    bool callback = transport();
    Expect e = make(callback);
    send_and_check(e, callback, capacity_for(e), rng() & 1, phase, tally);
    if (full_pieces(e.reply.size()) && e.answered) {
        callback = transport();
        Expect next = silent_command(rng);
        set_limit(next, callback);
        send_and_check(next, callback, capacity_for(next), rng() & 1, phase, tally);
    }
}

// Alone, after the threads: each pair of transports once, a reply of whole pieces and then at
// once a command that is never answered. Among the threads another sender often comes in between;
// here the unanswered command always finds the earlier length stored. Returns how many did.
long stale_after_whole_pieces(Tally& tally, const std::function<Expect(bool)>& whole) {
    const long before = tally.stale_whole.load();
    std::mt19937 rng(1);
    for (int pair = 0; pair < 4; ++pair) {
        const bool first_callback = pair & 1, then_callback = pair & 2;
        Expect e = whole(first_callback);
        set_limit(e, first_callback);
        send_and_check(e, first_callback, kMaxSimReply + 1, false, Phase::kStrict, tally);
        Expect next = silent_command(rng);
        set_limit(next, then_callback);
        send_and_check(next, then_callback, kMaxSimReply + 1, false, Phase::kStrict, tally);
    }
    return tally.stale_whole.load() - before;
}

void discard_logger(const struct __android_logger_data*, const char*) {}

void print_tally(const char* where, const Tally& tally) {
    printf("%s: %ld sends (%ld DCI, %ld callback, ~%ld DCI pieces), %ld with replies of whole "
           "pieces, %ld never answered (%ld of them found an earlier reply's whole pieces stored), "
           "%ld cut to the capacity, %ld refused callback responses, %ld fire-and-forget; beside "
           "workers: %ld time-outs, %ld replies cut short to whole pieces\n",
           where, tally.sends.load(), tally.dci.load(), tally.callback.load(), tally.pieces.load(),
           tally.whole.load(), tally.silent.load(), tally.stale_whole.load(), tally.cut.load(),
           tally.refused.load(), tally.fire.load(), tally.overlapped_timeouts.load(),
           tally.overlapped_cut_pieces.load());
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
    libdiag_sim::set_answer(kSilentPrefix, libdiag_sim::Answer{});
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
                    int r = tally.fire % 2 == 0
                                    ? tolven_diag_cmd_send_without_result(
                                              kWorkerPacket.data(),
                                              static_cast<int>(kWorkerPacket.size()))
                                    : tolven_diag_cmd_send_without_result_by_callback_mode(
                                              kCallbackWorkerPacket.data(),
                                              static_cast<int>(kCallbackWorkerPacket.size()));
                    if (r != 0) tally.fail("fire-and-forget refused");
                    tally.fire++;
                    std::this_thread::sleep_for(500ms);
                    continue;
                }
                send_some(rng, phase, tally,
                          [&](bool callback) { return make_command(rng, callback); });
            }
        });
    }
    for (std::thread& th : threads) th.join();
    const long stale_alone = stale_after_whole_pieces(tally, [](bool callback) {
        return pattern_command((callback ? 2 : 4) * kPieceLen - 4);
    });

    print_tally("simulated modem", tally);
    for (const std::string& f : tally.failures) ADD_FAILURE() << f;
    EXPECT_GT(tally.fire.load(), 0);
    EXPECT_GT(tally.sends.load(), 100);
    EXPECT_EQ(stale_alone, 4);
}

// A command for the port: plain or wrapped for a subscription, of every size the library takes,
// with the modem's own reply; now and then one the modem never answers, or one answered with
// whole pieces.
Expect make_port_command(std::mt19937& rng, bool callback, diag_wire::AnswerTable& table) {
    const int wrapper = std::uniform_int_distribution<int>(0, 2)(rng) == 0 ? 0 : 8;
    const uint32_t subscription = std::uniform_int_distribution<uint32_t>(0, 1)(rng);
    auto wrap = [&](const Bytes& packet) {
        return wrapper == 0 ? packet : diag_wire::wrap(subscription, packet);
    };
    Expect e;
    int kind = std::uniform_int_distribution<int>(0, 999)(rng);
    if (kind < 2) {
        e = silent_command(rng);
        e.request = wrap(e.request);
    } else {
        Bytes packet;
        if (kind < 5) {
            // The reply of whole pieces, wrapper included.
            int pieces = std::uniform_int_distribution<int>(1, callback ? 2 : 4)(rng);
            packet = pattern_command(pieces * kPieceLen - 4 - wrapper).request;
        } else if (kind < 208) {
            packet = {static_cast<uint8_t>(kind < 108 ? 0x00 : 0x7C)};
        } else if (kind < 508) {
            size_t payload = std::uniform_int_distribution<size_t>(0, 4092 - wrapper)(rng);
            packet = {0x4B, 0xFE, 0x01, 0x00};
            for (size_t i = 0; i < payload; ++i) packet.push_back(static_cast<uint8_t>(rng()));
        } else {
            int max = (callback ? kCallbackMaxRsp : kMaxSimReply) - 4 - wrapper;
            packet = pattern_command(std::uniform_int_distribution<int>(0, max)(rng)).request;
        }
        e.request = wrap(packet);
        e.reply = table.answer(0, e.request).responses[0].bytes;
        e.answered = true;
    }
    set_limit(e, callback);
    return e;
}

TEST(Stress, BackToBackOverAPortThroughWrappedTraffic) {
    const auto run_for = std::chrono::milliseconds(env_int("TOLVEN_STRESS_SECONDS", 20) * 1000) / 2;
    const unsigned seed = static_cast<unsigned>(
            env_int("TOLVEN_STRESS_SEED", static_cast<int>(std::random_device{}() & 0x7FFFFFFF)));
    printf("TOLVEN_STRESS_SEED=%u TOLVEN_STRESS_SECONDS=%lld\n", seed,
           static_cast<long long>(run_for.count() * 2 / 1000));
    pty_modem::Options options;
    options.subscriptions = {0, 1};
    options.logs_before_reply = 5;
    options.log_every = 1ms;
    options.event_every = 3ms;
    options.corrupt_every = 7;
    options.answers[kSilentPrefix] = diag_wire::Answer{};
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
            std::unique_ptr<diag_wire::AnswerTable> table = diag_wire::make_builtin_table();
            while (Clock::now() < end) {
                send_some(rng, Phase::kStrict, tally,
                          [&](bool callback) { return make_port_command(rng, callback, *table); });
            }
        });
    }
    for (std::thread& th : threads) th.join();
    std::unique_ptr<diag_wire::AnswerTable> table = diag_wire::make_builtin_table();
    const long stale_alone = stale_after_whole_pieces(tally, [&](bool callback) {
        Expect e = pattern_command((callback ? 2 : 4) * kPieceLen - 4 - 8);
        e.request = diag_wire::wrap(1, e.request);
        e.reply = table->answer(0, e.request).responses[0].bytes;
        return e;
    });
    libdiag_sim::PortStats st = libdiag_sim::port_stats();
    print_tally("port", tally);
    printf("port: %llu frames, %llu unsolicited, %llu dropped, %llu late\n",
           static_cast<unsigned long long>(st.frames),
           static_cast<unsigned long long>(st.unsolicited),
           static_cast<unsigned long long>(st.dropped), static_cast<unsigned long long>(st.late));
    for (const std::string& f : tally.failures) ADD_FAILURE() << f;
    EXPECT_GT(tally.sends.load(), 100);
    EXPECT_EQ(stale_alone, 4);
    EXPECT_EQ(st.replies, static_cast<uint64_t>(tally.sends.load() - tally.silent.load()));
    libdiag_sim::reset();  // the port closes before the modem goes
    unsetenv("LIBDIAG_PORT");
}

}  // namespace
