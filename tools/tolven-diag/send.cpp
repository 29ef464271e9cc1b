#include "send.h"

#include <errno.h>
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <chrono>

#include "failure.h"
#include "library_model.h"
#include "live_log.h"
#include "output.h"
#include "ports.h"
#include "tolven_diag.h"

namespace tolven_diag_tool {
namespace {

volatile sig_atomic_t g_stop_signal = 0;

void on_stop(int sig) {
    g_stop_signal = sig;
}

// Sleeps |ms|, or less when a stop signal comes.
void sleep_ms(int ms) {
    timespec ts{ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR && g_stop_signal == 0) {
    }
}

// A reply that repeats the request, where the command is not one that echoes by design (the test
// subsystem's echo, 4B FE 01 00).
bool echoed(const std::vector<uint8_t>& request, const std::vector<uint8_t>& reply) {
    static const std::vector<uint8_t> kTestEcho = {0x4B, 0xFE, 0x01, 0x00};
    return reply == request && !(request.size() >= kTestEcho.size() &&
                                 std::equal(kTestEcho.begin(), kTestEcho.end(), request.begin()));
}

Run send_once(const Options& o, int seq) {
    Run run;
    run.seq = seq;
    // The buffer matches the capacity handed over; 0 still gets a valid pointer.
    std::vector<uint8_t> buf(std::max(o.capacity, 1));
    int reply_len = o.capacity;
    const int len = static_cast<int>(o.packet.size());
    LiveLog& live = LiveLog::get();
    live.returned();  // a command of before is not this one
    auto start = std::chrono::steady_clock::now();
    run.result = o.mode == Mode::kDci
                         ? tolven_diag_cmd_send_with_result(o.packet.data(), len, o.timeout_ms,
                                                            buf.data(), &reply_len)
                         : tolven_diag_cmd_send_with_result_by_callback_mode(
                                   o.packet.data(), len, o.timeout_ms, buf.data(), &reply_len);
    run.elapsed_ms =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                    .count();
    run.reply_len = reply_len;
    // What happened, as the library's own lines tell it.
    const std::optional<LoggedCommand> logged = live.returned();
    if (logged) run.notes = logged->notes;
    if (run.result != 0) {
        explain_failure(o, logged, &run);
        run.reply_len_written = run.outcome == Outcome::kTimedOut;
        return run;
    }
    run.reply_len_written = true;
    run.outcome = Outcome::kOk;
    run.reply.assign(buf.begin(), buf.begin() + std::clamp(reply_len, 0, o.capacity));
    if (echoed(o.packet, run.reply)) {
        run.notes.push_back(
                "the reply is the request itself, byte for byte: a port that sends back what it "
                "gets (a loopback, an AT port with echo on) looks like this; check that " +
                (o.port.empty() ? std::string("the port") : o.port) + " is the modem's diag port");
    }
    return run;
}

}  // namespace

int send_with_result(const Options& o, FILE* out) {
    if (!o.json) print_request(out, o);
    // A run of sends ends after the send in flight, with its summary, as ping's does.
    struct sigaction stop {};
    stop.sa_handler = on_stop;
    if (o.count_given) {
        for (int sig : {SIGINT, SIGTERM}) sigaction(sig, &stop, nullptr);
    }
    Tally tally;
    Run shown;  // the last reply shown in full
    bool any_shown = false;
    for (int seq = 1; seq <= o.count && g_stop_signal == 0; ++seq) {
        if (seq > 1) sleep_ms(o.interval_ms);
        if (g_stop_signal != 0) break;
        Run run = send_once(o, seq);
        tally.add(run);
        print_run(out, o, run, any_shown ? &shown : nullptr);
        // Nobody sees the rest: stop sending (main says why).
        if (!output_ok(out)) return kExitFailed;
        if (run.outcome == Outcome::kOk && (!any_shown || shown.reply != run.reply)) {
            shown = std::move(run);
            any_shown = true;
        }
    }
    const int sig = g_stop_signal;
    if (o.count_given) {
        print_summary(out, o, tally, sig == 0 ? nullptr : sig == SIGINT ? "SIGINT" : "SIGTERM");
    }
    if (sig != 0) return 128 + sig;
    return tally.count(Outcome::kOk) == tally.sent ? kExitOk : kExitFailed;
}

int send_no_wait(const Options& o, FILE* out) {
    const int len = static_cast<int>(o.packet.size());
    if (!o.json) {
        fprintf(out, "request: %s, %s mode, no wait%s\n", bytes_text(len).c_str(),
                mode_name(o.mode), port_text(o).c_str());
        dump(out, o.packet.data(), o.packet.size());
    }
    LiveLog& live = LiveLog::get();
    auto start = std::chrono::steady_clock::now();
    int result = o.mode == Mode::kDci ? tolven_diag_cmd_send_without_result(o.packet.data(), len)
                                      : tolven_diag_cmd_send_without_result_by_callback_mode(
                                                o.packet.data(), len);
    Json::Value j = json_send(o, "no-wait");
    j["result"] = result;
    if (result != 0) {
        const std::string why = "the library refused the packet";
        if (o.json) {
            j["outcome"] = logged_outcome_name(Outcome::kRefused);
            j["error"] = why;
            print_json_value(out, j);
        } else {
            fprintf(out, "result: %d (refused)\n", result);
        }
        error(why);
        return kExitFailed;
    }
    int linger = o.linger_ms >= 0 ? o.linger_ms : worker_remaining_ms(o.mode);
    if (!o.json) {
        fprintf(out, "handed to a worker thread; it logs only the length of each answer%s\n",
                o.verbose ? "" : " (--verbose shows its trace)");
        fprintf(out, "waiting %d ms %s\n", linger,
                o.linger_ms >= 0 ? "(--linger)" : "for the worker to end");
    }
    sleep_ms(linger);

    // The worker's own account: the call's 0 says only that it was started.
    Run run;
    run.result = 0;
    run.outcome = Outcome::kOk;
    run.elapsed_ms =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                    .count();
    std::vector<LoggedCommand> ended = live.handed();
    if (!ended.empty()) {
        const LoggedCommand& c = ended.back();
        run.notes = c.notes;
        if (!c.answer_lens.empty()) {
            std::string lens;
            for (int n : c.answer_lens) lens += (lens.empty() ? "" : ", ") + std::to_string(n);
            run.notes.push_back("the worker got " + std::to_string(c.answer_lens.size()) +
                                (c.answer_lens.size() == 1 ? " answer: " : " answers: ") + lens +
                                " bytes");
        }
        if (c.outcome == Outcome::kDiagError) {
            run.outcome = c.outcome;
            run.why = "the worker's " + failed_call_text(c.failure);
            std::string problem = port_problem(o.port);
            if (!problem.empty()) run.why += "; " + problem;
        }
    } else if (live.available()) {
        run.notes.push_back(
                "the worker had not ended when the tool stopped waiting: what it did "
                "is not known");
    } else {
        run.notes.push_back(
                "the worker logs what it did to the system log: logcat -d | "
                "tolven-diag --read-log -");
    }
    const bool ok = run.outcome == Outcome::kOk;
    if (o.json) {
        j["outcome"] = logged_outcome_name(run.outcome);
        j["elapsed_ms"] = run.elapsed_ms;
        if (!ok) j["error"] = run.why;
        j["notes"].append("handed to a worker thread, which logs only the length of each answer");
        for (const std::string& n : run.notes) j["notes"].append(n);
        print_json_value(out, j);
    } else {
        for (const std::string& n : run.notes) fprintf(out, "note: %s\n", n.c_str());
        fprintf(out, ok ? "result: 0 (ok)\n" : "result: 0, but the worker failed (%s)\n",
                logged_outcome_name(run.outcome));
    }
    if (ok) return kExitOk;
    error(run.why);
    return kExitFailed;
}

}  // namespace tolven_diag_tool
