#include "delivery.h"

#include <string.h>

#include <algorithm>

namespace libdiag_sim {

std::vector<int> cut(int total, const std::vector<int>& given) {
    std::vector<int> out;
    int left = total;
    for (int p : given) {
        if (left == 0) break;
        if (p <= 0) continue;
        out.push_back(std::min(p, left));
        left -= out.back();
    }
    while (left > 0) {
        out.push_back(std::min(left, kPieceMax));
        left -= out.back();
    }
    if (out.empty()) out.push_back(0);
    return out;
}

DeliveryQueue::DeliveryQueue(std::mutex& mu, std::function<bool(Delivery&)> resolve)
    : mu_(mu), resolve_(std::move(resolve)) {}

void DeliveryQueue::push(Delivery d, Clock::time_point due) {
    if (!thread_started_) {
        thread_started_ = true;
        // Detached: the queue lives as long as the process, and callers may still come in
        // while it exits.
        std::thread([this] { run(); }).detach();
    }
    queue_.emplace(std::make_pair(due, ++seq_), std::move(d));
    work_cv_.notify_one();
}

void DeliveryQueue::post(Delivery d) {
    std::lock_guard<std::mutex> lk(mu_);
    push(std::move(d), Clock::now());
}

void DeliveryQueue::drop(int client, std::unique_lock<std::mutex>& lk) {
    for (auto it = queue_.begin(); it != queue_.end();) {
        it = client == 0 || it->second.client == client ? queue_.erase(it) : std::next(it);
    }
    if (busy_ && (client == 0 || busy_client_ == client)) {
        busy_cancelled_ = true;
        if (!on_thread()) {
            uint64_t seq = busy_seq_;
            idle_cv_.wait(lk, [&] { return !busy_ || busy_seq_ != seq; });
        }
    }
    idle_cv_.notify_all();
}

bool DeliveryQueue::wait_idle(std::chrono::milliseconds limit, std::unique_lock<std::mutex>& lk) {
    if (on_thread()) return queue_.empty();
    return idle_cv_.wait_for(lk, limit, [&] { return idle(); });
}

void DeliveryQueue::run() {
    std::unique_lock<std::mutex> lk(mu_);
    thread_id_ = std::this_thread::get_id();
    for (;;) {
        if (queue_.empty()) {
            work_cv_.wait(lk);
            continue;
        }
        auto it = queue_.begin();
        // a copy: the entry may be dropped while we wait
        Clock::time_point due = it->first.first;
        if (due > Clock::now()) {
            work_cv_.wait_until(lk, due);
            continue;
        }
        Delivery d = std::move(it->second);
        busy_ = true;
        busy_seq_ = it->first.second;
        busy_client_ = d.client;
        busy_cancelled_ = false;
        queue_.erase(it);
        deliver(d, lk);
        busy_ = false;
        idle_cv_.notify_all();
    }
}

// Runs the handlers of |d|, never holding |lk| while one runs.
void DeliveryQueue::deliver(Delivery& d, std::unique_lock<std::mutex>& lk) {
    auto wanted = [&] { return !busy_cancelled_ && resolve_(d); };
    if (d.task || d.kind != Kind::kDci) {
        if (!wanted()) return;
        lk.unlock();
        if (d.task) {
            d.task();
        } else if (d.kind == Kind::kCallback) {
            d.cb(d.bytes.data(), static_cast<int>(d.bytes.size()), d.ctx);
        } else {
            d.stream_fn(d.bytes.data(), static_cast<int>(d.bytes.size()));
        }
        lk.lock();
        return;
    }
    int offset = 0;
    for (int len : cut(static_cast<int>(d.bytes.size()), d.pieces)) {
        if (!wanted()) return;
        unsigned char* p = d.bytes.data() + offset;
        if (d.rsp_ptr != nullptr && len > 0 && len <= d.rsp_len) {
            memcpy(d.rsp_ptr, p, len);
            p = d.rsp_ptr;
        }
        lk.unlock();
        d.fn(p, len, d.data_ptr);
        lk.lock();
        offset += len;
    }
}

}  // namespace libdiag_sim
