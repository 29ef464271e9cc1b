// An answers file for the simulated modem from the commands of a log, so that what a phone's
// modem answered is answered again on the desk.

#include <math.h>

#include <map>

#include "decode.h"
#include "log_reader.h"

namespace tolven_diag_tool {
namespace {

struct Entry {
    std::string request;
    std::vector<std::string> answers;  // one per command, in order
    std::vector<uint64_t> seqs;
    std::string comment;  // the last command's, when it has one
};

std::string hex(const std::vector<uint8_t>& bytes) {
    return hex_bytes(bytes.data(), bytes.size(), bytes.size());
}

}  // namespace

std::string answers_file_text(const std::vector<LoggedCommand>& commands,
                              const std::string& source) {
    std::vector<Entry> entries;
    std::map<std::string, size_t> index;
    std::string unknown;
    for (const LoggedCommand& c : commands) {
        if (c.kind != CommandKind::kSync || !c.request_known || !c.sent) continue;
        std::string request = hex(c.request);
        std::string answer, comment;
        if (c.response_dropped) {
            answer = "none";
            comment = "its response of " + std::to_string(c.response_len) +
                      " bytes was dropped by the library (over 10240 bytes)";
        } else if (!c.answered) {
            answer = "none";
        } else if (c.response_known && c.response_len > 0) {
            long ms = c.response_ms > 0 ? lround(c.response_ms) : 0;
            answer = hex(c.response) + " @ " + std::to_string(ms);
        } else {
            unknown += "# " + request + ": command #" + std::to_string(c.seq) + " got " +
                       std::to_string(c.response_len) +
                       " bytes that the log does not show; not replayed\n";
            continue;
        }
        auto [it, fresh] = index.emplace(request, entries.size());
        if (fresh) entries.push_back({request, {}, {}, ""});
        Entry& e = entries[it->second];
        e.answers.push_back(answer);
        e.seqs.push_back(c.seq);
        e.comment = comment;
    }
    std::string out = "# Answers for the simulated modem (LIBDIAG_SIM_ANSWERS), read from " +
                      source + " by tolven-diag --read-log:\n" +
                      "# what the modem answered each request, and after how many milliseconds.\n";
    out += unknown;
    for (const Entry& e : entries) {
        bool differ = false;
        for (const std::string& a : e.answers) differ = differ || a != e.answers.back();
        if (differ) {
            out += "# " + e.request + ": " + std::to_string(e.answers.size()) +
                   " different answers in the log (commands";
            for (uint64_t s : e.seqs) out += " #" + std::to_string(s);
            out += "); the last is kept\n";
        }
        if (!e.comment.empty()) out += "# " + e.request + ": " + e.comment + "\n";
        out += e.request + " -> " + e.answers.back() + "\n";
    }
    return out;
}

}  // namespace tolven_diag_tool
