#include "output.h"

#include <ctype.h>

#include <algorithm>
#include <memory>
#include <sstream>

#include <json/json.h>

#include "decode.h"
#include "failure.h"
#include "library_model.h"

namespace tolven_diag_tool {
namespace {

constexpr char kProg[] = "tolven-diag";

std::string json_key(const std::string& name) {
    std::string key;
    for (char c : name) key += c == ' ' ? '_' : static_cast<char>(tolower(c));
    return key;
}

std::string json_hex(const std::vector<uint8_t>& data) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string hex;
    for (uint8_t b : data) {
        hex += kDigits[b >> 4];
        hex += kDigits[b & 0x0F];
    }
    return hex;
}

// Every key a send object has, null where it does not apply, so that scripts need no test for a
// key's presence.
Json::Value json_send_keys(uint64_t seq, const char* kind) {
    Json::Value j;
    for (const char* key :
         {"capacity", "decoded", "elapsed_ms", "error", "mode", "outcome", "port", "reply",
          "reply_len", "request", "result", "subscription", "timeout_asked_ms", "timeout_ms"}) {
        j[key] = Json::Value();
    }
    j["seq"] = static_cast<Json::UInt64>(seq);
    j["kind"] = kind;
    j["notes"] = Json::Value(Json::arrayValue);
    return j;
}

void print_decoded(FILE* out, bool raw, const std::vector<uint8_t>& request,
                   const std::vector<uint8_t>& reply) {
    Decoded d;
    if (raw || !decode_reply(request, reply.data(), reply.size(), &d)) return;
    if (d.wrapped) fprintf(out, "subscription: %u\n", d.subscription);
    if (d.kind.empty()) return;
    fprintf(out, "%s:\n", d.kind.c_str());
    for (const Field& f : d.fields) fprintf(out, "  %-18s %s\n", f.name.c_str(), f.text.c_str());
    if (!d.note.empty()) fprintf(out, "  (%s)\n", d.note.c_str());
}

// The reply, its subscription and its decoded fields into a send's object.
void json_reply(Json::Value* j, bool raw, const std::vector<uint8_t>& request,
                const std::vector<uint8_t>& reply) {
    (*j)["reply"] = json_hex(reply);
    Decoded d;
    bool decoded = decode_reply(request, reply.data(), reply.size(), &d);
    if (d.wrapped) (*j)["subscription"] = d.subscription;
    if (!raw && decoded && !d.kind.empty()) (*j)["decoded"] = json_decoded(d);
    if (!raw && decoded && !d.note.empty()) (*j)["notes"].append(d.note);
}

void print_text(FILE* out, const Options& o, const Run& run, const Run* shown) {
    std::string tag = o.count > 1 ? "#" + std::to_string(run.seq) + " " : "";
    if (run.outcome != Outcome::kOk) {
        std::string after =
                run.outcome == Outcome::kRefused ? "" : " after " + ms_text(run.elapsed_ms);
        fprintf(out, "%sreply: none\n", tag.c_str());
        for (const std::string& n : run.notes) fprintf(out, "note: %s\n", n.c_str());
        fprintf(out, "%sresult: %d (%s%s)\n", tag.c_str(), run.result,
                logged_outcome_name(run.outcome), after.c_str());
        error(tag + run.why);
        return;
    }
    bool same = shown != nullptr && shown->reply == run.reply;
    fprintf(out, "%sreply: %s in %s%s\n", tag.c_str(), bytes_text(run.reply.size()).c_str(),
            ms_text(run.elapsed_ms).c_str(),
            same ? (", same as #" + std::to_string(shown->seq)).c_str() : "");
    if (!same) {
        dump(out, run.reply.data(), run.reply.size());
        print_decoded(out, o.raw, o.packet, run.reply);
        for (const std::string& n : run.notes) fprintf(out, "note: %s\n", n.c_str());
    }
    fprintf(out, "%sresult: 0 (ok)\n", tag.c_str());
}

void print_json(FILE* out, const Options& o, const Run& run) {
    Json::Value j = json_send(o, "sync");
    j["seq"] = run.seq;
    j["timeout_ms"] = effective_timeout_ms(o.mode, o.timeout_ms);
    j["timeout_asked_ms"] = o.timeout_ms;
    j["capacity"] = o.capacity;
    j["result"] = run.result;
    j["outcome"] = logged_outcome_name(run.outcome);
    j["elapsed_ms"] = run.elapsed_ms;
    if (run.outcome != Outcome::kOk) j["error"] = run.why;
    if (run.reply_len_written) j["reply_len"] = run.reply_len;
    for (const std::string& n : run.notes) j["notes"].append(n);
    if (run.outcome == Outcome::kOk) json_reply(&j, o.raw, o.packet, run.reply);
    print_json_value(out, j);
    if (run.outcome != Outcome::kOk) error(run.why);
}

double median_of(const std::vector<double>& sorted) {
    size_t mid = sorted.size() / 2;
    return sorted.size() % 2 ? sorted[mid] : (sorted[mid - 1] + sorted[mid]) / 2;
}

}  // namespace

