// Answers files: "REQUEST_HEX_PREFIX -> REPLY_HEX|none [@ DELAY_MS]" lines, '#' comments.

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <sstream>

#include "state.h"

namespace libdiag_sim {
namespace {

std::string trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return "";
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

bool parse_hex(const std::string& text, Bytes* out) {
    std::string digits;
    for (char c : text) {
        if (c == ' ' || c == '\t') continue;
        if (!isxdigit(static_cast<unsigned char>(c))) return false;
        digits += c;
    }
    if (digits.size() % 2 != 0) return false;
    out->clear();
    for (size_t i = 0; i < digits.size(); i += 2) {
        out->push_back(static_cast<uint8_t>(strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
    }
    return true;
}

bool read_file(const std::string& path, std::string* text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    text->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

}  // namespace

bool parse_number(const std::string& text, long long* out) {
    std::string t = trim(text);
    int base = 10;
    size_t pos = 0;
    if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) {
        base = 16;
        pos = 2;
    }
    const char* end = t.data() + t.size();
    auto [p, ec] = std::from_chars(t.data() + pos, end, *out, base);
    return pos < t.size() && ec == std::errc() && p == end;
}

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
        if (!a.silent && (reply.empty() || !parse_hex(reply, &a.reply))) {
            refuse("bad reply '" + reply + "' (hex bytes or none)");
            continue;
        }
        long long delay = 0;
        if (at != std::string::npos && (!parse_number(line.substr(at + 1), &delay) || delay < 0 ||
                                        delay > kMaxAnswerDelay.count())) {
            refuse("bad delay '" + trim(line.substr(at + 1)) + "' (0 to " +
                   std::to_string(kMaxAnswerDelay.count()) + " ms)");
            continue;
        }
        a.delay = milliseconds(delay);
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

std::map<Bytes, Answer> answers_of(const ParsedAnswers& parsed) {
    std::map<Bytes, Answer> answers;
    for (const AnswerLine& l : parsed.lines) {
        answers[l.request_prefix] =
                l.silent ? Answer{} : Answer{{Response{0, l.reply, {}, l.delay}}};
    }
    return answers;
}

const Answer* find_answer(const std::map<Bytes, Answer>& answers, const Bytes& request) {
    const Answer* best = nullptr;
    size_t best_len = 0;
    for (const auto& [prefix, answer] : answers) {
        if (prefix.size() <= request.size() && (best == nullptr || prefix.size() > best_len) &&
            std::equal(prefix.begin(), prefix.end(), request.begin())) {
            best = &answer;
            best_len = prefix.size();
        }
    }
    return best;
}

bool load_answers_file(const std::string& path, std::map<Bytes, Answer>* answers) {
    ParsedAnswers parsed = parse_answers_file(path);
    for (auto& [prefix, answer] : answers_of(parsed)) (*answers)[prefix] = std::move(answer);
    for (const std::string& e : parsed.errors) fprintf(stderr, "libdiag: %s\n", e.c_str());
    return parsed.errors.empty();
}

}  // namespace libdiag_sim
