// The serial diag path end to end: the library's two transports through the host libdiag's
// port modem, against the pty modem on a thread of the test's own.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "libdiag_sim.h"
#include "port_holder.h"
#include "pty_modem.h"
#include "test_support.h"
#include "tolven_diag.h"
#include "tolven_diag_platform.h"
#include "wire.h"

namespace {

using namespace std::chrono_literals;
using libdiag_sim::Answer;
using libdiag_sim::Bytes;
using libdiag_sim::Response;
using Clock = std::chrono::steady_clock;

enum class Mode { kDci, kCallback };

SendFn send_fn(Mode m) {
    return m == Mode::kDci ? tolven_diag_cmd_send_with_result_by_dci_mode
                           : tolven_diag_cmd_send_with_result_by_callback_mode;
}

Bytes pattern(uint16_t n) {
    return {0x4B, 0xFE, 0x02, 0x00, uint8_t(n), uint8_t(n >> 8)};
}

Bytes wrapped(uint32_t subscription, const Bytes& packet) {
    return diag_wire::wrap(subscription, packet);
}

Bytes table_reply(const Bytes& req) {
    return diag_wire::make_builtin_table()->answer(0, req).responses.at(0).bytes;
}

std::map<Bytes, Answer> answer(const Bytes& req, const Bytes& reply, std::chrono::milliseconds at) {
    if (reply.empty()) return {{req, Answer{}}};
    return {{req, Answer{{Response{0, reply, {}, at}}}}};
}

class SerialTest : public DiagTest {
  protected:
    void TearDown() override {
        DiagTest::TearDown();
        unsetenv("LIBDIAG_PORT");
        unsetenv("LIBDIAG_FRAMING");
        libdiag_sim::reset();  // closes the port before the modem goes
        unlink(link_.c_str());
        modem_.reset();
    }

    // The port is a link of this process's own to the pty, as /dev/ttyUSB0 is to a device: a pty
    // number that is freed goes to the next test running beside this one.
    void start_modem(pty_modem::Options options = {}) {
        std::string error;
        modem_ = pty_modem::Modem::open(std::move(options), &error);
        ASSERT_NE(nullptr, modem_) << error;
        modem_->start();
        unlink(link_.c_str());
        ASSERT_EQ(0, symlink(modem_->path().c_str(), link_.c_str())) << strerror(errno);
        setenv("LIBDIAG_PORT", link_.c_str(), 1);
    }

    void unplug() {
        unlink(link_.c_str());
        modem_->close_pty();
    }

