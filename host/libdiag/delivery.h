// The delivery queue of the host libdiag: replies, stream records and modem work due at a time,
// run in order on one thread of the library's own, as a modem's answers arrive on a phone.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "sim_internal.h"

namespace libdiag_sim {

using Clock = std::chrono::steady_clock;

constexpr int kPieceMax = 4096;

enum class Kind { kDci, kCallback, kStream, kTraffic };

struct Delivery {
    Kind kind = Kind::kDci;
    uint64_t epoch = 0;  // connection it belongs to
    int client = 0;      // DCI client; 0 in callback mode
    int proc = 0;        // callback mode: whose callback answers
    Bytes bytes;
    std::vector<int> pieces;
    diag_dci_rsp_cb_t fn = nullptr;
    unsigned char* rsp_ptr = nullptr;
    int rsp_len = 0;
    void* data_ptr = nullptr;
    diag_dci_stream_cb_t stream_fn = nullptr;
    // Callback mode: filled in at delivery time from the registration then in force.
    diag_rsp_cb_t cb = nullptr;
    void* ctx = nullptr;
    // When set, the delivery is modem work instead: it runs unlocked on the delivery thread
    // (if the recipient is still wanted) and may queue the replies it makes.
    std::function<void()> task;
};

// Sizes of the pieces a DCI reply of |total| bytes arrives in.
std::vector<int> cut(int total, const std::vector<int>& given);

class DeliveryQueue {
  public:
    // |mu| guards the queue and whatever |resolve| reads. |resolve| runs under |mu| right before
    // each delivery (and before each DCI piece): false drops it; for callback mode it fills in
    // |cb| and |ctx|.
    DeliveryQueue(std::mutex& mu, std::function<bool(Delivery&)> resolve);

    // All with |mu| held.
    void push(Delivery d, Clock::time_point due);
    // push() for now, from a thread that does not hold |mu|: a port's I/O thread.
    void post(Delivery d);
    // Drops what is queued for |client| (every client when 0) and waits out a delivery to it
    // that is running on another thread. Afterwards none runs or will run.
    void drop(int client, std::unique_lock<std::mutex>& lk);
    bool wait_idle(std::chrono::milliseconds limit, std::unique_lock<std::mutex>& lk);
    bool on_thread() const { return std::this_thread::get_id() == thread_id_; }

  private:
    void run();
    void deliver(Delivery& d, std::unique_lock<std::mutex>& lk);
    bool idle() const { return queue_.empty() && !busy_; }

    std::mutex& mu_;
    std::function<bool(Delivery&)> resolve_;
    std::condition_variable work_cv_;  // wakes the delivery thread
    std::condition_variable idle_cv_;  // a delivery ended or the queue was dropped
    std::map<std::pair<Clock::time_point, uint64_t>, Delivery> queue_;
    uint64_t seq_ = 0;
    bool thread_started_ = false;
    std::thread::id thread_id_;
    bool busy_ = false;  // a delivery is running its handlers
    uint64_t busy_seq_ = 0;
    int busy_client_ = 0;
    bool busy_cancelled_ = false;
};

}  // namespace libdiag_sim
