// The command and reply parameter checks. The hex dump and the name texts they use are checked
// by fuzz/hexdump_fuzzer.cpp.

#include <gtest/gtest.h>

#include "test_support.h"
#include "tolven_diag_internal.h"

namespace {

using Names = std::vector<std::string>;

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
