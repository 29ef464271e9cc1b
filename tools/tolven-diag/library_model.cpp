#include "library_model.h"

#include <algorithm>

#include "text.h"

namespace tolven_diag_tool {
namespace {

// The worker gives the modem this long after its send, and lingers this long before it ends;
// the call that started it returns after kCallHoldsMs of that.
constexpr int kDciAnswerMs = 1000;
constexpr int kCallbackAnswerMs = 200;
constexpr int kWorkerLingerMs = 3000;
constexpr int kCallHoldsMs = 1000;
// Set-up and tear-down of the worker's connection, on top of its sleeps.
constexpr int kWorkerMarginMs = 500;

bool callback_default(Mode mode, int asked_ms) {
    return mode == Mode::kCallback &&
           (asked_ms < kCallbackTimeoutMinMs || asked_ms > kCallbackTimeoutMaxMs);
}

}  // namespace

int timeout_ticks(Mode mode, int asked_ms) {
    return (callback_default(mode, asked_ms) ? kCallbackTimeoutDefaultMs : asked_ms) / kTickMs;
}

int effective_timeout_ms(Mode mode, int asked_ms) {
    return std::max(timeout_ticks(mode, asked_ms), 1) * kTickMs;
}

std::string timeout_note(Mode mode, int asked_ms) {
    if (callback_default(mode, asked_ms)) {
        return "asked " + std::to_string(asked_ms) + " ms; callback mode takes " +
               std::to_string(kCallbackTimeoutMinMs) + " to " +
               std::to_string(kCallbackTimeoutMaxMs) + " ms and uses " +
               std::to_string(kCallbackTimeoutDefaultMs) + " otherwise";
    }
    if (effective_timeout_ms(mode, asked_ms) != asked_ms) {
        return "asked " + std::to_string(asked_ms) +
               " ms; the library counts whole 100 ms ticks, at least one";
    }
    return "";
}

bool answered_at_limit(int stored_len, bool stored_by_this_command) {
    return stored_by_this_command && stored_len > 0 && stored_len % kDciPieceLen == 0;
}

int worker_remaining_ms(Mode mode) {
    const int answer_ms = mode == Mode::kDci ? kDciAnswerMs : kCallbackAnswerMs;
    return answer_ms + kWorkerLingerMs - kCallHoldsMs + kWorkerMarginMs;
}

std::vector<std::string> offline_log_failures(const std::vector<std::string>& values) {
    const OfflineLogProperty* p = kOfflineLogProperties;
    auto value = [&](int i) { return i < static_cast<int>(values.size()) ? values[i] : ""; };
    auto quote = [](const std::string& v) { return "\"" + diag_wire::printable(v) + "\""; };
    const std::string sw = value(0), trigger = value(1), module = value(2), enable = value(3);
    std::vector<std::string> failed;
    if (sw == "null")
        failed.push_back(std::string(p[0].key) + " is \"null\"; it must name a module");
    if (sw != module) {
        failed.push_back(std::string(p[0].key) + " " + quote(sw) + " differs from " + p[2].key +
                         " " + quote(module));
    }
    if (trigger != module) {
        failed.push_back(std::string(p[1].key) + " " + quote(trigger) + " differs from " +
                         p[2].key + " " + quote(module));
    }
    if (enable != "true") {
        failed.push_back(std::string(p[3].key) + " is " + quote(enable) + ", not \"true\"");
    }
    return failed;
}

}  // namespace tolven_diag_tool
