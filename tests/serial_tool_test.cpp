// tolven-diag against tolven-diag-modem, both as child processes: sessions on a real pty, two
// processes on one port, ports that other processes hold, and the port shared on TCP by ser2net.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "answer_table.h"
#include "child.h"
#include "port_holder.h"
#include "ser2net.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The built-in table's reply to |request|, as --json writes it.
std::string reply_hex(const diag_wire::Bytes& request) {
    std::string hex;
    char pair[3];
    const diag_wire::Answer a = diag_wire::make_builtin_table()->answer(0, request);
    for (uint8_t b : a.responses[0].bytes) {
        snprintf(pair, sizeof pair, "%02X", b);
        hex += pair;
    }
    return hex;
}

size_t count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

// The tool's exit code and output (stderr after stdout), given the port with --port.
std::pair<int, std::string> run_tool(const std::string& port, std::vector<std::string> args) {
    std::string cmd;
    args.insert(args.begin(), {TOLVEN_DIAG_TOOL, "--port", port});
    for (const std::string& w : emulated(args)) cmd += " '" + w + "'";
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    std::string out;
    char buf[4096];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    int status = p != nullptr ? pclose(p) : -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

TEST(SerialTool, VersionReplyInBothModesFromANoisyModem) {
    ModemProcess modem(TOLVEN_DIAG_MODEM, {"--log-every", "2", "--event-every", "3",
                                           "--corrupt-every", "2", "--byte-gap", "50"});
    ASSERT_EQ(0u, modem.path().rfind("/dev/", 0)) << modem.path();
    for (const char* mode : {"dci", "callback"}) {
        SCOPED_TRACE(mode);
        auto [code, out] = run_tool(modem.path(), {"--mode", mode, "00"});
        EXPECT_EQ(0, code) << out;
        EXPECT_NE(std::string::npos, out.find("reply: 55 bytes")) << out;
        EXPECT_NE(std::string::npos, out.find("\n  0000  00 4E 6F 76")) << out;
    }
    auto [code, out] = run_tool("/nonexistent/ttyACM0", {"00"});
    EXPECT_EQ(1, code);
    EXPECT_NE(std::string::npos,
              out.find("libdiag: cannot open diag port /nonexistent/ttyACM0: No such file"))
            << out;
    EXPECT_EQ(0, modem.stop());
}

// Two processes sending back to back on one port take turns, by the port's lock: every reply
// right, none lost to the other process.
TEST(SerialTool, TwoProcessesTakeTurnsOnOnePort) {
    // As any other user, the exclusive-open flag keeps the second process out altogether.
    if (geteuid() != 0) GTEST_SKIP() << "needs root: the exclusive-open flag stops other users";
    ModemProcess modem(TOLVEN_DIAG_MODEM, {"--log-every", "5"});
    ASSERT_EQ(0u, modem.path().rfind("/dev/", 0)) << modem.path();
    const std::vector<diag_wire::Bytes> requests = {{0x7C}, {0x98, 0x01, 0, 0, 0x01, 0, 0, 0, 0x1C}};
    std::pair<int, std::string> results[2];
    std::thread second([&] {
        results[1] = run_tool(modem.path(), {"--json", "--count", "100", "--interval", "0",
                                             "98 01 00 00 01 00 00 00 1c"});
    });
    results[0] = run_tool(modem.path(), {"--json", "--count", "100", "--interval", "0", "7c"});
    second.join();
    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(0, results[i].first) << results[i].second;
        EXPECT_EQ(100u, count(results[i].second, "\"reply\":\"" + reply_hex(requests[i]) + "\""));
        EXPECT_NE(std::string::npos, results[i].second.find("\"answered\":100,"));
    }
}

