// Hex packets and numbers as people type them, for the tool, the answers files and the
// environment alike.
#pragma once

#include <string>
#include <vector>

#include "wire.h"

namespace diag_wire {

enum class HexForm {
    kAsTyped,  // groups separated by blanks, ':' or ','; 0x allowed; a lone digit is one byte
    kPairs,    // pairs of hex digits, blanks between them allowed, nothing else (answers files)
};

// Appends the bytes of |text| to |*out|. As typed, groups are separated by blanks, ':' or ',';
// each may start with 0x; a lone digit is one byte, longer groups need an even number of digits.
// On a bad group returns false with |*group| set to it and |*why| saying what is wrong.
bool parse_hex(const std::string& text, Bytes* out, std::string* group, std::string* why,
               HexForm form = HexForm::kAsTyped);

// Decimal or 0x hex, with an optional '-', nothing else around it. Values far beyond any range a
// caller checks saturate instead of failing.
bool parse_number(const std::string& text, long long* out);

// A comma-separated list of such numbers, each 0 to |max|, as "0,1,7".
bool parse_numbers(const std::string& text, long long max, std::vector<uint32_t>* out);

// |text| without blanks at either end.
std::string trim(const std::string& text);

// |text| with control and non-ASCII bytes written as \xNN, for messages of one line.
std::string printable(const std::string& text);

}  // namespace diag_wire
