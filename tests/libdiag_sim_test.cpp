// The host libdiag simulator: its answer table, answer overrides, and delivery after release.
#include <algorithm>
#include <atomic>
#include <fstream>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "answers_file.h"
#include "libdiag_sim.h"
#include "tolven_diag_platform.h"
#include "wire.h"

namespace {

using namespace libdiag_sim;
using diag_wire::ParsedAnswers;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

Bytes pattern_request(uint16_t n) {
    return {0x4B, 0xFE, 0x02, 0x00, uint8_t(n), uint8_t(n >> 8)};
}

// Collects DCI pieces into a std::vector<Bytes>, read only after wait_idle.
void on_dci(unsigned char* p, int len, void* data) {
    static_cast<std::vector<Bytes>*>(data)->emplace_back(p, p + len);
}

int connect_client() {
    EXPECT_TRUE(Diag_LSM_Init(nullptr));
    int id = 0, signal = 18;
    uint16_t list = 2;
    EXPECT_EQ(kDciOk, diag_register_dci_client(&id, &list, 0, &signal));
    return id;
}

struct LibdiagSim : ::testing::Test {
    LibdiagSim() { reset(); }
    ~LibdiagSim() override { reset(); }  // nothing may reach this test's state once it ends
};

TEST_F(LibdiagSim, AnswerTable) {
    struct Case {
        Bytes req;
        size_t size;
        Bytes lead;
    } cases[] = {
            {{0x00}, 55, {0x00, 'N', 'o', 'v'}},
            {{0x7C}, 56, {0x7C, 0x02, 0x00, 0x00}},
            {{0x1C}, 3, {0x1C, 0x08, 0x00}},
            {{0x60, 0x01}, 3, {0x60, 0x00, 0x00}},
            {{0x4B, 0xFE, 0x01, 0x00, 0xAA, 0xBB}, 6, {0x4B, 0xFE, 0x01, 0x00, 0xAA, 0xBB}},
            {pattern_request(16), 20, {0x4B, 0xFE, 0x02, 0x00, 0x00, 0x01, 0x02}},
            {pattern_request(0xFFFF), 16384, {0x4B, 0xFE, 0x02, 0x00, 0x00}},
            {{0x4B, 0x21, 0x01, 0x00}, 11, {0x4B, 0x21, 0x01, 0x00, 0x00, 0x00}},
            // errors echo the whole request after the code
            {{0x99, 0x01}, 3, {0x13, 0x99, 0x01}},
            {{0x4B, 0x77, 0x01, 0x00}, 5, {0x13, 0x4B, 0x77, 0x01, 0x00}},
            {{0x60, 0x07}, 3, {0x14, 0x60, 0x07}},
            {{0x1C, 0x00}, 3, {0x15, 0x1C, 0x00}},
            {{0x4B, 0xFE}, 3, {0x15, 0x4B, 0xFE}},
            {{0x4B, 0xFE, 0x02, 0x00, 0x01}, 6, {0x15, 0x4B, 0xFE, 0x02, 0x00, 0x01}},
            // a request wrapped for a subscription gets the packet's reply, wrapped the same way
            {{0x98, 0x01, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x1C},
             11,
             {0x98, 0x01, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x1C, 0x08, 0x00}},
            {{0x98, 0x01, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00, 0x99},
             10,
             {0x98, 0x01, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00, 0x13, 0x99}},
            {{0x98, 0x01, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00},  // a wrapper around nothing
             9,
             {0x15, 0x98, 0x01, 0x00, 0x00, 0x07}},
            {{0x98, 0x02, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00, 0x1C},  // not the wrapper
             10,
             {0x13, 0x98, 0x02}},
    };
    auto modem = diag_wire::make_builtin_table();
    for (const Case& c : cases) {
        Answer a = modem->answer(3, c.req);
        ASSERT_EQ(1u, a.responses.size());
        const Bytes& r = a.responses[0].bytes;
        EXPECT_EQ(c.size, r.size()) << int(c.req[0]);
        EXPECT_EQ(c.lead, Bytes(r.begin(), r.begin() + std::min(r.size(), c.lead.size())));
    }
    EXPECT_EQ(0x2B, modem->answer(0, pattern_request(300)).responses[0].bytes[4 + 299]);
}

TEST_F(LibdiagSim, OverridesFromCodeAndFileLongestPrefixWins) {
    set_answer({0x4B}, Answer{{{0, {0xAA}, {}, {}}}});
    set_answer({0x4B, 0xFE}, Answer{{{0, {0xBB}, {}, {}}, {0, {0xBC}, {}, {}}}});
    std::string path = ::testing::TempDir() + "libdiag_sim_answers.txt";
    std::ofstream(path) << "# overrides\n4B FE 01 -> none\n1C -> 1C 09 00 @ 0x1E  # newer\n\n"
                           "4bfe0200->CC DD\nnot a line\n";
    EXPECT_FALSE(load_answers(path));  // the bad line is reported, the rest still load
    EXPECT_FALSE(load_answers(path + ".missing"));
    remove(path.c_str());
    struct Case {
        Bytes req;
        std::vector<Bytes> replies;
        milliseconds at_least;
    } cases[] = {
            {{0x4B, 0xFE, 0x01, 0x00}, {}, {}},  // silent
            {{0x4B, 0xFE, 0x03, 0x00}, {{0xBB}, {0xBC}}, {}},
            {pattern_request(4), {{0xCC, 0xDD}}, {}},
            {{0x4B, 0x21, 0x01, 0x00}, {{0xAA}}, {}},
            {{0x1C}, {{0x1C, 0x09, 0x00}}, milliseconds(30)},
            {{0x00, 0x00}, {{0x15, 0x00, 0x00}}, {}},  // the modem still answers the rest
            // a wrapped request takes the override of the packet inside, wrapped
            {{0x98, 0x01, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x1C},
             {{0x98, 0x01, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x1C, 0x09, 0x00}},
             milliseconds(30)},
    };
    int client = connect_client();
    for (Case& c : cases) {
        std::vector<Bytes> got;
        Clock::time_point sent = Clock::now();
        ASSERT_EQ(kDciOk, diag_send_dci_async_req(client, c.req.data(), int(c.req.size()), nullptr,
                                                  0, on_dci, &got));
        ASSERT_TRUE(wait_idle());
        EXPECT_EQ(c.replies, got) << int(c.req[0]);
        EXPECT_GE(Clock::now() - sent, c.at_least);
    }
}

TEST_F(LibdiagSim, AnswersParserAcceptsOrNamesEachLine) {
    struct Case {
        const char* text;
        bool accepted;
        const char* error;  // part of the message when refused
        Bytes prefix;
        Bytes reply;
        long long delay_ms;
    } cases[] = {
            {"4B FE 01 -> none", true, "", {0x4B, 0xFE, 0x01}, {}, 0},
            {"1c->1c0900 @ 0x1E  # newer", true, "", {0x1C}, {0x1C, 0x09, 0x00}, 30},
            {"00 -> 00 @ 86400000", true, "", {0x00}, {0x00}, 86400000},
            {"-> 00", false, "empty request (it would match every command)", {}, {}, 0},
            {"00 -> 01 @ 86400001", false, "bad delay '86400001' (0 to 86400000 ms)", {}, {}, 0},
            {"00 -> 01 @ 9999999999999", false, "bad delay", {}, {}, 0},
            {"00 -> 01 @ -1", false, "bad delay", {}, {}, 0},
            {"00 -> @ 5", false, "bad reply ''", {}, {}, 0},
            {"00 -> nonE", false, "bad reply 'nonE'", {}, {}, 0},
            {"zz -> 01", false, "bad request hex 'zz'", {}, {}, 0},
            {"not a line", false, "expected 'REQUEST_HEX -> REPLY_HEX|none [@ MS]'", {}, {}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        ParsedAnswers p = diag_wire::parse_answers(std::string("# head\n\n") + c.text + "\r\n", "f");
        ASSERT_EQ(c.accepted ? 1u : 0u, p.lines.size());
        ASSERT_EQ(c.accepted ? 0u : 1u, p.errors.size());
        if (!c.accepted) {
            EXPECT_EQ(0u, p.errors[0].rfind("f:3: ", 0)) << p.errors[0];
            EXPECT_NE(std::string::npos, p.errors[0].find(c.error)) << p.errors[0];
            continue;
        }
        EXPECT_EQ(3, p.lines[0].line);
        EXPECT_EQ(c.prefix, p.lines[0].request_prefix);
        EXPECT_EQ(c.reply, p.lines[0].reply);
        EXPECT_EQ(c.reply.empty(), p.lines[0].silent);
        EXPECT_EQ(c.delay_ms, p.lines[0].delay.count());
    }
}

// A busy dual-SIM modem: log packets wrapped for each subscription in turn reach the DCI log
// stream while connected, and stop with the connection; a wrapped request still gets its reply.
TEST_F(LibdiagSim, TrafficWrappedForSubscriptions) {
    static std::mutex mu;
    static std::vector<Bytes> records;
    records.clear();
    set_traffic(milliseconds(2), {0, 1});
    int client = connect_client();
    auto on_log = [](unsigned char* p, int len) {
        std::lock_guard<std::mutex> lk(mu);
        records.emplace_back(p, p + len);
    };
    ASSERT_EQ(kDciOk, diag_register_dci_stream_proc(client, on_log, on_log));
    std::vector<Bytes> got;
    Bytes req = diag_wire::wrap(1, {0x1C});
    ASSERT_EQ(kDciOk, diag_send_dci_async_req(client, req.data(), int(req.size()), nullptr, 0,
                                              on_dci, &got));
    std::this_thread::sleep_for(milliseconds(60));
    ASSERT_TRUE(Diag_LSM_DeInit());
    ASSERT_TRUE(wait_idle());
    EXPECT_EQ(std::vector<Bytes>{diag_wire::wrap(1, {0x1C, 0x08, 0x00})}, got);
    size_t seen;
    {
        std::lock_guard<std::mutex> lk(mu);
        seen = records.size();
        ASSERT_GE(seen, 4u);
        // Subscriptions in turn, from whichever packet came after the handler was in place.
        const uint32_t first = diag_wire::unwrap(records[0].data(), records[0].size()).subscription;
        for (size_t i = 0; i < seen; ++i) {
            diag_wire::Unwrapped u = diag_wire::unwrap(records[i].data(), records[i].size());
            EXPECT_TRUE(u.wrapped && u.subscription == (first + i) % 2) << i;
            EXPECT_EQ(diag_wire::kLogPacket, u.inner[0]) << i;
        }
    }
    std::this_thread::sleep_for(milliseconds(20));
    std::lock_guard<std::mutex> lk(mu);
    EXPECT_EQ(seen, records.size());  // none after the connection ended
}

// A day-long delay from the API is cut, not overflowed: the answer is still pending afterwards.
TEST_F(LibdiagSim, HugeProgrammedDelayStaysPending) {
    set_answer({0x1C}, Answer{{{0, {0x1C}, {}, std::chrono::hours(1000000)}}});
    set_answer_delay(std::chrono::hours(1000000));
    int client = connect_client();
    std::vector<Bytes> got;
    Bytes req{0x1C};
    ASSERT_EQ(kDciOk, diag_send_dci_async_req(client, req.data(), 1, nullptr, 0, on_dci, &got));
    EXPECT_FALSE(wait_idle(milliseconds(50)));
    EXPECT_TRUE(got.empty());
}

TEST_F(LibdiagSim, JournalKeepsOnlyTheMostRecentCalls) {
    uint16_t mask = 0;
    for (int i = 0; i < 10000; ++i) diag_switch_logging(i, nullptr);
    diag_has_remote_device(&mask);
    std::vector<Call> calls = journal();
    ASSERT_EQ(4096u, calls.size());
    EXPECT_EQ(10000 - 4095, calls.front().args[0]);
    EXPECT_EQ("diag_has_remote_device", calls.back().name);
}

// A delivery that is running when the client goes away finishes first; nothing follows it.
TEST_F(LibdiagSim, NothingIsDeliveredOnceReleaseOrDeInitReturns) {
    enum Mode { kRelease, kDeInit, kReleaseInHandler };
    struct Slow {
        Mode mode;
        int client;
        std::atomic<int> calls{0};
        std::atomic<bool> done{false};
        int released = 0;
    };
    auto handler = [](unsigned char*, int, void* data) {
        auto* s = static_cast<Slow*>(data);
        if (s->calls++ > 0) return;
        if (s->mode == kReleaseInHandler) {
            s->released = diag_release_dci_client(&s->client);  // must not wait for itself
        } else {
            std::this_thread::sleep_for(milliseconds(50));  // widens the race window only
        }
        s->done = true;
    };
    for (Mode mode : {kRelease, kDeInit, kReleaseInHandler}) {
        SCOPED_TRACE(mode);
        reset();
        Slow s{mode, connect_client()};
        Bytes req = pattern_request(9996);  // three pieces
        std::vector<unsigned char> rsp(4096);
        ASSERT_EQ(kDciOk,
                  diag_send_dci_async_req(s.client, req.data(), 6, rsp.data(), 4096, handler, &s));
        if (mode != kReleaseInHandler) {
            while (s.calls == 0) std::this_thread::yield();
            EXPECT_TRUE(mode == kDeInit ? Diag_LSM_DeInit()
                                        : diag_release_dci_client(&s.client) == kDciOk);
            EXPECT_TRUE(s.done);
        }
        ASSERT_TRUE(wait_idle());
        EXPECT_EQ(mode == kReleaseInHandler ? kDciOk : 0, s.released);
        EXPECT_EQ(1, s.calls.load());
    }
}

}  // namespace
