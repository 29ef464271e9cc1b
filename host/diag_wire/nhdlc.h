// Non-HDLC framing of diag packets, as some modems are left in: 7E 01 <u16 length, little-endian>
// <payload> 7E, with no CRC and no escaping, so the payload may hold 7E itself.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <vector>

#include "feed.h"

namespace diag_wire::nhdlc {

constexpr uint8_t kFlag = 0x7E;
constexpr uint8_t kVersion = 0x01;
constexpr size_t kHeaderLen = 4;  // flag, version, length
constexpr size_t kMaxPayload = 0xFFFF;

// Appends the frame of |n| payload bytes to |out|; false when |n| is 0 or over kMaxPayload.
bool encode(const uint8_t* payload, size_t n, std::vector<uint8_t>* out);

enum class Event {
    kNone,       // the input ran out inside a frame (or between frames)
    kFrame,      // a good frame: frame_data() holds its payload
    kNoEndFlag,  // dropped: the byte after the payload is not the flag
    kEmpty,      // dropped: a length of 0
};
const char* event_name(Event e);

// Incremental decoder: bytes may arrive in any split. A frame's end flag may also start the next
// one. Bytes outside frames are skipped. With |keep_payload| false it only counts frames, for
// telling what a port speaks without holding on to its bytes.
class Decoder {
  public:
    explicit Decoder(bool keep_payload = true) : keep_(keep_payload) {}

    // Consumes bytes up to the end of the next frame or drop, or all of them.
    size_t next(const uint8_t* data, size_t n, Event* event);

    template <typename OnFrame, typename OnDrop>
    void feed(const uint8_t* data, size_t n, OnFrame&& on_frame, OnDrop&& on_drop) {
        diag_wire::feed_decoder<Decoder, Event>(*this, data, n, on_frame, on_drop);
    }

    const uint8_t* frame_data() const { return payload_.data(); }
    size_t frame_size() const { return payload_.size(); }
    uint64_t frames() const { return frames_; }
    uint64_t dropped() const { return dropped_; }

  private:
    enum class State { kSeek, kVersion, kLength1, kLength2, kPayload, kEnd };
    const bool keep_;
    State state_ = State::kSeek;
    size_t want_ = 0;  // payload bytes still to come
    size_t length_ = 0;
    std::vector<uint8_t> payload_;
    uint64_t frames_ = 0;
    uint64_t dropped_ = 0;
};

}  // namespace diag_wire::nhdlc
