#include "text.h"

#include <stdio.h>

#include <algorithm>

namespace diag_wire {
namespace {

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

bool is_separator(char c) {
    return is_blank(c) || c == ':' || c == ',';
}

bool has_hex_prefix(const std::string& s, size_t at) {
    return s.size() > at + 1 && s[at] == '0' && (s[at + 1] == 'x' || s[at + 1] == 'X');
}

}  // namespace

bool parse_hex(const std::string& text, Bytes* out, std::string* group, std::string* why,
               HexForm form) {
    const bool typed = form == HexForm::kAsTyped;
    auto separates = [typed](char c) { return typed ? is_separator(c) : is_blank(c); };
    size_t i = 0;
    while (i < text.size()) {
        if (separates(text[i])) {
            ++i;
            continue;
        }
        size_t start = i;
        while (i < text.size() && !separates(text[i])) ++i;
        std::string g = text.substr(start, i - start);
        std::string digits = g.substr(typed && has_hex_prefix(g, 0) ? 2 : 0);
        auto bad =
                std::find_if(digits.begin(), digits.end(), [](char c) { return hex_value(c) < 0; });
        std::string problem;
        if (digits.empty()) {
            problem = "no digits after " + g;
        } else if (bad != digits.end()) {
            problem = "'" + printable(std::string(1, *bad)) + "' is not a hex digit";
        } else if (digits.size() % 2 != 0 && (digits.size() > 1 || !typed)) {
            problem = typed ? "odd number of digits" : "not pairs of hex digits";
        }
        if (!problem.empty()) {
            *group = g;
            *why = problem;
            return false;
        }
        if (digits.size() == 1) {
            out->push_back(static_cast<uint8_t>(hex_value(digits[0])));
            continue;
        }
        for (size_t d = 0; d < digits.size(); d += 2) {
            out->push_back(
                    static_cast<uint8_t>(hex_value(digits[d]) * 16 + hex_value(digits[d + 1])));
        }
    }
    return true;
}

bool parse_number(const std::string& text, long long* out) {
    size_t i = 0;
    bool negative = !text.empty() && text[0] == '-';
    if (negative) ++i;
    int base = 10;
    if (has_hex_prefix(text, i)) {
        base = 16;
        i += 2;
    }
    constexpr long long kSaturate = 1LL << 40;
    long long value = 0;
    if (i >= text.size()) return false;
    for (; i < text.size(); ++i) {
        int d = hex_value(text[i]);
        if (d < 0 || d >= base) return false;
        value = std::min(value * base + d, kSaturate);
    }
    *out = negative ? -value : value;
    return true;
}

bool parse_numbers(const std::string& text, long long max, std::vector<uint32_t>* out) {
    std::vector<uint32_t> numbers;
    size_t start = 0;
    for (;;) {
        size_t comma = text.find(',', start);
        long long v = 0;
        if (!parse_number(trim(text.substr(start, comma - start)), &v) || v < 0 || v > max) {
            return false;
        }
        numbers.push_back(static_cast<uint32_t>(v));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    *out = std::move(numbers);
    return true;
}

std::string trim(const std::string& text) {
    size_t b = 0, e = text.size();
    while (b < e && is_blank(text[b])) ++b;
    while (e > b && is_blank(text[e - 1])) --e;
    return text.substr(b, e - b);
}

std::string printable(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else {
            char esc[5];
            snprintf(esc, sizeof esc, "\\x%02X", c);
            out += esc;
        }
    }
    return out;
}

}  // namespace diag_wire
