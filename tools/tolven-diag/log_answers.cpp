// An answers file for the simulated modem from the commands of a log, so that what a phone's
// modem answered is answered again on the desk.

#include <math.h>

#include "decode.h"
#include "log_reader.h"

namespace tolven_diag_tool {
namespace {

std::string hex(const std::vector<uint8_t>& bytes) {
    return hex_bytes(bytes.data(), bytes.size(), bytes.size());
}

}  // namespace

void AnswersFile::add(const LoggedCommand& c) {
    if (c.kind != CommandKind::kSync || !c.request_known || !c.sent) return;
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
        unknown_ += "# " + request + ": command #" + std::to_string(c.seq) + " got " +
                    std::to_string(c.response_len) +
                    " bytes that the log does not show; not replayed\n";
        return;
    }
    auto [it, fresh] = index_.emplace(request, entries_.size());
    if (fresh) entries_.push_back({request, answer, "", {}, false});
    Entry& e = entries_[it->second];
    e.differ = e.differ || e.answer != answer;
    e.answer = answer;
    e.comment = comment;
    // The commands are named in the comment; a few are enough to find the rest.
    if (e.seqs.size() < 8) e.seqs.push_back(c.seq);
}

std::string AnswersFile::text(const std::string& source) const {
    std::string out = "# Answers for the simulated modem (LIBDIAG_SIM_ANSWERS), read from " +
                      source + " by tolven-diag --read-log:\n" +
                      "# what the modem answered each request, and after how many milliseconds.\n";
    out += unknown_;
    for (const Entry& e : entries_) {
        if (e.differ) {
            out += "# " + e.request + ": different answers in the log (commands";
            for (uint64_t s : e.seqs) out += " #" + std::to_string(s);
            out += e.seqs.size() == 8 ? " ...); the last is kept\n" : "); the last is kept\n";
        }
        if (!e.comment.empty()) out += "# " + e.request + ": " + e.comment + "\n";
        out += e.request + " -> " + e.answer + "\n";
    }
    return out;
}

}  // namespace tolven_diag_tool
