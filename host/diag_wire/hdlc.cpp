#include "hdlc.h"

#include <string.h>

namespace diag_wire::hdlc {
namespace {

constexpr uint16_t kPoly = 0x8408;
constexpr size_t kBufSize = kMaxPayload + 2;

// Slicing-by-8 tables: kTable[k][b] is the CRC step of byte b followed by k zero bytes.
struct Tables {
    uint16_t t[8][256];
    constexpr Tables() : t() {
        for (int b = 0; b < 256; ++b) {
            uint16_t crc = static_cast<uint16_t>(b);
            for (int bit = 0; bit < 8; ++bit) {
                crc = static_cast<uint16_t>(crc & 1 ? (crc >> 1) ^ kPoly : crc >> 1);
            }
            t[0][b] = crc;
        }
        for (int k = 1; k < 8; ++k) {
            for (int b = 0; b < 256; ++b) {
                t[k][b] = static_cast<uint16_t>((t[k - 1][b] >> 8) ^ t[0][t[k - 1][b] & 0xFF]);
            }
        }
    }
};
constexpr Tables kTables;

// 0x7D or 0x7E.
inline bool special(uint8_t b) {
    return static_cast<uint8_t>(b - kEscape) < 2;
}

}  // namespace

uint16_t crc16(const uint8_t* p, size_t n) {
    const auto& t = kTables.t;
    uint16_t crc = 0xFFFF;
    for (; n >= 8; n -= 8, p += 8) {
        crc ^= static_cast<uint16_t>(p[0] | (p[1] << 8));
        crc = t[7][crc & 0xFF] ^ t[6][crc >> 8] ^ t[5][p[2]] ^ t[4][p[3]] ^ t[3][p[4]] ^
              t[2][p[5]] ^ t[1][p[6]] ^ t[0][p[7]];
    }
    for (; n > 0; --n, ++p) crc = (crc >> 8) ^ t[0][(crc ^ *p) & 0xFF];
    return static_cast<uint16_t>(crc ^ 0xFFFF);
}

void encode(const uint8_t* payload, size_t n, std::vector<uint8_t>* out) {
    encode(payload, n, crc16(payload, n), out);
}

void encode(const uint8_t* payload, size_t n, uint16_t crc, std::vector<uint8_t>* out) {
    size_t start = out->size();
    out->resize(start + 2 * (n + 2) + 1);
    uint8_t* o = out->data() + start;
    auto put = [&o](uint8_t b) {
        if (special(b)) {
            *o++ = kEscape;
            b ^= kEscapeXor;
        }
        *o++ = b;
    };
    for (size_t i = 0; i < n; ++i) put(payload[i]);
    put(crc & 0xFF);
    put(crc >> 8);
    *o++ = kFlag;
    out->resize(o - out->data());
}

const char* event_name(Event e) {
    switch (e) {
        case Event::kNone:
            return "none";
        case Event::kFrame:
            return "frame";
        case Event::kBadCrc:
            return "bad CRC";
        case Event::kDanglingEscape:
            return "escape before the flag";
        case Event::kTooShort:
            return "shorter than 3 bytes";
        case Event::kTooLong:
            return "payload over 64 KiB";
    }
    return "?";
}

Decoder::Decoder() : buf_(kBufSize), frame_(kBufSize) {}

size_t Decoder::next(const uint8_t* data, size_t n, Event* event) {
    uint8_t* out = buf_.data();
    size_t len = len_;
    bool escaped = escaped_;
    for (size_t i = 0; i < n; ++i) {
        uint8_t b = data[i];
        if (b == kFlag) {
            len_ = len;
            escaped_ = escaped;
            Event e = end_frame();
            len = 0;
            escaped = false;
            if (e != Event::kNone) {
                *event = e;
                return i + 1;
            }
            continue;
        }
        if (escaped) {
            b ^= kEscapeXor;
            escaped = false;
        } else if (b == kEscape) {
            escaped = true;
            continue;
        }
        if (len < kBufSize) {
            out[len++] = b;
        } else {
            overflow_ = true;
        }
    }
    len_ = len;
    escaped_ = escaped;
    *event = Event::kNone;
    return n;
}

Event Decoder::end_frame() {
    size_t len = len_;
    bool escaped = escaped_, overflow = overflow_;
    len_ = 0;
    escaped_ = overflow_ = false;
    if (escaped) {
        ++counts_.dangling_escape;
        return Event::kDanglingEscape;
    }
    if (overflow) {
        ++counts_.too_long;
        return Event::kTooLong;
    }
    if (len == 0) return Event::kNone;
    if (len < 3) {
        ++counts_.too_short;
        return Event::kTooShort;
    }
    size_t payload = len - 2;
    if (crc16(buf_.data(), payload) != (buf_[payload] | (buf_[payload + 1] << 8))) {
        ++counts_.bad_crc;
        return Event::kBadCrc;
    }
    buf_.swap(frame_);
    frame_len_ = payload;
    ++counts_.frames;
    return Event::kFrame;
}

}  // namespace diag_wire::hdlc
