// Decoding of the diag replies tolven-diag knows: version information, extended build id, diag
// version, event report, subsystem header and the error replies. A reply that ends early is
// decoded as far as it goes, and the note says where it ends.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace tolven_diag_tool {

struct Field {
    std::string name;  // "firmware revision"; the JSON key is "firmware_revision"
    std::string text;  // as shown, with unprintable characters written as \xNN
    bool has_number = false;
    long long number = 0;
    std::string value;  // the characters themselves, for JSON
};

struct Decoded {
    // A reply wrapped for a subscription (98 01 00 00 <u32>): the rest is its packet's.
    bool wrapped = false;
    uint32_t subscription = 0;
    std::string kind;  // "version info", "error reply", ...; empty: not a command decoded here
    std::vector<Field> fields;
    std::string note;  // where a short reply ends, or what follows the known fields
};

// Decodes |reply| (|len| bytes), the answer to |request|. Returns false for a reply that is
// neither wrapped nor of a command decoded here (and for an empty one).
bool decode_reply(const std::vector<uint8_t>& request, const uint8_t* reply, size_t len,
                  Decoded* out);

// "4B FE 01 00"; at most |max_bytes| bytes, then " ... (N bytes)".
std::string hex_bytes(const uint8_t* data, size_t len, size_t max_bytes);

}  // namespace tolven_diag_tool
