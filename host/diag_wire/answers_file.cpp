#include "answers_file.h"

#include <errno.h>
#include <string.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "text.h"

namespace diag_wire {
namespace {

bool read_file(const std::string& path, std::string* text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    text->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

bool parse_hex(const std::string& text, Bytes* out) {
    std::string group, why;
    out->clear();
    return diag_wire::parse_hex(text, out, &group, &why);
}

}  // namespace

ParsedAnswers parse_answers(const std::string& text, const std::string& name) {
    ParsedAnswers out;
    std::istringstream in(text);
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
        line = trim(line.substr(0, line.find('#')));
        if (line.empty()) continue;
        auto refuse = [&](const std::string& why) {
            out.errors.push_back(name + ":" + std::to_string(n) + ": " + why);
        };
        size_t arrow = line.find("->");
        if (arrow == std::string::npos) {
            refuse("expected 'REQUEST_HEX -> REPLY_HEX|none [@ MS]'");
            continue;
        }
        AnswerLine a;
        a.line = n;
        std::string request = line.substr(0, arrow);
        if (!parse_hex(request, &a.request_prefix)) {
            refuse("bad request hex '" + trim(request) + "'");
            continue;
        }
        if (a.request_prefix.empty()) {
            refuse("empty request (it would match every command)");
            continue;
        }
        size_t at = line.find('@', arrow);
        std::string reply = trim(line.substr(arrow + 2, at - arrow - 2));
        a.silent = reply == "none";
        if (!a.silent && (reply.empty() || !parse_hex(reply, &a.reply) || a.reply.empty())) {
            refuse("bad reply '" + reply + "' (hex bytes or none)");
            continue;
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
        out.lines.push_back(std::move(a));
    }
    return out;
}

ParsedAnswers parse_answers_file(const std::string& path) {
    std::string text;
    if (!read_file(path, &text)) {
        ParsedAnswers unread;
        unread.errors.push_back("cannot read " + path + ": " + strerror(errno));
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
