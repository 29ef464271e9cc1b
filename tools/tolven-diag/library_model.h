// What libtolven_diag does with what the tool hands it, for the tool to tell its user. This
// mirrors the library: its synchronous sends (the packets they refuse, how a time limit becomes
// 100 ms ticks with callback mode's range and default, the largest callback response, replies of
// whole 4096-byte pieces and which command they answer), its fire-and-forget workers (how long
// one lives after the call returns) and its offline-log update (the four property tests and the
// directory it names). How a send ended is not guessed from here: the log reader reads it from
// the library's own lines. tests/tool_library_model_test.cpp holds each part against the
// library itself.
#pragma once

#include <string>
#include <vector>

namespace tolven_diag_tool {

enum class Mode { kDci, kCallback };

// A command packet has 1 to this many bytes.
constexpr int kMaxPacket = 4096;
// The time limit is counted in ticks of this many milliseconds. Callback mode takes a limit of
// kCallbackTimeoutMinMs to kCallbackTimeoutMaxMs and puts kCallbackTimeoutDefaultMs in place of
// anything else; DCI mode takes any value.
constexpr int kTickMs = 100;
constexpr int kCallbackTimeoutMinMs = 1;
constexpr int kCallbackTimeoutMaxMs = 60000;
constexpr int kCallbackTimeoutDefaultMs = 3000;
// Callback mode drops larger responses.
constexpr int kCallbackMaxResponse = 10240;
// A DCI reply arrives in pieces of at most this many bytes; a whole one means that more follows.
constexpr int kDciPieceLen = 4096;
// The offline-log update's directory buffer; the last byte is the terminator.
constexpr int kOfflineDirSize = 500;
constexpr char kOfflineLogRoot[] = "/data/vendor/modem/diag_logs/";

// The ticks the library counts for |asked_ms|: what its trace shows as "Command time = N *
// 100ms" (callback mode) or "Dci Command time = N". 0 or less still waits one tick.
int timeout_ticks(Mode mode, int asked_ms);
// The longest the library waits for a reply, in milliseconds.
int effective_timeout_ms(Mode mode, int asked_ms);
// Why the wait differs from |asked_ms|; empty when it does not.
std::string timeout_note(Mode mode, int asked_ms);

// Whether a wait that reached its time limit ends as answered (result 0) with |stored_len| bytes
// stored: only whole 4096-byte pieces that a response to this very command stored. A length left
// by an earlier command (the store keeps it until the next response) answers nothing.
bool answered_at_limit(int stored_len, bool stored_by_this_command);

// How long a fire-and-forget worker lives after the call that started it returned.
int worker_remaining_ms(Mode mode);

// The offline-log update reads these four properties, each with its default when unset.
struct OfflineLogProperty {
    const char* key;
    const char* fallback;
};
constexpr OfflineLogProperty kOfflineLogProperties[] = {
        {"persist.vendor.radio.diag_log_auto", "null"},     // the switch
        {"persist.vendor.radio.diag_log_trriger", "null"},  // the trigger
        {"debug.offline_log.module", "null"},
        {"debug.offline_log.enable", "false"},
};
// The update's tests that fail for these values (in the order of kOfflineLogProperties), each
// said in a line; none: the update acts and names kOfflineLogRoot + its date.
std::vector<std::string> offline_log_failures(const std::vector<std::string>& values);

}  // namespace tolven_diag_tool
