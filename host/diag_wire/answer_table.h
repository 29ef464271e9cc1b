// What a modem answers: the built-in answer table, the overrides that answers files and tests put
// in front of it, and the unsolicited traffic a modem sends on its own.
#pragma once

#include <stdint.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "wire.h"

namespace diag_wire {

// One response from a processor: the whole reply, cut into pieces of at most 4096 bytes on the
// DCI path unless |pieces| gives the cut explicitly.
struct Response {
    int proc = 0;             // 0 local modem; 1..16 remote processors (callback mode only)
    Bytes bytes;              // the whole reply
    std::vector<int> pieces;  // DCI piece sizes, summing to bytes.size(); empty: 4096 rule
    std::chrono::milliseconds delay{0};  // after the request (or after the previous response)
};

// What the modem does with one request. No responses: the request is never answered.
struct Answer {
    std::vector<Response> responses;
};

// The longest delay an answer may ask for; longer delays anywhere are cut to it.
constexpr std::chrono::milliseconds kMaxAnswerDelay = std::chrono::hours(24);

class AnswerTable {
  public:
    virtual ~AnswerTable() = default;
    virtual Answer answer(int proc, const Bytes& request) = 0;
};

// Version info, build id, diag version, event report, the test, thermal and radio subsystems and
// error replies. A request wrapped for a subscription is answered as the packet inside it, and
// the reply wrapped the same way.
std::unique_ptr<AnswerTable> make_builtin_table();

// Answers for requests that start with a prefix; the longest prefix wins.
using Overrides = std::map<Bytes, Answer>;
// The override for |request|: its own longest prefix, or for a wrapped request the longest
// prefix of the packet inside, with every response wrapped for the same subscription.
std::optional<Answer> find_override(const Overrides& overrides, const Bytes& request);

// Unsolicited packets: log packets and event reports, numbered, plain or wrapped for the
// subscriptions given, one after the other.
class Traffic {
  public:
    explicit Traffic(std::vector<uint32_t> subscriptions = {})
        : subscriptions_(std::move(subscriptions)) {}
    Bytes next_log();
    Bytes next_event();

  private:
    Bytes wrapped(Bytes packet);
    std::vector<uint32_t> subscriptions_;
    uint64_t seq_ = 0;
};

}  // namespace diag_wire
