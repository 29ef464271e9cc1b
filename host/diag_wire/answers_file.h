// Answers files: one override a line, "REQUEST_HEX -> REPLY_HEX [@ DELAY_MS]" or
// "REQUEST_HEX -> none" (never answered); '#' starts a comment.
#pragma once

#include <string>
#include <vector>

#include "answer_table.h"

namespace diag_wire {

// One accepted line of an answers file.
struct AnswerLine {
    int line = 0;  // 1-based
    Bytes request_prefix;
    bool silent = false;  // "-> none"
    Bytes reply;          // empty when silent
    std::chrono::milliseconds delay{0};
};

struct ParsedAnswers {
    std::vector<AnswerLine> lines;      // in file order
    std::vector<std::string> errors;    // one per refused line: "NAME:LINE: what is wrong"
    std::vector<std::string> warnings;  // "NAME:LINE: ..." for accepted lines worth a word
};

// The largest answers file, and the longest line in one: far above any real answer (a reply of
// 64 KiB written as hex with blanks is under 200 KiB), so that a wrong file is refused at once.
constexpr size_t kMaxAnswersFile = 64u << 20;
constexpr size_t kMaxAnswersLine = 1u << 20;

// Parses the text of an answers file; |name| prefixes the messages. Every line that is neither
// blank nor a comment ends up in exactly one of |lines| and |errors|. Hex bytes are pairs of
// digits, blanks between them allowed. A line that repeats an earlier line's request gets a
// warning: it replaces that line.
ParsedAnswers parse_answers(const std::string& text, const std::string& name);
// Reads and parses the answers file at |path|; a file that cannot be read (missing, no regular
// file, larger than kMaxAnswersFile) is one error, "cannot read PATH: why".
ParsedAnswers parse_answers_file(const std::string& path);
// The overrides |parsed| makes: a later line replaces an earlier one of the same prefix.
Overrides overrides_of(const ParsedAnswers& parsed);

}  // namespace diag_wire
