// Hex dump, channel and mask names, and the command and reply parameter checks.

#include <string.h>

#include <gtest/gtest.h>

#include "test_support.h"
#include "tolven_diag_internal.h"

namespace {

using Names = std::vector<std::string>;

TEST(HexDump, Text) {
    const std::vector<uint8_t> bytes = ramp(4097);
    const std::vector<uint8_t> sample = {0x0A, 0x1B, 0xFF};
    const std::pair<int, const char*> rows[] = {
            {0, "print_data_with_hex, invalid data len(0)"},
            {-1, "print_data_with_hex, invalid data len(-1)"},
            {4097, "print_data_with_hex, invalid data len(4097)"},
            {1, "data hex show, len(1), data: 00"}};
    for (const auto& [len, message] : rows) {
        LogCapture log;
        tolven_print_data_with_hex(bytes.data(), len);
        EXPECT_EQ(log.messages(), Names{message});
    }
    LogCapture log;
    tolven_print_data_with_hex(sample.data(), 3);
    tolven_print_data_with_hex(nullptr, 4);
    tolven_print_data_with_hex(bytes.data(), 4096);
    Names messages = log.messages();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0], "data hex show, len(3), data: 0A 1B FF");
    EXPECT_EQ(messages[1], "print_data_with_hex, data is null");
    // The longest packet is one line of 12287 characters.
    const std::string text = messages[2].substr(strlen("data hex show, len(4096), data: "));
    EXPECT_EQ(text.size(), 12287u);
    EXPECT_EQ(text.substr(0, 9) + text.substr(text.size() - 6), "00 01 02  FE FF");
}

TEST(Names, ChannelsAndMasks) {
    const std::pair<int, const char*> channels[] = {
            {0, "MSM"}, {1, "MDM"}, {2, "MDM_2"}, {3, "Unknown"}, {-1, "Unknown"}};
    for (const auto& [channel, name] : channels) {
        EXPECT_EQ(tolven_print_diag_channel_name(channel), g_diag_channel_name);
        EXPECT_STREQ(g_diag_channel_name, name) << channel;
    }
    // No remains of a longer earlier name anywhere in the buffer.
    tolven_print_diag_channel_name(1);
    char expected[kDiagChannelNameSize] = "MDM";
    EXPECT_EQ(memcmp(g_diag_channel_name, expected, sizeof(expected)), 0);

    // Only the lowest of bits 0 to 5 is named.
    const std::pair<unsigned, const char*> masks[] = {
            {0x00, ""},         {0x40, ""},       {0x21, " APSS"},
            {0x06, " MPSS"},    {0x04, " LPASS"}, {0x08, " WCNSS"},
            {0x10, " SENSORS"}, {0x20, " WDSP"},  {0xFFFFFFC0, ""}};
    for (const auto& [mask, name] : masks) {
        EXPECT_EQ(tolven_print_diag_mask_name(mask), g_diag_mask_name);
        EXPECT_STREQ(g_diag_mask_name, name) << mask;
    }
}

TEST(ParameterChecks, InputAndOutput) {
    const uint8_t packet[4096] = {0x4B, 0x0F};
    const std::tuple<const uint8_t*, int, int, const char*> inputs[] = {
            {nullptr, 0, 1, "data is null"},
            {packet, 0, 1, "Invalid input parameter, data_len = 0"},
            {packet, -1, 1, "Invalid input parameter, data_len = -1"},
            {packet, 4097, 1, "Invalid input parameter, data_len = 4097"},
            {packet, 2, 0, "data hex show, len(2), data: 4B 0F"},
            {packet, 4096, 0, "data hex show, len(4096), data: 4B 0F 00"}};
    for (const auto& [data, len, result, message] : inputs) {
        LogCapture log;
        EXPECT_EQ(tolven_diag_comand_input_check(data, len), result) << len;
        Names messages = log.messages();
        ASSERT_EQ(messages.size(), 2u);
        EXPECT_EQ(messages[0], "diag_comand, data_len = " + std::to_string(len));
        EXPECT_EQ(messages[1].rfind(message, 0), 0u) << messages[1];
    }

    uint8_t buf[4];
    int capacity = 0;
    const std::tuple<uint8_t*, int*, int, int, Names> outputs[] = {
            {nullptr, nullptr, 0, 1, {"reply_buf is null"}},
            {buf, nullptr, 0, 1, {"p_reply_len is null"}},
            {buf, &capacity, 0, 1, {"reply_len = 0", "Invalid output parameter, reply_len = 0"}},
            {buf, &capacity, -5, 1, {"reply_len = -5", "Invalid output parameter, reply_len = -5"}},
            {buf, &capacity, 1, 0, {"reply_len = 1"}}};
    for (const auto& [reply_buf, reply_len, value, result, messages] : outputs) {
        LogCapture log;
        capacity = value;
        EXPECT_EQ(tolven_diag_comand_output_check(reply_buf, reply_len), result) << value;
        EXPECT_EQ(log.messages(), messages);
        EXPECT_EQ(capacity, value);
    }
}

}  // namespace
