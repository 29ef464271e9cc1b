#include "modem.h"

namespace libdiag_sim {

bool SimulatedModem::send(int proc, const Bytes& request, const Delivery& reply_to) {
    Clock::time_point sent = Clock::now();
    Delivery work = reply_to;
    work.task = [sink = sink_, table = table_, proc, request, reply_to, sent] {
        sink->answered(table->answer(proc, request), reply_to, sent);
    };
    queue_->push(std::move(work), sent);
    return true;
}

}  // namespace libdiag_sim
