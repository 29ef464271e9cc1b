// Cost of the hex dump line: the library's text building with both log gates off, one dump with
// the system-log sink on (liblog's logger replaced by a no-op, so nothing is printed), and the
// old rescanning form as the yardstick it must beat.

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include <android/log.h>
#include <benchmark/benchmark.h>

#include "tolven_diag.h"
#include "tolven_utils_host.h"

namespace {

constexpr unsigned kLevelDebugBit = 1u << 4;
constexpr int kMaxLen = 4096;

// The yardstick's limits: room for 3 characters per byte of the longest packet, plus the NUL.
constexpr size_t kYardstickMaxChars = 12288;
constexpr size_t kYardstickSize = kYardstickMaxChars + 1;
constexpr size_t kPieceSize = 6;

constexpr double kLibraryTargetSeconds = 10e-6;
constexpr double kRatioTarget = 100.0;

// Appends |src| to |dst| without letting |dst| exceed kYardstickMaxChars characters; finds the
// end by rescanning every time, which is what makes the yardstick quadratic.
void bounded_append(char* dst, const char* src) {
    size_t used = strlen(dst);
    if (used >= kYardstickMaxChars) return;
    size_t n = strlen(src);
    if (n > kYardstickMaxChars - used) n = kYardstickMaxChars - used;
    memcpy(dst + used, src, n);
    dst[used + n] = '\0';
}

void yardstick_hex(const uint8_t* data, int len, char* text) {
    memset(text, 0, kYardstickSize);
    snprintf(text, kYardstickSize, "%02X", data[0]);
    for (int i = 1; i < len; ++i) {
        char piece[kPieceSize];
        snprintf(piece, sizeof(piece), " %02X", data[i]);
        bounded_append(text, piece);
    }
}

// Every digit value in both nibbles, 00 and FF included.
std::vector<uint8_t> pattern(int len) {
    std::vector<uint8_t> bytes(static_cast<size_t>(len));
    for (int i = 0; i < len; ++i) bytes[static_cast<size_t>(i)] = static_cast<uint8_t>(i * 37 + 11);
    if (len > 1) bytes[1] = 0x00;
    if (len > 2) bytes[2] = 0xFF;
    return bytes;
}

const std::vector<uint8_t>& bench_data() {
    static const std::vector<uint8_t> bytes = pattern(kMaxLen);
    return bytes;
}

std::string g_captured;

void capture_logger(const struct __android_logger_data* /*data*/, const char* msg) {
    g_captured = msg;
}

void discard_logger(const struct __android_logger_data* /*data*/, const char* /*msg*/) {}

void gates_off() {
    tolven_utils_host_set_logcat_levels(0);
    tolven_utils_host_set_shell_levels(0);
}

// A benchmark of a faster form is worthless if the text differs: compare once, before timing.
bool texts_match() {
    const int lengths[] = {1, 2, 3, 15, 16, 255, 256, 4095, 4096};
    static char expected[kYardstickSize];
    tolven_utils_host_set_shell_levels(0);
    tolven_utils_host_set_logcat_levels(kLevelDebugBit);
    __android_log_set_logger(capture_logger);
    bool ok = true;
    for (int len : lengths) {
        std::vector<uint8_t> bytes = pattern(len);
        yardstick_hex(bytes.data(), len, expected);
        g_captured.clear();
        tolven_print_data_with_hex(bytes.data(), len);
        const std::string marker = ", data: ";
        size_t at = g_captured.find(marker);
        std::string got = at == std::string::npos ? "" : g_captured.substr(at + marker.size());
        if (got != expected) {
            fprintf(stderr, "hex text differs at len %d:\n  library:   %.80s\n  yardstick: %.80s\n",
                    len, got.c_str(), expected);
            ok = false;
        }
    }
    __android_log_set_logger(discard_logger);
    gates_off();
    return ok;
}

void BM_LibraryHex(benchmark::State& state) {
    const int len = static_cast<int>(state.range(0));
    const uint8_t* data = bench_data().data();
    gates_off();
    for (auto _ : state) {
        tolven_print_data_with_hex(data, len);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * len);
}

void BM_YardstickHex(benchmark::State& state) {
    const int len = static_cast<int>(state.range(0));
    const uint8_t* data = bench_data().data();
    static char text[kYardstickSize];
    for (auto _ : state) {
        yardstick_hex(data, len, text);
        benchmark::DoNotOptimize(text);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * len);
}

// The whole line: text, prefix, formatting in libtolven_utils and the hand-off to liblog.
void BM_LibraryHexSyslogOn(benchmark::State& state) {
    const int len = static_cast<int>(state.range(0));
    const uint8_t* data = bench_data().data();
    __android_log_set_logger(discard_logger);
    tolven_utils_host_set_shell_levels(0);
    tolven_utils_host_set_logcat_levels(kLevelDebugBit);
    for (auto _ : state) {
        tolven_print_data_with_hex(data, len);
        benchmark::ClobberMemory();
    }
    gates_off();
    state.SetBytesProcessed(state.iterations() * len);
}

BENCHMARK(BM_LibraryHex)->Arg(1)->Arg(256)->Arg(kMaxLen)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_YardstickHex)->Arg(1)->Arg(256)->Arg(kMaxLen)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_LibraryHexSyslogOn)->Arg(1)->Arg(256)->Arg(kMaxLen)->Unit(benchmark::kNanosecond);

// Keeps the real time of every run (the median when repeated) to print the ratio at the end.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            double seconds =
                    run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
            if (run.run_type == Run::RT_Iteration) {
                last_[run.run_name.str()] = seconds;
            } else if (run.aggregate_name == "median") {
                median_[run.run_name.str()] = seconds;
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    // Seconds per iteration, or a negative value when the run did not happen.
    double seconds(const std::string& name) const {
        if (auto it = median_.find(name); it != median_.end()) return it->second;
        if (auto it = last_.find(name); it != last_.end()) return it->second;
        return -1.0;
    }

  private:
    std::map<std::string, double> last_;
    std::map<std::string, double> median_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    if (!texts_match()) {
        fprintf(stderr, "hexdump_bench: library and yardstick texts differ\n");
        abort();
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    const std::string at = "/" + std::to_string(kMaxLen);
    double lib = reporter.seconds("BM_LibraryHex" + at);
    double slow = reporter.seconds("BM_YardstickHex" + at);
    if (lib > 0 && slow > 0) {
        printf("\n%d bytes: library %.2f us (target < %.0f us: %s), yardstick %.2f us, "
               "speed-up %.0fx (target >= %.0fx: %s)\n",
               kMaxLen, lib * 1e6, kLibraryTargetSeconds * 1e6,
               lib < kLibraryTargetSeconds ? "met" : "MISSED", slow * 1e6, slow / lib, kRatioTarget,
               slow / lib >= kRatioTarget ? "met" : "MISSED");
    }
    return 0;
}
