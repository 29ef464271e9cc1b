// HDLC-like framing of diag packets on a serial port: payload, CRC-16/X-25 (little-endian), then
// the 0x7E flag; 0x7E and 0x7D inside are sent as 0x7D followed by the byte xor 0x20.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <vector>

#include "feed.h"

namespace diag_wire::hdlc {

constexpr uint8_t kFlag = 0x7E;
constexpr uint8_t kEscape = 0x7D;
constexpr uint8_t kEscapeXor = 0x20;
// Longest payload the decoder keeps; a longer frame is dropped.
constexpr size_t kMaxPayload = 64 * 1024;

// CRC-16/X-25 (reflected polynomial 0x8408, init 0xFFFF, final xor 0xFFFF) of |n| bytes.
uint16_t crc16(const uint8_t* data, size_t n);

// Appends the frame of |n| payload bytes to |out|.
void encode(const uint8_t* payload, size_t n, std::vector<uint8_t>* out);
// The same with a given CRC, for peers that send bad frames on purpose.
void encode(const uint8_t* payload, size_t n, uint16_t crc, std::vector<uint8_t>* out);

enum class Event {
    kNone,            // the input ran out inside a frame (or between frames)
    kFrame,           // a good frame: frame() holds its payload
    kBadCrc,          // dropped: the CRC does not match
    kDanglingEscape,  // dropped: 0x7D right before the flag
    kTooShort,        // dropped: fewer than 3 bytes (payload and CRC)
    kTooLong,         // dropped: payload over kMaxPayload
};
const char* event_name(Event e);

struct Counts {
    uint64_t frames = 0;
    uint64_t bad_crc = 0;
    uint64_t dangling_escape = 0;
    uint64_t too_short = 0;
    uint64_t too_long = 0;
    uint64_t dropped() const { return bad_crc + dangling_escape + too_short + too_long; }
};

// Incremental decoder: bytes may arrive in any split. Leading flags and empty frames are
// skipped; memory stays bounded whatever the input.
class Decoder {
  public:
    Decoder();

    // Consumes bytes up to and including the next flag that ends a frame, or all of them.
    // Returns how many it consumed and, in |*event|, what that flag meant (kNone: no such flag).
    size_t next(const uint8_t* data, size_t n, Event* event);

    // Calls on_frame(payload, size) for each good frame and on_drop(Event) for each dropped one.
    template <typename OnFrame, typename OnDrop>
    void feed(const uint8_t* data, size_t n, OnFrame&& on_frame, OnDrop&& on_drop) {
        diag_wire::feed_decoder<Decoder, Event>(*this, data, n, on_frame, on_drop);
    }

    // The payload of the last kFrame, valid until the next call.
    const uint8_t* frame_data() const { return frame_.data(); }
    size_t frame_size() const { return frame_len_; }
    const Counts& counts() const { return counts_; }

  private:
    Event end_frame();

    // Both hold kMaxPayload + 2 bytes from the start, and trade places when a frame is good.
    std::vector<uint8_t> buf_;  // unescaped payload and CRC so far
    size_t len_ = 0;
    std::vector<uint8_t> frame_;
    size_t frame_len_ = 0;
    bool escaped_ = false;
    bool overflow_ = false;
    Counts counts_;
};

}  // namespace diag_wire::hdlc
