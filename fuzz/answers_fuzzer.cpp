// The answers-file parser on any text: every line that is neither blank nor a comment is either
// accepted or refused with a message naming it, and an accepted line written back in the
// canonical form parses to the same answer.

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <set>
#include <string>

#include "answers_file.h"
#include "contract.h"

namespace {

std::string hex(const diag_wire::Bytes& bytes) {
    std::string s;
    char pair[4];
    for (uint8_t b : bytes) {
        snprintf(pair, sizeof pair, "%02X ", b);
        s += pair;
    }
    return s;
}

// The lines the parser must account for: what is left of each line before '#', if not blank.
std::set<int> content_lines(const std::string& text) {
    std::set<int> lines;
    int n = 1;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        bool last = end == std::string::npos;
        if (last) end = text.size();
        std::string line = text.substr(start, end - start);
        line = line.substr(0, line.find('#'));
        // Blank as the parser takes it: blanks, tabs, line ends, vertical tabs and form feeds.
        if (line.find_first_not_of(" \t\r\n\v\f") != std::string::npos) lines.insert(n);
        if (last) break;
        start = end + 1;
        ++n;
    }
    return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    diag_wire::ParsedAnswers parsed = diag_wire::parse_answers(text, "f");

    std::set<int> seen;
    for (const std::string& e : parsed.errors) {
        require(e.rfind("f:", 0) == 0, "error names the source");
        int line = atoi(e.c_str() + 2);
        require(e.find(": ", 2) != std::string::npos, "error says why");
        require(seen.insert(line).second, "one error per line");
    }
    int previous = 0;
    for (const diag_wire::AnswerLine& a : parsed.lines) {
        require(a.line > previous, "accepted lines in file order");
        previous = a.line;
        require(seen.insert(a.line).second, "a line is accepted or refused, not both");
        require(a.silent == a.reply.empty(), "only silent answers have no reply");
        require(a.delay >= std::chrono::milliseconds(0) && a.delay <= diag_wire::kMaxAnswerDelay,
                "delay within bounds");

        std::string again = hex(a.request_prefix) + "-> " + (a.silent ? "none" : hex(a.reply)) +
                            "@ " + std::to_string(a.delay.count());
        diag_wire::ParsedAnswers back = diag_wire::parse_answers(again, "g");
        require(back.errors.empty() && back.lines.size() == 1, "canonical line parses");
        const diag_wire::AnswerLine& b = back.lines[0];
        require(b.request_prefix == a.request_prefix && b.reply == a.reply &&
                        b.silent == a.silent && b.delay == a.delay,
                "canonical line round-trips");
    }
    require(seen == content_lines(text), "every content line accounted for");
    return 0;
}
