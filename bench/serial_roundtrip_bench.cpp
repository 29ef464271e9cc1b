// Round trip of one short synchronous command through libtolven_diag.so, the host libdiag's port
// modem and a pty to the pty modem on a thread of this program, in both transports. Samples are
// spaced 150 ms apart, since the library's wait timer ticks on for up to 100 ms after a command;
// the median and p99 of per-command samples are reported.

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "libdiag_sim.h"
#include "pty_modem.h"
#include "tolven_diag.h"
#include "tolven_utils_host.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kSpacing{150};
constexpr int kSamples = 100;
constexpr int kTimeoutMs = 1000;
constexpr size_t kVersionReplySize = 55;

using SendFn = int (*)(const uint8_t*, int, int, uint8_t*, int*);

double percentile(const std::vector<double>& v, double p) {
    size_t rank = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(v.size())));
    return v[std::min(v.size(), std::max<size_t>(rank, 1)) - 1];
}

void BM_SerialRoundTrip(benchmark::State& state, SendFn send) {
    std::string error;
    std::unique_ptr<pty_modem::Modem> modem = pty_modem::Modem::open({}, &error);
    if (modem == nullptr) {
        state.SkipWithError(error.c_str());
        return;
    }
    modem->start();
    setenv("LIBDIAG_PORT", modem->path().c_str(), 1);
    libdiag_sim::reset();
    tolven_utils_host_set_logcat_levels(0);
    tolven_utils_host_set_shell_levels(0);

    const uint8_t request[] = {0x00};
    std::vector<uint8_t> reply(16384);
    std::vector<double> us;
    bool failed = false;
    for (auto _ : state) {
        std::this_thread::sleep_for(kSpacing);
        int len = static_cast<int>(reply.size());
        Clock::time_point t0 = Clock::now();
        int rc = send(request, 1, kTimeoutMs, reply.data(), &len);
        double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
        state.SetIterationTime(seconds);
        us.push_back(seconds * 1e6);
        if (!failed && (rc != 0 || len != static_cast<int>(kVersionReplySize))) {
            failed = true;
            state.SkipWithError("wrong result or reply");
        }
    }
    std::this_thread::sleep_for(kSpacing);
    unsetenv("LIBDIAG_PORT");
    libdiag_sim::reset();
    if (failed || us.empty()) return;
    std::sort(us.begin(), us.end());
    state.counters["median_us"] = percentile(us, 50.0);
    state.counters["p99_us"] = percentile(us, 99.0);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    for (auto [name, fn] :
         {std::make_pair("dci", tolven_diag_cmd_send_with_result_by_dci_mode),
          std::make_pair("callback", tolven_diag_cmd_send_with_result_by_callback_mode)}) {
        benchmark::RegisterBenchmark((std::string("BM_SerialRoundTrip/") + name).c_str(),
                                     BM_SerialRoundTrip, fn)
                ->UseManualTime()
                ->Iterations(kSamples)
                ->Unit(benchmark::kMicrosecond);
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
