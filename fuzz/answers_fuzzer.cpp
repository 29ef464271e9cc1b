// The answers-file parser on any text: every line that is neither blank nor a comment is either
// accepted or refused with a message naming it, and an accepted line written back in the
// canonical form parses to the same answer. Now and then the text is also read as a file, and
// its first line made longer than any answer may be.

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

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

// The same text as a file, and as the start of a line longer than any answer: the file reads
// as the text does, and the long line is refused, not parsed.
void check_as_file(const std::string& text) {
    char path[] = "/tmp/answers_fuzzer_XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) return;
    FILE* f = fdopen(fd, "wb");
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
    diag_wire::ParsedAnswers direct = diag_wire::parse_answers(text, path);
    diag_wire::ParsedAnswers read = diag_wire::parse_answers_file(path);
    unlink(path);
    require(read.errors == direct.errors && read.warnings == direct.warnings &&
                    read.lines.size() == direct.lines.size(),
            "a file parses as its text");

    std::string endless = text.substr(0, text.find('\n'));
    while (endless.size() <= diag_wire::kMaxAnswersLine) endless += endless.empty() ? "0" : endless;
    diag_wire::ParsedAnswers long_line = diag_wire::parse_answers(endless + "\n00 -> 01", "f");
    require(long_line.errors.size() == 1 && long_line.errors[0].find("f:1: longer than") == 0 &&
                    long_line.lines.size() == 1,
            "an endless line is refused alone");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    diag_wire::ParsedAnswers parsed = diag_wire::parse_answers(text, "f");
    if (size > 0 && data[0] == '#') check_as_file(text);

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
