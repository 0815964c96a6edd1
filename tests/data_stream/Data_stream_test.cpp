// SPDX-License-Identifier: MIT
#include "glue/data_stream/Virtual_pair_data_stream.h"
#include "glue/diner/module_man.h"
#include "glue/diner/waiter_descriptor.h"
#include "glue/vorn/Binary_message.h"
#include "support/Pty.h"
#include "support/test.h"

namespace {

/// Bytes `first` to `first` + n - 1 of an endless row.
std::string row(size_t n, size_t first = 0) {
    std::string s(n, 0);
    std::iota(s.begin(), s.end(), static_cast<char>(first));
    return s;
}

/// Take `n` bytes; empty when they do not come.
std::string take(Data_stream& s, unsigned n) {
    std::string bytes(n, 0);
    return s.get_data(reinterpret_cast<unsigned char*>(bytes.data()), n) && s.drop(n) ? bytes : std::string();
}

/// A stream between two strings whose results can be dictated.
class Script_stream : public Data_stream {
public:
    explicit Script_stream(size_t n = 0) : source(row(n)) {}
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

TEST(Data_stream, fetches_what_is_missing_and_nothing_that_it_cannot_hold) {
    const struct {
        unsigned buffered, source, asked;
        int fetched;
        bool done, lies;
    } cases[] = {
        {30, 100, 100, 70, true, false},
        {30, 100, 30, 0, true, false},
        {30, 98, 100, 70, false, true}, // a fetch that promised too much
        {4200, 5000, 4200, 0, true, false},
        // What no buffer can hold is refused before anything is fetched and lost.
        {10, 6000, 4201, 0, false, false},
        {10, 6000, 0xFFFFFFFFu, 0, false, false},
    };
    for (const std::string operation : {"bytes_avail", "get_data", "[]", "drop"}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(testing::Message() << operation << " of " << c.asked);
            Mutex lock;
            Script_stream s(c.source);
            s.stream_lock = &lock;
            ASSERT_TRUE(s.bytes_avail(c.buffered));
            s.fetched = 0;
            s.lies = c.lies;
            const bool done = operation == "bytes_avail" ? s.bytes_avail(c.asked)
                              : operation == "get_data"  ? s.get_data(std::vector<unsigned char>(5000).data(), c.asked)
                              : operation == "[]"        ? s[c.asked - 1] == static_cast<unsigned char>(c.asked - 1)
                                                         : s.drop(c.asked);
            EXPECT_VALUES(texts(c.done, c.fetched), done, s.fetched);
            EXPECT_EQ(s.bytes_avail(), static_cast<int>(s.taken - (done && operation == "drop" ? c.asked : 0)));
            EXPECT_VALUES("0 false", s[0xFFFFFFFFu], lock.is_locked());
        }
    }
}

TEST(Data_stream, writes_succeed_unless_nothing_was_written_but_those_of_messages_must_be_whole) {
    const struct {
        unsigned n, accepted, failure;
        bool done;
        const char* report;
    } cases[] = {{0, ~0u, 0, false, ""},
                 {0, ~0u, -1u, true, "Failed write len=4/5 0 0\n"}, // a closed stream has always answered with success
                 {255, ~0u, 0, true, ""},
                 {256, ~0u, 0, true, ""},
                 {4200, 1, 0, true, "Failed write len=1/5 0 1\n"},
                 {300, 0, 0, false, "Failed write len=0/5 0 0\n"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.n);
        const std::string whole(c.n, 'x');
        unsigned char bytes[] = "PG0\0x";
        Script_stream from(5000), text, copy, message;
        for (auto* s : {&text, &copy, &message}) s->accepted = c.accepted, s->failure = c.failure, s->echo = true;
        ASSERT_TRUE(from.bytes_avail(c.n));
        Capture err(stderr);
        EXPECT_EQ(text.printf("%s", whole.c_str()), c.done);
        EXPECT_EQ(copy.write(from), c.done);
        EXPECT_EQ(message.write(Binary_message(bytes, 5), true), !*c.report);
        EXPECT_EQ(err.text(), whole.substr(0, 255) + c.report);
        EXPECT_EQ(text.sink, c.n < 256 ? whole : whole.substr(0, 255) + '\0');
        EXPECT_EQ(copy.sink, from.source.substr(0, c.n));
        EXPECT_EQ(from.bytes_avail(), static_cast<int>(c.n)) << "it stays there";
        EXPECT_EQ(message.sink, std::string("PG0\0x\n", 6));
    }
}

/// A pair whose part b tells `rx` of bytes, and a tells `tx` of space. No wait lasts longer than a test may.
class Pair : public ::testing::Test {
protected:
    Pair() {
        rx.init(&modules);
        tx.init(&modules);
        b.reg_rx_waiter(&rx, false);
        a.reg_tx_waiter(&tx, false);
        for (auto* part : {&a, &b}) EXPECT_VALUES("1 1", part->set_read_timeout(20000), part->set_write_timeout(20000));
    }
    /// The digits of the event ids pending at a waiter; each event must carry nothing but its sender's id.
    static std::string events(waiter_descriptor& w, const Event_sender_data_stream& sender) {
        std::string ids;
        for (waiter_event e; w.get_event(&e, Atime(false)) == 0; ids += std::to_string(e.id))
            EXPECT_VALUES(texts(sender.module_id(), 0), static_cast<unsigned short>(e.module_id), e.data);
        return ids;
    }
    module_man modules;
    waiter_descriptor rx, tx;
    Virtual_pair_data_stream pair{&modules};
    Virtual_pair_data_stream_part &a = pair.a, &b = pair.b;
};

TEST_F(Pair, a_transfer_does_what_it_can_until_its_time_out_and_a_flush_makes_room) {
    // A failed wait tells nobody, a deadline that has passed does.
    for (const auto& [timeout_ms, told] : {std::pair{50, false}, {9, false}, {0, true}, {-100, true}}) {
        SCOPED_TRACE(timeout_ms);
        const Manual_clock stands_still;
        a.set_write_timeout(timeout_ms);
        b.set_read_timeout(timeout_ms);
        EXPECT_VALUES(texts(128, told ? "1" : ""), put(a, row(200)), events(rx, b));
        EXPECT_VALUES(texts(0, ""), put(a, "x"), events(rx, b));
        EXPECT_VALUES(texts(false, told ? "3" : "", row(128)), b.drop(130), events(tx, a), take(b, 128));
    }
    a.set_default_write_timeout();
    put(a, "0123456789");
    EXPECT_VALUES("true 4", b.bytes_avail(4u), b.bytes_avail()) << "no more than asked for";
    b.flush();
    put(a, "new");
    EXPECT_EQ(take(b, 7), "0123new");
    std::atomic<unsigned> written{0};
    std::thread writer([&] { written = put(a, row(200)); });
    EXPECT_TRUE(wait_until([&] { return b.flush(), written == 200; })) << "the writer waits though there is room";
    writer.join();
}

TEST_F(Pair, a_waiter_is_told_of_what_it_asked_for) {
    EXPECT_NE(a.module_id(), b.module_id());
    EXPECT_VALUES(texts(&pair, &b), static_cast<void*>(&a), &a + 1) << "the lock comes behind them";
    // At the limit only: when full, when empty.
    for (const auto& [only_at_the_limit, written, read, told_rx, told_tx] : {
             std::tuple{false, 127u, 126u, "0", "2"},
             {false, 1u, 2u, "0", "3"},
             {false, 128u, 1u, "1", "2"},
             {false, 0u, 127u, "", "3"},
             {true, 127u, 126u, "", ""},
             {true, 126u, 127u, "", "3"},
         }) {
        b.reg_rx_waiter(&rx, only_at_the_limit);
        a.reg_tx_waiter(&tx, only_at_the_limit);
        EXPECT_VALUES(texts(written, told_rx), put(a, row(written)), events(rx, b)) << written;
        take(b, read);
        EXPECT_EQ(events(tx, a), told_tx) << read;
    }
    b.reg_rx_waiter(&rx, false);
    for (int i = 0; i < 2; ++i) put(a, "x");
    EXPECT_EQ(rx.num_queued(), 1) << "one node for both";
}

TEST_F(Pair, two_threads_exchange_any_lengths_without_losing_a_byte) {
    const auto in_pieces = [](const auto& one) {
        std::mt19937 random(1);
        for (unsigned done = 0, n; done < 40000; done += n) one(done, n = 1 + random() % 700);
    };
    const auto send = [&](Data_stream& s) {
        in_pieces([&](unsigned done, unsigned n) { EXPECT_EQ(put(s, row(n, done)), n); });
    };
    const auto receive = [&](Data_stream& s) {
        in_pieces([&](unsigned done, unsigned n) { EXPECT_EQ(take(s, n), row(n, done)); });
    };
    std::thread other([&] { receive(b), send(b); });
    send(a), receive(a);
    other.join();
}

} // namespace
