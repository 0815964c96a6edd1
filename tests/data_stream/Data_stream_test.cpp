// SPDX-License-Identifier: MIT
#include "glue/data_stream/Data_stream.h"
#include "glue/vorn/Binary_message.h"
#include "support/allocations.h"
#include "support/capture.h"
#include "support/child.h"
#include "util/Debug_print.h"
#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

/// A stream between two strings whose results can be dictated.
class Script_stream : public Data_stream {
public:
    explicit Script_stream(std::string text = {}) : source(std::move(text)) {}

    using Data_stream::get_data;
    bool get_data(int n) override {
        EXPECT_TRUE(!stream_lock || stream_lock->is_locked()) << "the buffer is filled without the lock";
        fetched = n;
        const size_t k = std::min(static_cast<size_t>(n), source.size() - taken);
        buffer.put(reinterpret_cast<const unsigned char*>(source.data()) + taken, static_cast<uint32_t>(k));
        taken += k;
        return k == static_cast<size_t>(n) || lies;
    }
    unsigned int _write(unsigned char const* data, unsigned int n) override {
        sink.append(reinterpret_cast<const char*>(data), n);
        return std::min(n, accepted) + failure;
    }

    std::string source, sink;
    size_t taken = 0;
    int fetched = 0;         ///< [bytes] last asked for
    bool lies = false;       ///< promise bytes that did not come
    unsigned accepted = ~0u; ///< [bytes] a write says it took at most
    unsigned failure = 0;    ///< added to the result of a write
};

std::string numbered(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(1 + i % 251);
    return s;
}

/// The four operations that fetch, each asking for the first `n` bytes.
const struct {
    const char* name;
    bool (*run)(Data_stream&, unsigned n);
} operations[] = {
    {"bytes_avail", [](Data_stream& s, unsigned n) { return s.bytes_avail(n); }},
    {"get_data", [](Data_stream& s, unsigned n) { return s.get_data(std::vector<unsigned char>(5000).data(), n); }},
    {"operator[]", [](Data_stream& s, unsigned n) { return s[n - 1] != 0; }},
    {"drop", [](Data_stream& s, unsigned n) { return s.drop(n); }},
};

TEST(Data_stream, fetches_what_is_missing_and_nothing_that_it_cannot_hold) {
    const struct {
        unsigned buffered, source, asked;
        int fetched;
        bool done, lies;
    } cases[] = {
        {30, 100, 100, 70, true, false},
        {30, 100, 30, 0, true, false},
        {30, 99, 100, 70, false, true}, // a fetch that promised too much
        {4200, 5000, 4200, 0, true, false},
        // What no buffer can hold is refused before anything is fetched and lost.
        {10, 6000, 4201, 0, false, false},
        {10, 6000, 0xFFFFFFFFu, 0, false, false},
    };
    for (const auto& op : operations) {
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(op.name) + " of " + std::to_string(c.asked));
            Mutex lock;
            Script_stream s(numbered(c.source));
            s.stream_lock = &lock;
            ASSERT_TRUE(s.bytes_avail(c.buffered));
            s.fetched = 0;
            s.lies = c.lies;
            EXPECT_EQ(op.run(s, c.asked), c.done);
            EXPECT_EQ(s.fetched, c.fetched);
            const bool dropped = c.done && op.name == std::string("drop");
            EXPECT_EQ(s.bytes_avail(), static_cast<int>(s.taken - (dropped ? c.asked : 0)));
            EXPECT_EQ(s[0xFFFFFFFFu], 0);
            EXPECT_FALSE(lock.is_locked());
        }
    }
}

TEST(Data_stream, a_window_holds_the_lock_and_shows_the_buffer_in_two_runs) {
    const std::string text = numbered(8000);
    Mutex lock;
    Script_stream s(text);
    s.stream_lock = &lock;
    ASSERT_TRUE(s.drop(4000)); // what comes next wraps after 200 bytes
    {
        Data_stream::Window w(s);
        EXPECT_TRUE(lock.is_locked());
        EXPECT_FALSE(w.ensure(4201));
        ASSERT_TRUE(w.ensure(1000));
        EXPECT_EQ(w.at(999), static_cast<unsigned char>(text[4999]));
        EXPECT_EQ(w.at(1000), 0);
        for (uint32_t offset : {0u, 1u, 199u, 200u, 201u, 999u, 1000u}) {
            uint32_t n, rest;
            const unsigned char* run = w.span(offset, n);
            std::string seen(run, run + n);
            run = w.span(offset + n, rest);
            EXPECT_EQ(seen.append(run, run + rest), text.substr(4000 + offset, 1000 - offset));
        }
        unsigned char bytes[300];
        EXPECT_EQ(w.move(bytes, 300), 300u);
        EXPECT_EQ(std::string(bytes, bytes + 300), text.substr(4000, 300));
        EXPECT_EQ(w.drop(600), 600u);
        EXPECT_EQ(w.move(bytes, 300), 100u) << "what is left";
        w.release();
        EXPECT_FALSE(lock.is_locked());
        w.take();
        EXPECT_TRUE(lock.is_locked());
    }
    EXPECT_FALSE(lock.is_locked());
}

