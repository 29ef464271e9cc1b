// HDLC framing on any bytes in any split: the decoder never crashes, keeps its frames within
// the cap, decodes the same whatever the split, and decode(encode(x)) == x for every payload.

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "contract.h"
#include "hdlc.h"

namespace {

namespace hdlc = diag_wire::hdlc;
using Bytes = std::vector<uint8_t>;

struct Result {
    std::vector<Bytes> frames;
    uint64_t drops = 0;
};

// Feeds |in| in pieces whose sizes come from |splits| (cycled), one byte when it runs out.
Result decode(const Bytes& in, const std::vector<uint8_t>& splits) {
    hdlc::Decoder d;
    Result r;
    size_t k = 0;
    for (size_t i = 0; i < in.size();) {
        size_t n = splits.empty() ? in.size() : std::max<size_t>(1, splits[k++ % splits.size()]);
        n = std::min(n, in.size() - i);
        d.feed(
                in.data() + i, n,
                [&](const uint8_t* f, size_t len) {
                    require(len >= 1 && len <= hdlc::kMaxPayload, "frame within bounds");
                    r.frames.emplace_back(f, f + len);
                },
                [&](hdlc::Event e) {
                    require(e != hdlc::Event::kNone && e != hdlc::Event::kFrame, "drop reason");
                    ++r.drops;
                });
        i += n;
    }
    require(d.counts().frames == r.frames.size() && d.counts().dropped() == r.drops, "counts");
    return r;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    std::vector<uint8_t> splits = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange(0, 16));
    const bool as_payloads = in.ConsumeBool();

    if (!as_payloads) {
        // raw bytes: split-invariance against one whole feed
        Bytes raw = in.ConsumeRemainingBytes<uint8_t>();
        Result whole = decode(raw, {});
        Result split = decode(raw, splits);
        require(whole.frames == split.frames && whole.drops == split.drops, "split invariance");
        return 0;
    }

    // payloads, framed back to back (some after garbage ended by a flag): each comes back whole
    std::vector<Bytes> payloads;
    Bytes stream;
    while (in.remaining_bytes() > 0) {
        if (in.ConsumeIntegralInRange(0, 7) == 0) {
            Bytes junk = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange(0, 8));
            stream.insert(stream.end(), junk.begin(), junk.end());
            stream.push_back(hdlc::kFlag);
        }
        Bytes p = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(1, 300));
        if (p.empty()) break;
        hdlc::encode(p.data(), p.size(), &stream);
        payloads.push_back(std::move(p));
    }
    Result r = decode(stream, splits);
    // junk may itself decode to a frame (a CRC match by chance); the payloads come in order
    size_t next = 0;
    for (const Bytes& f : r.frames) {
        if (next < payloads.size() && f == payloads[next]) ++next;
    }
    require(next == payloads.size(), "decode(encode(x)) == x");
    return 0;
}
