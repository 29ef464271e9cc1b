// The counted open and the uncounted close of the diag connection.

#include <gtest/gtest.h>

#include "libdiag_sim.h"
#include "test_support.h"
#include "tolven_diag_internal.h"

namespace {

using Names = std::vector<std::string>;

TEST_F(DiagTest, OpenCountsButCloseEndsAll) {
    libdiag_sim::program_result("Diag_LSM_Init", 0);
    tolven_diag_init_with_result();  // fails, so the next open tries again
    EXPECT_EQ(g_diag_init_status, 0);
    tolven_diag_init_with_result();
    tolven_diag_init_with_result();
    EXPECT_EQ(g_diag_init_status, 2);
    EXPECT_EQ(sem_posts(), 0);
    g_diag_init_status = 3;
    tolven_diag_init_with_result();
    EXPECT_EQ(g_diag_init_status, 4);
    tolven_diag_deinit_with_result();
    EXPECT_EQ(g_diag_init_status, 0);
    tolven_diag_deinit_with_result();  // closed already, and still closes the diag library

    EXPECT_EQ(libdiag_sim::journal_names(),
              (Names{"Diag_LSM_Init", "Diag_LSM_Init", "Diag_LSM_DeInit", "Diag_LSM_DeInit"}));
    Names messages = log.messages();
    messages.erase(std::remove_if(messages.begin(), messages.end(),
                                  [](const std::string& m) { return m.rfind("function ", 0) == 0; }),
                   messages.end());
    EXPECT_EQ(messages, (Names{"LSM init failed", "diag init done, g_diag_init_status = 1",
                               "diag init done, g_diag_init_status = 3"}));
    EXPECT_EQ(log.count("function entry ------------->"), 6);
    EXPECT_EQ(log.count("function exit <-------------"), 6);
}

}  // namespace
