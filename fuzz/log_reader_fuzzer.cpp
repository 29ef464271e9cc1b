// The log reader on arbitrary bytes: a log fed in pieces of any size, or a file read as
// --read-log reads it (a zip when it starts like one). Whatever comes, every command handed over
// is well formed, in the order the commands started, and the reader holds no more commands than
// the log started; a file that cannot be read gets a message of one line.

#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "contract.h"
#include "log_reader.h"

using namespace tolven_diag_tool;

namespace {

void check(const LoggedCommand& c, uint64_t expected_seq) {
    require(c.seq == expected_seq, "commands are handed over in the order they started");
    require(!c.request_known || static_cast<int>(c.request.size()) == c.request_len,
            "a known request has its logged length");
    require(c.reply_known || c.reply.empty(), "no reply bytes are invented");
    require(!c.reply_known || c.reply_len < 0 || static_cast<int>(c.reply.size()) == c.reply_len,
            "a known reply has reply_len bytes");
    require(c.response_known || c.response.empty(), "no response bytes are invented");
    require(c.result >= -1 && c.result <= 1, "a result is 0, 1 or unknown");
    if (c.kind == CommandKind::kSync) {
        require(c.outcome != LoggedOutcome::kOk || c.result == 0, "ok is a result of 0");
        require((c.outcome != LoggedOutcome::kTimedOut && c.outcome != LoggedOutcome::kRefused &&
                 c.outcome != LoggedOutcome::kDiagError) ||
                        c.result == 1,
                "a failure is a result of 1");
    }
    require(c.outcome != LoggedOutcome::kDiagError || !c.failure.call.empty(),
            "a diag error names its call");
    for (const std::string& n : c.notes) {
        require(!n.empty() && n.find('\n') == std::string::npos, "notes are lines");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const bool as_file = in.ConsumeBool();
    uint64_t seq = 0;
    LogReader reader([&](const LoggedCommand& c) { check(c, ++seq); });
    if (as_file) {
        std::vector<uint8_t> bytes = in.ConsumeRemainingBytes<uint8_t>();
        int fd = memfd_create("log", 0);
        require(fd >= 0, "memfd");
        require(write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
                "memfd write");
        std::string error;
        if (!read_log("/proc/self/fd/" + std::to_string(fd), &reader, &error)) {
            require(!error.empty() && error.find('\n') == std::string::npos,
                    "a file that cannot be read gets a message of one line");
        }
        close(fd);
    } else {
        while (in.remaining_bytes() > 0) {
            size_t piece = in.ConsumeIntegralInRange<size_t>(1, 4096);
            std::string text = in.ConsumeBytesAsString(piece);
            reader.feed(text.data(), text.size());
            require(reader.held() <= reader.summary().trace_lines, "held commands were started");
        }
    }
    reader.finish();
    require(reader.held() == 0, "finish hands every command over");
    require(reader.summary().commands == seq, "the summary counts what was handed over");
    return 0;
}
