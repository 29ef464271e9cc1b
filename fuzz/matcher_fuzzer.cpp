// matcher::Pending<int> against a model: requests sent plain or wrapped for a subscription,
// callers giving up, time passing, and frames in any order that answer a request (pending or
// past), refuse it, answer it for another subscription, come unasked, or are noise.
//
// The model knows which requests wait and, for each orphan, whether it is surely held and
// whether a late answer taken by an older orphan marked it as probably answered already. A frame
// goes to the oldest waiting request it answers, unless an orphan ahead that it also answers
// takes it as late: an unmarked one surely does (but hands it on to that waiting request when
// the two have the same bytes), a marked one passes it on, and one the model is unsure of may
// do either. answers() is the oracle for what matches; the wrapper rules and the
// answers the model builds are checked from the bytes.

#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <iterator>
#include <vector>

#include "contract.h"
#include "matcher.h"

namespace {

using diag_wire::Bytes;
using matcher::Clock;
using matcher::Outcome;
using Pending = matcher::Pending<int>;

constexpr uint8_t kErrors[] = {0x13, 0x14, 0x15, 0x16, 0x18, 0x42, 0x47};
constexpr uint8_t kHead[] = {0x98, 0x01, 0x00, 0x00};  // the multi-SIM wrapper, then the u32 sub
constexpr int64_t kPlain = -1;
// Some share a code with unsolicited traffic: only an error reply answers those.
const Bytes kCommands[] = {
        {0x00},
        {0x1C},
        {0x7C},
        {0x60, 0x01},
        {0x4B, 0xFE},
        {0x4B, 0xFE, 0x01, 0x00},
        {0x4B, 0xFE, 0x02, 0x00},
        {0x4B, 0x21, 0x01, 0x00},
        {0x10},
        {0x79},
        {0x92},
        {0x99},
};
bool unasked_code(uint8_t code) {
    return code == 0x10 || code == 0x79 || code == 0x92 || code == 0x99;
}

// The input read front to back, zeros when it runs out; seeds can be written by hand.
struct Input {
    const uint8_t* p;
    size_t n;
    uint8_t byte() { return n > 0 ? (--n, *p++) : 0; }
    size_t below(size_t limit) { return byte() % limit; }
    uint32_t u32() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v = v << 8 | byte();
        return v;
    }
    Bytes bytes(size_t max) {
        Bytes b(below(max + 1));
        for (uint8_t& x : b) x = byte();
        return b;
    }
};

bool is_error(uint8_t code) {
    return std::find(std::begin(kErrors), std::end(kErrors), code) != std::end(kErrors);
}
uint32_t u32(const uint8_t* p) {
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}
int64_t wrapper_of(const Bytes& f) {
    return f.size() >= 8 && memcmp(f.data(), kHead, 4) == 0 ? u32(&f[4]) : kPlain;
}
Bytes wrapped(int64_t sub, const Bytes& packet) {
    return sub == kPlain ? packet : diag_wire::wrap(static_cast<uint32_t>(sub), packet);
}
// Bytes that name a packet's command: the code, for subsystem commands up to the command.
size_t key_len(const Bytes& packet) {
    return packet[0] == 0x4B ? std::min<size_t>(packet.size(), 4) : 1;
}

enum class State { kLive, kOrphan, kGone };
// Held and not marked, held and marked, or unknown (maybe gone).
enum class Mark { kClean, kMarked, kUnsure };

struct Request {
    Bytes packet;
    int64_t sub;
    Bytes bytes;  // as sent
    Clock::time_point sent;
    State state;
    Mark mark;
};

struct Fuzz {
    Pending pending;
    std::vector<Request> sent;
    Clock::time_point now{std::chrono::hours(1)};

    void send(Input& in) {
        Bytes packet = kCommands[in.below(std::size(kCommands))];
        Bytes tail = in.bytes(3);
        packet.insert(packet.end(), tail.begin(), tail.end());
        int64_t sub = static_cast<int64_t>(in.below(5)) - 1;
        Bytes bytes = wrapped(sub, packet);
        pending.add(bytes, static_cast<int>(sent.size()), now);
        sent.push_back({packet, sub, bytes, now, State::kLive, Mark::kClean});
    }

    // A reply of the request's command; an event report's answer carries no events.
    static Bytes answer_to(const Bytes& packet, Input& in) {
        if (packet[0] == 0x60) return {0x60, 0x00, 0x00};
        Bytes a(packet.begin(), packet.begin() + key_len(packet));
        Bytes tail = in.bytes(4);
        a.insert(a.end(), tail.begin(), tail.end());
        return a;
    }

