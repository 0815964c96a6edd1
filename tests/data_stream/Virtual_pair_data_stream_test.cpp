// SPDX-License-Identifier: MIT
#include "glue/data_stream/Virtual_pair_data_stream.h"
#include "glue/diner/module_man.h"
#include "glue/diner/waiter_descriptor.h"
#include "support/Manual_clock.h"
#include "support/allocations.h"
#include "support/child.h"
#include "support/wait_until.h"
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int long_ms = 20000; ///< more than any test waits

std::string numbered(size_t n, unsigned first = 0) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((first + i) % 251);
    return s;
}

unsigned put(Data_stream& s, const std::string& text) {
    return s.__write(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned>(text.size()));
}

std::string take_buffered(Data_stream& s) {
    std::vector<unsigned char> bytes(static_cast<size_t>(s.bytes_avail()));
    s.get_data(bytes.data(), static_cast<unsigned>(bytes.size()));
    s.drop_all();
    return std::string(bytes.begin(), bytes.end());
}

/// A pair whose waits are limited, each part watched by a waiter of its own on both events.
class Pair : public ::testing::Test {
protected:
    Pair() : pair(&modules) {
        set_timeouts(long_ms);
        rx.init(&modules);
        tx.init(&modules);
    }
    void set_timeouts(int ms) {
        for (auto* part : {&pair.a, &pair.b}) {
            EXPECT_EQ(part->set_read_timeout(ms), 1);
            EXPECT_EQ(part->set_write_timeout(ms), 1);
        }
    }
    /// The deliveries pending at a waiter as the digits of their event ids; each must carry nothing but `sender`'s id.
    static std::string events(waiter_descriptor& w, const Event_sender_data_stream& sender) {
        std::string ids;
        waiter_event e;
        while (w.get_event(&e, Atime(false)) == 0) {
            EXPECT_EQ(static_cast<unsigned short>(e.module_id), sender.module_id());
            EXPECT_EQ(e.data, 0u);
            EXPECT_EQ(e.extended, nullptr);
            ids += std::to_string(e.id);
        }
        return ids;
    }

    module_man modules;
    waiter_descriptor rx, tx;
    Virtual_pair_data_stream pair;
};

TEST_F(Pair, what_one_part_writes_the_other_reads_and_no_more_than_asked) {
    EXPECT_EQ(put(pair.a, "0123456789"), 10u);
    EXPECT_EQ(pair.b.bytes_avail(), 0); // still inbound
    EXPECT_TRUE(pair.b.bytes_avail(4u));
    EXPECT_EQ(take_buffered(pair.b), "0123");
    EXPECT_TRUE(pair.b.bytes_avail(2u));
    pair.b.flush();
    put(pair.a, "new");
    EXPECT_TRUE(pair.b.bytes_avail(5u));
    EXPECT_EQ(take_buffered(pair.b), "45new"); // flush forgets what is inbound, not what is buffered
    EXPECT_EQ(put(pair.b, "back"), 4u);
    EXPECT_TRUE(pair.a.bytes_avail(4u));
    EXPECT_EQ(take_buffered(pair.a), "back");
}

// With a clock that stands still a wait that is cut to 0 fails at once, one that is not lasts as long as it should, and
// none is mistaken for a deadline that has passed.
TEST_F(Pair, a_write_to_an_idle_reader_fills_the_ring_and_gives_up_at_its_time_out) {
    const struct {
        int timeout_ms;
        const char* events; ///< a failed wait tells nobody, a deadline that has passed does
    } cases[] = {{50, ""}, {9, ""}, {0, "1"}, {-100, "1"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.timeout_ms);
        const Manual_clock clock;
        Virtual_pair_data_stream fresh(&modules);
        fresh.b.reg_rx_waiter(&rx, false);
        fresh.a.set_write_timeout(c.timeout_ms);
        EXPECT_EQ(put(fresh.a, numbered(200)), 128u);
        EXPECT_EQ(events(rx, fresh.b), c.events);
        EXPECT_EQ(put(fresh.a, "x"), 0u);
        EXPECT_EQ(events(rx, fresh.b), "");
        EXPECT_TRUE(fresh.b.bytes_avail(128u));
        EXPECT_EQ(take_buffered(fresh.b), numbered(128));
    }
}