Json::Value json_send(const Options& o, const char* kind) {
    Json::Value j = json_send_keys(1, kind);
    j["request"] = json_hex(o.packet);
    j["mode"] = mode_name(o.mode);
    j["port"] = json_or_null(o.port);
    return j;
}

// Milliseconds to a tenth.
void print_json_value(FILE* out, const Json::Value& value) {
    static const std::unique_ptr<Json::StreamWriter> writer = [] {
        Json::StreamWriterBuilder b;
        b["indentation"] = "";
        b["precision"] = 1;
        b["precisionType"] = "decimal";
        return std::unique_ptr<Json::StreamWriter>(b.newStreamWriter());
    }();
    std::ostringstream text;
    writer->write(value, &text);
    fprintf(out, "%s\n", text.str().c_str());
}

Json::Value json_or_null(const std::string& s) {
    return s.empty() ? Json::Value() : Json::Value(s);
}

Json::Value json_decoded(const Decoded& d) {
    Json::Value fields;
    fields["kind"] = d.kind;
    for (const Field& f : d.fields) {
        fields[json_key(f.name)] =
                f.has_number ? Json::Value(static_cast<Json::Int64>(f.number)) : f.value;
    }
    return fields;
}

bool output_ok(FILE* out) {
    return fflush(out) == 0 && !ferror(out);
}

void error(const std::string& message) {
    fprintf(stderr, "%s: %s\n", kProg, message.c_str());
}

std::string bytes_text(size_t n) {
    return std::to_string(n) + (n == 1 ? " byte" : " bytes");
}

std::string ms_text(double ms) {
    char text[32];
    snprintf(text, sizeof text, "%.1f ms", ms);
    return text;
}

void dump(FILE* out, const uint8_t* data, size_t len) {
    for (size_t row = 0; row < len; row += 16) {
        fprintf(out, "  %04zX ", row);
        for (size_t i = row; i < row + 16; ++i) {
            if (i < len) {
                fprintf(out, " %02X", data[i]);
            } else {
                fputs("   ", out);
            }
        }
        fputs("  ", out);
        for (size_t i = row; i < row + 16 && i < len; ++i) {
            fputc(isprint(data[i]) ? data[i] : '.', out);
        }
        fputc('\n', out);
    }
}

std::string port_text(const Options& o) {
    if (o.port.empty()) return "";
    std::string note = o.framing;
    if (o.port_auto) note += ", found by --port auto";
    if (o.port_from_env) note += std::string(note.empty() ? "" : ", ") + "from LIBDIAG_PORT";
    return ", port " + o.port + (note.empty() ? "" : " (" + note + ")");
}

void print_request(FILE* out, const Options& o) {
    std::string note = timeout_note(o.mode, o.timeout_ms);
    fprintf(out, "request: %s, %s mode, time-out %d ms%s, capacity %d%s",
            bytes_text(o.packet.size()).c_str(), mode_name(o.mode),
            effective_timeout_ms(o.mode, o.timeout_ms),
            note.empty() ? "" : (" (" + note + ")").c_str(), o.capacity, port_text(o).c_str());
    if (o.count > 1) fprintf(out, ", %d times every %d ms", o.count, o.interval_ms);
    fputc('\n', out);
    dump(out, o.packet.data(), o.packet.size());
}

void print_run(FILE* out, const Options& o, const Run& run, const Run* shown) {
    if (o.json) {
        print_json(out, o, run);
    } else {
        print_text(out, o, run, shown);
    }
}

