// How fast tolven-diag reads a log back: a 100 MB log made of real lines of the library (its
// sends through the simulated modem, logged to a file), repeated as if by many processes, read
// from the file as --read-log reads it. The target is 50 MB/s.

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "libdiag_sim.h"
#include "log_reader.h"
#include "tolven_diag.h"
#include "tolven_utils_host.h"

namespace {

constexpr size_t kLogBytes = 100u << 20;
constexpr double kTargetBytesPerSecond = 50e6;

// A few hundred lines of the library: replies of one piece, of several, cut by the capacity, and
// time-outs, in both transports.
std::string real_lines(const std::string& path) {
    setenv("TOLVEN_LOG_FILE", path.c_str(), 1);
    setenv("TOLVEN_LOG_SYSLOG", "1,4", 1);
    setenv("TOLVEN_INSTANCE_ID", "0", 1);
    tolven_utils_host_reload_env();
    tolven_utils_host::start_capture(true);  // keeps the lines off standard error
    const std::vector<std::vector<uint8_t>> packets = {
            {0x00}, {0x7C}, {0x1C}, {0x4B, 0xFE, 0x02, 0x00, 0x10, 0x27}, {0x4B, 0xFE, 0x09}};
    libdiag_sim::set_answer({0x4B, 0xFE, 0x09}, libdiag_sim::Answer{});
    std::vector<uint8_t> reply(16384);
    for (const auto& p : packets) {
        for (int capacity : {16384, 8}) {
            int len = capacity;
            tolven_diag_cmd_send_with_result(p.data(), static_cast<int>(p.size()), 100,
                                             reply.data(), &len);
            len = capacity;
            tolven_diag_cmd_send_with_result_by_callback_mode(p.data(), static_cast<int>(p.size()),
                                                              100, reply.data(), &len);
        }
    }
    usleep(300000);  // the last wait timer ends
    tolven_utils_host::stop_capture();
    unsetenv("TOLVEN_LOG_FILE");
    tolven_utils_host_reload_env();
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The real lines again and again, each copy as another process (the pid column changed).
const std::string& big_log() {
    static const std::string path = [] {
        std::string dir = getenv("TMPDIR") != nullptr ? getenv("TMPDIR") : "/tmp";
        std::string lines_path = dir + "/log_reader_bench.lines." + std::to_string(getpid());
        std::string lines = real_lines(lines_path);
        unlink(lines_path.c_str());
        std::string log_path = dir + "/log_reader_bench.log." + std::to_string(getpid());
        std::ofstream out(log_path, std::ios::binary);
        size_t written = 0;
        char pid[8];
        for (int copy = 0; written < kLogBytes; ++copy) {
            std::string text = lines;
            snprintf(pid, sizeof pid, "%5d", 10000 + copy % 50000);
            // "MM-DD hh:mm:ss.mmm  PID  TID ...": the pid is the five columns after the time.
            for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) {
                if (text.size() - at > 24) text.replace(at + 19, 5, pid);
                if (text.find('\n', at) == std::string::npos) break;
            }
            out << text;
            written += text.size();
        }
        return log_path;
    }();
    return path;
}

void BM_read_log_file(benchmark::State& state) {
    const std::string& path = big_log();
    size_t commands = 0, bytes = 0;
    for (auto _ : state) {
        commands = 0;
        tolven_diag_tool::LogReader reader(
                [&](const tolven_diag_tool::LoggedCommand&) { ++commands; });
        std::string error;
        if (!tolven_diag_tool::read_log(path, &reader, &error)) state.SkipWithError(error.c_str());
        reader.finish();
        std::ifstream in(path, std::ios::binary | std::ios::ate);
        bytes = static_cast<size_t>(in.tellg());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
    state.counters["commands"] = static_cast<double>(commands);
    state.counters["target_MBps"] = kTargetBytesPerSecond / 1e6;
}
BENCHMARK(BM_read_log_file)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    unlink(big_log().c_str());
    return 0;
}
