#include "wire.h"

#include <string.h>

#include <algorithm>

namespace diag_wire {

const char* error_name(uint8_t code) {
    for (const ErrorCode& e : kErrorCodes) {
        if (e.code == code) return e.name;
    }
    return nullptr;
}

Bytes error_reply(uint8_t code, const Bytes& request) {
    Bytes r(request.size() + 1);
    r[0] = code;
    std::copy(request.begin(), request.end(), r.begin() + 1);
    return r;
}

Unwrapped unwrap(const uint8_t* packet, size_t n) {
    static constexpr uint8_t kHead[] = {kMultiSim, 0x01, 0x00, 0x00};
    Unwrapped u;
    if (n >= kWrapperLen && memcmp(packet, kHead, sizeof kHead) == 0) {
        u.wrapped = true;
        u.subscription = get_u32(packet + 4);
        u.inner = packet + kWrapperLen;
        u.inner_len = n - kWrapperLen;
    } else {
        u.inner = packet;
        u.inner_len = n;
    }
    return u;
}

Bytes wrap(uint32_t subscription, const uint8_t* packet, size_t n) {
    Bytes w{kMultiSim, 0x01, 0x00, 0x00};
    put_u32(w, subscription);
    w.insert(w.end(), packet, packet + n);
    return w;
}

bool is_unsolicited(const uint8_t* packet, size_t n) {
    Unwrapped u = unwrap(packet, n);
    if (u.inner_len == 0) return true;
    switch (u.inner[0]) {
        case kLogPacket:
        case 0x79:  // messages
        case 0x92:
        case 0x99:
            return true;
        case kEventReport:  // the answer to the event report command carries no events
            return u.inner_len > 3;
        default:
            return false;
    }
}

void put_u16(Bytes& b, uint16_t v) {
    b.push_back(v & 0xFF);
    b.push_back(v >> 8);
}

void put_u32(Bytes& b, uint32_t v) {
    put_u16(b, v & 0xFFFF);
    put_u16(b, v >> 16);
}

}  // namespace diag_wire
