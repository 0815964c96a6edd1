// SPDX-License-Identifier: MIT
#include "glue/data_stream/Posix_threaded_data_stream.h"
#include "glue/data_stream/Recorder_data_stream.h"
#include "glue/data_stream/Replay_data_stream.h"
#include "support/Pty.h"
#include "support/test.h"
#include "vorn/parser_model.h"

namespace {

/// Brings what it is given, and keeps what is written up to a limit.
struct Device : Fed_stream {
    explicit Device(const std::string& bytes = "", size_t portion = SIZE_MAX) : Fed_stream(bytes, pulled, portion) {}
    unsigned _write(const unsigned char* data, unsigned n) override {
        const size_t taken = std::min<size_t>({n, 3000, limit - written.size()}); // short of what is asked for at times
        written.append(reinterpret_cast<const char*>(data), taken);
        return static_cast<unsigned>(taken);
    }
    std::string written;
    size_t limit = SIZE_MAX;
};

std::string bytes(std::initializer_list<int> values) { return {values.begin(), values.end()}; }

/// A recording that was begun at 1000000000.250 s: "ab" at once, "!" sent 40 ms later, "cde" 60 ms after that.
const std::string golden = "KAVQTREC" + bytes({1, 0, 250, 0, 0x00, 0xCA, 0x9A, 0x3B}) +
                           bytes({0, 0, 0, 0, 2, 0, 0, 0}) + "ab" + bytes({40, 0, 0, 0, 1, 0, 1, 0}) + "!" +
                           bytes({60, 0, 0, 0, 3, 0, 0, 0}) + "cde";

TEST(Recorder, writes_times_and_both_directions_or_only_what_was_received) {
    for (const auto format : {Recorder_data_stream::timed, Recorder_data_stream::raw}) {
        Manual_clock clock(1000000000, 250);
        Device line("abcde", 2), sink;
        Recorder_data_stream s(line, sink, format, "sink");
        EXPECT_VALUES("true 2", s.bytes_avail(2u), s.bytes_avail());
        clock.advance(40);
        EXPECT_EQ(put(s, "!"), 1u);
        clock.advance(60);
        EXPECT_VALUES("true false", s.bytes_avail(5u), s.bytes_avail(6u));
        EXPECT_VALUES("abcde ! 5 1", take(s), line.written, s.bytes_read, s.bytes_written);
        EXPECT_EQ(sink.written, format == Recorder_data_stream::timed ? golden : "abcde");
        sink.written.clear();
        clock.advance(-5000);
        put(s, "?");
        EXPECT_EQ(sink.written, format == Recorder_data_stream::timed ? bytes({0, 0, 0, 0, 1, 0, 1, 0}) + "?" : "");
    }
}

TEST(Recorder, ends_with_one_line_when_the_sink_is_full_and_passes_everything_on) {
    Device line(std::string(9000, 'x')), sink;
    sink.limit = 5000;
    Recorder_data_stream s(line, sink, Recorder_data_stream::raw, "the disk");
    const std::string said = debug_text([&] {
        for (const size_t n : {4200, 4200, 600}) {
            EXPECT_TRUE(s.bytes_avail(static_cast<unsigned>(n)));
            EXPECT_EQ(take(s), std::string(n, 'x'));
        }
    });
    EXPECT_EQ(said, "Recording to the disk ends: it takes no more\n");
    EXPECT_VALUES("false 5000", s.is_recording(), sink.written.size());
}

TEST(Recorder, takes_what_a_reader_thread_brought_while_another_thread_writes) {
    Manual_clock clock(1000000000, 250); // no byte of the times that are written is a 'w'
    const Pty pty;
    Posix_threaded_data_stream line;
    Device sink;
    ASSERT_TRUE(line.open(pty.path.c_str(), false, false));
    Recorder_data_stream s(line, sink, Recorder_data_stream::timed, "sink");
    std::thread writer([&] {
        for (int i = 0; i < 100; ++i) put(s, "w");
    });
    std::string all;
    for (int i = 0; i < 10; ++i) pty.send(std::string(100, 'r'));
    EXPECT_TRUE(wait_until([&] {
        s.bytes_avail(Data_stream::BUFFER_SIZE);
        return (all += take(s)).size() == 1000;
    }));
    writer.join();
    EXPECT_EQ(pty.receive(100), std::string(100, 'w'));
    EXPECT_EQ(std::count(sink.written.begin(), sink.written.end(), 'w'), 100);
    Device source(sink.written);
    Replay_data_stream replay(source, 0);
    EXPECT_FALSE(replay.bytes_avail(1001u));
    EXPECT_VALUES(texts(all, Replay_data_stream::ended), take(replay), replay.state());
}

TEST(Replay, brings_what_was_received_when_it_is_due_and_waits_for_it_up_to_the_time_out) {
    {
        Manual_clock clock;
        for (const double speed : {1.0, 4.0, 0.5}) {
            Device source(golden, 1);
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
    for (const double speed : {0.0, 10.0, 0.001}) { // 0: all at once
        Device source(golden);
        Replay_data_stream s(source, speed);
        if (speed == 0.001) s.set_read_timeout(20);
        EXPECT_VALUES(speed == 0.001 ? "false ab" : "true abcde", s.bytes_avail(5u), take(s)) << speed;
    }
}

TEST(Replay, says_what_is_wrong_with_a_recording_and_brings_what_is_good) {
    using R = Replay_data_stream;
    const auto changed = [](size_t at, const std::string& with) {
        return std::string(golden).replace(at, with.size(), with);
    };
    const size_t third = golden.size() - 3 - 8;
    // what is brought, where and why it ends
    const std::tuple<std::string, const char*, R::State, const char*> rows[] = {
        {"", "", R::unreadable, "0: it is none"},
        {"$$GARBAGE, and more than 16 bytes", "", R::unreadable, "0: it is none"},
        {golden.substr(0, 15), "", R::unreadable, "0: it is none"},
        {changed(8, "\2"), "", R::unreadable, "0: it is of another version"},
        {golden.substr(0, 16), "", R::ended, ""},
        {golden.substr(0, 25), "a", R::cut, "25: it is cut"},
        {golden.substr(0, 30), "ab", R::cut, "26: it is cut"},
        {golden.substr(0, 34), "ab", R::cut, "34: it is cut"},
        {golden.substr(0, golden.size() - 1), "abcd", R::cut, "45: it is cut"},
        {changed(third + 4, bytes({0, 0})), "ab", R::damaged, "35: it is damaged"},
        {changed(third + 4, bytes({0x69, 0x10})), "ab", R::damaged, "35: it is damaged"},
        {changed(third + 7, "\1"), "ab", R::damaged, "35: it is damaged"},
        {changed(third + 6, "\7"), "ab", R::ended, ""}, // of a kind to come
        {changed(third, "\xff\xff\xff\xff"), "abcde", R::ended, ""},
    };
    for (const auto& [recording, brought, state, why] : rows) {
        std::string got;
        const std::string said = debug_text([&, &recording = recording] {
            Device source(recording);
            R s(source, 0);
            got = Values{s.bytes_avail(4000u), s.bytes_avail(4000u), take(s), s.state()}.text;
        });
        EXPECT_EQ(texts(false, false, brought, state), got);
        EXPECT_EQ(*why ? text_of("Recording ends at byte %s\n", why) : "", said) << got;
    }
}

} // namespace
