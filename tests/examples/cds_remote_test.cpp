// SPDX-License-Identifier: MIT
#include "support/test.h"

namespace {

TEST(cds_remote, a_second_process_learns_the_block_reads_it_and_wakes_the_machine) {
    const Child_result result = run_child([] {
        execl(CDS_REMOTE, CDS_REMOTE, nullptr);
        _exit(126);
    });
    EXPECT_EQ(result.status, 0) << result.err;
    for (const char* line :
         {"visitor: struct machine\n", "visitor:     struct engine\n", "visitor:         unsigned short speed = 1450\n",
          "visitor:         float load = 0.62\n", "visitor:     double position[] = 49.2, 8.6\n",
          "visitor:     char driver[] = \"A. Driver\"\n", "visitor:     int wanted_speed = 1500\n",
          "visitor: wrote 1800, now wanted_speed = 1800\n",
          "machine: woken, somebody wants 1800 revolutions per minute\n"})
        EXPECT_NE(result.out.find(line), std::string::npos) << line << "is missing from\n" << result.out;
    const char* const woken = "machine: woken";
    EXPECT_EQ(result.out.find(woken), result.out.rfind(woken)) << "by the one write alone\n" << result.out;
}

} // namespace
