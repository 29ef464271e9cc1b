#include "live_log.h"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tolven_diag_tool {
namespace {

// The host utility library's tolven_utils_line, as its hook hands it over.
struct HostLine {
    int level;  // 4 debug, 1 error
    int pid;
    int tid;
    long long time_ms;
    const char* text;
};

// Never destroyed: detached library threads may log while the process exits.
LiveLog* g_live = nullptr;

int this_thread() {
    return static_cast<int>(syscall(SYS_gettid));
}

}  // namespace

LiveLog& LiveLog::get() {
    if (g_live == nullptr) g_live = new LiveLog;
    return *g_live;
}

void LiveLog::stop() {
    if (g_live != nullptr && g_live->set_hook_ != nullptr) g_live->set_hook_(nullptr, nullptr);
}

LiveLog::LiveLog()
    // A synchronous send is taken as its call returns; only fire-and-forget ones are kept
    // until their worker has ended.
    : reader_([this](const LoggedCommand& c) {
          if (c.kind == CommandKind::kNoWait) handed_.push_back(c);
      }) {
    reader_.on_return([this](const LoggedCommand& c) {
        for (auto& [tid, cmd] : returned_) {
            if (tid == c.tid) {
                cmd = c;
                return;
            }
        }
        returned_.emplace_back(c.tid, c);
    });
    set_hook_ = reinterpret_cast<SetHook>(dlsym(RTLD_DEFAULT, "tolven_utils_host_set_line_hook"));
    if (set_hook_ != nullptr) set_hook_(on_line, this);
}

void LiveLog::on_line(const void* line, void* self) {
    const auto* l = static_cast<const HostLine*>(line);
    auto* live = static_cast<LiveLog*>(self);
    std::lock_guard<std::mutex> lock(live->mu_);
    live->reader_.feed_message(l->pid, l->tid, l->time_ms, l->text);
}

std::optional<LoggedCommand> LiveLog::returned() {
    std::lock_guard<std::mutex> lock(mu_);
    const int tid = this_thread();
    for (auto it = returned_.begin(); it != returned_.end(); ++it) {
        if (it->first == tid) {
            LoggedCommand c = std::move(it->second);
            returned_.erase(it);
            return c;
        }
    }
    return std::nullopt;
}

std::vector<LoggedCommand> LiveLog::handed() {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<LoggedCommand> out;
    out.swap(handed_);
    return out;
}

}  // namespace tolven_diag_tool