TEST_F(Pair, a_read_keeps_what_came_until_its_time_out) {
    const struct {
        int timeout_ms;
        const char* events;
    } cases[] = {{50, ""}, {9, ""}, {0, "3"}, {-100, "3"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.timeout_ms);
        const Manual_clock clock;
        Virtual_pair_data_stream fresh(&modules);
        fresh.a.reg_tx_waiter(&tx, true);
        fresh.b.set_read_timeout(c.timeout_ms);
        EXPECT_EQ(put(fresh.a, "abc"), 3u);
        EXPECT_FALSE(fresh.b.drop(5));
        EXPECT_EQ(events(tx, fresh.a), c.events);
        EXPECT_EQ(take_buffered(fresh.b), "abc");
    }
}

TEST_F(Pair, a_time_out_is_as_long_as_it_was_set) {
    pair.b.set_read_timeout(50);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(pair.b.bytes_avail(1u));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
}

/// A clock that stands still and counts: a read or a write looks at it once for its deadline and again when it has to
/// wait.
class Counting_clock {
public:
    Counting_clock() {
        _reads = 0;
        Util::set_wall_clock([](struct timespec& now) {
            now = {1000000000, 0};
            ++_reads;
        });
    }
    ~Counting_clock() { Util::set_wall_clock(nullptr); }
    static bool one_waits() {
        return wait_until([] { return _reads == 2; });
    }

private:
    inline static std::atomic<int> _reads{0};
};

TEST_F(Pair, more_than_a_ring_reaches_a_reader_that_waits_already) {
    const Counting_clock clock;
    std::thread reader([this] { EXPECT_TRUE(pair.b.bytes_avail(1000u)); });
    EXPECT_TRUE(clock.one_waits());
    EXPECT_EQ(put(pair.a, numbered(1000)), 1000u);
    reader.join();
    EXPECT_EQ(take_buffered(pair.b), numbered(1000));
}

TEST_F(Pair, a_flush_makes_room_for_a_writer_that_waits) {
    const Counting_clock clock;
    std::thread writer([this] { EXPECT_EQ(put(pair.a, numbered(200)), 200u); });
    EXPECT_TRUE(clock.one_waits());
    pair.b.flush();
    writer.join();
    EXPECT_TRUE(pair.b.bytes_avail(72u));
    EXPECT_EQ(take_buffered(pair.b), numbered(72, 128));
}

TEST_F(Pair, a_read_beyond_the_receive_buffer_leaves_the_rest_inbound) {
    std::string sent;
    while (sent.size() < 4160) {
        sent += numbered(104, static_cast<unsigned>(sent.size()));
        put(pair.a, sent.substr(sent.size() - 104));
        ASSERT_TRUE(pair.b._get_data(104));
    }
    put(pair.a, "last words of which only a part has room there, and then come the others");
    EXPECT_FALSE(pair.b._get_data(72));
    EXPECT_EQ(take_buffered(pair.b), sent + "last words of which only a part has room");
    EXPECT_TRUE(pair.b.bytes_avail(32u));
    EXPECT_EQ(take_buffered(pair.b), " there, and then come the others");
}

