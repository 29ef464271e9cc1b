#include "answers_file.h"

#include <map>
#include <sstream>

#include "files.h"
#include "text.h"

namespace diag_wire {
namespace {

// Pairs of hex digits, blanks between them allowed; false with what is wrong, and where when the
// text has more than the wrong group.
bool parse_pairs(const std::string& text, Bytes* out, std::string* why) {
    out->clear();
    std::string group;
    if (parse_hex(text, out, &group, why, HexForm::kPairs)) return true;
    if (group != trim(text)) *why += " in '" + printable(group) + "'";
    return false;
}

}  // namespace

ParsedAnswers parse_answers(const std::string& text, const std::string& name) {
    ParsedAnswers out;
    std::istringstream in(text);
    std::string line;
    std::map<Bytes, int> first_line;  // request prefix -> the line that set it last
    for (int n = 1; std::getline(in, line); ++n) {
        auto refuse = [&](const std::string& why) {
            out.errors.push_back(name + ":" + std::to_string(n) + ": " + why);
        };
        if (line.size() > kMaxAnswersLine) {
            refuse("longer than " + diag_wire::size_text(kMaxAnswersLine));
            continue;
        }
        line = trim(line.substr(0, line.find('#')));
        if (line.empty()) continue;
        size_t arrow = line.find("->");
        if (arrow == std::string::npos) {
            refuse("expected 'REQUEST_HEX -> REPLY_HEX|none [@ MS]'");
            continue;
        }
        AnswerLine a;
        a.line = n;
        std::string request = line.substr(0, arrow);
        std::string why;
        if (!parse_pairs(request, &a.request_prefix, &why)) {
            refuse("bad request hex '" + diag_wire::printable(trim(request)) + "': " + why);
            continue;
        }
        if (a.request_prefix.empty()) {
            refuse("empty request (it would match every command)");
            continue;
        }
        size_t at = line.find('@', arrow);
        std::string reply = trim(line.substr(arrow + 2, at - arrow - 2));
        a.silent = reply == "none";
        if (!a.silent) {
            const bool parsed = parse_pairs(reply, &a.reply, &why);
            if (!parsed || a.reply.empty()) {
                refuse("bad reply '" + printable(reply) + "' (" +
                       (parsed ? "hex bytes or none" : why) + ")");
                continue;
            }
        }
        long long delay = 0;
        if (at != std::string::npos &&
            (!diag_wire::parse_number(trim(line.substr(at + 1)), &delay) || delay < 0 ||
             delay > kMaxAnswerDelay.count())) {
            refuse("bad delay '" + trim(line.substr(at + 1)) + "' (0 to " +
                   std::to_string(kMaxAnswerDelay.count()) + " ms)");
            continue;
        }
        a.delay = std::chrono::milliseconds(delay);
        auto [it, fresh] = first_line.emplace(a.request_prefix, n);
        if (!fresh) {
            out.warnings.push_back(name + ":" + std::to_string(n) + ": the same request as line " +
                                   std::to_string(it->second) + ", which this line replaces");
            it->second = n;
        }
        out.lines.push_back(std::move(a));
    }
    return out;
}

ParsedAnswers parse_answers_file(const std::string& path) {
    std::string text, error;
    if (!diag_wire::read_regular(path, kMaxAnswersFile, &text, &error)) {
        ParsedAnswers unread;
        unread.errors.push_back(error);
        return unread;
    }
    return parse_answers(text, path);
}

Overrides overrides_of(const ParsedAnswers& parsed) {
    Overrides overrides;
    for (const AnswerLine& l : parsed.lines) {
        overrides[l.request_prefix] =
                l.silent ? Answer{} : Answer{{Response{0, l.reply, {}, l.delay}}};
    }
    return overrides;
}

}  // namespace diag_wire
