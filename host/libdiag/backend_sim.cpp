// The simulated modem: a fixed answer table for the commands the host tools and tests use, and
// the modem that serves an answer table behind the libdiag front. Replies start with the
// request's command code; multi-byte fields are little-endian.
#include <string.h>

#include <algorithm>

#include "state.h"

namespace libdiag_sim {
namespace {

constexpr uint8_t kBadCommand = 0x13;
constexpr uint8_t kBadParams = 0x14;
constexpr uint8_t kBadLength = 0x15;

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

void put_u16(Bytes& b, uint16_t v) {
    b.push_back(v & 0xFF);
    b.push_back(v >> 8);
}

void put_u32(Bytes& b, uint32_t v) {
    put_u16(b, v & 0xFFFF);
    put_u16(b, v >> 16);
}

// Fixed-width text field, NUL padded, not NUL terminated when full.
void put_text(Bytes& b, const char* s, size_t width) {
    size_t n = std::min(strlen(s), width);
    b.insert(b.end(), s, s + n);
    b.insert(b.end(), width - n, 0);
}

void put_cstr(Bytes& b, const char* s) {
    b.insert(b.end(), s, s + strlen(s) + 1);
}

Bytes error_reply(uint8_t code, const Bytes& req) {
    Bytes r(req.size() + 1);
    r[0] = code;
    std::copy(req.begin(), req.end(), r.begin() + 1);
    return r;
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
    uint16_t cmd = req[2] | (req[3] << 8);
    Bytes r(req.begin(), req.begin() + kSubsysHeader);
    if (id == kSubsysTest && cmd == kTestEcho) {
        r.insert(r.end(), req.begin() + kSubsysHeader, req.end());
    } else if (id == kSubsysTest && cmd == kTestPattern) {
        if (req.size() != kSubsysHeader + 2) return error_reply(kBadLength, req);
        size_t n = std::min<size_t>(req[4] | (req[5] << 8), kMaxReply - kSubsysHeader);
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
        {0x00, version_info}, {0x1C, diag_version}, {0x4B, subsystem},
        {0x60, event_report}, {0x7C, build_id},
};

class SimulatedModem : public Backend {
  public:
    Answer answer(int proc, const Bytes& request) override {
        Response r;
        r.proc = proc;
        r.bytes = reply(request);
        return Answer{{std::move(r)}};
    }

  private:
    static Bytes reply(const Bytes& req) {
        if (req.empty()) return Bytes{kBadCommand};
        for (const Command& c : kCommands) {
            if (c.code == req[0]) return c.handle(req);
        }
        return error_reply(kBadCommand, req);
    }
};

// Answers on the delivery thread, so that a slow table holds up deliveries, not the sender.
class TableModem : public Modem {
  public:
    bool send(int proc, const Bytes& request, const Delivery& reply_to) override {
        State& s = state();
        Clock::time_point sent = Clock::now();
        Delivery work = reply_to;
        work.task = [table = s.table, proc, request, reply_to, sent] {
            Answer a = table->answer(proc, request);
            locked([&](State& st) { st.schedule(a, reply_to, sent); });
        };
        s.queue.push(std::move(work), sent);
        return true;
    }
    bool is_port() const override { return false; }
};

}  // namespace

std::unique_ptr<Backend> make_simulated_modem() {
    return std::make_unique<SimulatedModem>();
}

std::unique_ptr<Modem> make_table_modem() {
    return std::make_unique<TableModem>();
}

}  // namespace libdiag_sim
