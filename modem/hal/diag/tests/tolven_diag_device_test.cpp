// Checks that hold against a real modem as well as the simulated one, through the public header
// and the shared library alone. Each test needs a fresh process (isolated: true on the device,
// one ctest entry per test on the host).

#include <stdint.h>
#include <stdlib.h>

#include <chrono>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "tolven_diag.h"

namespace {

using namespace std::chrono_literals;
using SendFn = int (*)(const uint8_t*, int, int, uint8_t*, int*);

struct Entry {
    const char* name;
    SendFn send;
};

const Entry kEntries[] = {{"Plain", tolven_diag_cmd_send_with_result},
                          {"Dci", tolven_diag_cmd_send_with_result_by_dci_mode},
                          {"Callback", tolven_diag_cmd_send_with_result_by_callback_mode}};

void PrintTo(const Entry& entry, std::ostream* os) {
    *os << entry.name;
}

constexpr uint8_t kUntouched = 0xEE;
constexpr int kTimeoutMs = 3000;

std::chrono::milliseconds scaled(std::chrono::milliseconds limit) {
    const char* scale = getenv("TOLVEN_TEST_TIME_SCALE");
    return limit * (scale != nullptr && atoi(scale) > 0 ? atoi(scale) : 1);
}

class DeviceVersionRequest : public testing::TestWithParam<std::tuple<Entry, int>> {};

// Every modem answers the version request (command code 00) with more than 8 bytes, starting
// with the command code; a smaller buffer gets the start of it and nothing past its end.
TEST_P(DeviceVersionRequest, IsAnsweredWithinTheCapacity) {
    const auto& [entry, capacity] = GetParam();
    const uint8_t request[] = {0x00};
    std::vector<uint8_t> buf(capacity + 64, kUntouched);
    int reply_len = capacity;
    ASSERT_EQ(entry.send(request, sizeof(request), kTimeoutMs, buf.data(), &reply_len), 0);
    if (capacity <= 8) {
        EXPECT_EQ(reply_len, capacity);
    } else {
        EXPECT_GT(reply_len, 8);
        EXPECT_LE(reply_len, capacity);
    }
    EXPECT_EQ(buf[0], 0x00);
    for (size_t i = reply_len > 0 ? reply_len : 0; i < buf.size(); ++i) {
        ASSERT_EQ(buf[i], kUntouched) << "byte " << i << " written past the reply";
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, DeviceVersionRequest,
                         testing::Combine(testing::ValuesIn(kEntries), testing::Values(8, 16384)),
                         [](const auto& info) {
                             return std::string(std::get<0>(info.param).name) + "Capacity" +
                                    std::to_string(std::get<1>(info.param));
                         });

// A refused call answers 1 at once, without waiting for the modem or touching the caller's
// buffer and length.
TEST(DeviceRefusedParameters, AnswerOneAtOnce) {
    const uint8_t packet[4097] = {0x00};
    struct Row {
        const char* what;
        const uint8_t* data;
        int data_len;
        int capacity;
        bool no_reply_buf = false;
        bool no_reply_len = false;
    };
    const Row rows[] = {{"no packet", nullptr, 1, 16},
                        {"empty packet", packet, 0, 16},
                        {"negative length", packet, -1, 16},
                        {"packet over 4096 bytes", packet, 4097, 16},
                        {"no reply buffer", packet, 1, 16, true},
                        {"no reply length", packet, 1, 16, false, true},
                        {"capacity 0", packet, 1, 0},
                        {"negative capacity", packet, 1, -1}};
    for (const Entry& entry : kEntries) {
        for (const Row& row : rows) {
            std::vector<uint8_t> buf(16, kUntouched);
            int reply_len = row.capacity;
            auto start = std::chrono::steady_clock::now();
            // The longest time-out either mode accepts, so that any wait would show.
            EXPECT_EQ(entry.send(row.data, row.data_len, 60000,
                                 row.no_reply_buf ? nullptr : buf.data(),
                                 row.no_reply_len ? nullptr : &reply_len),
                      1)
                    << entry.name << ": " << row.what;
            EXPECT_LT(std::chrono::steady_clock::now() - start, scaled(1000ms))
                    << entry.name << ": " << row.what;
            EXPECT_EQ(reply_len, row.capacity) << entry.name << ": " << row.what;
            EXPECT_EQ(buf, std::vector<uint8_t>(16, kUntouched)) << entry.name << ": " << row.what;
        }
    }
}

TEST(DeviceHelpers, NamesAndHexDumpBounds) {
    const std::pair<int, const char*> channels[] = {
            {0, "MSM"}, {1, "MDM"}, {2, "MDM_2"}, {3, "Unknown"}, {-1, "Unknown"}};
    for (const auto& [channel, name] : channels) {
        EXPECT_STREQ(tolven_print_diag_channel_name(channel), name) << channel;
    }
    const std::pair<unsigned, const char*> masks[] = {
            {0x00, ""}, {0x21, " APSS"}, {0x06, " MPSS"}, {0x20, " WDSP"}, {0xC0, ""}};
    for (const auto& [mask, name] : masks) {
        EXPECT_STREQ(tolven_print_diag_mask_name(mask), name) << mask;
    }
    // Lengths out of range are refused before the buffer is read (ASan watches on the host).
    std::vector<uint8_t> bytes(4096, 0x5A);
    for (int len : {-1, 0, 1, 4096, 4097}) tolven_print_data_with_hex(bytes.data(), len);
    tolven_print_data_with_hex(nullptr, 4);
}

}  // namespace
