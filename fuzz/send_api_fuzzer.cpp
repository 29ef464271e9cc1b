// The public synchronous sends driven by a byte script: each step picks a transport, a packet
// (null, empty or too long included), a reply buffer and capacity, a time limit, and what the
// simulated modem answers: nothing, or responses cut into arbitrary pieces with small delays.
// Commands run back to back, as a caller may make them.
//
// Checked: refused parameters leave the reply alone; nothing is written past the capacity; a
// result of 0 hands over exactly what the model of the modem and the library says for this very
// command, whatever earlier ones left stored, and a result of 1 only comes when the model says
// the wait ends by the time limit.

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include <android/log.h>
#include <fuzzer/FuzzedDataProvider.h>

#include "contract.h"
#include "libdiag_sim.h"
#include "tolven_diag_internal.h"
#include "tolven_utils_host.h"

namespace {

using libdiag_sim::Answer;
using libdiag_sim::Bytes;
using libdiag_sim::Response;
using std::chrono::milliseconds;

constexpr int kPieceLen = 4096;
constexpr int kMaxPiece = 10240;  // the response check's limit
constexpr uint8_t kUntouched = 0xEE;

void discard_logger(const struct __android_logger_data*, const char*) {}

// What the caller must get for one command, from the pieces the modem sends.
struct Outcome {
    bool ends_by_limit;        // no response ends the wait before the time limit
    std::vector<Bytes> valid;  // replies a result of 0 may hand over (before the capacity cut)
};

Outcome model_dci(const std::vector<int>& pieces, const Bytes& reply) {
    Outcome o{true, {}};
    Bytes stored;
    size_t offset = 0;
    for (int len : pieces) {
        Bytes piece(reply.begin() + offset, reply.begin() + offset + len);
        offset += len;
        if (len < 1 || len > kMaxPiece) continue;  // refused, nothing stored
        stored.insert(stored.end(), piece.begin(), piece.end());
        // The first piece that is not exactly 4096 bytes wakes the sender; pieces that follow
        // at once may still be appended before it copies.
        if (len != kPieceLen) o.ends_by_limit = false;
        if (!o.ends_by_limit) o.valid.push_back(stored);
    }
    // At the limit, full pieces only count as an answer.
    if (o.ends_by_limit && !stored.empty() && stored.size() % kPieceLen == 0) {
        o.valid.push_back(stored);
    }
    return o;
}

Outcome model_callback(const std::vector<Bytes>& responses) {
    Outcome o{true, {}};
    for (const Bytes& r : responses) {
        if (r.empty() || r.size() > static_cast<size_t>(kMaxPiece)) continue;
        o.ends_by_limit = false;
        o.valid.push_back(r);
    }
    return o;
}

// Cuts |total| bytes into pieces chosen by the script; sizes of 4096 and over the check's limit
// come up on purpose.
std::vector<int> cut(FuzzedDataProvider& in, int total) {
    std::vector<int> pieces;
    int left = total;
    while (left > 0 && pieces.size() < 8) {
        int len;
        switch (in.ConsumeIntegralInRange<int>(0, 3)) {
            case 0:
                len = kPieceLen;
                break;
            case 1:
                len = left;
                break;
            default:
                len = in.ConsumeIntegralInRange<int>(1, 12000);
        }
        len = std::min(len, left);
        pieces.push_back(len);
        left -= len;
    }
    if (left > 0) pieces.push_back(left);
    return pieces;
}

void one_command(FuzzedDataProvider& in) {
    const bool callback = in.ConsumeBool();
    Bytes packet = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 64));
    int data_len = static_cast<int>(packet.size());
    const uint8_t* data = packet.data();
    switch (in.ConsumeIntegralInRange<int>(0, 15)) {
        case 0:
            data = nullptr;
            break;
        case 1:
            data_len = in.ConsumeBool() ? 4097 : -1;
            packet.resize(4097);
            data = packet.data();
            break;
        case 2:
            // The largest packet; the reply must not be appended to anything older.
            packet.resize(4096, 0x5A);
            data_len = 4096;
            data = packet.data();
            break;
        default:
            break;
    }
    int capacity = in.ConsumeIntegralInRange<int>(-1, 17000);
    const bool null_buf = in.ConsumeIntegralInRange<int>(0, 15) == 0;
    const bool null_len = in.ConsumeIntegralInRange<int>(0, 15) == 0;

    // The modem's answer to exactly this packet.
    std::vector<int> pieces;
    std::vector<Bytes> responses;
    Answer answer;
    // Mostly answered: a wait that ends by the limit costs a tick of 100 ms.
    if (in.ConsumeIntegralInRange<int>(0, 7) > 0) {
        int n = callback ? in.ConsumeIntegralInRange<int>(1, 3) : 1;
        for (int i = 0; i < n; ++i) {
            Response r;
            // Callback mode refuses responses over 10240 bytes; the wait then ends by the limit.
            int max = callback && in.ConsumeIntegralInRange<int>(0, 7) > 0 ? kMaxPiece : 16384;
            int total = in.ConsumeIntegralInRange<int>(0, max);
            r.bytes.resize(total);
            for (int b = 0; b < total; ++b) r.bytes[b] = static_cast<uint8_t>(b * 7 + i);
            if (!callback) {
                pieces = cut(in, total);
                r.pieces = pieces;
            }
            r.delay = milliseconds(in.ConsumeIntegralInRange<int>(0, 10));
            responses.push_back(r.bytes);
            answer.responses.push_back(std::move(r));
        }
    }
    Outcome model = callback ? model_callback(responses)
                             : model_dci(pieces, responses.empty() ? Bytes{} : responses[0]);
    // Answers come well inside a generous limit; a wait that ends by the limit is kept short
    // (callback mode puts 3000 in place of a limit outside 1..60000).
    const int timeout_ms = !model.ends_by_limit ? 5000
                           : callback           ? in.ConsumeIntegralInRange<int>(1, 150)
                                                : in.ConsumeIntegralInRange<int>(-50, 150);
    libdiag_sim::clear_answers();
    if (!packet.empty()) libdiag_sim::set_answer(packet, answer);

    // Exactly |capacity| bytes, so that a write past it is an ASan finding.
    Bytes reply(capacity > 0 ? capacity : 1, kUntouched);
    int reply_len = capacity;
    int result = (callback ? tolven_diag_cmd_send_with_result_by_callback_mode
                           : tolven_diag_cmd_send_with_result)(data, data_len, timeout_ms,
                                                               null_buf ? nullptr : reply.data(),
                                                               null_len ? nullptr : &reply_len);

    const bool refused = data == nullptr || data_len < 1 || data_len > 4096 || null_buf ||
                         null_len || capacity <= 0;
    if (refused) {
        require(result == 1, "refused parameters fail");
        require(reply_len == capacity, "refused: reply length untouched");
        require(std::all_of(reply.begin(), reply.end(), [](uint8_t b) { return b == kUntouched; }),
                "refused: reply untouched");
        return;
    }
    require(result == 0 || result == 1, "result is 0 or 1");
    require(reply_len >= 0 && reply_len <= capacity, "reply length within the capacity");
    if (result == 1) {
        require(model.ends_by_limit || model.valid.empty(), "failed although answered");
        return;
    }
    bool matched = false;
    if (getenv("SEND_API_FUZZER_DEBUG") != nullptr) {
        fprintf(stderr, "%s len %d cap %d timeout %d result %d reply_len %d; responses:",
                callback ? "callback" : "dci", data_len, capacity, timeout_ms, result, reply_len);
        for (const Bytes& r : responses) fprintf(stderr, " %zu", r.size());
        fprintf(stderr, "; pieces:");
        for (int p : pieces) fprintf(stderr, " %d", p);
        fprintf(stderr, "; valid:");
        for (const Bytes& v : model.valid) fprintf(stderr, " %zu", v.size());
        fprintf(stderr, "\n");
    }
    for (const Bytes& v : model.valid) {
        size_t want = std::min<size_t>(v.size(), capacity);
        matched = matched || (static_cast<size_t>(reply_len) == want &&
                              std::equal(v.begin(), v.begin() + want, reply.begin()));
    }
    require(matched, "result 0 hands over the modem's reply");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __android_log_set_logger(discard_logger);
    tolven_utils_host_set_logcat_levels((1u << 1) | (1u << 4));
    libdiag_sim::reset();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
    FuzzedDataProvider in(input, size);
    // Each input starts from an empty store; its commands then follow one another with whatever
    // the last one left (a length of whole pieces among it), and timers of earlier commands may
    // still tick: neither may make a command succeed without its own reply.
    tolven_diag_reset_for_test(0);
    for (int step = 0; step < 4 && in.remaining_bytes() > 0; ++step) one_command(in);
    return 0;
}
