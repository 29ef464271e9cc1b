// Which frame from a diag port answers which request. The modem answers in order, but it also
// sends log packets, event reports and messages of its own at any time, wrapped for a
// subscription or not, and a caller that gave up leaves its answer to come later; none of these
// may complete another request, except a late answer to the very request a newer caller waits
// for, which is as good as its own.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <utility>
#include <vector>

#include "wire.h"

namespace matcher {

using diag_wire::Bytes;
using Clock = std::chrono::steady_clock;

// Whether |frame| answers |request|: the same command (for subsystem commands also the same
// subsystem and subsystem command), or an error reply that echoes the request. A request
// wrapped for a subscription is answered only by a frame wrapped for the same one whose packet
// answers the packet inside, or by an error reply that echoes the whole wrapped request; a plain
// request never by a wrapped frame.
bool answers(const Bytes& request, const uint8_t* frame, size_t n);

enum class Outcome {
    kReply,        // answers a request whose caller still waits
    kLate,         // answers a request whose caller has gone: dropped
    kUnsolicited,  // answers nothing
};

// Requests sent and not answered yet, oldest first, each with where its reply goes (|T|) and
// whether its caller still waits.
template <typename T>
class Pending {
  public:
    // A request whose caller has gone keeps its place this long, so that its late answer is
    // recognised as such; past that a matching frame counts for newer requests again.
    static constexpr std::chrono::seconds kOrphanLifetime{30};
    static constexpr size_t kMax = 1024;  // far more than a client keeps in flight

    void add(Bytes request, T to, Clock::time_point now) {
        if (q_.size() == kMax) q_.pop_front();
        q_.push_back(Entry{std::move(request), std::move(to), now, true, false});
    }
    void pop_newest() {
        if (!q_.empty()) q_.pop_back();
    }
    void clear() { q_.clear(); }
    size_t size() const { return q_.size(); }
    // Requests whose caller still waits.
    size_t waiting() const {
        size_t n = 0;
        for (const Entry& e : q_) n += e.live;
        return n;
    }

    // The callers of the requests |gone|(const T&) picks have given up.
    template <typename Gone>
    void orphan(Gone&& gone) {
        for (Entry& e : q_) {
            if (e.live && gone(e.to)) e.live = false;
        }
    }

    // Forgets the requests |pick|(const T&) picks: no answer to them can come any more.
    template <typename Pick>
    void forget(Pick&& pick) {
        for (auto it = q_.begin(); it != q_.end();)
            it = pick(it->to) ? q_.erase(it) : std::next(it);
    }

    // Finds what |frame| is; on kReply the request is taken off and |*to| says where the reply
    // goes.
    Outcome match(const uint8_t* frame, size_t n, Clock::time_point now, T* to) {
        if (diag_wire::is_unsolicited(frame, n)) return Outcome::kUnsolicited;
        for (auto it = q_.begin(); it != q_.end();) {
            if (!it->live && now - it->sent > kOrphanLifetime) {
                it = q_.erase(it);
                continue;
            }
            if (!answers(it->request, frame, n)) {
                ++it;
                continue;
            }
            if (it->live) {
                *to = std::move(it->to);
                q_.erase(it);
                return Outcome::kReply;
            }
            if (it->maybe_answered) {
                // An orphan ahead of it already took a frame that was probably its answer: it
                // was never going to be answered, so this frame is for someone newer.
                it = q_.erase(it);
                continue;
            }
            // A caller that waits for the very same request takes the frame: whether it is the
            // orphan's late answer or its own, it is what that caller asked for.
            auto first_live = std::find_if(std::next(it), q_.end(), [&](const Entry& e) {
                return e.live && answers(e.request, frame, n);
            });
            if (first_live != q_.end() && first_live->request == it->request) {
                *to = std::move(first_live->to);
                const auto orphan_at = it - q_.begin();
                q_.erase(first_live);
                q_.erase(q_.begin() + orphan_at);
                return Outcome::kReply;
            }
            // The caller gave up before its answer came: this is that answer. Newer requests
            // that it also matches may have lost theirs to it if the orphan was never answered.
            for (auto later = std::next(it); later != q_.end(); ++later) {
                if (answers(later->request, frame, n)) later->maybe_answered = true;
            }
            q_.erase(it);
            return Outcome::kLate;
        }
        return Outcome::kUnsolicited;
    }

  private:
    struct Entry {
        Bytes request;
        T to;
        Clock::time_point sent;
        bool live;
        bool maybe_answered;
    };
    std::deque<Entry> q_;
};

}  // namespace matcher
