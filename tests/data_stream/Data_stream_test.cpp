// SPDX-License-Identifier: MIT
#include "glue/data_stream/Recorder_data_stream.h"
#include "glue/data_stream/Replay_data_stream.h"
#include "glue/data_stream/Virtual_pair_data_stream.h"
#include "glue/diner/module_man.h"
#include "glue/diner/waiter_descriptor.h"
#include "glue/vorn/Binary_message.h"
#include "support/Pty.h"
#include "support/test.h"

using namespace std::string_literals;

namespace {

/// A stream between two strings whose results can be dictated.
struct Script_stream : Data_stream {
    explicit Script_stream(const std::string& bytes = "") : source(bytes) {}
    using Data_stream::get_data;
    bool get_data(int n) override {
        EXPECT_TRUE(!stream_lock || stream_lock->is_locked()) << "the buffer is filled without the lock";
        fetched = n;
        const std::string piece = source.substr(taken, static_cast<size_t>(n));
        taken += buffer.put(reinterpret_cast<const unsigned char*>(piece.data()), static_cast<uint32_t>(piece.size()));
        return piece.size() == static_cast<size_t>(n) || lies;
    }
    unsigned int _write(unsigned char const* data, unsigned int n) override {
        sink.append(reinterpret_cast<const char*>(data), std::min(n, accepted));
        return std::min(n, accepted) + failure;
    }
    std::string source, sink;
    size_t taken = 0;         ///< [bytes] of the source
    int fetched = 0;          ///< [bytes] last asked for
    bool lies = false;        ///< promise bytes that did not come
    unsigned accepted = 3000; ///< [bytes] a write takes at most
    unsigned failure = 0;     ///< added to the result of a write
};

TEST(Data_stream, fetches_what_is_missing_and_nothing_that_it_cannot_hold) {
    const std::tuple<unsigned, unsigned, unsigned, bool, int, bool> cases[] = {
        // Buffered, in the source, asked for, whether it promises too much; fetched, done. What no buffer can hold is
        // refused before anything is fetched and lost.
        {30, 100, 100, false, 70, true},   {30, 100, 30, false, 0, true},
        {30, 98, 100, true, 70, false},    {4200, 5000, 4200, false, 0, true},
        {10, 6000, 4201, false, 0, false}, {10, 6000, 0xFFFFFFFFu, false, 0, false}};
    for (const std::string operation : {"bytes_avail", "get_data", "[]", "drop"}) {
        for (const auto& [buffered, there, asked, lies, fetched, done] : cases) {
            Mutex lock;
            Script_stream s(row(there));
            s.stream_lock = &lock;
            ASSERT_TRUE(s.bytes_avail(buffered));
            s.fetched = 0;
            s.lies = lies;
            const bool did = operation == "bytes_avail" ? s.bytes_avail(asked)
                             : operation == "get_data"  ? s.get_data(std::vector<unsigned char>(5000).data(), asked)
                             : operation == "[]"        ? s[asked - 1] == static_cast<unsigned char>(asked - 1)
                                                        : s.drop(asked);
            EXPECT_VALUES(texts(done, fetched, s.taken - (done && operation == "drop" ? asked : 0), 0, false), did,
                          s.fetched, s.bytes_avail(), s[0xFFFFFFFFu], lock.is_locked())
                << operation << " of " << asked;
        }
    }
}

TEST(Data_stream, writes_succeed_unless_nothing_was_written_but_those_of_messages_must_be_whole) {
    const std::tuple<unsigned, unsigned, unsigned, bool, std::string> cases[] = {
        // Bytes, how many of them are taken at most, what is added to the result: a closed stream has always answered
        // with success.
        {0, ~0u, -1u, true, "Failed write len=4/5 0 0\n"},
        {255, ~0u, 0, true, ""},
        {256, ~0u, 0, true, ""},
        {4200, 1, 0, true, "Failed write len=1/5 0 1\n"},
        {300, 0, 0, false, "Failed write len=0/5 0 0\n"}};
    for (const auto& [n, accepted, failure, done, report] : cases) {
        const std::string whole(n, 'x'), cut = whole.substr(0, 255);
        unsigned char bytes[] = "PG0\0x";
        Script_stream from(row(5000)), text, copy, message;
        for (auto* s : {&text, &copy, &message}) s->accepted = accepted, s->failure = failure, s->echo = true;
        ASSERT_TRUE(from.bytes_avail(n));
        Capture err(stderr);
        EXPECT_VALUES(texts(done, done, report.empty()), text.printf("%s", whole.c_str()), copy.write(from),
                      message.write(Binary_message(bytes, 5), true))
            << n;
        EXPECT_EQ(err.text(), cut + report);
        EXPECT_EQ(text.sink, (n < 256 ? whole : cut + '\0').substr(0, accepted));
        EXPECT_EQ(message.sink, "PG0\0x"s.substr(0, accepted) + "\n"s.substr(0, accepted));
        EXPECT_VALUES(texts(from.source.substr(0, std::min(n, accepted)), n), copy.sink, from.bytes_avail());
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
        const Manual_clock stands_still;
        a.set_write_timeout(timeout_ms);
        b.set_read_timeout(timeout_ms);
        EXPECT_VALUES(texts(128, told ? "1" : "", 0, ""), put(a, row(200)), events(rx, b), put(a, "x"), events(rx, b));
        EXPECT_VALUES(texts(false, told ? "3" : "", row(128)), b.drop(130), events(tx, a), take(b, 128)) << timeout_ms;
    }
    a.set_default_write_timeout();
    EXPECT_VALUES("10 true 4", put(a, "0123456789"), b.bytes_avail(4u), b.bytes_avail()) << "no more than asked for";
    b.flush();
    EXPECT_VALUES("3 0123new", put(a, "new"), take(b, 7));
    std::atomic<unsigned> written{0};
    std::thread writer([&] { written = put(a, row(200)); });
    EXPECT_TRUE(wait_until([&] { return b.flush(), written == 200; })) << "the writer waits though there is room";
    writer.join();
}

TEST_F(Pair, a_waiter_is_told_of_what_it_asked_for) {
    EXPECT_NE(a.module_id(), b.module_id());
    EXPECT_VALUES(texts(&pair, &b), static_cast<void*>(&a), &a + 1) << "the lock comes behind them";
    const std::tuple<bool, unsigned, unsigned, const char*, const char*> steps[] = {
        // whether at the limit only (when full, when empty), written, read, who is told
        {false, 127, 126, "0", "2"}, {false, 1, 2, "0", "3"},  {false, 128, 1, "1", "2"},
        {false, 0, 127, "", "3"},    {true, 127, 126, "", ""}, {true, 126, 127, "", "3"},
    };
    for (const auto& [only_at_the_limit, written, read, told_rx, told_tx] : steps) {
        b.reg_rx_waiter(&rx, only_at_the_limit);
        a.reg_tx_waiter(&tx, only_at_the_limit);
        EXPECT_VALUES(texts(written, told_rx, read, told_tx), put(a, row(written)), events(rx, b), take(b, read).size(),
                      events(tx, a))
            << written;
    }
    b.reg_rx_waiter(&rx, false);
    EXPECT_VALUES("1 1 1", put(a, "x"), put(a, "x"), rx.num_queued()) << "one node for both";
}

TEST_F(Pair, threads_exchange_any_lengths_without_losing_a_byte_while_one_end_is_recorded) {
    Script_stream sink;
    sink.accepted = 100;
    Recorder_data_stream recorded(b, sink, Recorder_data_stream::timed, "sink");
    const auto exchange = [](Data_stream& s, bool sends) {
        std::mt19937 random(1);
        for (unsigned done = 0, n; done < 40000; done += n) {
            n = 1 + random() % 700;
            if (sends)
                EXPECT_EQ(put(s, row(n, done)), n);
            else
                EXPECT_EQ(take(s, n), row(n, done));
        }
    };
    std::thread others[] = {std::thread(exchange, std::ref(a), true), std::thread(exchange, std::ref(a), false),
                            std::thread(exchange, std::ref(recorded), true)};
    exchange(recorded, false);
    for (std::thread& other : others) other.join();
    Script_stream source(sink.sink);
    Replay_data_stream replay(source, 0);
    exchange(replay, false);
    EXPECT_VALUES(texts(false, Replay_data_stream::ended), replay.bytes_avail(1u), replay.state());
}

std::string bytes(std::initializer_list<int> values) { return {values.begin(), values.end()}; }

/// A recording that was begun at 1000000000.250 s: "ab" at once, "!" sent 40 ms later, "cde" 60 ms after that.
const std::string golden = "KAVQTREC" + bytes({1, 0, 250, 0, 0x00, 0xCA, 0x9A, 0x3B}) +
                           bytes({0, 0, 0, 0, 2, 0, 0, 0}) + "ab" + bytes({40, 0, 0, 0, 1, 0, 1, 0}) + "!" +
                           bytes({60, 0, 0, 0, 3, 0, 0, 0}) + "cde";

TEST(Recorder, writes_times_and_both_directions_or_only_what_was_received) {
    for (const auto format : {Recorder_data_stream::timed, Recorder_data_stream::raw}) {
        Manual_clock clock(1000000000, 250);
        Script_stream line("abcde"), sink;
        Recorder_data_stream s(line, sink, format, "sink");
        EXPECT_VALUES("true 2", s.bytes_avail(2u), s.bytes_avail());
        clock.advance(40);
        EXPECT_EQ(put(s, "!"), 1u);
        clock.advance(60);
        EXPECT_VALUES("true false", s.bytes_avail(5u), s.bytes_avail(6u));
        EXPECT_VALUES("abcde ! 5 1", take(s), line.sink, s.bytes_read, s.bytes_written);
        EXPECT_EQ(sink.sink, format == Recorder_data_stream::timed ? golden : "abcde");
        sink.sink.clear();
        clock.advance(-5000);
        put(s, "?");
        EXPECT_EQ(sink.sink, format == Recorder_data_stream::timed ? bytes({0, 0, 0, 0, 1, 0, 1, 0}) + "?" : "");
    }
}

TEST(Replay, brings_what_was_received_when_it_is_due_and_waits_for_it_up_to_the_time_out) {
    {
        Manual_clock clock;
        for (const double speed : {1.0, 4.0, 0.5}) {
            Script_stream source(golden);
            ASSERT_TRUE(Replay_data_stream::is_recording(source));
            Replay_data_stream s(source, speed);
            s.set_read_timeout(0);
            const int later = static_cast<int>(100 / speed);
            EXPECT_VALUES("1000000000 250 9", s.begun().time, s.begun().millitm, put(s, "forgotten"));
            EXPECT_VALUES(texts(0, false, "ab", later), s.ms_to_next(), s.bytes_avail(3u), take(s), s.ms_to_next());
            clock.advance(later - 1);
            EXPECT_VALUES("false 1", s.bytes_avail(1u), s.ms_to_next()) << speed;
            clock.advance(1);
            EXPECT_VALUES(texts(true, "cde", Replay_data_stream::playing), s.bytes_avail(3u), take(s), s.state());
            EXPECT_VALUES(texts(-1, Replay_data_stream::ended, false), s.ms_to_next(), s.state(), s.bytes_avail(1u));
        }
    }
    Script_stream source(golden);
    Replay_data_stream slow(source, 0.001);
    slow.set_read_timeout(20);
    EXPECT_VALUES("false ab", slow.bytes_avail(5u), take(slow));
}

} // namespace
