// Soak: N back-to-back synchronous sends of each transport through libtolven_diag.so against the
// simulated modem, reply sizes spread over 1 to 16,384 bytes (callback mode: up to 10,240, the
// largest response it accepts). Every reply byte is checked. Prints the resident set size at the
// start, after 1,000 sends and at the end of each transport, and how long the wait timers outlive
// the last command. Exit status 1 on any wrong reply.
//
//   soak [SENDS_PER_TRANSPORT]     (default 10000; run it under valgrind or LeakSanitizer too)

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "libdiag_sim.h"
#include "tolven_diag.h"

namespace {

using Clock = std::chrono::steady_clock;
using libdiag_sim::Bytes;

constexpr int kMaxReply = 16384;
constexpr int kCallbackMaxReply = 10240;
constexpr int kTimeoutMs = 3000;
// A DCI reply made only of full 4096-byte pieces completes at the time limit: keep that short.
constexpr int kFullPiecesTimeoutMs = 200;

long rss_kb() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return atol(line.c_str() + 6);
    }
    return -1;
}

// Threads of this process named |name| (the library names its timers and workers).
int threads_named(const char* name) {
    int n = 0;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string text;
        n += std::getline(comm, text) && text == name;
    }
    closedir(dir);
    return n;
}

// Requests 0xA1..0xA3 answer 1..3 bytes; the test subsystem's pattern command the rest.
void program_short_replies() {
    for (int size = 1; size <= 3; ++size) {
        libdiag_sim::Response r;
        r.bytes = Bytes(size, static_cast<uint8_t>(0xA0 + size));
        libdiag_sim::set_answer({static_cast<uint8_t>(0xA0 + size)}, libdiag_sim::Answer{{r}});
    }
}

void command_for(int size, Bytes* request, Bytes* reply) {
    if (size <= 3) {
        *request = {static_cast<uint8_t>(0xA0 + size)};
        *reply = Bytes(size, static_cast<uint8_t>(0xA0 + size));
        return;
    }
    int n = size - 4;
    *request = {
            0x4B, 0xFE, 0x02, 0x00, static_cast<uint8_t>(n & 0xFF), static_cast<uint8_t>(n >> 8)};
    *reply = {0x4B, 0xFE, 0x02, 0x00};
    for (int i = 0; i < n; ++i) reply->push_back(static_cast<uint8_t>(i & 0xFF));
}

// Returns the number of wrong replies.
long soak(const char* name, bool callback, int sends) {
    const int max = callback ? kCallbackMaxReply : kMaxReply;
    long wrong = 0;
    Bytes request, want, reply(kMaxReply);
    auto start = Clock::now();
    printf("%-8s RSS %6ld kB at the start\n", name, rss_kb());
    for (int i = 0; i < sends; ++i) {
        // A stride prime to the range visits every size.
        int size = 1 + static_cast<int>((static_cast<long>(i) * 7919) % max);
        command_for(size, &request, &want);
        int reply_len = kMaxReply;
        int timeout = !callback && size % 4096 == 0 ? kFullPiecesTimeoutMs : kTimeoutMs;
        int result = callback ? tolven_diag_cmd_send_with_result_by_callback_mode(
                                        request.data(), static_cast<int>(request.size()), timeout,
                                        reply.data(), &reply_len)
                              : tolven_diag_cmd_send_with_result(request.data(),
                                                                 static_cast<int>(request.size()),
                                                                 timeout, reply.data(), &reply_len);
        if (result != 0 || reply_len != size || memcmp(reply.data(), want.data(), size) != 0) {
            if (wrong++ < 10) {
                fprintf(stderr, "%s send %d: size %d, result %d, reply_len %d\n", name, i, size,
                        result, reply_len);
            }
        }
        if (i + 1 == 1000) printf("%-8s RSS %6ld kB after 1000 sends\n", name, rss_kb());
    }
    double secs = std::chrono::duration<double>(Clock::now() - start).count();
    printf("%-8s RSS %6ld kB after %d sends (%.1f s, %.0f sends/s), %ld wrong\n", name, rss_kb(),
           sends, secs, sends / secs, wrong);
    return wrong;
}

}  // namespace

int main(int argc, char** argv) {
    const int sends = argc > 1 ? atoi(argv[1]) : 10000;
    if (sends < 1) {
        fprintf(stderr, "usage: soak [SENDS_PER_TRANSPORT]\n");
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    program_short_replies();
    long wrong = soak("dci", false, sends);
    wrong += soak("callback", true, sends);

    // Every timer notices at its next tick that its command is over.
    auto last = Clock::now();
    const int alive = threads_named("TOLV DIAG");
    while (threads_named("TOLV DIAG") > 0 && Clock::now() - last < std::chrono::seconds(2)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    long ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - last).count();
    printf("wait timers alive after the last send: %d; %d after %ld ms\n", alive,
           threads_named("TOLV DIAG"), ms);
    libdiag_sim::reset();
    return wrong == 0 ? 0 : 1;
}