    const std::string link_ = ::testing::TempDir() + "serial_test_tty." + std::to_string(getpid());
    std::unique_ptr<pty_modem::Modem> modem_;
};

TEST_F(SerialTest, RepliesOfEverySizeInBothTransportsThroughNoise) {
    // exactly 16 KiB: four full pieces, which the library takes as complete at its time limit
    start_modem();
    SendOutcome full = send_packet(send_fn(Mode::kDci), pattern(16380), 300);
    EXPECT_EQ(0, full.result);
    EXPECT_EQ(table_reply(pattern(16380)), full.reply);
    EXPECT_GE(full.elapsed, 300ms - kClockSlack);

    pty_modem::Options noisy;  // unsolicited frames all along, a bad frame before every reply
    noisy.log_every = 1ms;
    noisy.event_every = 1ms;
    noisy.corrupt_every = 1;
    noisy.reply_delay = 30ms;
    pty_modem::Options trickle;  // one byte at a time
    trickle.byte_gap = 20us;
    pty_modem::Options plain, one_byte;
    one_byte.answers = answer({0x1D}, {0x1D}, 0ms);
    struct Row {
        const char* name;
        Mode mode;
        Bytes request;
        const pty_modem::Options& options;
        Bytes reply;  // empty: the table's
    } rows[] = {
            // DCI first: a callback-mode reply stays in the library's buffer and a later DCI
            // reply would be appended to it
            {"1 byte", Mode::kDci, {0x1D}, one_byte, {0x1D}},
            {"version", Mode::kDci, {0x00}, noisy, {}},
            {"version", Mode::kDci, {0x00}, trickle, {}},
            {"two pieces", Mode::kDci, pattern(4093), plain, {}},
            {"four pieces", Mode::kDci, pattern(16379), noisy, {}},
            {"event report among events", Mode::kDci, {0x60, 0x01}, noisy, {}},
            {"error reply", Mode::kDci, {0x4B, 0x77, 0x01, 0x00}, noisy, {}},
            {"1 byte", Mode::kCallback, {0x1D}, one_byte, {0x1D}},
            {"version", Mode::kCallback, {0x00}, noisy, {}},
            {"longest callback reply", Mode::kCallback, pattern(10236), noisy, {}},
            {"error reply", Mode::kCallback, {0x99, 0x01}, noisy, {}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(std::string(r.name) + (r.mode == Mode::kDci ? ", dci" : ", callback"));
        libdiag_sim::reset();
        start_modem(r.options);
        Bytes want = r.reply.empty() ? table_reply(r.request) : r.reply;
        SendOutcome out = send_packet(send_fn(r.mode), r.request, 3000 * time_scale());
        EXPECT_EQ(0, out.result);
        EXPECT_EQ(want, out.reply);
        libdiag_sim::PortStats st = libdiag_sim::port_stats();
        EXPECT_EQ(1u, st.replies);
        EXPECT_EQ(r.options.corrupt_every > 0, st.dropped > 0) << st.dropped;
        EXPECT_EQ(r.options.log_every.count() > 0, st.unsolicited > 0) << st.unsolicited;
    }
}

// A dual-SIM modem's port is busy with log packets wrapped for each subscription, many of them
// right before every reply: commands wrapped for either subscription and plain ones, back to
// back, each get their own reply.
TEST_F(SerialTest, WrappedAndPlainCommandsThroughWrappedLogTraffic) {
    pty_modem::Options options;
    options.subscriptions = {0, 1};
    options.logs_before_reply = 60;
    options.log_every = 20ms;
    options.event_every = 20ms;
    start_modem(options);
    const Bytes build_id = {0x7C};
    const Bytes requests[] = {wrapped(0, build_id), wrapped(1, build_id), build_id,
                              wrapped(1, pattern(300)), wrapped(0, {0x4B, 0x77, 0x01, 0x00})};
    int sent = 0;
    for (Mode mode : {Mode::kDci, Mode::kCallback}) {
        for (int round = 0; round < 20; ++round) {
            for (const Bytes& request : requests) {
                SCOPED_TRACE(::testing::Message()
                             << (mode == Mode::kDci ? "dci" : "callback") << ", round " << round
                             << ", " << ::testing::PrintToString(request));
                SendOutcome out = send_packet(send_fn(mode), request, 3000 * time_scale());
                ++sent;
                ASSERT_EQ(0, out.result);
                ASSERT_EQ(table_reply(request), out.reply);
            }
        }
    }
    libdiag_sim::PortStats st = libdiag_sim::port_stats();
    EXPECT_EQ(uint64_t(sent), st.replies);
    EXPECT_GE(st.unsolicited, 60u * sent);
    EXPECT_EQ(0u, st.late);
}

// A modem left in non-HDLC framing: answered at that framing, and at the default one the
// time-out says what the port speaks.
TEST_F(SerialTest, NonHdlcFraming) {
    pty_modem::Options options;
    options.framing = diag_wire::FramingKind::kNhdlc;
    options.log_every = 5ms;
    options.corrupt_every = 2;
    start_modem(options);
    setenv("LIBDIAG_FRAMING", "nhdlc", 1);
    // Payloads with 7E in them, which this framing does not escape.
    const Bytes requests[] = {{0x00}, pattern(300), wrapped(1, {0x7E, 0x7E}), pattern(9000)};
    for (Mode mode : {Mode::kDci, Mode::kCallback}) {
        for (const Bytes& request : requests) {
            SCOPED_TRACE(::testing::PrintToString(request));
            SendOutcome out = send_packet(send_fn(mode), request, 3000 * time_scale());
            EXPECT_EQ(0, out.result);
            EXPECT_EQ(table_reply(request), out.reply);
        }
    }
    EXPECT_EQ("", libdiag_sim::port_note());

    unsetenv("LIBDIAG_FRAMING");
    for (Mode mode : {Mode::kDci, Mode::kCallback}) {
        ::testing::internal::CaptureStderr();
        SendOutcome out = send_packet(send_fn(mode), {0x00}, 300);
        std::string err = ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(1, out.result);
        const std::string note = libdiag_sim::port_note();
        EXPECT_NE(std::string::npos, note.find("the modem seems to speak non-HDLC framing")) << note;
        EXPECT_NE(std::string::npos, note.find("LIBDIAG_FRAMING=nhdlc")) << note;
        EXPECT_NE(std::string::npos, err.find(note)) << err;
    }
    EXPECT_GT(libdiag_sim::port_stats().foreign, 0u);
}

enum class Fault { kNeverAnswers, kGarbage, kLateAnswer, kPtyCloses, kHangsUpMidReply };

struct FaultRow {
    Fault fault;
    Mode mode;
};

std::string fault_name(const ::testing::TestParamInfo<FaultRow>& info) {
    static const char* const kNames[] = {"NeverAnswers", "Garbage", "LateAnswer", "PtyCloses",
                                         "HangsUpMidReply"};
    return std::string(kNames[int(info.param.fault)]) +
           (info.param.mode == Mode::kDci ? "Dci" : "Callback");
}

class SerialFault : public SerialTest, public ::testing::WithParamInterface<FaultRow> {};

// Each fault costs the caller its time limit and result 1, and the next command still works.
TEST_P(SerialFault, CallerGetsItsTimeLimitAndTheNextCommandWorks) {
    const auto [fault, mode] = GetParam();
    const Bytes echo_a = {0x4B, 0xFE, 0x01, 0x00, 0xAA}, echo_b = {0x4B, 0xFE, 0x01, 0x00, 0xBB};
    pty_modem::Options options;
    Bytes request = {0x1D};
    if (fault == Fault::kNeverAnswers || fault == Fault::kPtyCloses) {
        options.answers = answer(request, {}, 0ms);
    } else if (fault == Fault::kGarbage) {
        options.garbage = true;
        request = {0x00};
    } else if (fault == Fault::kHangsUpMidReply) {
        options.hang_up_mid_reply = true;
        request = {0x00};
    } else {
        request = echo_a;
        options.answers = answer(echo_a, echo_a, 600ms);
    }
    start_modem(std::move(options));

    std::thread unplugging;
    if (fault == Fault::kPtyCloses) {
        unplugging = std::thread([this] {
            while (modem_->stats().requests == 0) std::this_thread::sleep_for(1ms);
            unplug();
        });
    }
    const int limit_ms = 300;
    SendOutcome out = send_packet(send_fn(mode), request, limit_ms);
    if (unplugging.joinable()) unplugging.join();
    EXPECT_EQ(1, out.result);
    EXPECT_GE(out.elapsed, std::chrono::milliseconds(limit_ms) - kClockSlack);
    EXPECT_LT(out.elapsed, 2s * time_scale());  // loose: the library ticks in 100 ms

    libdiag_sim::PortStats st = libdiag_sim::port_stats();
    EXPECT_EQ(0u, st.replies);
    Bytes next = {0x00};
    if (fault == Fault::kGarbage) {
        EXPECT_GT(st.dropped, 0u);
        return;  // the modem goes on with noise
    }
    if (fault == Fault::kLateAnswer) next = echo_b;
    if (fault == Fault::kPtyCloses || fault == Fault::kHangsUpMidReply) {
        EXPECT_EQ(1u, st.vanished);
        // Its pty number may go to a test beside this one at once: the device name goes too.
        unlink(link_.c_str());
        // the port is gone: the next connection fails at once
        SendOutcome gone = send_packet(send_fn(mode), next, 3000);
        EXPECT_EQ(1, gone.result);
        EXPECT_LT(gone.elapsed, 1s * time_scale());
        start_modem();  // plugged in again
    }
    SendOutcome again = send_packet(send_fn(mode), next, 3000 * time_scale());
    EXPECT_EQ(0, again.result);
    EXPECT_EQ(table_reply(next), again.reply);
    EXPECT_EQ(fault == Fault::kLateAnswer ? 1u : 0u, libdiag_sim::port_stats().late);
}

INSTANTIATE_TEST_SUITE_P(Faults, SerialFault,
                         ::testing::Values(FaultRow{Fault::kNeverAnswers, Mode::kDci},
                                           FaultRow{Fault::kNeverAnswers, Mode::kCallback},
                                           FaultRow{Fault::kGarbage, Mode::kDci},
                                           FaultRow{Fault::kLateAnswer, Mode::kDci},
                                           FaultRow{Fault::kLateAnswer, Mode::kCallback},
                                           FaultRow{Fault::kPtyCloses, Mode::kDci},
                                           FaultRow{Fault::kPtyCloses, Mode::kCallback},
                                           FaultRow{Fault::kHangsUpMidReply, Mode::kDci},
                                           FaultRow{Fault::kHangsUpMidReply, Mode::kCallback}),
                         fault_name);

// While another process holds the port's lock, a command neither reads nor writes the port; it
// ends as a time-out that names the holder, or goes out as soon as the lock is free.
TEST_F(SerialTest, LockedPortWaitsForItsLock) {
    start_modem();
    PortHolder holder(link_, true);
    ASSERT_TRUE(holder.holding());
    for (Mode mode : {Mode::kDci, Mode::kCallback}) {
        ::testing::internal::CaptureStderr();
        SendOutcome out = send_packet(send_fn(mode), {0x00}, 300);
        std::string err = ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(1, out.result);
        EXPECT_GE(out.elapsed, 300ms - kClockSlack);
        const std::string busy = "was busy: process " + std::to_string(holder.pid()) + " (";
        EXPECT_NE(std::string::npos, libdiag_sim::port_note().find(busy))
                << libdiag_sim::port_note();
        EXPECT_NE(std::string::npos, err.find(busy)) << err;
    }
    EXPECT_EQ(0u, modem_->stats().requests);
    EXPECT_EQ(2u, libdiag_sim::port_stats().lock_waits);
    holder.release();

    for (Mode mode : {Mode::kDci, Mode::kCallback}) {
        PortHolder again(link_, true);
        ASSERT_TRUE(again.holding());
        std::thread releasing([&] {
            std::this_thread::sleep_for(200ms);
            again.release();
        });
        SendOutcome out = send_packet(send_fn(mode), {0x7C}, 3000 * time_scale());
        releasing.join();
        EXPECT_EQ(0, out.result);
        EXPECT_EQ(table_reply({0x7C}), out.reply);
        EXPECT_GE(out.elapsed, 200ms - kClockSlack);
    }
    EXPECT_EQ(0, send_packet(send_fn(Mode::kDci), {0x1C}, 3000 * time_scale()).result);
}

TEST_F(SerialTest, OpenFailureFailsInitWithOneLine) {
    struct Row {
        const char* path;
        const char* why;
    } rows[] = {
            {"/nonexistent/ttyUSB0", "No such file or directory"},
            {"/dev/null", "Inappropriate ioctl for device"},  // not a terminal
            {"/", "Is a directory"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.path);
        setenv("LIBDIAG_PORT", r.path, 1);
        ::testing::internal::CaptureStderr();
        EXPECT_FALSE(Diag_LSM_Init(nullptr));
        EXPECT_EQ(std::string("libdiag: cannot open diag port ") + r.path + ": " + r.why + "\n",
                  ::testing::internal::GetCapturedStderr());
        EXPECT_FALSE(libdiag_sim::connected());
    }
    // a port has no remote processors, whatever the simulator says
    libdiag_sim::set_remote_mask(1);
    uint16_t mask = 0xFFFF;
    EXPECT_EQ(1, diag_has_remote_device(&mask));
    EXPECT_EQ(0, mask);
}

// Many requests in flight on one connection, the modem's own traffic and bad frames between the
// answers: each answer reaches the request it answers, once, in order.
TEST_F(SerialTest, PipelinedRequestsEachGetTheirOwnAnswer) {
    pty_modem::Options options;
    options.log_every = 1ms;
    options.event_every = 2ms;
    options.corrupt_every = 3;
    start_modem(std::move(options));
    constexpr int kRequests = 200;
    struct Got {
        std::mutex mu;
        std::condition_variable cv;
        std::vector<std::pair<int, Bytes>> replies;  // (request index, reply)
        std::atomic<int> records{0};
    };
    static Got* got;
    Got g;
    got = &g;
    auto on_reply = [](int index, const unsigned char* p, int len) {
        std::lock_guard<std::mutex> lk(got->mu);
        got->replies.emplace_back(index, Bytes(p, p + len));
        got->cv.notify_all();
    };
    static decltype(on_reply)* reply_fn;
    reply_fn = &on_reply;
    auto wait_all = [&] {
        std::unique_lock<std::mutex> lk(g.mu);
        return g.cv.wait_for(lk, 10s * time_scale(),
                             [&] { return g.replies.size() == size_t(kRequests); });
    };
    auto echo = [](int i) { return Bytes{0x4B, 0xFE, 0x01, 0x00, uint8_t(i), uint8_t(i >> 8)}; };
    auto check = [&](const char* mode) {
        ASSERT_TRUE(wait_all()) << mode << ": " << g.replies.size() << " replies";
        for (int i = 0; i < kRequests; ++i) {
            EXPECT_EQ(i, g.replies[i].first) << mode;
            EXPECT_EQ(echo(i), g.replies[i].second) << mode;
        }
        g.replies.clear();
    };

    ASSERT_TRUE(Diag_LSM_Init(nullptr));
    int client = 0, signal = 18;
    uint16_t list = 2;
    ASSERT_EQ(libdiag_sim::kDciOk, diag_register_dci_client(&client, &list, 0, &signal));
    auto on_record = [](unsigned char*, int) { ++got->records; };
    ASSERT_EQ(libdiag_sim::kDciOk, diag_register_dci_stream_proc(client, on_record, on_record));
    auto on_dci = [](unsigned char* p, int len, void* data) {
        (*reply_fn)(int(reinterpret_cast<intptr_t>(data)), p, len);
    };
    for (intptr_t i = 0; i < kRequests; ++i) {
        Bytes req = echo(int(i));
        ASSERT_EQ(libdiag_sim::kDciOk,
                  diag_send_dci_async_req(client, req.data(), int(req.size()), nullptr, 0, on_dci,
                                          reinterpret_cast<void*>(i)));
    }
    check("dci");
    for (auto end = Clock::now() + 5s * time_scale(); g.records == 0 && Clock::now() < end;) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_GT(g.records.load(), 0) << libdiag_sim::port_stats().unsolicited;

    // callback mode: the context is the registration's, so order alone tells them apart
    static std::atomic<int> next{0};
    auto on_callback = [](unsigned char* p, int len, void*) {
        (*reply_fn)(next++, p, len);
        return 0;
    };
    ASSERT_EQ(0, diag_register_callback(on_callback, nullptr));
    for (int i = 0; i < kRequests; ++i) {
        Bytes req = echo(i);
        ASSERT_EQ(0, diag_callback_send_data(0, req.data(), int(req.size())));
    }
    check("callback");
    EXPECT_EQ(-1, diag_callback_send_data(1, echo(0).data(), 6));  // no remote processors

    EXPECT_TRUE(Diag_LSM_DeInit());
    EXPECT_EQ(libdiag_sim::kDciOk, diag_release_dci_client(&client));
    libdiag_sim::PortStats st = libdiag_sim::port_stats();
    EXPECT_EQ(2u * kRequests, st.replies);
    EXPECT_GE(st.dropped, 2u * kRequests / 3);
    // The port lingers for the next connection, which takes it back without opening it again.
    EXPECT_TRUE(st.open);
    EXPECT_TRUE(Diag_LSM_Init(nullptr));
    EXPECT_TRUE(Diag_LSM_DeInit());
    EXPECT_EQ(1u, libdiag_sim::port_stats().opens);
}

}  // namespace
