// SPDX-License-Identifier: MIT
#include "support/capture.h"
#include "support/child.h"
#include "util/Debug_base.h"
#include "util/Debug_text_dumper.h"
#include "util/Mspace.h"
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

alignas(16) unsigned char region[16384];
const Mspace space(region, sizeof region, "test_space");

alignas(16) unsigned char tiny_region[64]; // no room for a heap
const Mspace tiny(tiny_region, sizeof tiny_region, "tiny");

bool inside(const void* p) { return p >= region && p < region + sizeof region; }

TEST(Mspace, never_grows_outside_its_region) {
    std::vector<void*> blocks;
    while (void* p = space.malloc(100)) {
        ASSERT_TRUE(inside(p));
        memset(p, 0xAA, 100);
        blocks.push_back(p);
    }
    EXPECT_GT(blocks.size(), 100u);
    EXPECT_EQ(space.realloc(blocks[0], 200000), nullptr);
    for (void* p : blocks) space.free(p);
    void* const large = space.malloc(sizeof region / 2);
    EXPECT_TRUE(inside(large)) << "what was freed serves again";
    space.free(large);
    space.free(nullptr);
    EXPECT_EQ(tiny.realloc(nullptr, 8), nullptr);
    tiny.free(tiny_region);
}

TEST(Mspace, reports_failures_when_its_category_is_on) {
    Capture err(stderr);
    space.malloc(99999); // unreported
    Debug_filter::add_filter(_JDB::jdb_mspace);
    space.malloc(100000);
    tiny.malloc_for_new(1);
    Debug_filter::remove_filter(_JDB::jdb_mspace);
    EXPECT_EQ(err.text(), "Failed to allocate 100000 bytes in test_space allocator\n"
                          "Failed to allocate 1 bytes in tiny allocator\n");
}

TEST(Mspace, serves_several_threads) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 2000; ++i) {
                void* const p = space.malloc(static_cast<unsigned>(8 + i % 200));
                ASSERT_TRUE(!p || inside(p));
                space.free(p);
            }
        });
    }
    for (std::thread& t : threads) t.join();
}

TEST(Mspace_manager, prints_the_usage_of_every_space_with_a_heap) {
    Capture out(stdout);
    Debug::Text_dumper dumper(stdout);
    Mspace_manager::print_global_usage(dumper);
    const std::string text = out.text();
    std::istringstream lines(text.substr(std::min(text.find("test_space:\n"), text.size())));
    std::string line;
    std::getline(lines, line);
    for (const char* label : {"fixed_space", "free_chunks", "max_alloc", "total_alloc", "total_free", "releasable"}) {
        const std::string start = std::string("  ") + label + ": ";
        EXPECT_TRUE(std::getline(lines, line) && line.find(start) == 0 && line.size() > start.size()) << text;
        EXPECT_EQ(line.find_first_not_of("0123456789abcdef", start.size()), std::string::npos) << text;
    }
    EXPECT_NE(text.find("cds_event:"), std::string::npos) << "the library's own, from the start";
    EXPECT_EQ(text.find("tiny"), std::string::npos);
    const Child_result child = run_child([] { Mspace_manager::get().add(const_cast<Mspace*>(&space)); });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.out, "BUG: sl_list::push, already in a list.\n\r\n");
}

} // namespace
