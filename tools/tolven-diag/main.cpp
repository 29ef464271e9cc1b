// tolven-diag: sends one raw diag command packet through libtolven_diag and prints the reply.
// Uses only the library's public header, the property store and POSIX, so that the same source
// builds for the device and for the host stand-ins.

#include <ctype.h>
#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <link.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "args.h"
#include "decode.h"
#include "tolven_diag.h"

// libcutils on the device, the property stand-in on the host; both share these prototypes.
extern "C" int property_set(const char* key, const char* value);
extern "C" int property_get(const char* key, char* value, const char* default_value);

#ifndef TOLVEN_DIAG_TOOL_VERSION
#define TOLVEN_DIAG_TOOL_VERSION "unknown"
#endif

using namespace tolven_diag_tool;

namespace {

constexpr char kProg[] = "tolven-diag";
constexpr char kLogRoot[] = "/data/vendor/modem/diag_logs/";

// Where results go: standard output, or with --json a copy of it while standard output itself,
// which the library's trace uses, is pointed at standard error.
FILE* g_out = stdout;

void error(const std::string& message) {
    fprintf(stderr, "%s: %s\n", kProg, message.c_str());
}

void sleep_ms(int ms) {
    timespec ts{ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

std::string bytes(size_t n) {
    return std::to_string(n) + (n == 1 ? " byte" : " bytes");
}

std::string ms_text(double ms) {
    char text[32];
    snprintf(text, sizeof text, "%.1f ms", ms);
    return text;
}

// Rows of 16 bytes: offset, hex, printable characters.
void dump(const uint8_t* data, size_t len) {
    for (size_t row = 0; row < len; row += 16) {
        fprintf(g_out, "  %04zX ", row);
        for (size_t i = row; i < row + 16; ++i) {
            if (i < len) {
                fprintf(g_out, " %02X", data[i]);
            } else {
                fputs("   ", g_out);
            }
        }
        fputs("  ", g_out);
        for (size_t i = row; i < row + 16 && i < len; ++i) {
            fputc(isprint(data[i]) ? data[i] : '.', g_out);
        }
        fputc('\n', g_out);
    }
}

std::string json_string(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c >= 0x7F) {
            char esc[8];
            snprintf(esc, sizeof esc, "\\u%04X", c);
            out += esc;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

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

std::string json_number(double v) {
    char text[32];
    snprintf(text, sizeof text, "%.1f", v);
    return text;
}

// ---- Sends ----

enum class Outcome { kOk, kRefused, kDiagError, kTimedOut };

const char* outcome_name(Outcome o) {
    switch (o) {
        case Outcome::kOk:
            return "ok";
        case Outcome::kRefused:
            return "refused";
        case Outcome::kDiagError:
            return "diag error";
        case Outcome::kTimedOut:
            return "timed out";
    }
    return "";
}

struct Run {
    int seq = 1;
    int result = 1;
    Outcome outcome = Outcome::kDiagError;
    double elapsed_ms = 0;
    std::vector<uint8_t> reply;
    std::string why;                 // for a failure
    std::vector<std::string> notes;  // for a success
};

// Why the diag library cannot use |port|, or "" when it exists and opens for reading and writing
// (or is a network port, which only a connection can tell).
std::string port_problem(const std::string& port) {
    if (port.rfind("tcp:", 0) == 0) return "";
    struct stat st;
    if (stat(port.c_str(), &st) != 0) return "the port " + port + ": " + strerror(errno);
    if (access(port.c_str(), R_OK | W_OK) != 0) {
        return "the port " + port + " cannot be opened for reading and writing: " + strerror(errno);
    }
    return "";
}

// Before a call whose failure the tool cannot see: a port that cannot work.
void warn_port(const Options& o, const char* consequence) {
    std::string problem = o.port.empty() ? "" : port_problem(o.port);
    if (!problem.empty()) error("warning: " + problem + "; " + consequence);
}

// What the host libdiag found out about the port when a command went unanswered (busy, the other
// framing, other processes on it); "" when it found nothing, or on a device, whose libdiag does
// not say.
std::string port_note() {
    using NoteFn = size_t (*)(char*, size_t);
    auto fn = reinterpret_cast<NoteFn>(dlsym(RTLD_DEFAULT, "libdiag_sim_port_note"));
    if (fn == nullptr) return "";
    char note[1024];
    fn(note, sizeof note);
    return note;
}

Run send_once(const Options& o, int seq) {
    Run run;
    run.seq = seq;
    const int timeout = effective_timeout_ms(o.mode, o.timeout_ms);
    // The buffer matches the capacity handed over; 0 still gets a valid pointer.
    std::vector<uint8_t> buf(std::max(o.capacity, 1));
    int reply_len = o.capacity;
    const int len = static_cast<int>(o.packet.size());
    auto start = std::chrono::steady_clock::now();
    run.result = o.mode == Mode::kDci
                         ? tolven_diag_cmd_send_with_result(o.packet.data(), len, o.timeout_ms,
                                                            buf.data(), &reply_len)
                         : tolven_diag_cmd_send_with_result_by_callback_mode(
                                   o.packet.data(), len, o.timeout_ms, buf.data(), &reply_len);
    run.elapsed_ms =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                    .count();
    if (run.result == 0) {
        run.outcome = Outcome::kOk;
        run.reply.assign(buf.begin(), buf.begin() + std::clamp(reply_len, 0, o.capacity));
        if (reply_len == o.capacity) {
            run.notes.push_back("the reply fills the capacity; it may have been cut");
        }
        if (o.mode == Mode::kDci && reply_len > 0 && reply_len % kDciPieceLen == 0) {
            run.notes.push_back(
                    "a DCI reply of whole 4096-byte pieces counts as complete only when the "
                    "time-out runs out");
        }
        return run;
    }
    // The library checks the packet (1 to 4096 bytes, already enforced) and the capacity
    // before any diag call; past those checks only a diag call or the time-out fails.
    if (o.capacity <= 0) {
        run.outcome = Outcome::kRefused;
        run.why = "the library refused the send: the capacity must be above 0, not " +
                  std::to_string(o.capacity);
    } else if (run.elapsed_ms >= timeout - 1) {
        run.outcome = Outcome::kTimedOut;
        run.why = "timed out: no complete reply within " + std::to_string(timeout) + " ms";
        std::string note = port_note();
        if (!note.empty()) {
            run.why += ": " + note;
        } else if (o.mode == Mode::kCallback) {
            run.why += " (callback mode also drops a response over " +
                       std::to_string(kCallbackMaxResponse) + " bytes)";
        }
    } else {
        run.outcome = Outcome::kDiagError;
        run.why = "a diag library call failed after " + ms_text(run.elapsed_ms);
        if (!o.port.empty()) {
            std::string problem = port_problem(o.port);
            run.why += "; " + (problem.empty() ? "check that " + o.port + " is the modem's diag port"
                                               : problem);
        }
        run.why += o.verbose ? "" : " (--verbose shows which)";
    }
    return run;
}

void print_decoded(const Options& o, const Run& run, const std::vector<uint8_t>& request) {
    Decoded d;
    if (o.raw || !decode_reply(request, run.reply.data(), run.reply.size(), &d)) return;
    if (d.wrapped) fprintf(g_out, "subscription: %u\n", d.subscription);
    if (d.kind.empty()) return;
    fprintf(g_out, "%s:\n", d.kind.c_str());
    for (const Field& f : d.fields) fprintf(g_out, "  %-18s %s\n", f.name.c_str(), f.text.c_str());
    if (!d.note.empty()) fprintf(g_out, "  (%s)\n", d.note.c_str());
}

void print_text(const Options& o, const Run& run, const Run* shown) {
    std::string tag = o.count > 1 ? "#" + std::to_string(run.seq) + " " : "";
    if (run.outcome != Outcome::kOk) {
        std::string after =
                run.outcome == Outcome::kRefused ? "" : " after " + ms_text(run.elapsed_ms);
        fprintf(g_out, "%sreply: none\n%sresult: %d (%s%s)\n", tag.c_str(), tag.c_str(), run.result,
                outcome_name(run.outcome), after.c_str());
        error(tag + run.why);
        return;
    }
    bool same = shown != nullptr && shown->reply == run.reply;
    fprintf(g_out, "%sreply: %s in %s%s\n", tag.c_str(), bytes(run.reply.size()).c_str(),
            ms_text(run.elapsed_ms).c_str(),
            same ? (", same as #" + std::to_string(shown->seq)).c_str() : "");
    if (!same) {
        dump(run.reply.data(), run.reply.size());
        print_decoded(o, run, o.packet);
        for (const std::string& n : run.notes) fprintf(g_out, "note: %s\n", n.c_str());
    }
    fprintf(g_out, "%sresult: 0 (ok)\n", tag.c_str());
}

void print_json(const Options& o, const Run& run) {
    std::string j = "{\"seq\":" + std::to_string(run.seq);
    j += ",\"request\":" + json_string(json_hex(o.packet));
    j += ",\"mode\":" + json_string(mode_name(o.mode));
    if (!o.port.empty()) j += ",\"port\":" + json_string(o.port);
    j += ",\"timeout_ms\":" + std::to_string(effective_timeout_ms(o.mode, o.timeout_ms));
    j += ",\"timeout_asked_ms\":" + std::to_string(o.timeout_ms);
    j += ",\"capacity\":" + std::to_string(o.capacity);
    j += ",\"result\":" + std::to_string(run.result);
    j += ",\"outcome\":" + json_string(outcome_name(run.outcome));
    j += ",\"elapsed_ms\":" + json_number(run.elapsed_ms);
    if (run.outcome != Outcome::kOk) {
        j += ",\"reply\":null,\"error\":" + json_string(run.why) + "}";
        fprintf(g_out, "%s\n", j.c_str());
        return;
    }
    j += ",\"reply_len\":" + std::to_string(run.reply.size());
    j += ",\"reply\":" + json_string(json_hex(run.reply));
    Decoded d;
    bool decoded = decode_reply(o.packet, run.reply.data(), run.reply.size(), &d);
    if (d.wrapped) j += ",\"subscription\":" + std::to_string(d.subscription);
    if (!o.raw && decoded && !d.kind.empty()) {
        j += ",\"decoded\":{\"kind\":" + json_string(d.kind);
        for (const Field& f : d.fields) {
            j += "," + json_string(json_key(f.name)) + ":" +
                 (f.has_number ? std::to_string(f.number) : json_string(f.text));
        }
        if (!d.note.empty()) j += ",\"note\":" + json_string(d.note);
        j += "}";
    }
    if (!run.notes.empty()) {
        j += ",\"notes\":[";
        for (size_t i = 0; i < run.notes.size(); ++i) {
            j += (i == 0 ? "" : ",") + json_string(run.notes[i]);
        }
        j += "]";
    }
    fprintf(g_out, "%s}\n", j.c_str());
}

void print_summary(const Options& o, const std::vector<Run>& runs) {
    int counts[4] = {};
    std::vector<double> latency;
    for (const Run& r : runs) {
        counts[static_cast<int>(r.outcome)]++;
        if (r.outcome == Outcome::kOk) latency.push_back(r.elapsed_ms);
    }
    std::sort(latency.begin(), latency.end());
    double median = 0;
    if (!latency.empty()) {
        size_t mid = latency.size() / 2;
        median = latency.size() % 2 ? latency[mid] : (latency[mid - 1] + latency[mid]) / 2;
    }
    const int ok = counts[static_cast<int>(Outcome::kOk)];
    const int refused = counts[static_cast<int>(Outcome::kRefused)];
    const int diag = counts[static_cast<int>(Outcome::kDiagError)];
    const int timed_out = counts[static_cast<int>(Outcome::kTimedOut)];
    if (o.json) {
        std::string j = "{\"summary\":{\"sent\":" + std::to_string(runs.size()) +
                        ",\"answered\":" + std::to_string(ok) +
                        ",\"timed_out\":" + std::to_string(timed_out) +
                        ",\"refused\":" + std::to_string(refused) +
                        ",\"diag_errors\":" + std::to_string(diag) + ",\"latency_ms\":";
        j += latency.empty() ? "null"
                             : "{\"min\":" + json_number(latency.front()) +
                                       ",\"median\":" + json_number(median) +
                                       ",\"max\":" + json_number(latency.back()) + "}";
        fprintf(g_out, "%s}}\n", j.c_str());
        return;
    }
    fprintf(g_out, "summary: %zu sent, %d answered, %d timed out, %d refused, %d diag errors",
            runs.size(), ok, timed_out, refused, diag);
    if (!latency.empty()) {
        fprintf(g_out, "; latency min %s, median %s, max %s", ms_text(latency.front()).c_str(),
                ms_text(median).c_str(), ms_text(latency.back()).c_str());
    }
    fputc('\n', g_out);
}

std::string port_text(const Options& o) {
    if (o.port.empty()) return "";
    return ", port " + o.port + (o.framing.empty() ? "" : " (" + o.framing + ")");
}

int send_with_result(const Options& o) {
    if (!o.json) {
        std::string note = timeout_note(o.mode, o.timeout_ms);
        fprintf(g_out, "request: %s, %s mode, time-out %d ms%s, capacity %d%s",
                bytes(o.packet.size()).c_str(), mode_name(o.mode),
                effective_timeout_ms(o.mode, o.timeout_ms),
                note.empty() ? "" : (" (" + note + ")").c_str(), o.capacity, port_text(o).c_str());
        if (o.count > 1) fprintf(g_out, ", %d times every %d ms", o.count, o.interval_ms);
        fputc('\n', g_out);
        dump(o.packet.data(), o.packet.size());
    }
    std::vector<Run> runs;
    runs.reserve(o.count);
    const Run* shown = nullptr;  // the last reply shown in full
    for (int seq = 1; seq <= o.count; ++seq) {
        if (seq > 1) sleep_ms(o.interval_ms);
        runs.push_back(send_once(o, seq));
        const Run& run = runs.back();
        if (o.json) {
            print_json(o, run);
            if (run.outcome != Outcome::kOk) error(run.why);
        } else {
            print_text(o, run, shown);
        }
        if (run.outcome == Outcome::kOk && (shown == nullptr || shown->reply != run.reply)) {
            shown = &run;
        }
    }
    if (o.count > 1) print_summary(o, runs);
    bool all_ok = std::all_of(runs.begin(), runs.end(),
                              [](const Run& r) { return r.outcome == Outcome::kOk; });
    return all_ok ? kExitOk : kExitFailed;
}

int send_no_wait(const Options& o) {
    const int len = static_cast<int>(o.packet.size());
    fprintf(g_out, "request: %s, %s mode, no wait%s\n", bytes(len).c_str(), mode_name(o.mode),
            port_text(o).c_str());
    dump(o.packet.data(), o.packet.size());
    int result = o.mode == Mode::kDci ? tolven_diag_cmd_send_without_result(o.packet.data(), len)
                                      : tolven_diag_cmd_send_without_result_by_callback_mode(
                                                o.packet.data(), len);
    if (result != 0) {
        fprintf(g_out, "result: %d (refused)\n", result);
        error("the library refused the packet");
        return kExitFailed;
    }
    fprintf(g_out, "handed to a worker thread; it logs only the length of each answer%s\n",
            o.verbose ? "" : " (--verbose shows its trace)");
    int linger = o.linger_ms >= 0 ? o.linger_ms : worker_remaining_ms(o.mode);
    fprintf(g_out, "waiting %d ms %s\n", linger,
            o.linger_ms >= 0 ? "(--linger)" : "for the worker to end");
    sleep_ms(linger);
    fprintf(g_out, "result: 0 (ok)\n");
    return kExitOk;
}

// ---- Offline log ----

std::string prop(const char* key, const char* fallback) {
    char value[kOfflineDirSize] = {};
    property_get(key, value, fallback);
    return value;
}

std::string dir_state(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return std::string("missing (") + strerror(errno) + ")";
    return S_ISDIR(st.st_mode) ? "exists" : "not a directory";
}

int offline_log_dir(const Options& o) {
    const char* kSwitch = "persist.vendor.radio.diag_log_auto";
    const char* kTrigger = "persist.vendor.radio.diag_log_trriger";
    const char* kModule = "debug.offline_log.module";
    const char* kEnable = "debug.offline_log.enable";
    char dir[kOfflineDirSize] = {};
    memcpy(dir, o.out_dir.data(), o.out_dir.size());
    const std::string before = dir;
    diag_mdlog_update_output_dir_for_offline_log_auto_start(o.offline_date.c_str(), dir,
                                                            kOfflineDirSize);
    dir[kOfflineDirSize - 1] = '\0';
    fprintf(g_out, "output dir: %s\n", dir[0] != '\0' ? dir : "(empty)");
    fprintf(g_out, "changed: %s\n", before == dir ? "no" : "yes");

    // The same four tests the library makes, with its defaults.
    const std::string sw = prop(kSwitch, "null");
    const std::string tr = prop(kTrigger, "null");
    const std::string module = prop(kModule, "null");
    const std::string enable = prop(kEnable, "false");
    std::vector<std::string> failed;
    auto quote = [](const std::string& v) { return "\"" + printable(v) + "\""; };
    if (sw == "null")
        failed.push_back(std::string(kSwitch) + " is \"null\"; it must name a module");
    if (sw != module) {
        failed.push_back(std::string(kSwitch) + " " + quote(sw) + " differs from " + kModule + " " +
                         quote(module));
    }
    if (tr != module) {
        failed.push_back(std::string(kTrigger) + " " + quote(tr) + " differs from " + kModule +
                         " " + quote(module));
    }
    if (enable != "true") {
        failed.push_back(std::string(kEnable) + " is " + quote(enable) + ", not \"true\"");
    }
    if (!failed.empty()) {
        fprintf(g_out, "  the update acts only when all four property tests pass:\n");
        for (const std::string& f : failed) fprintf(g_out, "  failed: %s\n", f.c_str());
        return kExitOk;
    }

    // The library ignores mkdir failures; say what is there.
    bool all_there = true;
    for (const std::string& path : {std::string(kLogRoot), std::string(dir)}) {
        std::string state = dir_state(path);
        all_there = all_there && state == "exists";
        fprintf(g_out, "  directory %s: %s\n", path.c_str(), state.c_str());
    }
    if (!all_there) {
        error("the update named the directory but could not create it (the library ignores mkdir "
              "failures)");
        return kExitFailed;
    }
    return kExitOk;
}

// ---- Version ----

struct Library {
    uintptr_t address;  // of a symbol in it
    std::string path;
    std::string build_id;
};

std::string note_build_id(const char* p, const char* end) {
    while (p + sizeof(ElfW(Nhdr)) <= end) {
        const auto* note = reinterpret_cast<const ElfW(Nhdr)*>(p);
        const char* name = p + sizeof(ElfW(Nhdr));
        const char* desc = name + ((note->n_namesz + 3) & ~3u);
        if (desc + note->n_descsz > end) break;
        if (note->n_type == NT_GNU_BUILD_ID && note->n_namesz == 4 && memcmp(name, "GNU", 4) == 0) {
            std::string hex;
            for (unsigned b = 0; b < note->n_descsz; ++b) {
                char pair[3];
                snprintf(pair, sizeof pair, "%02x", static_cast<uint8_t>(desc[b]));
                hex += pair;
            }
            return hex;
        }
        p = desc + ((note->n_descsz + 3) & ~3u);
    }
    return "";
}

// Finds the loaded object whose segments hold |address|.
int find_library(dl_phdr_info* info, size_t, void* data) {
    auto* lib = static_cast<Library*>(data);
    bool holds = false;
    for (int i = 0; i < info->dlpi_phnum && !holds; ++i) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        uintptr_t start = info->dlpi_addr + ph.p_vaddr;
        holds = ph.p_type == PT_LOAD && lib->address >= start && lib->address < start + ph.p_memsz;
    }
    if (!holds) return 0;
    lib->path = info->dlpi_name != nullptr ? info->dlpi_name : "";
    for (int i = 0; i < info->dlpi_phnum && lib->build_id.empty(); ++i) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        if (ph.p_type != PT_NOTE) continue;
        const char* p = reinterpret_cast<const char*>(info->dlpi_addr + ph.p_vaddr);
        lib->build_id = note_build_id(p, p + ph.p_memsz);
    }
    return 1;
}

// The file that holds |symbol| and its build id.
std::string library_build(const void* symbol) {
    Library lib{reinterpret_cast<uintptr_t>(symbol), "", ""};
    if (symbol == nullptr || dl_iterate_phdr(find_library, &lib) == 0) return "not loaded";
    return (lib.path.empty() ? "(unnamed)" : lib.path) +
           (lib.build_id.empty() ? "" : ", build id " + lib.build_id);
}

void print_version() {
    fprintf(g_out, "%s %s\n", kProg, TOLVEN_DIAG_TOOL_VERSION);
    fprintf(g_out, "libtolven_diag: %s\n",
            library_build(reinterpret_cast<const void*>(&tolven_diag_cmd_send_with_result)).c_str());
    fprintf(g_out, "libdiag: %s\n", library_build(dlsym(RTLD_DEFAULT, "Diag_LSM_Init")).c_str());
}

int run(const Options& o) {
    switch (o.action) {
        case Action::kHelp:
            fputs(usage_text(), g_out);
            return kExitOk;
        case Action::kVersion:
            print_version();
            return kExitOk;
        case Action::kOfflineLogDir:
            for (const auto& [key, value] : o.props) {
                if (property_set(key.c_str(), value.c_str()) != 0) {
                    error("cannot set property " + printable(key));
                    return kExitFailed;
                }
                fprintf(g_out, "property %s=%s\n", key.c_str(), value.c_str());
            }
            return offline_log_dir(o);
        case Action::kMdm:
            warn_port(o, "the diag library cannot reach that modem");
            fprintf(g_out, "remote modem: %s%s\n",
                    tolven_diag_is_mdm_supported() ? "present" : "absent", port_text(o).c_str());
            return kExitOk;
        case Action::kNoWait:
            return send_no_wait(o);
        case Action::kSend:
            return send_with_result(o);
    }
    return kExitFailed;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    std::string message;
    if (parse_args(std::vector<std::string>(argv + 1, argv + argc), &o, &message) != kExitOk) {
        fprintf(stderr, "%s: %s\nTry '%s --help' for more information.\n", kProg, message.c_str(),
                kProg);
        return kExitUsage;
    }
    if (o.json) {
        int fd = dup(STDOUT_FILENO);
        g_out = fd >= 0 ? fdopen(fd, "w") : nullptr;
        if (g_out == nullptr || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
            error(std::string("cannot set up the JSON output: ") + strerror(errno));
            return kExitFailed;
        }
    }
    // Line by line, so that a lingering worker's trace shows up as it happens, also in a pipe.
    setvbuf(g_out, nullptr, _IOLBF, 0);
    // The library and libdiag read these on their first call.
    if (o.verbose) setenv("TOLVEN_LOG_SHELL", "1,4", 1);
    if (!o.port.empty()) setenv("LIBDIAG_PORT", o.port.c_str(), 1);
    if (!o.framing.empty()) setenv("LIBDIAG_FRAMING", o.framing.c_str(), 1);
    int status = run(o);
    if (fflush(g_out) != 0 || ferror(g_out)) {
        error(std::string("cannot write the output: ") + strerror(errno));
        return kExitFailed;
    }
    return status;
}
