#include "matcher.h"

#include <string.h>

#include <algorithm>

namespace matcher {
namespace {

using namespace diag_wire;

// Bytes of a plain request that name the command: the code, and for subsystem commands the
// subsystem id and the 16-bit subsystem command after it.
size_t key_size(const uint8_t* request, size_t n) {
    return request[0] == kSubsystem ? std::min<size_t>(n, 4) : 1;
}

bool plain_answers(const uint8_t* request, size_t req_n, const uint8_t* frame, size_t n) {
    if (req_n == 0 || n == 0) return false;
    size_t key = key_size(request, req_n);
    if (frame[0] == request[0]) return n >= key && memcmp(frame + 1, request + 1, key - 1) == 0;
    if (!is_error_code(frame[0])) return false;
    // The echo may be cut short, but not before the command is named.
    size_t echo = std::min(n - 1, req_n);
    return echo >= key && memcmp(frame + 1, request, echo) == 0;
}

}  // namespace

bool answers(const Bytes& request, const uint8_t* frame, size_t n) {
    if (request.empty() || n == 0 || is_unsolicited(frame, n)) return false;
    Unwrapped req = unwrap(request.data(), request.size());
    Unwrapped got = unwrap(frame, n);
    if (!req.wrapped)
        return !got.wrapped && plain_answers(request.data(), request.size(), frame, n);
    if (got.wrapped) {
        return got.subscription == req.subscription &&
               plain_answers(req.inner, req.inner_len, got.inner, got.inner_len);
    }
    // An error reply that echoes the whole wrapped request, as far as the packet's command.
    if (!is_error_code(frame[0])) return false;
    size_t key = kWrapperLen + (req.inner_len > 0 ? key_size(req.inner, req.inner_len) : 0);
    size_t echo = std::min(n - 1, request.size());
    return echo >= key && memcmp(frame + 1, request.data(), echo) == 0;
}

}  // namespace matcher
