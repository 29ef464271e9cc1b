// Non-HDLC framing on any bytes in any split: the same frames and drops whatever the split, each
// frame framed in the bytes as reported, counts that agree, a counting-only decoder and both
// framings in step with it; and payloads encoded back to back, between extra flags, shared flags
// or noise, decode to exactly themselves (and, at the HDLC framing, count as foreign frames).

#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "contract.h"
#include "framing.h"
#include "nhdlc.h"

namespace {

namespace nhdlc = diag_wire::nhdlc;
using Bytes = std::vector<uint8_t>;
using diag_wire::FramingKind;
using nhdlc::Event;

// Feeds |in| in pieces whose sizes come from |splits| (cycled, 0 as 1), or all at once; pieces
// grow with streams over 4 KiB (long payloads), to keep the runs fast.
template <typename Feed>
void in_pieces(const Bytes& in, const Bytes& splits, Feed&& feed) {
    const size_t scale = 1 + in.size() / 4096;
    size_t k = 0;
    for (size_t i = 0; i < in.size();) {
        size_t n = splits.empty() ? in.size()
                                  : std::max<size_t>(1, splits[k++ % splits.size()]) * scale;
        n = std::min(n, in.size() - i);
        feed(in.data() + i, n);
        i += n;
    }
}

struct Result {
    std::vector<Event> events;  // frames and drops in order
    std::vector<Bytes> frames;
};

Result decode(const Bytes& in, const Bytes& splits, bool keep_payload) {
    nhdlc::Decoder d(keep_payload);
    Result r;
    in_pieces(in, splits, [&](const uint8_t* p, size_t n) {
        d.feed(
                p, n,
                [&](const uint8_t* f, size_t len) {
                    r.events.push_back(Event::kFrame);
                    if (!keep_payload) return;
                    require(len >= 1 && len <= nhdlc::kMaxPayload, "frame within bounds");
                    r.frames.emplace_back(f, f + len);
                },
                [&](Event e) {
                    require(e == Event::kNoEndFlag || e == Event::kEmpty, "drop reason");
                    r.events.push_back(e);
                });
    });
    size_t frames = std::count(r.events.begin(), r.events.end(), Event::kFrame);
    require(d.frames() == frames && d.dropped() == r.events.size() - frames, "counts");
    return r;
}

// Each event of a whole feed is where it says: a frame is flag, version, length, payload, flag.
void check_in_bytes(const Bytes& in) {
    nhdlc::Decoder d;
    for (size_t at = 0; at < in.size();) {
        Event e;
        at += d.next(in.data() + at, in.size() - at, &e);
        const uint8_t* end = in.data() + at;  // just past the byte that ended it
        if (e == Event::kFrame) {
            size_t n = d.frame_size();
            const uint8_t* head = at >= n + 5 ? end - (n + 5) : nullptr;
            require(head != nullptr && head[0] == nhdlc::kFlag && head[1] == nhdlc::kVersion &&
                            diag_wire::get_u16(head + 2) == n &&
                            memcmp(head + 4, d.frame_data(), n) == 0 && end[-1] == nhdlc::kFlag,
                    "a frame is framed in the bytes");
        } else if (e == Event::kEmpty) {
            require(at >= 4 && memcmp(end - 4, "\x7E\x01\x00\x00", 4) == 0,
                    "an empty frame is in the bytes");
        } else if (e == Event::kNoEndFlag) {
            require(end[-1] != nhdlc::kFlag, "no end flag");
        }
    }
}

struct Sink : diag_wire::FrameSink {
    std::vector<Bytes> frames;
    std::vector<std::string> drops;
    void on_frame(const uint8_t* p, size_t n) override { frames.emplace_back(p, p + n); }
    void on_drop(const char* why) override { drops.emplace_back(why); }
};

diag_wire::FramingCounts through(FramingKind kind, const Bytes& in, const Bytes& splits,
                                 Sink* sink) {
    auto framing = diag_wire::open_framing(kind, sink);
    in_pieces(in, splits, [&](const uint8_t* p, size_t n) { framing->feed(p, n); });
    diag_wire::FramingCounts c = framing->counts();
    require(c.frames == sink->frames.size() && c.dropped == sink->drops.size(),
            "framing counts what it reported");
    return c;
}

void raw(const Bytes& in, const Bytes& splits) {
    Result whole = decode(in, {}, true);
    check_in_bytes(in);
    Result split = decode(in, splits, true);
    require(split.events == whole.events && split.frames == whole.frames, "split invariance");
    require(decode(in, splits, false).events == whole.events, "counting decoder agrees");

    Sink nh;
    require(through(FramingKind::kNhdlc, in, splits, &nh).foreign == 0, "no foreign at nhdlc");
    std::vector<std::string> drops;
    for (Event e : whole.events) {
        if (e != Event::kFrame) drops.push_back(nhdlc::event_name(e));
    }
    require(nh.frames == whole.frames && nh.drops == drops, "nhdlc framing is the decoder");
    Sink hd;
    require(through(FramingKind::kHdlc, in, splits, &hd).foreign == whole.frames.size(),
            "hdlc framing counts the non-HDLC frames as foreign");
}

void payloads(FuzzedDataProvider& in, const Bytes& splits) {
    std::vector<Bytes> sent;
    Bytes stream;
    while (in.remaining_bytes() > 0 && stream.size() < (1u << 16)) {
        // mostly short payloads; now and then one near or over the 16-bit length
        size_t n = in.ConsumeIntegralInRange<size_t>(
                0, in.ConsumeIntegralInRange(0, 7) ? 64 : 0x10000);
        Bytes p = in.ConsumeBytes<uint8_t>(std::min<size_t>(n, 32));
        p.resize(n, nhdlc::kFlag);
        Bytes frame;
        if (n == 0 || n > nhdlc::kMaxPayload) {
            require(!nhdlc::encode(p.data(), n, &frame) && frame.empty(), "encode refuses");
            continue;
        }
        require(nhdlc::encode(p.data(), n, &frame), "encode");
        switch (in.ConsumeIntegralInRange(0, 3)) {
            case 0:  // the last frame's end flag starts this one
                if (!stream.empty()) frame.erase(frame.begin());
                break;
            case 1:  // flags between frames
                stream.insert(stream.end(), in.ConsumeIntegralInRange(1, 3), nhdlc::kFlag);
                break;
            case 2: {  // noise: no flag, and no version right after one
                Bytes noise = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange(1, 8));
                for (uint8_t& b : noise) b = b == nhdlc::kFlag ? 0 : b;
                if (!noise.empty() && noise[0] == nhdlc::kVersion) noise[0] = 0;
                stream.insert(stream.end(), noise.begin(), noise.end());
                break;
            }
        }
        stream.insert(stream.end(), frame.begin(), frame.end());
        sent.push_back(std::move(p));
    }
    Result r = decode(stream, splits, true);
    require(r.frames == sent && r.events.size() == sent.size(), "decode(encode(x)) == x");
    require(decode(stream, splits, false).events.size() == sent.size(), "counting decoder");
    Sink nh;
    through(FramingKind::kNhdlc, stream, splits, &nh);
    require(nh.frames == sent && nh.drops.empty(), "nhdlc framing round trip");
    Sink hd;
    require(through(FramingKind::kHdlc, stream, splits, &hd).foreign == sent.size(),
            "non-HDLC frames count as foreign");

    // The other way: HDLC frames count as foreign only if a payload starts like a version.
    Bytes hdlc_stream;
    bool version_first = false;
    Sink back;
    auto encoder = diag_wire::open_framing(FramingKind::kHdlc, &back);
    for (const Bytes& p : sent) {
        encoder->encode(p.data(), p.size(), &hdlc_stream);
        version_first |= p[0] == nhdlc::kVersion;
    }
    diag_wire::FramingCounts c = through(FramingKind::kHdlc, hdlc_stream, splits, &back);
    require(back.frames == sent && back.drops.empty(), "hdlc framing round trip");
    require(version_first || c.foreign == 0, "HDLC frames are not foreign");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const bool as_payloads = in.ConsumeBool();
    Bytes splits = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange(0, 16));
    if (as_payloads) {
        payloads(in, splits);
    } else {
        raw(in.ConsumeRemainingBytes<uint8_t>(), splits);
    }
    return 0;
}
