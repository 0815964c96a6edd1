// SPDX-License-Identifier: MIT
#include "support/test.h"
#include "util/Debug_text_dumper.h"
#include "util/Mspace.h"
#include "util/talloc.h"
#include <regex>

namespace {

alignas(16) unsigned char region[16384], tiny_region[64]; // no room for a heap in the second
const Mspace space(region, sizeof region, "test_space"), tiny(tiny_region, sizeof tiny_region, "tiny");

bool inside(const void* p) { return p >= region && p < region + sizeof region; }

TEST(Mspace, never_grows_outside_its_region) {
    std::vector<void*> blocks;
    for (void* p; (p = space.malloc(100)); blocks.push_back(p)) ASSERT_TRUE(inside(memset(p, 0xAA, 100)));
    EXPECT_GT(blocks.size(), 100u);
    EXPECT_VALUES("null null", space.malloc(200000), tiny.malloc_for_new(1));
    for (void* p : blocks) space.free(p);
    EXPECT_TRUE(inside(space.malloc(sizeof region / 2))) << "what was freed serves again";
}

TEST(Mspace, is_reported_by_its_manager_once_while_it_lives_without_what_the_report_itself_allocates) {
    struct Allocating : Debug::Text_dumper {
        using Text_dumper::Text_dumper;
        bool start(const char* name) override { return space.malloc(200), Text_dumper::start(name); }
    };
    alignas(16) static unsigned char own[4096];
    (new Mspace(own, sizeof own, "ended"))->~Mspace(); // its memory stays: the manager has it still
    Capture out(stdout);
    Allocating allocating(stdout);
    Debug::Text_dumper plain(stdout);
    space.print_usage(plain);
    space.print_usage(allocating);
    Mspace_manager::print_global_usage(plain);
    const std::string text = out.text(), first = text.substr(0, text.find("test_space:", 1));
    const std::string form = "test_space:  fixed_space  free_chunks  max_alloc  total_alloc  total_free  releasable";
    EXPECT_EQ(std::regex_replace(first, std::regex(": [0-9a-f]+\n|\n"), ""), form);
    const auto has = [&](const std::string& part, size_t from) { return text.find(part, from) != std::string::npos; };
    EXPECT_EQ(text.find(first, 1), first.size()) << text;
    EXPECT_VALUES("true true false false", has("test_space:", 2 * first.size()), has("cds_event:", 0), has("tiny", 0),
                  has("ended", 0))
        << text;
    EXPECT_EQ(run_child([] { Mspace_manager::get().add(const_cast<Mspace*>(&space)); }).signal, SIGABRT);
}

TEST(Talloc, counts_its_six_pools_under_their_locks) {
    std::thread other(tallocation_init);
    EXPECT_VALUES("0 0 0 -1", tallocation_init(), tallocation_usage(0), tallocation_usage(5), tallocation_usage(6));
    other.join();
}

} // namespace
