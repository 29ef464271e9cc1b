// The hex dump and the name texts, for any length, buffer, channel and mask: the dump is one line
// of upper-case pairs separated by single blanks (or the length message), and each name buffer
// holds exactly its table's text with nothing left behind it.

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "contract.h"
#include "log_capture.h"
#include "tolven_diag_internal.h"

namespace {

// The one message the last call logged, without its "[proc][file:line] func: " prefix.
std::string last_message() {
    std::vector<std::string> lines = fuzz_log::kept();
    require(lines.size() == 1, "one log line per call");
    const std::string& text = lines[0];
    return text.substr(text.find(": ", text.find("] ")) + 2);
}

std::string expected_dump(const uint8_t* data, int len) {
    if (data == nullptr) return "print_data_with_hex, data is null";
    if (len < 1 || len > 4096)
        return "print_data_with_hex, invalid data len(" + std::to_string(len) + ")";
    std::string text = "data hex show, len(" + std::to_string(len) + "), data: ";
    char pair[4];
    for (int i = 0; i < len; ++i) {
        snprintf(pair, sizeof pair, i == 0 ? "%02X" : " %02X", data[i]);
        text += pair;
    }
    return text;
}

void check_buffer(const char* buf, size_t size, const char* want) {
    require(strcmp(buf, want) == 0, "name text");
    for (size_t i = strlen(want); i < size; ++i) require(buf[i] == '\0', "name buffer tail");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_log::set_levels(1u << 4);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
    FuzzedDataProvider in(input, size);
    const bool null_data = in.ConsumeIntegralInRange<int>(0, 15) == 0;
    const int channel = in.ConsumeIntegral<int>();
    const unsigned mask = in.ConsumeIntegral<unsigned>();
    int len = in.ConsumeIntegralInRange<int>(-3, 4100);
    std::vector<uint8_t> bytes = in.ConsumeRemainingBytes<uint8_t>();
    if (in.remaining_bytes() == 0 && len % 3 == 0) len = static_cast<int>(bytes.size());
    // The dump reads |len| bytes only when it accepts the length.
    bytes.resize(std::max<size_t>(bytes.size(), std::clamp(len, 0, 4096)));
    const uint8_t* data = null_data ? nullptr : bytes.data();

    fuzz_log::start_keeping();
    tolven_print_data_with_hex(data, len);
    require(last_message() == expected_dump(data, len), "hex dump text");

    static const char* const kChannels[] = {"MSM", "MDM", "MDM_2"};
    const char* name = tolven_print_diag_channel_name(channel);
    require(name == g_diag_channel_name, "channel buffer");
    check_buffer(name, kDiagChannelNameSize,
                 channel >= 0 && channel <= 2 ? kChannels[channel] : "Unknown");

    static const char* const kMasks[] = {" APSS", " MPSS", " LPASS", " WCNSS", " SENSORS", " WDSP"};
    const char* want = "";
    for (int bit = 0; bit < 6; ++bit) {
        if (mask & (1u << bit)) {
            want = kMasks[bit];
            break;
        }
    }
    name = tolven_print_diag_mask_name(mask);
    require(name == g_diag_mask_name, "mask buffer");
    check_buffer(name, kDiagMaskNameSize, want);
    return 0;
}