TEST_F(Pair, a_waiter_is_told_of_what_it_asked_for) {
    const struct {
        bool only_at_the_limit; ///< only when full, only when empty
        unsigned written, read;
        const char* rx_events;
        const char* tx_events;
    } cases[] = {
        {false, 1, 1, "0", "3"},  {false, 127, 126, "0", "2"}, {false, 128, 128, "1", "3"}, {false, 128, 1, "1", "2"},
        {true, 127, 126, "", ""}, {true, 127, 127, "", "3"},   {true, 128, 128, "1", "3"},  {false, 0, 0, "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.written) + " written, " + std::to_string(c.read) + " read");
        Virtual_pair_data_stream fresh(&modules);
        EXPECT_NE(fresh.a.module_id(), fresh.b.module_id());
        fresh.b.reg_rx_waiter(&rx, c.only_at_the_limit);
        fresh.a.reg_tx_waiter(&tx, c.only_at_the_limit);
        EXPECT_EQ(put(fresh.a, numbered(c.written)), c.written);
        EXPECT_TRUE(fresh.b.bytes_avail(c.read));
        EXPECT_EQ(events(rx, fresh.b), c.rx_events);
        EXPECT_EQ(events(tx, fresh.a), c.tx_events);
    }
}

TEST_F(Pair, posts_of_one_kind_share_a_node_until_nobody_listens) {
    pair.b.reg_rx_waiter(&rx, false);
    for (int i = 0; i < 3; ++i) put(pair.a, "x");
    EXPECT_EQ(rx.num_queued(), 1);
    EXPECT_EQ(events(rx, pair.b), "000");
    pair.b.reg_rx_waiter(nullptr, false);
    put(pair.a, "x");
    EXPECT_EQ(events(rx, pair.b), "");
}

TEST_F(Pair, without_a_module_manager_the_id_is_zero_and_without_ids_the_process_ends) {
    EXPECT_EQ(Virtual_pair_data_stream(nullptr).b.module_id(), 0);
    const Child_result r = run_child([this] {
        short id;
        while (modules.init_module(&id, false) == 0) {
        }
        Virtual_pair_data_stream late(&modules);
    });
    EXPECT_EQ(r.status, -132 & 0xFF) << r.err;
}

/// Write `total` bytes in pieces of random length, then read what the other side sends in the same way.
void talk(Virtual_pair_data_stream_part& end, unsigned total, unsigned seed, bool first) {
    std::mt19937 random(seed);
    std::uniform_int_distribution<unsigned> length(1, 700);
    const auto send = [&] {
        for (unsigned done = 0; done < total;) {
            const unsigned n = std::min(length(random), total - done);
            ASSERT_EQ(put(end, numbered(n, done)), n) << "seed " << seed;
            done += n;
        }
    };
    if (first) send();
    for (unsigned done = 0; done < total;) {
        const unsigned n = std::min(length(random), total - done);
        std::vector<unsigned char> bytes(n);
        ASSERT_TRUE(end.get_data(bytes.data(), n)) << "seed " << seed;
        ASSERT_EQ(std::string(bytes.begin(), bytes.end()), numbered(n, done)) << "seed " << seed;
        ASSERT_TRUE(end.drop(n));
        done += n;
    }
    if (!first) send();
}

TEST_F(Pair, two_threads_exchange_any_lengths_without_losing_a_byte) {
    pair.b.reg_rx_waiter(&rx, false);
    pair.a.reg_tx_waiter(&tx, true);
    std::thread other([this] { talk(pair.b, 40000, 20240611, false); });
    talk(pair.a, 40000, 4711, true);
    other.join();
    EXPECT_EQ(pair.a.bytes_avail() + pair.b.bytes_avail(), 0);
}

TEST_F(Pair, allocates_nothing) {
    pair.b.reg_rx_waiter(&rx, false);
    pair.a.reg_tx_waiter(&tx, false);
    const unsigned char bytes[100] = {};
    const auto round = [&] {
        pair.a.__write(bytes, sizeof bytes);
        pair.b.drop(sizeof bytes);
    };
    round();
    const long before = allocations();
    ASSERT_GT(before, 0) << "nothing is counted";
    for (int i = 0; i < 100; ++i) round();
    EXPECT_EQ(allocations(), before);
}

} // namespace
