// SPDX-License-Identifier: MIT
#include "glue/data_stream/Virtual_pair_data_stream.h"
#include "glue/diner/module_man.h"
#include "glue/diner/waiter_descriptor.h"
#include "support/allocations.h"
#include "support/child.h"
#include "support/wait_until.h"
#include "util/clock.h"
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <thread>

namespace {

std::string numbered(size_t n, unsigned first = 0) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((first + i) % 251);
    return s;
}

unsigned put(Data_stream& s, const std::string& text) {
    return s.__write(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned>(text.size()));
}

/// Take `n` bytes; empty when they do not come.
std::string take(Data_stream& s, unsigned n) {
    std::string bytes(n, 0);
    return s.get_data(reinterpret_cast<unsigned char*>(bytes.data()), n) && s.drop(n) ? bytes : std::string();
}

/// A clock that stands still and counts: a read or a write looks at it once for its deadline and again when it has to
/// wait. A wait then lasts as long as it was set or fails at once, and its deadline never passes.
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

/// A pair whose part b tells `rx` of bytes, and a tells `tx` of space. No wait lasts longer than a test may.
class Pair : public ::testing::Test {
protected:
    Pair() {
        rx.init(&modules);
        tx.init(&modules);
        b.reg_rx_waiter(&rx, false);
        a.reg_tx_waiter(&tx, false);
        for (auto* part : {&a, &b}) {
            EXPECT_EQ(part->set_read_timeout(20000), 1);
            EXPECT_EQ(part->set_write_timeout(20000), 1);
        }
    }
    /// The deliveries pending at a waiter as the digits of their event ids; each must carry nothing but the sender's
    /// id.
    static std::string events(waiter_descriptor& w, const Event_sender_data_stream& sender) {
        std::string ids;
        for (waiter_event e; w.get_event(&e, Atime(false)) == 0;) {
            EXPECT_EQ(static_cast<unsigned short>(e.module_id), sender.module_id());
            EXPECT_EQ(e.data, 0u);
            ids += std::to_string(e.id);
        }
        return ids;
    }
    std::string rx_events() { return events(rx, b); }
    std::string tx_events() { return events(tx, a); }

    module_man modules;
    waiter_descriptor rx, tx;
    Virtual_pair_data_stream pair{&modules};
    Virtual_pair_data_stream_part &a = pair.a, &b = pair.b;
};

TEST_F(Pair, what_one_part_writes_the_other_reads_and_no_more_than_asked) {
    EXPECT_EQ(put(a, "0123456789"), 10u);
    EXPECT_TRUE(b.bytes_avail(4u));
    EXPECT_EQ(b.bytes_avail(), 4); // the others are still inbound
    b.flush();
    put(a, "new");
    EXPECT_EQ(take(b, 7), "0123new"); // flush forgot what was inbound, not what is buffered
    EXPECT_EQ(put(b, "back"), 4u);
    EXPECT_EQ(take(a, 4), "back");
}

TEST_F(Pair, a_write_or_a_read_does_what_it_can_and_gives_up_at_its_time_out) {
    const struct {
        int timeout_ms;
        bool told; ///< a failed wait tells nobody, a deadline that has passed does
    } timeouts[] = {{50, false}, {9, false}, {0, true}, {-100, true}};
    for (const auto& t : timeouts) {
        SCOPED_TRACE(t.timeout_ms);
        const Counting_clock clock;
        a.set_write_timeout(t.timeout_ms);
        b.set_read_timeout(t.timeout_ms);
        EXPECT_EQ(put(a, numbered(200)), 128u);
        EXPECT_EQ(rx_events(), t.told ? "1" : "");
        EXPECT_EQ(put(a, "x"), 0u);
        EXPECT_EQ(rx_events(), "");
        EXPECT_FALSE(b.drop(130));
        EXPECT_EQ(tx_events(), t.told ? "3" : "");
        EXPECT_EQ(take(b, 128), numbered(128));
    }
    b.set_read_timeout(50);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(b.bytes_avail(1u));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
}

TEST_F(Pair, a_flush_makes_room_for_a_writer_that_waits) {
    const Counting_clock clock;
    std::thread writer([this] { EXPECT_EQ(put(a, numbered(200)), 200u); });
    EXPECT_TRUE(clock.one_waits());
    b.flush();
    writer.join();
    EXPECT_EQ(take(b, 72), numbered(72, 128));
}

TEST_F(Pair, a_read_beyond_the_receive_buffer_leaves_the_rest_inbound_and_nothing_is_allocated) {
    const std::string all = numbered(4220);
    const auto* bytes = reinterpret_cast<const unsigned char*>(all.data());
    a.__write(bytes, 1);
    ASSERT_TRUE(b._get_data(1)); // what is built on first use is there
    const long before = allocations();
    for (unsigned n = 1; n < 4101; n += 100) {
        a.__write(bytes + n, 100);
        ASSERT_TRUE(b._get_data(100));
    }
    EXPECT_EQ(allocations(), before);
    a.__write(bytes + 4101, 119);
    tx_events();
    EXPECT_FALSE(b._get_data(119));
    EXPECT_EQ(tx_events(), "2"); // at once, without a wait in vain
    EXPECT_EQ(take(b, 4200), all.substr(0, 4200));
    EXPECT_EQ(take(b, 20), all.substr(4200));
}

TEST_F(Pair, a_waiter_is_told_of_what_it_asked_for) {
    const struct {
        bool only_at_the_limit; ///< only when full, only when empty
        unsigned written, read;
        const char *rx, *tx;
    } cases[] = {{false, 127, 126, "0", "2"}, {false, 1, 2, "0", "3"},  {false, 128, 1, "1", "2"},
                 {false, 0, 127, "", "3"},    {true, 127, 126, "", ""}, {true, 126, 127, "", "3"}};
    EXPECT_NE(a.module_id(), b.module_id());
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.written) + " written, " + std::to_string(c.read) + " read");
        b.reg_rx_waiter(&rx, c.only_at_the_limit);
        a.reg_tx_waiter(&tx, c.only_at_the_limit);
        EXPECT_EQ(put(a, numbered(c.written)), c.written);
        EXPECT_EQ(rx_events(), c.rx);
        take(b, c.read);
        EXPECT_EQ(tx_events(), c.tx);
    }
    b.reg_rx_waiter(&rx, false);
    for (int i = 0; i < 3; ++i) put(a, "x");
    EXPECT_EQ(rx.num_queued(), 1); // one node for all of them
    EXPECT_EQ(rx_events(), "000");
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

TEST_F(Pair, two_threads_exchange_any_lengths_without_losing_a_byte) {
    constexpr unsigned total = 40000, seed = 4711;
    const auto in_pieces = [](unsigned salt, const auto& one) {
        std::mt19937 random(seed + salt);
        for (unsigned done = 0, n; done < total; done += n) {
            n = std::min(std::uniform_int_distribution<unsigned>(1, 700)(random), total - done);
            one(done, n);
        }
    };
    const auto send = [&](Data_stream& s) {
        in_pieces(1, [&](unsigned done, unsigned n) { ASSERT_EQ(put(s, numbered(n, done)), n) << "seed " << seed; });
    };
    const auto receive = [&](Data_stream& s) {
        in_pieces(2, [&](unsigned done, unsigned n) { ASSERT_EQ(take(s, n), numbered(n, done)) << "seed " << seed; });
    };
    std::thread other([&] {
        receive(b);
        send(b);
    });
    send(a);
    receive(a);
    other.join();
    EXPECT_EQ(a.bytes_avail() + b.bytes_avail(), 0);
}

} // namespace
