#include "nhdlc.h"

#include <string.h>

#include <algorithm>

namespace diag_wire::nhdlc {

bool encode(const uint8_t* payload, size_t n, std::vector<uint8_t>* out) {
    if (n == 0 || n > kMaxPayload) return false;
    out->insert(out->end(),
                {kFlag, kVersion, static_cast<uint8_t>(n & 0xFF), static_cast<uint8_t>(n >> 8)});
    out->insert(out->end(), payload, payload + n);
    out->push_back(kFlag);
    return true;
}

const char* event_name(Event e) {
    switch (e) {
        case Event::kNone:
            return "none";
        case Event::kFrame:
            return "frame";
        case Event::kNoEndFlag:
            return "no flag after the payload";
        case Event::kEmpty:
            return "empty payload";
    }
    return "?";
}

size_t Decoder::next(const uint8_t* data, size_t n, Event* event) {
    *event = Event::kNone;
    size_t i = 0;
    while (i < n) {
        uint8_t b = data[i];
        switch (state_) {
            case State::kSeek:
                if (b == kFlag) state_ = State::kVersion;
                ++i;
                break;
            case State::kVersion:
                // Flags between frames are skipped; anything else than the version is not a frame.
                if (b == kVersion) {
                    state_ = State::kLength1;
                } else if (b != kFlag) {
                    state_ = State::kSeek;
                }
                ++i;
                break;
            case State::kLength1:
                length_ = b;
                state_ = State::kLength2;
                ++i;
                break;
            case State::kLength2:
                length_ |= static_cast<size_t>(b) << 8;
                ++i;
                if (length_ == 0) {
                    ++dropped_;
                    state_ = State::kSeek;
                    *event = Event::kEmpty;
                    return i;
                }
                want_ = length_;
                payload_.clear();
                state_ = State::kPayload;
                break;
            case State::kPayload: {
                size_t take = std::min(want_, n - i);
                if (keep_) payload_.insert(payload_.end(), data + i, data + i + take);
                want_ -= take;
                i += take;
                if (want_ == 0) state_ = State::kEnd;
                break;
            }
            case State::kEnd:
                ++i;
                if (b == kFlag) {
                    ++frames_;
                    state_ = State::kVersion;
                    *event = Event::kFrame;
                } else {
                    ++dropped_;
                    state_ = State::kSeek;
                    *event = Event::kNoEndFlag;
                }
                return i;
        }
    }
    return n;
}

}  // namespace diag_wire::nhdlc