    // Builds a frame from the input; |*matching| says whether it answers request |*k| (-1: none).
    Bytes frame(Input& in, int* k, bool* matching, bool* unsolicited) {
        size_t kind = in.below(7);
        if (sent.empty() && kind < 5) kind = 6;
        if (kind >= 5) {
            *k = -1;
            *unsolicited = kind == 5;
            if (kind == 6) return wrapped(static_cast<int64_t>(in.below(5)) - 1, in.bytes(12));
            static const Bytes kUnasked[] = {
                    {0x10, 0x00, 0x12, 0x00},
                    {0x60, 0x0A, 0x00, 0x01},
                    {0x79},
                    {0x92, 0x01},
                    {0x99, 0x00, 0x00},
                    {},  // a bare wrapper; plain, an empty frame
            };
            Bytes packet = kUnasked[in.below(std::size(kUnasked))];
            Bytes tail = in.bytes(packet.empty() ? 0 : 4);
            packet.insert(packet.end(), tail.begin(), tail.end());
            return wrapped(static_cast<int64_t>(in.below(5)) - 1, packet);
        }
        *k = static_cast<int>(in.below(sent.size()));
        const Request& r = sent[*k];
        Bytes echo = {kErrors[in.below(std::size(kErrors))]};
        switch (kind) {
            case 0:
                *matching = !unasked_code(r.packet[0]);
                return wrapped(r.sub, answer_to(r.packet, in));
            case 1: {  // refused, echoing the request as sent as far as |cut|
                size_t cut = in.below(r.bytes.size() + 1);
                echo.insert(echo.end(), r.bytes.begin(), r.bytes.begin() + cut);
                *matching = cut >= (r.sub == kPlain ? 0 : 8) + key_len(r.packet);
                return echo;
            }
            case 2: {  // refused within the subscription, echoing the packet
                size_t cut = in.below(r.packet.size() + 1);
                echo.insert(echo.end(), r.packet.begin(), r.packet.begin() + cut);
                *matching = cut >= key_len(r.packet);
                return wrapped(r.sub, echo);
            }
            case 3: {  // another command: a code or subsystem byte off (never an error code)
                Bytes a = answer_to(r.packet, in);
                size_t key = key_len(r.packet);
                size_t at = key == 1 ? 0 : 1 + in.below(key - 1);
                a[at] ^= at == 0 ? 0x01 : 1 + in.below(255);
                *matching = false;
                return wrapped(r.sub, a);
            }
            default: {  // the answer of another subscription, or plain against wrapped
                int64_t other = in.byte() & 1 ? static_cast<int64_t>(in.below(5)) - 1
                                              : static_cast<int64_t>(in.u32());
                if (other == r.sub) other = r.sub == kPlain ? 0 : kPlain;
                *matching = false;
                return wrapped(other, answer_to(r.packet, in));
            }
        }
    }

    void deliver(Input& in) {
        int k = -1;
        bool matching = false, unsolicited = false;
        Bytes f = frame(in, &k, &matching, &unsolicited);
        if (k >= 0) {
            require(matcher::answers(sent[k].bytes, f.data(), f.size()) == matching,
                    matching ? "the frame answers the request it was built for"
                             : "the frame does not answer the request it was built from");
        }

        // The orphans ahead of the oldest waiting request that the frame answers, in order.
        std::vector<int> matches, ahead;
        int oldest = -1;
        for (size_t i = 0; i < sent.size(); ++i) {
            const Request& r = sent[i];
            if (r.state == State::kGone || expired(r)) continue;
            if (!matcher::answers(r.bytes, f.data(), f.size())) continue;
            require(!unsolicited, "unsolicited frames answer nothing");
            matches.push_back(static_cast<int>(i));
            if (oldest >= 0) continue;
            if (r.state == State::kLive) {
                oldest = static_cast<int>(i);
            } else {
                ahead.push_back(static_cast<int>(i));
            }
        }
        // Those that may take it: up to the first clean one, which surely does. A taker with
        // the same bytes as the oldest waiting request hands the frame on to it.
        std::vector<int> takers;
        bool clean_last = false;
        int twins = 0;
        for (int i : ahead) {
            Mark m = mark(sent[i]);
            if (m == Mark::kMarked) continue;
            takers.push_back(i);
            twins += oldest >= 0 && sent[i].bytes == sent[oldest].bytes;
            if ((clean_last = m == Mark::kClean)) break;
        }
        const int n_takers = static_cast<int>(takers.size());

        int to = -1;
        Outcome got = pending.match(f.data(), f.size(), now, &to);
        if (unsolicited) require(got == Outcome::kUnsolicited, "unsolicited stays unsolicited");
        if (clean_last && twins == 0) require(got == Outcome::kLate, "a late answer is late");
        if (clean_last && twins == n_takers) {
            require(got == Outcome::kReply, "a late answer to the same request serves it");
        }
        if (takers.empty()) {
            require(got == (oldest >= 0 ? Outcome::kReply : Outcome::kUnsolicited),
                    "a frame goes to the oldest waiting request it answers");
        }
        if (got == Outcome::kReply) {
            require(oldest >= 0 && to == oldest, "a reply completes the oldest it answers");
            require(twins > 0 || !clean_last, "a reply passes every orphan ahead, or a twin");
            check_wrapper(sent[to], f);
            sent[to].state = State::kGone;
        }
        if (got == Outcome::kReply && twins > 0) {
            if (n_takers == 1) {
                // The one taker took it for its twin: the orphans before it passed it on.
                for (int i : ahead) {
                    if (i <= takers[0]) sent[i].state = State::kGone;
                }
            } else {
                for (int i : ahead) sent[i].mark = Mark::kUnsure;
            }
            return;
        }
        if (got != Outcome::kLate) {
            for (int i : ahead) sent[i].state = State::kGone;  // none held and clean: passed
            return;
        }
        require(twins < n_takers, "late only for an orphan without a waiting twin");
        if (takers.size() > 1) {
            for (int i : matches) sent[i].mark = Mark::kUnsure;
            return;
        }
        // The one taker: the orphans before it passed the frame on, those after are marked.
        bool after = false;
        for (int i : matches) {
            if (after && sent[i].mark == Mark::kClean) sent[i].mark = Mark::kMarked;
            if (!after) sent[i].state = State::kGone;
            after |= i == takers[0];
        }
    }

