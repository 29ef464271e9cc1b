#include "reply_match.h"

#include <string.h>

#include <algorithm>

namespace reply_match {
namespace {

// Bytes of a request that name the command: the code, and for subsystem commands the subsystem
// id and the 16-bit subsystem command after it.
size_t key_size(const Bytes& request) {
    return request[0] == kSubsystem ? std::min<size_t>(request.size(), 4) : 1;
}

}  // namespace

bool is_unsolicited(const uint8_t* frame, size_t n) {
    if (n == 0) return true;
    switch (frame[0]) {
        case 0x10:  // log packet
        case 0x79:  // messages
        case 0x92:
        case 0x99:
            return true;
        case kEventReport:  // the answer to the event report command carries no events
            return n > 3;
        default:
            return false;
    }
}

bool is_error_code(uint8_t code) {
    switch (code) {
        case 0x13:  // bad command
        case 0x14:  // bad parameters
        case 0x15:  // bad length
        case 0x16:  // bad device
        case 0x18:  // bad mode
        case 0x42:  // bad SPC mode
        case 0x47:  // bad security mode
            return true;
        default:
            return false;
    }
}

bool answers(const Bytes& request, const uint8_t* frame, size_t n) {
    if (request.empty() || n == 0 || is_unsolicited(frame, n)) return false;
    size_t key = key_size(request);
    if (frame[0] == request[0]) {
        return n >= key && memcmp(frame + 1, request.data() + 1, key - 1) == 0;
    }
    if (!is_error_code(frame[0])) return false;
    // The echo may be cut short, but not before the command is named.
    size_t echo = std::min(n - 1, request.size());
    return echo >= key && memcmp(frame + 1, request.data(), echo) == 0;
}

}  // namespace reply_match
