// SPDX-License-Identifier: MIT
#include "support/capture.h"
#include "support/child.h"
#include "util/Debug_base.h"
#include "util/Debug_text_dumper.h"
#include "util/Mspace.h"
#include "util/talloc.h"
#include <csignal>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

alignas(16) unsigned char region[16384];
const Mspace space(region, sizeof region, "test_space");

alignas(16) unsigned char tiny_region[64];
const Mspace tiny(tiny_region, sizeof tiny_region, "tiny");

bool inside(const void* p) { return p >= region && p < region + sizeof region; }

TEST(Mspace, Never_grows_outside_its_region) {
    std::vector<void*> blocks;
    while (void* p = space.malloc(100)) {
        ASSERT_TRUE(inside(p));
        memset(p, 0xAA, 100);
        blocks.push_back(p);
    }
    EXPECT_GT(blocks.size(), 100u);
    EXPECT_EQ(space.malloc(200000), nullptr);
    EXPECT_EQ(space.realloc(blocks[0], 200000), nullptr);
    for (void* p : blocks) space.free(p);
    void* const large = space.malloc(sizeof region / 2);
    EXPECT_TRUE(inside(large)) << "what was freed serves again";
    space.free(large);
    space.free(nullptr);
}

TEST(Mspace, Reports_failures_when_its_category_is_on) {
    Capture quiet(stderr);
    space.malloc(100000);
    EXPECT_EQ(quiet.text(), "");
    Debug_filter::add_filter(_JDB::jdb_mspace);
    Capture err(stderr);
    space.malloc(100000);
    tiny.malloc_for_new(1);
    Debug_filter::remove_filter(_JDB::jdb_mspace);
    EXPECT_EQ(err.text(), "Failed to allocate 100000 bytes in test_space allocator\n"
                          "Failed to allocate 1 bytes in tiny allocator\n");
}

TEST(Mspace, Without_a_heap_does_nothing) {
    EXPECT_EQ(tiny.malloc(8), nullptr);
    EXPECT_EQ(tiny.realloc(nullptr, 8), nullptr);
    tiny.free(tiny_region);
}

class Recorder : public Debug::Dumper {
public:
    bool start(const char* name) override {
        keys += std::string("<") + name + " ";
        return strcmp(name, wanted) == 0;
    }
    void end(const char*) override { keys += ">"; }
    void field(const char* label, const char* text) override {
        keys += std::string(label) + " ";
        EXPECT_NE(strlen(text), 0u);
        EXPECT_EQ(strspn(text, "0123456789abcdef"), strlen(text));
    }
    const char* wanted = "test_space";
    std::string keys;
};

TEST(Mspace_manager, Prints_the_usage_of_every_space_that_is_wanted) {
    Recorder recorder;
    Mspace_manager::print_global_usage(recorder);
    EXPECT_NE(recorder.keys.find("<test_space fixed_space free_chunks max_alloc total_alloc total_free releasable >"),
              std::string::npos);
    EXPECT_NE(recorder.keys.find("<cds_event "), std::string::npos) << "the library's own, from the start";
    EXPECT_EQ(recorder.keys.find("<tiny"), std::string::npos);

    Mspace_manager own;
    own.add(nullptr);
    Recorder empty;
    own.print_usage(empty);
    EXPECT_EQ(empty.keys, "");
    const Child_result child = run_child([] { Mspace_manager::get().add(const_cast<Mspace*>(&space)); });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.out, "BUG: sl_list::push, already in a list.\n\r\n");
}

TEST(Text_dumper, Indents_groups) {
    Capture out(stdout);
    Debug::Text_dumper dumper(stdout);
    dumper.start("outer");
    dumper.field("a", "1");
    dumper.start("inner");
    dumper.field("b", "2");
    dumper.end("inner");
    dumper.end("outer");
    dumper.field("c", "3");
    EXPECT_EQ(out.text(), "outer:\n  a: 1\n  inner:\n    b: 2\nc: 3\n");
}

TEST(Mspace, Serves_several_threads) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 2000; ++i) {
                void* const p = space.malloc(static_cast<unsigned>(8 + i % 200));
                ASSERT_TRUE(!p || inside(p));
                space.free(p);
            }
        });
    for (std::thread& t : threads) t.join();
}

TEST(Talloc, Is_the_process_heap_with_unused_counters) {
    void* const p = talloc(3, 100);
    memset(p, 1, 100);
    tdealloc(p);
    EXPECT_EQ(tallocation_init(), 0);
    for (unsigned short pool : {0, 5}) EXPECT_EQ(tallocation_usage(pool), 0);
    for (unsigned short pool : {6, 65535}) EXPECT_EQ(tallocation_usage(pool), -1);
}

} // namespace
