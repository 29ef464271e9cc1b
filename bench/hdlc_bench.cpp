// HDLC encode and decode throughput on random payloads (about one byte in 128 needs escaping),
// in payload bytes per second.

#include <stdint.h>

#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "hdlc.h"

namespace {

namespace hdlc = diag_wire::hdlc;

std::vector<uint8_t> random_payload(size_t n) {
    std::mt19937 rng(1);
    std::vector<uint8_t> p(n);
    for (uint8_t& b : p) b = static_cast<uint8_t>(rng());
    return p;
}

void BM_HdlcEncode(benchmark::State& state) {
    const std::vector<uint8_t> payload = random_payload(state.range(0));
    std::vector<uint8_t> out;
    out.reserve(2 * payload.size() + 8);
    for (auto _ : state) {
        out.clear();
        hdlc::encode(payload.data(), payload.size(), &out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * payload.size()));
}

// Frames of the given payload size back to back, fed in 16 KiB reads as the port reads them.
void BM_HdlcDecode(benchmark::State& state) {
    const std::vector<uint8_t> payload = random_payload(state.range(0));
    std::vector<uint8_t> stream;
    size_t frames = std::max<size_t>(1, (1 << 20) / payload.size());
    for (size_t i = 0; i < frames; ++i) hdlc::encode(payload.data(), payload.size(), &stream);
    hdlc::Decoder decoder;
    size_t good = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < stream.size(); i += 16384) {
            decoder.feed(
                    stream.data() + i, std::min<size_t>(16384, stream.size() - i),
                    [&](const uint8_t*, size_t) { ++good; }, [](hdlc::Event) {});
        }
    }
    if (good != frames * state.iterations()) state.SkipWithError("frames lost");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frames * payload.size()));
}

BENCHMARK(BM_HdlcEncode)->Arg(64)->Arg(4096)->Arg(65536);
BENCHMARK(BM_HdlcDecode)->Arg(64)->Arg(4096)->Arg(65536);

}  // namespace

BENCHMARK_MAIN();
