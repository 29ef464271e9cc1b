// Test support: the library's log lines in order, a fresh simulated modem per test, and a
// synchronous send with what it handed back.
#pragma once

#include <stdint.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "child.h"
#include "tolven_utils_host.h"

// Captures the system-log lines while it lives, with both levels switched on there and standard
// output switched off.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture() { tolven_utils_host::stop_capture(); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<tolven_utils_host::Line> lines() const { return tolven_utils_host::captured(); }
    // Message texts with the "[proc][file:line] func: " prefix cut off.
    std::vector<std::string> messages() const;
    int count(const std::string& part) const;
    bool has(const std::string& part) const { return count(part) > 0; }
    bool wait_for(const std::string& part) const;
    void clear() { tolven_utils_host::start_capture(); }
};

// Base fixture: fresh simulated modem and a log capture for each test.
class DiagTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    LogCapture log;
};

using SendFn = int (*)(const uint8_t*, int, int, uint8_t*, int*);
struct SendOutcome {
    int result;
    int reply_len;               // *reply_len after the call
    std::vector<uint8_t> reply;  // the first |reply_len| bytes of the reply buffer
    std::chrono::steady_clock::duration elapsed;
};
// The reply buffer starts filled with 0xEE, so untouched bytes can be told apart.
SendOutcome send_packet(SendFn send, const std::vector<uint8_t>& packet, int timeout_ms,
                        int capacity = 16384);

// Sleeps and the steady clock may disagree by a little; lower bounds on time allow for that.
constexpr std::chrono::milliseconds kClockSlack{2};

// A WorkerRequest block as the fire-and-forget dispatcher builds it; the worker frees it.
void* worker_request(const std::vector<uint8_t>& packet);

// Runs one of the library's thread bodies on the test's thread, counted as its creator counts it.
void* run_thread_body(void* (*body)(void*), void* arg);

// The semaphore's count: how many posts nobody has waited for.
int sem_posts();

template <typename F>
intptr_t fn_addr(F* f) {
    return reinterpret_cast<intptr_t>(f);
}

// Bytes |first|, |first| + 1, ... of length |n|.
std::vector<uint8_t> ramp(size_t n, uint8_t first = 0);
