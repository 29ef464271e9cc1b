#include "log_lines.h"

#include <string.h>
#include <time.h>

namespace tolven_diag_tool {
namespace {

using std::string_view;

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool is_level(char c) {
    return strchr("VDIWEFAS", c) != nullptr && c != '\0';
}

bool is_word_char(char c) {
    return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

// Reads |n| digits at |*p|.
bool digits(string_view s, size_t* p, size_t n, int* out) {
    if (*p + n > s.size()) return false;
    int v = 0;
    for (size_t i = 0; i < n; ++i) {
        char c = s[*p + i];
        if (!is_digit(c)) return false;
        v = v * 10 + (c - '0');
    }
    *p += n;
    *out = v;
    return true;
}

// A decimal number of at most 10 digits, with an optional '-'.
bool number(string_view s, int* out) {
    if (s.empty() || s.size() > 11) return false;
    size_t i = s[0] == '-' ? 1 : 0;
    if (i == s.size()) return false;
    long long v = 0;
    for (; i < s.size(); ++i) {
        if (!is_digit(s[i])) return false;
        v = v * 10 + (s[i] - '0');
    }
    if (v > 0x7FFFFFFF) return false;
    *out = static_cast<int>(s[0] == '-' ? -v : v);
    return true;
}

void skip_blanks(string_view s, size_t* p) {
    while (*p < s.size() && s[*p] == ' ') ++*p;
}

string_view token(string_view s, size_t* p) {
    skip_blanks(s, p);
    size_t start = *p;
    while (*p < s.size() && s[*p] != ' ') ++*p;
    return s.substr(start, *p - start);
}

constexpr int kDaysBefore[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};

int64_t to_ms(int year, int month, int day, int h, int m, int sec, int ms) {
    int64_t days = static_cast<int64_t>(year) * 366 + kDaysBefore[month - 1] + day - 1;
    return (((days * 24 + h) * 60 + m) * 60 + sec) * 1000 + ms;
}

// "[YYYY-]MM-DD hh:mm:ss[.fff]" at |*p|; the fraction, when there, has 1 to 9 digits.
bool parse_time(string_view s, size_t* p, bool fraction_required, TraceLine* out) {
    size_t start = *p;
    int year = 0, month, day, h, m, sec, ms = 0;
    if (*p + 5 <= s.size() && s[*p + 4] == '-' && digits(s, p, 4, &year)) ++*p;
    if (!digits(s, p, 2, &month) || *p >= s.size() || s[(*p)++] != '-' || !digits(s, p, 2, &day) ||
        *p >= s.size() || s[(*p)++] != ' ' || !digits(s, p, 2, &h) || *p >= s.size() ||
        s[(*p)++] != ':' || !digits(s, p, 2, &m) || *p >= s.size() || s[(*p)++] != ':' ||
        !digits(s, p, 2, &sec)) {
        return false;
    }
    if (month < 1 || month > 12 || day < 1 || day > 31 || h > 23 || m > 59 || sec > 60) {
        return false;
    }
    out->time_step_ms = 1000;
    if (*p < s.size() && s[*p] == '.') {
        ++*p;
        int n = 0, scale = 100;
        while (*p < s.size() && is_digit(s[*p]) && n < 9) {
            if (n < 3) ms += (s[*p] - '0') * scale;
            scale /= 10;
            ++*p;
            ++n;
        }
        if (n == 0) return false;
        out->time_step_ms = 1;
    } else if (fraction_required) {
        return false;
    }
    out->has_time = true;
    out->time_ms = to_ms(year, month, day, h, m, sec, ms);
    out->time_text = s.substr(start, *p - start);
    return true;
}

// "[file:line] func: message" after the instance or the name.
bool parse_site(string_view s, TraceLine* out) {
    if (s.empty() || s[0] != '[') return false;
    size_t close = s.find(']');
    if (close == string_view::npos) return false;
    string_view site = s.substr(1, close - 1);
    size_t colon = site.rfind(':');
    int line;
    if (colon == string_view::npos || colon == 0 || !number(site.substr(colon + 1), &line)) {
        return false;
    }
    size_t p = close + 1;
    if (p >= s.size() || s[p] != ' ') return false;
    size_t func = ++p;
    while (p < s.size() && is_word_char(s[p])) ++p;
    if (p == func || p + 1 >= s.size() || s[p] != ':' || s[p + 1] != ' ') return false;
    out->func = s.substr(func, p - func);
    out->message = s.substr(p + 2);
    return true;
}

// The message after a logcat tag: the first ": " whose text is the library's.
bool parse_after_tag(string_view rest, TraceLine* out) {
    size_t from = 0;
    for (int tries = 0; tries < 4; ++tries) {
        size_t sep = rest.find(": ", from);
        if (sep == string_view::npos) return false;
        if (parse_trace_prefix(rest.substr(sep + 2), out)) return true;
        from = sep + 2;
    }
    return false;
}

// "L/tag( pid): message", as -v brief and -v time write it.
bool parse_brief(string_view s, size_t p, TraceLine* out) {
    if (p + 1 >= s.size() || !is_level(s[p]) || s[p + 1] != '/') return false;
    size_t from = p + 2;
    for (int tries = 0; tries < 4; ++tries) {
        size_t open = s.find('(', from);
        if (open == string_view::npos) return false;
        size_t q = open + 1;
        skip_blanks(s, &q);
        size_t start = q;
        while (q < s.size() && is_digit(s[q])) ++q;
        if (q > start && q + 2 < s.size() && s[q] == ')' && s[q + 1] == ':' && s[q + 2] == ' ' &&
            number(s.substr(start, q - start), &out->pid)) {
            return parse_trace_prefix(s.substr(q + 3), out);
        }
        from = open + 1;
    }
    return false;
}

bool parse_threadtime_rest(string_view s, size_t p, TraceLine* out) {
    string_view t1 = token(s, &p), t2 = token(s, &p), t3 = token(s, &p);
    string_view pid = t1, tid = t2, level = t3;
    if (t3.size() != 1 || !is_level(t3[0])) {
        // A uid column (a number or a name) before the pid, as in a bugreport.
        pid = t2;
        tid = t3;
        level = token(s, &p);
        if (t1.empty() || level.size() != 1 || !is_level(level[0])) return false;
    }
    if (!number(pid, &out->pid) || !number(tid, &out->tid)) return false;
    return parse_after_tag(s.substr(p), out);
}

// "tag L MM-DD hh:mm:ss pid tid message", the host liblog's standard error.
bool parse_host_stderr(string_view s, TraceLine* out) {
    size_t p = 0;
    string_view tag = token(s, &p);
    skip_blanks(s, &p);
    if (tag.empty() || p + 2 >= s.size() || !is_level(s[p]) || s[p + 1] != ' ') return false;
    p += 2;
    if (!parse_time(s, &p, false, out)) return false;
    if (!number(token(s, &p), &out->pid) || !number(token(s, &p), &out->tid)) return false;
    if (p >= s.size() || s[p] != ' ') return false;
    return parse_trace_prefix(s.substr(p + 1), out);
}

}  // namespace

bool parse_trace_prefix(string_view m, TraceLine* out) {
    out->instance = -1;
    out->process = {};
    if (m.size() < 4) return false;
    if (m.compare(0, 4, "RIL[") == 0) return parse_site(m.substr(3), out);
    if (m.compare(0, 4, "SUB[") == 0) {
        size_t close = m.find(']', 4);
        if (close == string_view::npos || !number(m.substr(4, close - 4), &out->instance)) {
            return false;
        }
        return parse_site(m.substr(close + 1), out);
    }
    if (m[0] != '[') return false;
    // The name may hold "][" itself: try each place it could end.
    size_t from = 1;
    for (int tries = 0; tries < 4; ++tries) {
        size_t end = m.find("][", from);
        if (end == string_view::npos) return false;
        if (parse_site(m.substr(end + 1), out)) {
            out->process = m.substr(1, end - 1);
            return true;
        }
        from = end + 1;
    }
    return false;
}

bool parse_trace_line(string_view s, TraceLine* out) {
    *out = TraceLine();
    if (!s.empty() && s.back() == '\r') s.remove_suffix(1);
    if (s.size() < 8) return false;
    if (s.compare(0, 4, "RIL[") == 0) return parse_trace_prefix(s, out);
    if (is_digit(s[0])) {
        size_t p = 0;
        if (!parse_time(s, &p, true, out)) return false;
        skip_blanks(s, &p);
        if (p + 1 < s.size() && s[p + 1] == '/') return parse_brief(s, p, out);
        return parse_threadtime_rest(s, p, out);
    }
    if (s[1] == '/') return parse_brief(s, 0, out);
    return parse_host_stderr(s, out);
}

std::string logcat_time_text(int64_t epoch_ms, int64_t* time_ms) {
    time_t secs = static_cast<time_t>(epoch_ms / 1000);
    int ms = static_cast<int>(epoch_ms % 1000);
    tm local;
    localtime_r(&secs, &local);
    char text[32];
    snprintf(text, sizeof text, "%02d-%02d %02d:%02d:%02d.%03d", local.tm_mon + 1, local.tm_mday,
             local.tm_hour, local.tm_min, local.tm_sec, ms);
    *time_ms = to_ms(0, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                     ms);
    return text;
}

void LineSplitter::feed(const char* data, size_t size) {
    const char* end = data + size;
    while (data < end) {
        const char* nl = static_cast<const char*>(memchr(data, '\n', end - data));
        const char* stop = nl != nullptr ? nl : end;
        size_t n = stop - data;
        if (skipping_) {
            if (nl != nullptr) skipping_ = false;
        } else if (partial_.size() + n > max_line_) {
            partial_.clear();
            ++dropped_;
            skipping_ = nl == nullptr;
        } else if (nl == nullptr) {
            partial_.append(data, n);
        } else if (partial_.empty()) {
            on_line_(std::string_view(data, n));
        } else {
            partial_.append(data, n);
            on_line_(partial_);
            partial_.clear();
        }
        data = nl != nullptr ? nl + 1 : end;
    }
}

void LineSplitter::finish() {
    if (!skipping_ && !partial_.empty()) on_line_(partial_);
    partial_.clear();
    skipping_ = false;
}

}  // namespace tolven_diag_tool
