// tolven-diag's reply decoding on hand-made replies: every decoded kind in full, cut short at and
// inside fields, with bytes left over, and with malformed text.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "decode.h"

namespace {

using namespace std::string_literals;
using tolven_diag_tool::decode_reply;
using tolven_diag_tool::Decoded;

const std::string kVersion = "\x00"s + "Nov 02 2026" + "14:05:09" + "Oct 28 2026" + "09:30:00" +
                             "TLV1.0.3" + "\x3A\x0B\x5E\x03\x01\x02\x01\x02"s;
const std::string kVersionText =
        "version info; compiled=Nov 02 2026 14:05:09; released=Oct 28 2026 09:30:00; "
        "version directory=TLV1.0.3; station class=0x3A; CAI revision=11; model=94 (0x5E); "
        "firmware revision=0x0103; slot cycle index=2; hardware version=1.2";
const std::string kBuildId =
        "\x7C\x02\x00\x00\xE1\x51\x0A\x00\x01\x5E\x00\x00"s + "TLVMPSS.1\0tolven-t1\0"s;
const std::string kBuildIdHead =
        "extended build id; build id version=2; MSM revision=0x000A51E1; model=24065 (0x5E01)";

// "kind; name=text; ...; note", or "-" when the reply is not decoded.
std::string render(const std::string& request, const std::string& reply) {
    Decoded d;
    std::vector<uint8_t> req(request.begin(), request.end());
    if (!decode_reply(req, reinterpret_cast<const uint8_t*>(reply.data()), reply.size(), &d)) {
        return "-";
    }
    std::string text = d.kind;
    for (const auto& f : d.fields) text += "; " + f.name + "=" + f.text;
    if (!d.note.empty()) text += "; (" + d.note + ")";
    return text;
}

TEST(ToolDecode, Replies) {
    struct Case {
        const char* name;
        std::string request;
        std::string reply;
        std::string want;
    } cases[] = {
            {"version info", "\x00"s, kVersion, kVersionText},
            {"version info, one byte more", "\x00"s, kVersion + "\xFF",
             kVersionText + "; (1 more byte after the known fields)"},
            {"version info, code only", "\x00"s, "\x00"s,
             "version info; (short reply: ends after 1 byte, before 'compiled'; a full reply has "
             "55 bytes)"},
            {"version info, cut inside the release time", "\x00"s, kVersion.substr(0, 30),
             "version info; compiled=Nov 02 2026 14:05:09; (short reply: ends after 30 bytes, "
             "inside 'released'; a full reply has 55 bytes)"},
            {"version info, cut inside the hardware version", "\x00"s, kVersion.substr(0, 54),
             kVersionText.substr(0, kVersionText.find("; hardware")) +
                     "; (short reply: ends after 54 bytes, inside 'hardware version'; a full "
                     "reply has 55 bytes)"},
            {"version info, NUL padding and a control byte", "\x00"s,
             "\x00"s + "Nov 02 2026" + "14:05:09" + "Oct 28 2026" + "09:30:00" +
                     "TLV\x01\0\0\0\0"s + kVersion.substr(47),
             kVersionText.substr(0, kVersionText.find("TLV1")) + "TLV\\x01" +
                     kVersionText.substr(kVersionText.find("; station"))},
            {"build id", "\x7C"s, kBuildId,
             kBuildIdHead + "; software=TLVMPSS.1; model name=tolven-t1"},
            {"build id, no strings", "\x7C"s, kBuildId.substr(0, 12),
             kBuildIdHead + "; (short reply: ends after 12 bytes, before 'software')"},
            {"build id, cut inside the reserved field", "\x7C"s, kBuildId.substr(0, 3),
             "extended build id; build id version=2; (short reply: ends after 3 bytes, inside "
             "'reserved')"},
            {"build id, model name not terminated", "\x7C"s, kBuildId.substr(0, kBuildId.size() - 1),
             kBuildIdHead + "; software=TLVMPSS.1; model name=tolven-t1 (not terminated); (short "
                            "reply: ends after 31 bytes, inside 'model name' before its "
                            "terminating NUL)"},
            {"build id, bytes after the model name", "\x7C"s, kBuildId + "xy",
             kBuildIdHead + "; software=TLVMPSS.1; model name=tolven-t1; (2 more bytes after "
                            "the known fields)"},
            {"diag version", "\x1C"s, "\x1C\x08\x01"s, "diag version; diag version=264"},
            {"diag version, short", "\x1C"s, "\x1C\x08"s,
             "diag version; (short reply: ends after 2 bytes, inside 'diag version'; a full reply "
             "has 3 bytes)"},
            {"event report on", "\x60\x01"s, "\x60\x00\x00"s,
             "event report; event reporting=on; length=0"},
            {"event report off", "\x60\x00"s, "\x60\x00\x00"s,
             "event report; event reporting=off; length=0"},
            {"event report, request unclear", "\x60\x07"s, "\x60"s,
             "event report; event reporting=unknown (the request does not say); (short reply: "
             "ends after 1 byte, before 'length'; a full reply has 3 bytes)"},
            {"subsystem", "\x4B\xFE\x01\x00\xAA"s, "\x4B\xFE\x01\x00\xAA"s,
             "subsystem; subsystem=0xFE; command=0x0001; payload=1 byte"},
            {"subsystem, cut in the command", "\x4B\xFE\x01\x00"s, "\x4B\xFE\x01"s,
             "subsystem; subsystem=0xFE; (short reply: ends after 3 bytes, inside 'command')"},
            {"bad command", "\x4B\x21"s, "\x13\x4B\x21"s,
             "error reply; error=0x13 bad command; echoed request=4B 21; same as sent=yes"},
            {"bad parameters", "\x60\x05"s, "\x14\x60\x05"s,
             "error reply; error=0x14 bad parameters; echoed request=60 05; same as sent=yes"},
            {"bad length, other echo", "\x00\x00"s, "\x15\x00"s,
             "error reply; error=0x15 bad length; echoed request=00; same as sent=no"},
            {"bad device, no echo", "\x01"s, "\x16"s,
             "error reply; error=0x16 bad device; echoed request=(none); same as sent=no"},
            {"bad mode", "\x01"s, "\x18\x01"s,
             "error reply; error=0x18 bad mode; echoed request=01; same as sent=yes"},
            {"bad SPC mode", "\x01"s, "\x42\x01"s,
             "error reply; error=0x42 bad SPC mode; echoed request=01; same as sent=yes"},
            {"bad security mode, long echo", std::string(40, '\x01'),
             "\x47"s + std::string(40, '\x01'),
             "error reply; error=0x47 bad security mode; echoed request=" +
                     std::string("01 01 01 01 01 01 01 01 01 01 01 01 01 01 01 01 01 01 01 01 01 "
                                 "01 01 01 01 01 01 01 01 01 01 01 ... (40 bytes)") +
                     "; same as sent=yes"},
            {"unknown code", "\x99"s, "\x99\x01"s, "-"},
            {"empty reply", "\x00"s, "", "-"},
    };
    for (const Case& c : cases) EXPECT_EQ(render(c.request, c.reply), c.want) << c.name;
}

}  // namespace