TEST(Data_stream, a_formatted_write_sends_no_zero_until_the_text_is_cut_and_succeeds_unless_nothing_was_written) {
    const struct {
        unsigned length, accepted, failure;
        bool done;
    } cases[] = {{0, ~0u, 0, false}, {255, ~0u, 0, true}, {256, ~0u, 0, true}, {300, 1, 0, true},
                 {300, 0, 0, false}, {4, 0, -1u, true}}; // a closed stream has always answered with success
    for (const auto& c : cases) {
        const std::string text(c.length, 'x');
        Script_stream s;
        s.accepted = c.accepted;
        s.failure = c.failure;
        s.echo = true;
        Capture err(stderr);
        EXPECT_EQ(s.printf("%s", text.c_str()), c.done) << c.length;
        EXPECT_EQ(err.text(), text.substr(0, 255));
        EXPECT_EQ(s.sink, c.length < 256 ? text : text.substr(0, 255) + '\0') << c.length;
    }
}

TEST(Data_stream, a_message_that_is_not_written_whole_is_reported) {
    const struct {
        unsigned accepted;
        bool newline;
        const char* report;
    } cases[] = {{~0u, false, ""}, {2, true, "Failed write len=2/5 0 1\n"}, {0, true, "Failed write len=0/5 0 0\n"}};
    for (const auto& c : cases) {
        unsigned char bytes[] = "PG0\0x";
        Script_stream s;
        s.accepted = c.accepted;
        Capture err(stderr);
        EXPECT_EQ(s.write(Binary_message(bytes, 5), c.newline), !*c.report);
        EXPECT_EQ(err.text(), c.report);
        EXPECT_EQ(s.sink, std::string("PG0\0x", 5) + (c.newline ? "\n" : ""));
    }
}

TEST(Data_stream, copies_what_another_stream_has_buffered_and_leaves_it_there) {
    const struct {
        unsigned buffered, accepted, failure;
        bool done;
    } cases[] = {{4200, 3, 0, true}, {10, 0, 0, false}, {0, 0, 0, false}, {0, 0, -1u, true}};
    for (const auto& c : cases) {
        Script_stream from(numbered(5000)), to;
        ASSERT_TRUE(from.bytes_avail(c.buffered));
        to.accepted = c.accepted;
        to.failure = c.failure;
        EXPECT_EQ(to.write(from), c.done);
        EXPECT_EQ(to.sink, from.source.substr(0, c.buffered));
        EXPECT_EQ(from.bytes_avail(), static_cast<int>(c.buffered));
    }
}

TEST(Data_stream, a_source_that_holds_more_than_a_buffer_is_a_programming_error) {
    const Child_result r = run_child([] {
        static unsigned char storage[4201];
        Script_stream from(numbered(4201)), to;
        from.buffer = Ring_buffer(storage, sizeof storage);
        from.get_data(4201);
        to.write(static_cast<Data_stream&>(from));
    });
    EXPECT_EQ(r.signal, SIGABRT);
    EXPECT_NE(r.err.find("glue/data_stream/Data_stream:1: bool Data_stream::write(Data_stream&): "
                         "Assertion `avail <= BUFFER_SIZE' failed.\n"),
              std::string::npos)
        << r.err;
}

TEST(Data_stream, allocates_nothing) {
    Script_stream s(numbered(4000)), to;
    to.sink.reserve(20000);
    const auto round = [&] {
        unsigned char bytes[100];
        s.get_data(bytes, 100);
        s.drop(100);
        to.printf("%d %f\n", 5, 0.5);
        to.write(Binary_message(bytes, 100), true);
        to.write(s);
    };
    round();
    const long before = allocations();
    ASSERT_GT(before, 0) << "nothing is counted";
    for (int i = 0; i < 10; ++i) round();
    EXPECT_EQ(allocations(), before);
}

} // namespace