void print_summary(FILE* out, const Options& o, Tally tally, const char* interrupted) {
    std::vector<double>& latency = tally.latency_ms;
    std::sort(latency.begin(), latency.end());
    const int ok = tally.count(Outcome::kOk);
    const int refused = tally.count(Outcome::kRefused);
    const int diag = tally.count(Outcome::kDiagError);
    const int timed_out = tally.count(Outcome::kTimedOut);
    const int unknown = tally.count(Outcome::kUnknown);
    if (o.json) {
        Json::Value s;
        s["sent"] = tally.sent;
        s["answered"] = ok;
        s["timed_out"] = timed_out;
        s["refused"] = refused;
        s["diag_errors"] = diag;
        s["unknown"] = unknown;
        s["interrupted"] = interrupted != nullptr ? Json::Value(interrupted) : Json::Value();
        if (latency.empty()) {
            s["latency_ms"] = Json::Value();
        } else {
            s["latency_ms"]["min"] = latency.front();
            s["latency_ms"]["median"] = median_of(latency);
            s["latency_ms"]["max"] = latency.back();
        }
        Json::Value j;
        j["summary"] = s;
        print_json_value(out, j);
        return;
    }
    fprintf(out, "summary: %d sent, %d answered, %d timed out, %d refused, %d diag errors",
            tally.sent, ok, timed_out, refused, diag);
    if (unknown > 0) fprintf(out, ", %d of unknown kind", unknown);
    if (!latency.empty()) {
        fprintf(out, "; latency min %s, median %s, max %s", ms_text(latency.front()).c_str(),
                ms_text(median_of(latency)).c_str(), ms_text(latency.back()).c_str());
    }
    if (interrupted != nullptr) fprintf(out, "; interrupted by %s", interrupted);
    fputc('\n', out);
}

namespace {

std::string where_text(const LoggedCommand& c) {
    std::string where = c.instance >= 0     ? "SUB[" + std::to_string(c.instance) + "]"
                        : c.process.empty() ? ""
                                            : "[" + c.process + "]";
    if (c.pid >= 0)
        where += (where.empty() ? "" : " ") + std::string("pid ") + std::to_string(c.pid);
    if (c.tid >= 0) where += " tid " + std::to_string(c.tid);
    if (!c.start.empty()) where += (where.empty() ? "" : ", ") + c.start;
    return where;
}

// Why a logged command failed, in one line.
std::string logged_cause(const LoggedCommand& c) {
    switch (c.outcome) {
        case LoggedOutcome::kRefused:
            return "the library refused the call" +
                   (c.notes.empty() ? std::string() : ": " + c.notes.front());
        case LoggedOutcome::kDiagError:
            return failed_call_text(c.failure);
        case LoggedOutcome::kTimedOut:
            return "no complete reply within " + std::to_string(c.timeout_ms) + " ms";
        case LoggedOutcome::kUnknown:
            return "its lines stop before its end";
        case LoggedOutcome::kOk:
            break;
    }
    return "";
}

}  // namespace

void print_logged(FILE* out, const Options& o, const LoggedCommand& c) {
    const bool ok = c.outcome == LoggedOutcome::kOk;
    const bool sync = c.kind == CommandKind::kSync;
    if (o.json) {
        // A live send's keys, and where the command ran.
        Json::Value j = json_send_keys(c.seq, command_kind_name(c.kind));
        for (const char* key :
             {"pid", "tid", "process", "instance", "start", "failed_call", "value", "errno"}) {
            j[key] = Json::Value();
        }
        if (c.mode_known) j["mode"] = mode_name(c.mode);
        if (c.request_known) j["request"] = json_hex(c.request);
        if (c.capacity >= 0) j["capacity"] = c.capacity;
        if (c.timeout_ms >= 0) j["timeout_ms"] = c.timeout_ms;
        if (c.result >= 0) j["result"] = c.result;
        j["outcome"] = logged_outcome_name(c.outcome);
        if (c.elapsed_ms >= 0) j["elapsed_ms"] = c.elapsed_ms;
        if (!ok) j["error"] = logged_cause(c);
        if (c.reply_len >= 0) j["reply_len"] = c.reply_len;
        if (c.pid >= 0) j["pid"] = c.pid;
        if (c.tid >= 0) j["tid"] = c.tid;
        if (!c.process.empty()) j["process"] = c.process;
        if (c.instance >= 0) j["instance"] = c.instance;
        if (!c.start.empty()) j["start"] = c.start;
        if (!c.failure.call.empty()) {
            j["failed_call"] = c.failure.call;
            if (c.failure.has_value) j["value"] = static_cast<Json::Int64>(c.failure.value);
            if (c.failure.has_errno) j["errno"] = c.failure.err;
        }
        for (const std::string& n : c.notes) j["notes"].append(n);
        if (ok && sync && c.reply_known) json_reply(&j, o.raw, c.request, c.reply);
        print_json_value(out, j);
        return;
    }
    fprintf(out, "#%llu %s%s%s\n", static_cast<unsigned long long>(c.seq), command_kind_name(c.kind),
            c.mode_known ? (std::string(", ") + mode_name(c.mode) + " mode").c_str() : "",
            (", " + where_text(c)).c_str());
    std::string request = c.request_known ? bytes_text(c.request.size())
                          : c.request_len >= 0
                                  ? bytes_text(static_cast<size_t>(c.request_len)) + ", not logged"
                                  : "not logged";
    fprintf(out, "request: %s", request.c_str());
    if (c.timeout_ms >= 0) fprintf(out, ", time-out %d ms", c.timeout_ms);
    if (c.capacity >= 0) fprintf(out, ", capacity %d", c.capacity);
    fputc('\n', out);
    if (c.request_known) dump(out, c.request.data(), c.request.size());
    const std::string after = c.elapsed_ms >= 0 ? " after " + ms_text(c.elapsed_ms) : "";
    if (!sync) {
        for (const std::string& n : c.notes) fprintf(out, "note: %s\n", n.c_str());
        fprintf(out, "result: %s (%s%s)\n", c.result >= 0 ? std::to_string(c.result).c_str() : "?",
                logged_outcome_name(c.outcome), after.c_str());
        if (!ok) fprintf(out, "cause: %s\n", logged_cause(c).c_str());
        return;
    }
    if (ok && c.reply_len >= 0) {
        fprintf(out, "reply: %s%s\n", bytes_text(static_cast<size_t>(c.reply_len)).c_str(),
                c.elapsed_ms >= 0 ? (" in " + ms_text(c.elapsed_ms)).c_str() : "");
        if (c.reply_known) {
            dump(out, c.reply.data(), c.reply.size());
            print_decoded(out, o.raw, c.request, c.reply);
        }
    } else {
        fprintf(out, "reply: none\n");
    }
    for (const std::string& n : c.notes) fprintf(out, "note: %s\n", n.c_str());
    if (ok) {
        fprintf(out, "result: 0 (ok)\n");
        return;
    }
    fprintf(out, "result: %s (%s%s)\n", c.result >= 0 ? std::to_string(c.result).c_str() : "?",
            logged_outcome_name(c.outcome),
            c.outcome == LoggedOutcome::kRefused ? "" : after.c_str());
    fprintf(out, "cause: %s\n", logged_cause(c).c_str());
}

