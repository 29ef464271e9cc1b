// The loop that both framings' decoders share: bytes in, frames and drops out.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace diag_wire {

// Feeds |n| bytes to |decoder|, calling on_frame(payload, size) for each good frame and
// on_drop(event) for each dropped one. Decoder::next consumes bytes up to the end of one frame
// (or all of them) and says what ended there; its Event has kNone and kFrame.
template <typename Decoder, typename Event, typename OnFrame, typename OnDrop>
void feed_decoder(Decoder& decoder, const uint8_t* data, size_t n, OnFrame&& on_frame,
                  OnDrop&& on_drop) {
    while (n > 0) {
        Event e;
        size_t used = decoder.next(data, n, &e);
        data += used;
        n -= used;
        if (e == Event::kFrame) {
            on_frame(decoder.frame_data(), decoder.frame_size());
        } else if (e != Event::kNone) {
            on_drop(e);
        }
    }
}

}  // namespace diag_wire
