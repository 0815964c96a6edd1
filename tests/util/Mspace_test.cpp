// SPDX-License-Identifier: MIT
#include "support/child.h"
#include "util/Debug_base.h"
#include "util/Debug_text_dumper.h"
#include "util/Mspace.h"
#include <cstring>
#include <gtest/gtest.h>
#include <regex>
#include <vector>

namespace {

alignas(16) unsigned char region[16384], tiny_region[64]; // no room for a heap in the second
const Mspace space(region, sizeof region, "test_space"), tiny(tiny_region, sizeof tiny_region, "tiny");

bool inside(const void* p) { return p >= region && p < region + sizeof region; }

TEST(Mspace, never_grows_outside_its_region_and_reports_failures_when_its_category_is_on) {
    std::vector<void*> blocks;
    while (void* p = space.malloc(100)) {
        ASSERT_TRUE(inside(p));
        memset(p, 0xAA, 100);
        blocks.push_back(p);
    }
    EXPECT_GT(blocks.size(), 100u);
    Debug_filter::add_filter(_JDB::jdb_mspace);
    EXPECT_EQ(
        debug_text([] { space.malloc(200000), tiny.malloc_for_new(1); }),
        "Failed to allocate 200000 bytes in test_space allocator\nFailed to allocate 1 bytes in tiny allocator\n");
    Debug_filter::remove_filter(_JDB::jdb_mspace);
    EXPECT_EQ(debug_text([] { space.malloc(200000); }), "");
    for (void* p : blocks) space.free(p);
    EXPECT_TRUE(inside(space.malloc(sizeof region / 2))) << "what was freed serves again";
}

TEST(Mspace_manager, prints_the_usage_of_every_space_with_a_heap_and_lists_each_once) {
    Capture out(stdout);
    Debug::Text_dumper dumper(stdout);
    Mspace_manager::print_global_usage(dumper);
    const std::string text = out.text(), x = ": [0-9a-f]+\n  ";
    const std::regex usage("(^|\n)test_space:\n  fixed_space" + x + "free_chunks" + x + "max_alloc" + x +
                           "total_alloc" + x + "total_free" + x + "releasable: [0-9a-f]+\n");
    EXPECT_TRUE(std::regex_search(text, usage)) << text;
    EXPECT_TRUE(text.find("cds_event:") < text.size() && text.find("tiny") > text.size()) << text;
    EXPECT_EQ(run_child([] { Mspace_manager::get().add(const_cast<Mspace*>(&space)); }).signal, SIGABRT);
}

} // namespace
