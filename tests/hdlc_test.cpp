// HDLC framing and reply matching of the serial diag port, on hand-made vectors.
#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "hdlc.h"
#include "matcher.h"

namespace {

namespace hdlc = diag_wire::hdlc;
using Bytes = std::vector<uint8_t>;
using hdlc::Event;

Bytes encoded(const Bytes& payload) {
    Bytes out;
    hdlc::encode(payload.data(), payload.size(), &out);
    return out;
}

TEST(Hdlc, CrcAndEncodeVectors) {
    const std::string check = "123456789";
    EXPECT_EQ(0x906E, hdlc::crc16(reinterpret_cast<const uint8_t*>(check.data()), check.size()));
    EXPECT_EQ(0x0000, hdlc::crc16(nullptr, 0));
    struct Row {
        Bytes payload;
        Bytes frame;
    } rows[] = {
            {{0x00}, {0x00, 0x78, 0xF0, 0x7E}},
            {{0x1C}, {0x1C, 0x95, 0x2A, 0x7E}},
            {{0x7E}, {0x7D, 0x5E, 0x81, 0x6A, 0x7E}},
            {{0x7D}, {0x7D, 0x5D, 0x1A, 0x58, 0x7E}},
            {{0x19}, {0x19, 0x38, 0x7D, 0x5D, 0x7E}},  // the CRC itself escaped
            {{0x4B, 0xFE, 0x01, 0x00}, {0x4B, 0xFE, 0x01, 0x00, 0x8B, 0xAF, 0x7E}},
            {{0x7E, 0x7D, 0x20}, {0x7D, 0x5E, 0x7D, 0x5D, 0x20, 0xB1, 0x37, 0x7E}},
    };
    for (const Row& r : rows) EXPECT_EQ(r.frame, encoded(r.payload)) << int(r.payload[0]);
}

struct Decoded {
    std::vector<Bytes> frames;
    std::vector<Event> drops;
};

Decoded decode(hdlc::Decoder& d, const Bytes& in, size_t split) {
    Decoded out;
    for (size_t i = 0; i < in.size(); i += split) {
        d.feed(
                in.data() + i, std::min(split, in.size() - i),
                [&](const uint8_t* f, size_t n) { out.frames.emplace_back(f, f + n); },
                [&](Event e) { out.drops.push_back(e); });
    }
    return out;
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Every stream decodes the same whatever the split: one byte at a time, a few, or all at once.
TEST(Hdlc, DecoderDropsBadFramesAndKeepsGoodOnesInAnySplit) {
    const Bytes a = {0x4B, 0xFE, 0x01, 0x00}, b = {0x7E, 0x7D, 0x20}, big(hdlc::kMaxPayload, 0x7E);
    Bytes bad_crc = encoded(a);
    bad_crc[1] ^= 0x01;
    Bytes too_long = encoded(Bytes(hdlc::kMaxPayload + 1, 0x55));
    struct Row {
        const char* name;
        Bytes in;
        std::vector<Bytes> frames;
        std::vector<Event> drops;
        bool pending;  // bytes of an unfinished frame are left
    } rows[] = {
            {"two frames", cat({encoded(a), encoded(b)}), {a, b}, {}, false},
            {"leading and empty flags", cat({{0x7E, 0x7E}, encoded(a), {0x7E}}), {a}, {}, false},
            {"bad CRC", cat({bad_crc, encoded(b)}), {b}, {Event::kBadCrc}, false},
            {"escape before flag",
             cat({{0x01, 0x02, 0x7D, 0x7E}, encoded(a)}),
             {a},
             {Event::kDanglingEscape},
             false},
            {"too short",
             cat({{0x01, 0x02, 0x7E}, {0x7D, 0x5E, 0x7E}, encoded(b)}),
             {b},
             {Event::kTooShort, Event::kTooShort},
             false},
            {"largest payload", encoded(big), {big}, {}, false},
            {"too long", cat({too_long, encoded(a)}), {a}, {Event::kTooLong}, false},
            {"unfinished", cat({encoded(a), {0x4B, 0x7D}}), {a}, {}, true},
    };
    for (const Row& r : rows) {
        for (size_t split : {size_t(1), size_t(3), size_t(4096), r.in.size()}) {
            SCOPED_TRACE(std::string(r.name) + ", split " + std::to_string(split));
            hdlc::Decoder d;
            Decoded got = decode(d, r.in, split);
            EXPECT_EQ(r.frames, got.frames);
            EXPECT_EQ(r.drops, got.drops);
            EXPECT_EQ(r.frames.size(), d.counts().frames);
            EXPECT_EQ(r.drops.size(), d.counts().dropped());
            // a flag ends what is left: an escape left over counts as a bad frame
            Decoded tail = decode(d, {0x7E}, 1);
            EXPECT_EQ(r.pending, !tail.drops.empty());
        }
    }
}

TEST(ReplyMatch, WhichFrameAnswersWhichRequest) {
    struct Row {
        Bytes request;
        Bytes frame;
        bool answers;
    } rows[] = {
            {{0x00}, {0x00, 0x4E, 0x6F}, true},
            {{0x00}, {0x1C, 0x08, 0x00}, false},
            {{0x4B, 0xFE, 0x01, 0x00, 0xAA}, {0x4B, 0xFE, 0x01, 0x00, 0xBB}, true},
            {{0x4B, 0xFE, 0x01, 0x00}, {0x4B, 0xFE, 0x02, 0x00}, false},  // other command
            {{0x4B, 0xFE, 0x01, 0x00}, {0x4B, 0x21, 0x01, 0x00}, false},  // other subsystem
            {{0x4B, 0xFE, 0x01, 0x00}, {0x4B, 0xFE}, false},              // cut short
            {{0x4B, 0xFE}, {0x4B, 0xFE, 0x00}, true},
            {{0x60, 0x01}, {0x60, 0x00, 0x00}, true},
            {{0x60, 0x01}, {0x60, 0x06, 0x00, 0x02, 0x01}, false},  // an event report
            {{0x10, 0x00}, {0x10, 0x00, 0x10}, false},              // log packets never answer
            {{0x79}, {0x79, 0x00}, false},
            {{0x99, 0x01}, {0x13, 0x99, 0x01}, true},  // bad command, echoed
            {{0x1C, 0x00}, {0x15, 0x1C}, true},        // echo cut after the code
            {{0x4B, 0x77, 0x01, 0x00}, {0x13, 0x4B, 0x77, 0x01, 0x00}, true},
            {{0x4B, 0x77, 0x01, 0x00}, {0x13, 0x4B, 0x77}, false},  // echo does not name it
            {{0x4B, 0x77, 0x01, 0x00}, {0x14, 0x4B, 0x78, 0x01, 0x00}, false},
            {{0x00}, {0x47, 0x00}, true},
            {{0x00}, {0x12, 0x00}, false},  // not an error code
            {{0x00}, {0x13}, false},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(r.answers, matcher::answers(r.request, r.frame.data(), r.frame.size()))
                << ::testing::PrintToString(r.request) << " / "
                << ::testing::PrintToString(r.frame);
    }
}

// Requests tagged by number; |gone| lists callers that gave up.
TEST(ReplyMatch, LateAnswersNeverCompleteANewerRequest) {
    using matcher::Outcome;
    using Step = std::pair<Bytes, Outcome>;  // a frame, and what it must be
    const Bytes echo_a = {0x4B, 0xFE, 0x01, 0x00, 0xAA}, echo_b = {0x4B, 0xFE, 0x01, 0x00, 0xBB};
    const Bytes log = {0x10, 0x00, 0x04, 0x00};
    struct Row {
        const char* name;
        std::vector<Bytes> requests;  // sent in this order, numbered from 0
        std::vector<int> gone;
        std::vector<Step> frames;
        std::vector<int> completed;  // which request each kReply completed
    } rows[] = {
            {"in order, unsolicited between",
             {{0x00}, {0x1C}},
             {},
             {{log, Outcome::kUnsolicited},
              {{0x1C, 0x08}, Outcome::kReply},
              {{0x00, 0x01}, Outcome::kReply},
              {{0x00, 0x01}, Outcome::kUnsolicited}},
             {1, 0}},
            {"late answer, then the newer one's",
             {echo_a, echo_b},
             {0},
             {{echo_a, Outcome::kLate}, {echo_b, Outcome::kReply}},
             {1}},
            // The same bytes again after a time-out: whichever answer comes first serves the
            // waiting caller, and a second one is the orphan's, or nobody's.
            {"the same request again",
             {{0x1C}, {0x1C}, {0x1C}},
             {0, 1},
             {{{0x1C, 0x08}, Outcome::kReply},
              {{0x1C, 0x08}, Outcome::kLate},
              {{0x1C, 0x08}, Outcome::kUnsolicited}},
             {2}},
            // Other bytes of the same command: the orphan takes the answer as its own late one,
            // and the newer request waits for the next
            {"the same command, other bytes",
             {{0x1C}, {0x1C, 0x01}},
             {0},
             {{{0x1C, 0x08}, Outcome::kLate}, {{0x1C, 0x08}, Outcome::kReply}},
             {1}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        matcher::Pending<int> pending;
        auto now = matcher::Clock::now();
        for (size_t i = 0; i < r.requests.size(); ++i) pending.add(r.requests[i], int(i), now);
        pending.orphan([&](int id) {
            return std::find(r.gone.begin(), r.gone.end(), id) != r.gone.end();
        });
        std::vector<int> completed;
        for (const Step& s : r.frames) {
            int to = -1;
            EXPECT_EQ(s.second, pending.match(s.first.data(), s.first.size(), now, &to))
                    << ::testing::PrintToString(s.first);
            if (to >= 0) completed.push_back(to);
        }
        EXPECT_EQ(r.completed, completed);
    }
    // past its lifetime an orphan no longer takes answers
    matcher::Pending<int> pending;
    auto then = matcher::Clock::now();
    pending.add({0x1C}, 0, then);
    pending.orphan([](int) { return true; });
    pending.add({0x1C}, 1, then + std::chrono::seconds(31));
    int to = -1;
    const Bytes reply = {0x1C, 0x08};
    EXPECT_EQ(matcher::Outcome::kReply,
              pending.match(reply.data(), reply.size(), then + std::chrono::seconds(31), &to));
    EXPECT_EQ(1, to);
    EXPECT_EQ(0u, pending.size());
}

}  // namespace