void print_log_summary(FILE* out, const Options& o, const LogSummary& s) {
    static constexpr LoggedOutcome kOrder[] = {LoggedOutcome::kOk, LoggedOutcome::kTimedOut,
                                               LoggedOutcome::kRefused, LoggedOutcome::kDiagError,
                                               LoggedOutcome::kUnknown};
    if (o.json) {
        Json::Value j;
        j["commands"] = static_cast<Json::UInt64>(s.commands);
        j["sync"] = static_cast<Json::UInt64>(s.sync);
        j["no_wait"] = static_cast<Json::UInt64>(s.no_wait);
        for (LoggedOutcome k : kOrder) {
            j["outcomes"][json_key(logged_outcome_name(k))] =
                    static_cast<Json::UInt64>(s.outcomes[static_cast<int>(k)]);
        }
        j["processes"] = Json::Value(Json::objectValue);
        for (const auto& [name, n] : s.per_process) {
            j["processes"][name] = static_cast<Json::UInt64>(n);
        }
        if (s.has_latency) {
            j["latency_ms"]["min"] = s.latency_min;
            j["latency_ms"]["median"] = s.latency_median;
            j["latency_ms"]["max"] = s.latency_max;
        } else {
            j["latency_ms"] = Json::Value();
        }
        j["lines"] = static_cast<Json::UInt64>(s.lines);
        j["library_lines"] = static_cast<Json::UInt64>(s.trace_lines);
        j["long_lines"] = static_cast<Json::UInt64>(s.long_lines);
        Json::Value top;
        top["summary"] = j;
        print_json_value(out, top);
        return;
    }
    fprintf(out, "summary: %llu commands (%llu sync, %llu no-wait)",
            static_cast<unsigned long long>(s.commands), static_cast<unsigned long long>(s.sync),
            static_cast<unsigned long long>(s.no_wait));
    for (LoggedOutcome k : kOrder) {
        fprintf(out, ", %llu %s", static_cast<unsigned long long>(s.outcomes[static_cast<int>(k)]),
                logged_outcome_name(k));
    }
    if (s.has_latency) {
        fprintf(out, "; latency min %s, median %s, max %s", ms_text(s.latency_min).c_str(),
                ms_text(s.latency_median).c_str(), ms_text(s.latency_max).c_str());
    }
    fprintf(out, "\n");
    for (const auto& [name, n] : s.per_process) {
        fprintf(out, "  %s: %llu\n", name.c_str(), static_cast<unsigned long long>(n));
    }
    fprintf(out, "  %llu lines read, %llu of the library", static_cast<unsigned long long>(s.lines),
            static_cast<unsigned long long>(s.trace_lines));
    if (s.long_lines > 0) {
        fprintf(out, ", %llu too long, skipped", static_cast<unsigned long long>(s.long_lines));
    }
    fputc('\n', out);
}

}  // namespace tolven_diag_tool
