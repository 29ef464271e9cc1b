#include "framing.h"

#include "hdlc.h"
#include "nhdlc.h"

namespace diag_wire {
namespace {

class HdlcFraming : public Framing {
  public:
    explicit HdlcFraming(FrameSink* sink) : sink_(sink) {}

    FramingKind kind() const override { return FramingKind::kHdlc; }

    bool encode(const uint8_t* payload, size_t n, Bytes* out) const override {
        out->push_back(hdlc::kFlag);
        hdlc::encode(payload, n, out);
        return true;
    }

    void feed(const uint8_t* data, size_t n) override {
        sniffer_.feed(
                data, n, [](const uint8_t*, size_t) {}, [](nhdlc::Event) {});
        decoder_.feed(
                data, n, [this](const uint8_t* f, size_t len) { sink_->on_frame(f, len); },
                [this](hdlc::Event e) { sink_->on_drop(hdlc::event_name(e)); });
    }

    FramingCounts counts() const override {
        const hdlc::Counts& c = decoder_.counts();
        return {c.frames, c.dropped(), sniffer_.frames(), c.bad_crc};
    }

  private:
    FrameSink* const sink_;
    hdlc::Decoder decoder_;
    nhdlc::Decoder sniffer_{false};
};

class NhdlcFraming : public Framing {
  public:
    explicit NhdlcFraming(FrameSink* sink) : sink_(sink) {}

    FramingKind kind() const override { return FramingKind::kNhdlc; }

    bool encode(const uint8_t* payload, size_t n, Bytes* out) const override {
        return nhdlc::encode(payload, n, out);
    }

    void feed(const uint8_t* data, size_t n) override {
        decoder_.feed(
                data, n, [this](const uint8_t* f, size_t len) { sink_->on_frame(f, len); },
                [this](nhdlc::Event e) { sink_->on_drop(nhdlc::event_name(e)); });
    }

    FramingCounts counts() const override { return {decoder_.frames(), decoder_.dropped(), 0, 0}; }

  private:
    FrameSink* const sink_;
    nhdlc::Decoder decoder_;
};

}  // namespace

const char* framing_name(FramingKind kind) {
    return kind == FramingKind::kHdlc ? "hdlc" : "nhdlc";
}

bool parse_framing(const std::string& name, FramingKind* kind) {
    for (FramingKind k : {FramingKind::kHdlc, FramingKind::kNhdlc}) {
        if (name == framing_name(k)) {
            *kind = k;
            return true;
        }
    }
    return false;
}

std::unique_ptr<Framing> open_framing(FramingKind kind, FrameSink* sink) {
    if (kind == FramingKind::kNhdlc) return std::make_unique<NhdlcFraming>(sink);
    return std::make_unique<HdlcFraming>(sink);
}

}  // namespace diag_wire
