// The diag wire's vocabulary, shared by both ends and the tool: command codes that matter for
// matching, the error replies, the multi-SIM wrapper and little-endian fields.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <vector>

namespace diag_wire {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kLogPacket = 0x10;
constexpr uint8_t kSubsystem = 0x4B;
constexpr uint8_t kEventReport = 0x60;

// An error reply is its code followed by (a prefix of) the request it refuses.
struct ErrorCode {
    uint8_t code;
    const char* name;
};
constexpr ErrorCode kErrorCodes[] = {
        {0x13, "bad command"},       {0x14, "bad parameters"}, {0x15, "bad length"},
        {0x16, "bad device"},        {0x18, "bad mode"},       {0x42, "bad SPC mode"},
        {0x47, "bad security mode"},
};
constexpr uint8_t kBadCommand = 0x13;
constexpr uint8_t kBadParams = 0x14;
constexpr uint8_t kBadLength = 0x15;
// nullptr when |code| is not an error reply's.
const char* error_name(uint8_t code);
inline bool is_error_code(uint8_t code) {
    return error_name(code) != nullptr;
}
Bytes error_reply(uint8_t code, const Bytes& request);

// Multi-SIM: 98 01 00 00 <u32 subscription> before a packet addresses one subscription, both
// ways; log packets, events and messages of a subscription come wrapped as well.
constexpr uint8_t kMultiSim = 0x98;
constexpr size_t kWrapperLen = 8;
struct Unwrapped {
    bool wrapped = false;
    uint32_t subscription = 0;
    const uint8_t* inner = nullptr;  // the packet itself: after the wrapper, or all of it
    size_t inner_len = 0;
};
Unwrapped unwrap(const uint8_t* packet, size_t n);
Bytes wrap(uint32_t subscription, const uint8_t* packet, size_t n);
inline Bytes wrap(uint32_t subscription, const Bytes& packet) {
    return wrap(subscription, packet.data(), packet.size());
}

// Log packets, event reports with data and messages, plain or wrapped: never an answer.
bool is_unsolicited(const uint8_t* packet, size_t n);

void put_u16(Bytes& b, uint16_t v);
void put_u32(Bytes& b, uint32_t v);
inline uint16_t get_u16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
inline uint32_t get_u32(const uint8_t* p) {
    return get_u16(p) | (static_cast<uint32_t>(get_u16(p + 2)) << 16);
}

}  // namespace diag_wire
