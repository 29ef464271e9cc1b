// How packets travel on a diag port: HDLC (the default) or non-HDLC framing, behind one interface
// for both ends of the wire. A framing is opened with the sink it reports frames to.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>

#include "wire.h"

namespace diag_wire {

enum class FramingKind { kHdlc, kNhdlc };
const char* framing_name(FramingKind kind);  // "hdlc", "nhdlc"
bool parse_framing(const std::string& name, FramingKind* kind);

class FrameSink {
  public:
    virtual void on_frame(const uint8_t* payload, size_t n) = 0;
    virtual void on_drop(const char* why) = 0;

  protected:
    ~FrameSink() = default;
};

struct FramingCounts {
    uint64_t frames = 0;
    uint64_t dropped = 0;
    // Frames of the other framing among the bytes: at HDLC, non-HDLC frames, which tell that the
    // peer was left in non-HDLC framing.
    uint64_t foreign = 0;
    // Of the dropped frames, those whose CRC was wrong (HDLC only): bytes garbled on the line.
    uint64_t bad_crc = 0;
};

class Framing {
  public:
    virtual ~Framing() = default;
    virtual FramingKind kind() const = 0;
    // Appends the frame of |n| payload bytes to |out|; false when the framing cannot carry them.
    // An HDLC frame starts with a flag, which ends whatever partial frame the peer holds.
    virtual bool encode(const uint8_t* payload, size_t n, Bytes* out) const = 0;
    // Decodes bytes in any split, reporting each frame and each dropped one to the sink.
    virtual void feed(const uint8_t* data, size_t n) = 0;
    virtual FramingCounts counts() const = 0;
};

std::unique_ptr<Framing> open_framing(FramingKind kind, FrameSink* sink);

}  // namespace diag_wire