// A port that another process holds: with its lock, the command ends at its time limit and the
// message names the holder, and the next one goes through once the lock is free; without a lock,
// a command that goes unanswered names the other process.
TEST(SerialTool, PortsOtherProcessesHold) {
    const std::string answers =
            ::testing::TempDir() + "serial_tool_answers." + std::to_string(getpid());
    std::ofstream(answers) << "1d -> none\n";
    ModemProcess modem(TOLVEN_DIAG_MODEM, {"--answers", answers});
    ASSERT_EQ(0u, modem.path().rfind("/dev/", 0)) << modem.path();
    {
        PortHolder holder(modem.path(), true);
        ASSERT_TRUE(holder.holding());
        Clock::time_point start = Clock::now();
        auto [code, out] = run_tool(modem.path(), {"-t", "300", "00"});
        auto elapsed = Clock::now() - start;
        EXPECT_EQ(1, code) << out;
        EXPECT_GE(elapsed, 300ms);
        EXPECT_LT(elapsed, 300ms + 2s * time_scale());  // loose: process start and ticks
        EXPECT_NE(std::string::npos,
                  out.find("timed out: no complete reply within 300 ms: the port " + modem.path() +
                           " was busy: process " + std::to_string(holder.pid()) + " ("))
                << out;
    }
    auto [code, out] = run_tool(modem.path(), {"00"});
    EXPECT_EQ(0, code) << out;

    PortHolder user(modem.path(), false);
    ASSERT_TRUE(user.holding());
    std::tie(code, out) = run_tool(modem.path(), {"-t", "200", "1d"});
    EXPECT_EQ(1, code) << out;
    EXPECT_NE(std::string::npos, out.find("is also open in process " + std::to_string(user.pid())))
            << out;
    unlink(answers.c_str());
}

// The modem's port on TCP through a real ser2net: replies right in both transports, and a
// ser2net that goes away ends the command within its limit.
TEST(SerialTool, ThroughSer2net) {
    if (!Ser2net::installed())
        GTEST_SKIP() << "ser2net is not installed (scripts/install-deps.sh base)";
    const std::string answers = ::testing::TempDir() + "ser2net_answers." + std::to_string(getpid());
    std::ofstream(answers) << "1d -> none\n";
    ModemProcess modem(TOLVEN_DIAG_MODEM,
                       {"--answers", answers, "--log-every", "5", "--subscriptions", "0,1"});
    ASSERT_EQ(0u, modem.path().rfind("/dev/", 0)) << modem.path();
    std::string error;
    std::unique_ptr<Ser2net> ser2net = Ser2net::start(modem.path(), &error);
    ASSERT_NE(nullptr, ser2net) << error;
    const std::string port = "tcp:127.0.0.1:" + std::to_string(ser2net->port());
    struct Row {
        std::vector<std::string> args;
        const char* reply;
    } rows[] = {
            {{"-m", "dci", "7c"}, "reply: 56 bytes"},
            {{"-m", "callback", "7c"}, "reply: 56 bytes"},
            {{"98 01 00 00 01 00 00 00 1c"}, "subscription: 1\ndiag version:"},
            // one whole 4096-byte piece ends a DCI reply only at the time-out
            {{"-t", "500", "4b", "fe", "02", "00", "fc", "0f"}, "reply: 4096 bytes"},
            {{"-m", "callback", "4b", "fe", "02", "00", "fc", "0f"}, "reply: 4096 bytes"},
    };
    for (const Row& r : rows) {
        auto [code, out] = run_tool(port, r.args);
        EXPECT_EQ(0, code) << out;
        EXPECT_NE(std::string::npos, out.find(r.reply)) << out;
    }
    // ser2net gone while a command waits, then for the next one
    std::thread stopping([&] {
        std::this_thread::sleep_for(200ms);
        ser2net->stop();
    });
    Clock::time_point start = Clock::now();
    auto [code, out] = run_tool(port, {"-t", "1000", "1d"});
    stopping.join();
    EXPECT_EQ(1, code) << out;
    EXPECT_LT(Clock::now() - start, 1000ms + 2s * time_scale()) << out;
    std::tie(code, out) = run_tool(port, {"-t", "1000", "00"});
    EXPECT_EQ(1, code) << out;
    EXPECT_NE(std::string::npos,
              out.find("libdiag: cannot open diag port " + port + ": Connection refused"))
            << out;
    unlink(answers.c_str());
}

}  // namespace
