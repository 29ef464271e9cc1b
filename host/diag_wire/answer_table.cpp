// The built-in answer table. Replies start with the request's command code; multi-byte fields are
// little-endian.
#include "answer_table.h"

#include <string.h>

#include <algorithm>

namespace diag_wire {
namespace {

constexpr size_t kMaxReply = 16384;
constexpr size_t kSubsysHeader = 4;  // 4B, subsystem id, command (u16)

// Test subsystem: echo and pattern commands for exercising long and multi-piece replies.
constexpr uint8_t kSubsysTest = 0xFE;
constexpr uint16_t kTestEcho = 0x0001;
constexpr uint16_t kTestPattern = 0x0002;
// Thermal subsystem: sensor readings in tenths of a degree.
constexpr uint8_t kSubsysThermal = 0x21;
constexpr uint16_t kThermalRead = 0x0001;
// Radio subsystem: link state.
constexpr uint8_t kSubsysRadio = 0x35;
constexpr uint16_t kRadioLinkState = 0x0004;

// Fixed-width text field, NUL padded, not NUL terminated when full.
void put_text(Bytes& b, const char* s, size_t width) {
    size_t n = std::min(strlen(s), width);
    b.insert(b.end(), s, s + n);
    b.insert(b.end(), width - n, 0);
}

void put_cstr(Bytes& b, const char* s) {
    b.insert(b.end(), s, s + strlen(s) + 1);
}

Bytes version_info(const Bytes& req) {
    if (req.size() != 1) return error_reply(kBadLength, req);
    Bytes r{req[0]};
    put_text(r, "Nov 02 2026", 11);
    put_text(r, "14:05:09", 8);
    put_text(r, "Oct 28 2026", 11);
    put_text(r, "09:30:00", 8);
    put_text(r, "TLV1.0.3", 8);
    r.push_back(0x3A);   // station class
    r.push_back(0x0B);   // CAI revision
    r.push_back(0x5E);   // model
    put_u16(r, 0x0103);  // firmware revision
    r.push_back(2);      // slot cycle index
    r.push_back(0x01);   // hardware version, major
    r.push_back(0x02);   // hardware version, minor
    return r;
}

Bytes build_id(const Bytes& req) {
    if (req.size() != 1) return error_reply(kBadLength, req);
    Bytes r{req[0], 2};
    put_u16(r, 0);           // reserved
    put_u32(r, 0x000A51E1);  // MSM revision
    put_u32(r, 0x00005E01);  // model
    put_cstr(r, "TLVMPSS.TN.2.1-00417-TOLVEN_GEN-1");
    put_cstr(r, "tolven-t1");
    return r;
}

Bytes diag_version(const Bytes& req) {
    if (req.size() != 1) return error_reply(kBadLength, req);
    Bytes r{req[0]};
    put_u16(r, 8);
    return r;
}

Bytes event_report(const Bytes& req) {
    if (req.size() != 2) return error_reply(kBadLength, req);
    if (req[1] > 1) return error_reply(kBadParams, req);
    return Bytes{req[0], 0, 0};
}

Bytes subsystem(const Bytes& req) {
    if (req.size() < kSubsysHeader) return error_reply(kBadLength, req);
    uint8_t id = req[1];
    uint16_t cmd = get_u16(&req[2]);
    if (id == kSubsysTest && cmd == kTestEcho) return req;  // header and payload as they came
    Bytes r(req.begin(), req.begin() + kSubsysHeader);
    if (id == kSubsysTest && cmd == kTestPattern) {
        if (req.size() != kSubsysHeader + 2) return error_reply(kBadLength, req);
        size_t n = std::min<size_t>(get_u16(&req[4]), kMaxReply - kSubsysHeader);
        for (size_t i = 0; i < n; ++i) r.push_back(i & 0xFF);
    } else if (id == kSubsysThermal && cmd == kThermalRead) {
        if (req.size() != kSubsysHeader) return error_reply(kBadLength, req);
        put_u16(r, 0);  // status
        r.push_back(2);
        put_u16(r, 412);
        put_u16(r, 388);
    } else if (id == kSubsysRadio && cmd == kRadioLinkState) {
        if (req.size() != kSubsysHeader) return error_reply(kBadLength, req);
        put_u16(r, 0);   // status
        r.push_back(2);  // registered
        r.push_back(3);  // access technology
        put_u16(r, 78);  // band
    } else {
        return error_reply(kBadCommand, req);
    }
    return r;
}

struct Command {
    uint8_t code;
    Bytes (*handle)(const Bytes& req);
};

constexpr Command kCommands[] = {
        {0x00, version_info},         {0x1C, diag_version}, {kSubsystem, subsystem},
        {kEventReport, event_report}, {0x7C, build_id},
};

Bytes plain_reply(const Bytes& req) {
    if (req.empty()) return Bytes{kBadCommand};
    for (const Command& c : kCommands) {
        if (c.code == req[0]) return c.handle(req);
    }
    return error_reply(kBadCommand, req);
}

class BuiltinTable : public AnswerTable {
  public:
    Answer answer(int proc, const Bytes& request) override {
        Response r;
        r.proc = proc;
        Unwrapped u = unwrap(request.data(), request.size());
        if (!u.wrapped) {
            r.bytes = plain_reply(request);
        } else if (u.inner_len == 0) {
            r.bytes = error_reply(kBadLength, request);  // a wrapper around nothing
        } else {
            r.bytes = wrap(u.subscription, plain_reply(Bytes(u.inner, u.inner + u.inner_len)));
        }
        return Answer{{std::move(r)}};
    }
};

const Answer* longest_prefix(const Overrides& overrides, const uint8_t* request, size_t n) {
    const Answer* best = nullptr;
    size_t best_len = 0;
    for (const auto& [prefix, answer] : overrides) {
        if (prefix.size() <= n && (best == nullptr || prefix.size() > best_len) &&
            std::equal(prefix.begin(), prefix.end(), request)) {
            best = &answer;
            best_len = prefix.size();
        }
    }
    return best;
}

}  // namespace

std::unique_ptr<AnswerTable> make_builtin_table() {
    return std::make_unique<BuiltinTable>();
}

std::optional<Answer> find_override(const Overrides& overrides, const Bytes& request) {
    if (const Answer* a = longest_prefix(overrides, request.data(), request.size())) return *a;
    Unwrapped u = unwrap(request.data(), request.size());
    if (!u.wrapped || u.inner_len == 0) return std::nullopt;
    const Answer* inner = longest_prefix(overrides, u.inner, u.inner_len);
    if (inner == nullptr) return std::nullopt;
    Answer a = *inner;
    for (Response& r : a.responses) r.bytes = wrap(u.subscription, r.bytes);
    return a;
}

Bytes Traffic::wrapped(Bytes packet) {
    if (subscriptions_.empty()) return packet;
    return wrap(subscriptions_[seq_ % subscriptions_.size()], packet);
}

Bytes Traffic::next_log() {
    ++seq_;
    Bytes p{kLogPacket, 0x00};
    put_u16(p, 16);  // length, twice as the log header has it
    put_u16(p, 16);
    put_u16(p, 0x1234);  // log code
    for (int i = 0; i < 8; ++i) p.push_back(static_cast<uint8_t>(seq_ >> (8 * i)));
    p.insert(p.end(), {0x7E, 0x7D, 0x01, 0x02});  // bytes that need escaping
    return wrapped(std::move(p));
}

Bytes Traffic::next_event() {
    ++seq_;
    Bytes p{kEventReport};
    put_u16(p, 6);
    put_u16(p, 0x0102);  // event id
    for (int i = 0; i < 4; ++i) p.push_back(static_cast<uint8_t>(seq_ >> (8 * i)));
    return wrapped(std::move(p));
}

}  // namespace diag_wire
