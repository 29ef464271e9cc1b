#include "test_support.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <thread>

#include "libdiag_sim.h"
#include "tolven_diag_internal.h"

LogCapture::LogCapture() {
    tolven_utils_host_set_logcat_levels((1u << 1) | (1u << 4));
    tolven_utils_host_set_shell_levels(0);
    tolven_utils_host::start_capture();
}

std::vector<std::string> LogCapture::messages() const {
    std::vector<std::string> out;
    for (const tolven_utils_host::Line& line : lines()) {
        size_t colon = line.text.find(": ", line.text.find("] "));
        out.push_back(colon == std::string::npos ? line.text : line.text.substr(colon + 2));
    }
    return out;
}

int LogCapture::count(const std::string& part) const {
    int n = 0;
    for (const std::string& m : messages()) n += m.find(part) != std::string::npos;
    return n;
}

bool LogCapture::wait_for(const std::string& part) const {
    return tolven_utils_host::wait_for_line(part, std::chrono::seconds(10) * time_scale());
}

void DiagTest::SetUp() {
    // Threads of an earlier test in this process (workers linger 3 s) end first.
    ASSERT_TRUE(tolven_diag_reset_for_test(10000 * time_scale()));
    libdiag_sim::reset();
    log.clear();
}

void DiagTest::TearDown() {
    libdiag_sim::wait_idle();
}

SendOutcome send_packet(SendFn send, const std::vector<uint8_t>& packet, int timeout_ms,
                        int capacity) {
    std::vector<uint8_t> buf(capacity > 0 ? capacity : 1, 0xEE);
    int reply_len = capacity;
    auto start = std::chrono::steady_clock::now();
    int result = send(packet.data(), static_cast<int>(packet.size()), timeout_ms, buf.data(),
                      &reply_len);
    auto elapsed = std::chrono::steady_clock::now() - start;
    size_t shown = reply_len > 0 ? std::min<size_t>(reply_len, buf.size()) : 0;
    return {result, reply_len, std::vector<uint8_t>(buf.begin(), buf.begin() + shown), elapsed};
}

void* worker_request(const std::vector<uint8_t>& packet) {
    auto* block = static_cast<uint8_t*>(malloc(packet.size() + 5));
    int32_t len = static_cast<int32_t>(packet.size());
    memcpy(block, &len, sizeof(len));
    memcpy(block + sizeof(len), packet.data(), packet.size());
    return block;
}

void* run_thread_body(void* (*body)(void*), void* arg) {
    g_diag_live_threads++;
    return body(arg);
}

int sem_posts() {
    int value = -1;
    sem_getvalue(&g_diag_rsp_sem, &value);
    return value;
}

std::vector<uint8_t> ramp(size_t n, uint8_t first) {
    std::vector<uint8_t> bytes(n);
    for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(first + i);
    return bytes;
}