    bool expired(const Request& r) const {
        return r.state == State::kOrphan && now - r.sent > Pending::kOrphanLifetime;
    }
    // At the very end of its lifetime an orphan may be held or not: either is right.
    Mark mark(const Request& r) const {
        return now - r.sent == Pending::kOrphanLifetime ? Mark::kUnsure : r.mark;
    }

    // The wrapper rules, from the bytes.
    static void check_wrapper(const Request& r, const Bytes& f) {
        require(!f.empty(), "an empty frame answers nothing");
        int64_t sub = wrapper_of(f);
        if (r.sub == kPlain) {
            require(sub == kPlain, "a plain request is never completed by a wrapped frame");
        } else {
            bool echo = is_error(f[0]) && f.size() >= 9 && memcmp(&f[1], r.bytes.data(), 8) == 0;
            require(sub == r.sub || echo,
                    "a wrapped request is completed only within its subscription or by an error "
                    "echoing its wrapper");
        }
        require(sub == kPlain || f.size() > 8, "a bare wrapper answers nothing");
        uint8_t code = sub == kPlain ? f[0] : f[8];
        require(code == r.packet[0] || is_error(code), "a reply is the command's or refuses it");
    }

    void orphan(Input& in) {
        size_t mode = in.below(3), arg = in.byte();
        auto gone = [&](int id) {
            if (mode == 0) return true;                                 // the port closed
            if (mode == 1) return id % 2 == static_cast<int>(arg % 2);  // one client of two
            return static_cast<size_t>(id) == arg;                      // one caller timed out
        };
        pending.orphan(gone);
        for (size_t i = 0; i < sent.size(); ++i) {
            if (sent[i].state == State::kLive && gone(static_cast<int>(i))) {
                sent[i].state = State::kOrphan;
            }
        }
    }

    // Sizes: waiting() is exact; size() is at least the waiting and the held orphans, and at
    // most all that were not taken off for sure.
    void check_sizes() {
        size_t live = 0, held = 0, orphans = 0;
        for (const Request& r : sent) {
            live += r.state == State::kLive;
            held += r.state == State::kOrphan && mark(r) != Mark::kUnsure && !expired(r);
            orphans += r.state == State::kOrphan;
        }
        require(pending.waiting() == live, "waiting() counts the callers that wait");
        require(pending.size() >= live + held && pending.size() <= live + orphans,
                "size() counts the held requests");
    }

    // Past kMax requests the oldest go first.
    void flood() {
        const Bytes req = {0x1C};
        for (size_t i = 0; i <= Pending::kMax; ++i) pending.add(req, -2 - int(i), now);
        require(pending.size() == Pending::kMax && pending.waiting() == Pending::kMax,
                "bounded by kMax");
        const Bytes reply = {0x1C, 0x00};
        int to = 0;
        require(pending.match(reply.data(), reply.size(), now, &to) == Outcome::kReply && to == -3,
                "the oldest was pushed out");
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in{data, size};
    Fuzz fuzz;
    for (int step = 0; in.n > 0 && step < 200; ++step) {
        switch (in.below(12)) {
            case 0:
            case 1:
            case 2:
                fuzz.send(in);
                break;
            case 3:  // a send whose write failed
                fuzz.pending.add({0x00}, -1, fuzz.now);
                fuzz.pending.pop_newest();
                break;
            case 4:
                fuzz.orphan(in);
                break;
            case 5:
                fuzz.now += std::chrono::seconds(in.below(41));
                break;
            case 11:
                fuzz.flood();
                return 0;
            default:
                fuzz.deliver(in);
                break;
        }
        fuzz.check_sizes();
    }
    return 0;
}
