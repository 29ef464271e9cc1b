// What tolven-diag knows of the library (tools/tolven-diag/library_model.h), held against the
// library itself: the ticks its trace shows for each time limit, which stored replies of whole
// pieces answer a command, how long a fire-and-forget worker lives, and what the offline-log
// update does with each set of properties. A library that changes any of these makes this fail
// until the model follows.

#include <stdio.h>
#include <stdlib.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "libdiag_sim.h"
#include "library_model.h"
#include "properties_host.h"
#include "test_support.h"
#include "tolven_diag.h"
#include "tolven_diag_internal.h"

namespace {

using namespace std::chrono_literals;
using tolven_diag_tool::Mode;
namespace model = tolven_diag_tool;

SendFn send_fn(Mode mode) {
    return mode == Mode::kDci ? tolven_diag_cmd_send_with_result_by_dci_mode
                              : tolven_diag_cmd_send_with_result_by_callback_mode;
}

const char* mode_name(Mode mode) {
    return mode == Mode::kDci ? "dci" : "callback";
}

// The number in the first message that starts with |prefix|, or -99999.
int traced_number(const LogCapture& log, const std::string& prefix) {
    for (const std::string& m : log.messages()) {
        if (m.rfind(prefix, 0) == 0) return atoi(m.c_str() + prefix.size());
    }
    return -99999;
}

class LibraryModel : public DiagTest {};

TEST_F(LibraryModel, TicksOfEveryTimeLimit) {
    const struct {
        Mode mode;
        int asked_ms;
    } rows[] = {
            {Mode::kDci, 3000},       {Mode::kDci, 250},        {Mode::kDci, 99},
            {Mode::kDci, 0},          {Mode::kDci, -250},       {Mode::kDci, 60001},
            {Mode::kDci, 2147483647}, {Mode::kCallback, 3000},  {Mode::kCallback, 250},
            {Mode::kCallback, 1},     {Mode::kCallback, 0},     {Mode::kCallback, -5},
            {Mode::kCallback, 60000}, {Mode::kCallback, 60001}, {Mode::kCallback, 2147483647},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(::testing::Message() << mode_name(r.mode) << ", asked " << r.asked_ms);
        log.clear();
        ASSERT_EQ(0, send_packet(send_fn(r.mode), {0x1C}, r.asked_ms).result);
        const int ticks = r.mode == Mode::kDci ? traced_number(log, "Dci Command time = ")
                                               : traced_number(log, "Command time = ");
        EXPECT_EQ(model::timeout_ticks(r.mode, r.asked_ms), ticks);
        EXPECT_EQ(std::max(ticks, 1) * 100, model::effective_timeout_ms(r.mode, r.asked_ms));
    }
}

// What the simulated modem answers to the test subsystem's pattern command: |total| bytes.
std::vector<uint8_t> pattern_request(int total) {
    const int n = total - 4;
    return {0x4B, 0xFE, 0x02, 0x00, static_cast<uint8_t>(n & 0xFF), static_cast<uint8_t>(n >> 8)};
}

TEST_F(LibraryModel, WholePiecesAnswerOnlyTheirOwnCommand) {
    constexpr int kSilent = 0;
    const struct {
        Mode first_mode;
        int first_len;
        Mode mode;
        int len;  // the second command's reply; kSilent: never answered
    } rows[] = {
            {Mode::kDci, 4096, Mode::kDci, kSilent},
            {Mode::kCallback, 4096, Mode::kCallback, kSilent},
            {Mode::kCallback, 8192, Mode::kDci, kSilent},
            {Mode::kDci, 8192, Mode::kCallback, kSilent},
            {Mode::kDci, 100, Mode::kDci, kSilent},
            {Mode::kDci, 4096, Mode::kDci, 8192},
            {Mode::kCallback, 4096, Mode::kDci, 4096},
            {Mode::kDci, 4096, Mode::kCallback, 4096},
    };
    const int limit_ms = 300 * time_scale();
    const std::vector<uint8_t> silent = {0x1D};
    for (const auto& r : rows) {
        SCOPED_TRACE(::testing::Message() << mode_name(r.first_mode) << " " << r.first_len
                                          << ", then " << mode_name(r.mode) << " " << r.len);
        ASSERT_TRUE(tolven_diag_reset_for_test(10000 * time_scale()));
        libdiag_sim::reset();
        libdiag_sim::set_answer(silent, libdiag_sim::Answer{});
        SendOutcome first =
                send_packet(send_fn(r.first_mode), pattern_request(r.first_len), limit_ms);
        ASSERT_EQ(0, first.result);
        ASSERT_EQ(r.first_len, first.reply_len);

        const bool own = r.len != kSilent;
        SendOutcome out =
                send_packet(send_fn(r.mode), own ? pattern_request(r.len) : silent, limit_ms);
        const int stored = own ? r.len : r.first_len;
        EXPECT_EQ(model::answered_at_limit(stored, own) ? 0 : 1, out.result);
        const double ms = std::chrono::duration<double, std::milli>(out.elapsed).count();
        // Whole pieces of its own end a DCI wait only at the limit; callback mode's handler
        // ends it with any response.
        if (own) {
            EXPECT_EQ(r.mode == Mode::kDci && model::answered_at_limit(r.len, true),
                      ms >= limit_ms - 2);
        }
    }
}

TEST_F(LibraryModel, WorkersLifetime) {
    for (Mode mode : {Mode::kDci, Mode::kCallback}) {
        SCOPED_TRACE(mode_name(mode));
        ASSERT_TRUE(tolven_diag_reset_for_test(10000 * time_scale()));
        log.clear();
        const uint8_t packet[] = {0x1C};
        const int rc = mode == Mode::kDci
                               ? tolven_diag_cmd_send_without_result(packet, 1)
                               : tolven_diag_cmd_send_without_result_by_callback_mode(packet, 1);
        ASSERT_EQ(0, rc);
        auto returned = std::chrono::steady_clock::now();
        ASSERT_TRUE(log.wait_for("_thread_proc: function exit <-------------"));
        const auto lived = std::chrono::duration_cast<std::chrono::milliseconds>(
                                   std::chrono::steady_clock::now() - returned)
                                   .count();
        // The model waits a little longer than the worker lives, never less.
        EXPECT_LE(lived, model::worker_remaining_ms(mode));
        EXPECT_GE(lived, model::worker_remaining_ms(mode) - 1000 * time_scale());
    }
}

TEST_F(LibraryModel, OfflineLogUpdateActsExactlyWhenThePropertiesSaySo) {
    const std::vector<std::vector<std::string>> rows = {
            {"", "", "", ""},  // all unset
            {"modem", "modem", "modem", "true"},
            {"modem", "modem", "modem", "TRUE"},
            {"modem", "modem", "modem", "1"},
            {"modem", "other", "modem", "true"},
            {"modem", "modem", "gps", "true"},
            {"null", "null", "null", "true"},
            {"", "", "", "true"},
            {"gps", "gps", "gps", "true"},
    };
    for (const auto& set : rows) {
        SCOPED_TRACE(::testing::PrintToString(set));
        log.clear();
        std::vector<std::string> read;  // as the library reads them, defaults for unset ones
        for (size_t i = 0; i < set.size(); ++i) {
            const model::OfflineLogProperty& p = model::kOfflineLogProperties[i];
            property_set(p.key, set[i].c_str());
            read.push_back(set[i].empty() ? p.fallback : set[i]);
        }
        char dir[model::kOfflineDirSize] = "old";
        diag_mdlog_update_output_dir_for_offline_log_auto_start("d", dir, model::kOfflineDirSize);
        const bool acts = std::string(dir) != "old";
        EXPECT_EQ(model::offline_log_failures(read).empty(), acts);
        if (acts) {
            EXPECT_EQ(std::string(model::kOfflineLogRoot) + "d", dir);
        }
        // The defaults the model puts in for unset properties are the library's.
        EXPECT_TRUE(log.has("-------- Offline log, switch: " + read[0] + ", prop_tr: " + read[1] +
                            ", module: " + read[2] + ", enable: " + read[3]));
    }
}

}  // namespace
