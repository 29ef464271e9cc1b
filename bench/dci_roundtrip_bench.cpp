// Round trip of one synchronous DCI send through libtolven_diag.so against the simulated modem,
// which answers at once, so the whole time is the library's own overhead (plus the simulator's
// bookkeeping). Reported per case as the median and p99 of per-command samples.

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "libdiag_sim.h"
#include "tolven_diag.h"
#include "tolven_utils_host.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr unsigned kShellLevels = (1u << 1) | (1u << 4);
constexpr milliseconds kSimDelay{0};
// Spaced samples find the library idle: the previous command's wait timer, which ticks on for up
// to 100 ms, has ended. Back-to-back samples follow at once, as a busy caller's would.
constexpr milliseconds kSpacing{150};
constexpr int kSamples = 100;
constexpr int kTimeoutMs = 1000;
constexpr int kReplyCapacity = 16384;

const libdiag_sim::Bytes kShortRequest = {0x4B, 0xF1, 0x01, 0x00};
const libdiag_sim::Bytes kLongRequest = {0x4B, 0xF1, 0x02, 0x00};

libdiag_sim::Bytes reply_of(size_t size, uint8_t seed) {
    libdiag_sim::Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 7);
    return bytes;
}

const libdiag_sim::Bytes& short_reply() {
    static const libdiag_sim::Bytes bytes = reply_of(16, 0x4B);
    return bytes;
}

// Cut by the simulator into 4096 + 4096 + 1808.
const libdiag_sim::Bytes& long_reply() {
    static const libdiag_sim::Bytes bytes = reply_of(10000, 0x4B);
    return bytes;
}

void program_simulator() {
    libdiag_sim::reset();
    libdiag_sim::set_answer_delay(kSimDelay);
    libdiag_sim::Response short_rsp;
    short_rsp.bytes = short_reply();
    libdiag_sim::Response long_rsp;
    long_rsp.bytes = long_reply();
    libdiag_sim::set_answer(kShortRequest, libdiag_sim::Answer{{short_rsp}});
    libdiag_sim::set_answer(kLongRequest, libdiag_sim::Answer{{long_rsp}});
}

// Sends stdout to /dev/null for the lifetime of the object.
class StdoutToDevNull {
  public:
    StdoutToDevNull() {
        fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        int null_fd = open("/dev/null", O_WRONLY);
        if (saved_ >= 0 && null_fd >= 0) dup2(null_fd, STDOUT_FILENO);
        if (null_fd >= 0) close(null_fd);
    }
    ~StdoutToDevNull() {
        fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
        }
    }
    StdoutToDevNull(const StdoutToDevNull&) = delete;
    StdoutToDevNull& operator=(const StdoutToDevNull&) = delete;

  private:
    int saved_ = -1;
};

// Nearest-rank percentile of sorted |v|.
double percentile(const std::vector<double>& v, double p) {
    size_t rank = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(v.size())));
    return v[std::min(v.size(), std::max<size_t>(rank, 1)) - 1];
}

double median(const std::vector<double>& v) {
    size_t n = v.size();
    return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2.0;
}

struct Case {
    const libdiag_sim::Bytes* request;
    const libdiag_sim::Bytes* reply;
    bool logging_on;
    milliseconds spacing;
};

void BM_DciRoundTrip(benchmark::State& state, Case c) {
    program_simulator();
    tolven_utils_host_set_logcat_levels(0);
    tolven_utils_host_set_shell_levels(c.logging_on ? kShellLevels : 0);
    std::optional<StdoutToDevNull> quiet;
    if (c.logging_on) quiet.emplace();

    const int req_len = static_cast<int>(c.request->size());
    const int want_len = static_cast<int>(c.reply->size());
    std::vector<uint8_t> reply(kReplyCapacity);
    std::vector<double> overhead_us;
    overhead_us.reserve(kSamples);
    bool failed = false;
    // One untimed command first: the simulator's thread and lazy set-up are not the library's.
    int warm_len = kReplyCapacity;
    tolven_diag_cmd_send_with_result(c.request->data(), req_len, kTimeoutMs, reply.data(),
                                     &warm_len);
    for (auto _ : state) {
        std::this_thread::sleep_for(c.spacing);
        libdiag_sim::clear_journal();
        int reply_len = kReplyCapacity;
        Clock::time_point t0 = Clock::now();
        int rc = tolven_diag_cmd_send_with_result(c.request->data(), req_len, kTimeoutMs,
                                                  reply.data(), &reply_len);
        Clock::duration total = Clock::now() - t0;
        double seconds = std::chrono::duration<double>(total - kSimDelay).count();
        state.SetIterationTime(seconds);
        overhead_us.push_back(seconds * 1e6);
        if (!failed && (rc != 0 || reply_len != want_len ||
                        memcmp(reply.data(), c.reply->data(), c.reply->size()) != 0)) {
            failed = true;
            state.SkipWithError("wrong result or reply");
        }
    }
    // Let the last wait timer finish (it logs) before stdout comes back.
    std::this_thread::sleep_for(kSpacing);
    quiet.reset();
    tolven_utils_host_set_shell_levels(0);
    if (failed || overhead_us.empty()) return;

    std::sort(overhead_us.begin(), overhead_us.end());
    state.counters["median_us"] = median(overhead_us);
    state.counters["p99_us"] = percentile(overhead_us, 99.0);
    state.counters["max_us"] = overhead_us.back();
}

void register_cases() {
    struct Named {
        const char* name;
        Case c;
    };
    const Named cases[] = {
            {"reply16/gates_off", {&kShortRequest, &short_reply(), false, kSpacing}},
            {"reply10000/gates_off", {&kLongRequest, &long_reply(), false, kSpacing}},
            {"reply16/shell_on", {&kShortRequest, &short_reply(), true, kSpacing}},
            {"reply10000/shell_on", {&kLongRequest, &long_reply(), true, kSpacing}},
            {"reply16/gates_off/back_to_back", {&kShortRequest, &short_reply(), false, {}}},
            {"reply10000/gates_off/back_to_back", {&kLongRequest, &long_reply(), false, {}}},
    };
    for (const Named& n : cases) {
        benchmark::RegisterBenchmark((std::string("BM_DciRoundTrip/") + n.name).c_str(),
                                     BM_DciRoundTrip, n.c)
                ->UseManualTime()
                ->Iterations(kSamples)
                ->Unit(benchmark::kMicrosecond);
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    register_cases();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
