// SPDX-License-Identifier: MIT
#include "glue/data_stream/Posix_polled_serial_data_stream.h"
#include "glue/data_stream/Posix_serial_data_stream.h"
#include "glue/data_stream/Posix_threaded_serial_data_stream.h"
#include "support/Pty.h"
#include "support/Test_diner.h"
#include "support/stress.h"
#include "support/test.h"
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

namespace {

constexpr unsigned failed = static_cast<unsigned>(-1);

TEST(Posix_stream, opens_with_flags_and_mode_and_closes_each_descriptor_once) {
    struct Stream : Posix_data_stream {
        static int flags(int fd) { return fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK | O_APPEND); }
        int in() const { return flags(read_fd()); }
        int out() const { return flags(write_fd()); }
    } s;
    umask(0);
    const size_t before = num_descriptors();
    Temporary_folder dir;
    const std::string file = dir.file("f"), begin = "About to Open " + file + "\n",
                      opened = begin + "Opened " + file + "\n", error = "Error opening file [" + file + "]\n";
    const char* const f = file.c_str();
    Capture err(stderr);
    EXPECT_VALUES("false false false", s.open(f, 0, 1, 0), s.open_write(f, 0, 1, 1), s.open_read(f, 1));
    EXPECT_VALUES(texts(true, O_RDWR, stream_name("DSPosix", s, ", " + file + ", rw")), s.open(f, 1, 1, 0), s.in(),
                  s.name);
    EXPECT_VALUES(texts(true, O_RDWR | O_NONBLOCK | O_APPEND), s.open(f, 0, 0, 1), s.out());
    EXPECT_VALUES(texts(true, O_WRONLY | O_NONBLOCK | O_APPEND), s.open_write(f, 1, 0, 1), s.out());
    EXPECT_VALUES(texts(true, O_WRONLY, true, O_NONBLOCK), s.open_write(f, 0, 1, 0), s.out(), s.open_read(f, 0),
                  s.in());
    EXPECT_EQ(begin + error + error + error + opened + opened, err.text());
    EXPECT_VALUES(texts(0666, before + 2), int(std::filesystem::status(file).permissions()), num_descriptors())
        << "what was open is closed first";
    EXPECT_VALUES("false true true false", s.close(), s.close_write(), s.close_read(), s.close());
    EXPECT_VALUES("false false true", s.close_write(), s.close_read(), s.open(f, 0, 1, 0));
    EXPECT_VALUES("false false true", s.close_read(), s.close_write(), s.close());
    EXPECT_VALUES(texts(stream_name("DSPosix", s, ""), before), s.name, num_descriptors());
}

TEST(Posix_stream, keeps_what_came_before_the_end_and_bounds_whole_transfers_on_any_descriptor) {
    struct rlimit limit = {1200, 1200};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    for (int least_number : {3, 1100}) { // the sets of select() end at 1024
        int p[2], q[2], waiting = 0;     // a stream closes what it is given
        for (int* ends : {p, q}) {
            int low[2];
            ASSERT_EQ(pipe(low), 0);
            for (int i = 0; i < 2; ++i) ends[i] = fcntl(low[i], F_DUPFD, least_number), ::close(low[i]);
            fcntl(ends[1], F_SETPIPE_SZ, 8192); // two pages; it takes bytes as long as one is unused
        }
        Posix_data_stream reader(p[0]), writer(-1, p[1]), both(q[0], q[1]);
        const auto set_timeouts = [&](int ms) {
            for (auto* s : {&reader, &writer, &both}) s->set_read_timeout(ms), s->set_write_timeout(ms);
        };
        set_timeouts(200);
        // Each byte comes 100 ms after the last one was taken: ten take 900 ms, though no single wait reaches 200.
        std::atomic<bool> done{false};
        std::thread feeder([&] {
            for (; !done; std::this_thread::sleep_for(std::chrono::milliseconds(100)))
                if (ioctl(p[0], FIONREAD, &waiting) == 0 && waiting == 0) put(writer, "x");
        });
        EXPECT_FALSE(reader.bytes_avail(10u));
        done = true;
        feeder.join();
        reader._get_data(1);
        reader.drop_all();
        EXPECT_VALUES("5 true 2", put(writer, "hello"), reader.bytes_avail(2u), reader.bytes_avail())
            << "a stream without a read descriptor waits on the one it has; the next call has the whole time again";
        set_timeouts(10);
        const int taken = static_cast<int>(put(writer, std::string(5000, 'y')));
        EXPECT_VALUES(texts(0, 3 + taken, true), ioctl(p[0], FIONREAD, &waiting), waiting, taken < 5000) << "had room";
        EXPECT_EQ(0u, put(both, "x")) << "asked of the read descriptor: that of a pipe never takes bytes";
        both.set_default_write_timeout();
        both.set_default_read_timeout();
        EXPECT_VALUES("2 true false", put(both, "xy"), both.close_write(), both.bytes_avail(3u)) << "the end";
        EXPECT_VALUES(texts("xy", failed, 2, 2), take(both), put(both, "x"), both.bytes_read, both.bytes_written);
        EXPECT_FALSE(both.close_read() && both._get_data(0)) << "closed";
        Capture err(stderr);
        ::close(p[0]), ::close(p[1]);
        EXPECT_VALUES("false 0", reader.bytes_avail(3000u), put(writer, "x"));
        EXPECT_EQ(err.text(), "select(), Posix_data_stream::get_data: Bad file descriptor\n"
                              "select(), Posix_data_stream::_write: Bad file descriptor\n");
    }
}

TEST(Serial_stream, is_a_line_at_the_speed_of_its_argument) {
    Pty pty;
    Temporary_folder dir;
    const std::string file = dir.file("f");
    Capture err(stderr);
    Posix_serial_data_stream s((pty.path + ":38400").c_str());
    Posix_data_stream::Commander c;
    EXPECT_VALUES(texts(stream_name("DSPosSer", s, ", " + pty.path + ":38400"), B38400), s.name, pty.speed());
    EXPECT_VALUES("true true true", s.init_commander(c), c.send_break(100), s.close());
    EXPECT_VALUES("false false false false", s.initialised(), s.close(), s.init_commander(c), c.send_break(100));
    EXPECT_VALUES("false false", s.open(file.c_str(), true, true, false), s.initialised()) << "no line, but open";
    EXPECT_NE(err.text().find(file + " is no serial line: Inappropriate ioctl for device\n"), std::string::npos);
    EXPECT_VALUES("true true false", s.get_fd() >= 0, s.init_commander(c), c.send_break(0));
    EXPECT_VALUES("true -1", s.open_write(file.c_str(), 0, 1, 0), s.get_fd()) << "two descriptors are no line";
}

// ---- threaded and polled

using Stream = Posix_threaded_data_stream;
using Threaded = Posix_threaded_serial_data_stream;
using Polled = Posix_polled_serial_data_stream;

TEST(Threaded_stream, takes_files_for_what_they_are) {
    const Temporary_folder dir;
    const std::string file = dir.file("f"), line = file + ":9600";
    std::thread([] {}).join(); // a sanitizer's own thread begins with the first
    const size_t running = num_threads();
    {
        Capture err(stderr);
        Stream plain[11];
        Threaded s;
        EXPECT_VALUES(texts(false, ENOENT), Stream::can_open(file.c_str()), errno);
        for (const auto& [i, name] : {std::pair{0, "PDS0\n"}, {9, "PDS9\n"}, {10, "PDS1\n"}}) {
            EXPECT_VALUES("true true", plain[i].open(file.c_str(), true, false), plain[i].start());
            // Threads are listed in the order of their beginning: numbers start over.
            const std::string newest = std::to_string(numbers_in("/proc/self/task").back());
            EXPECT_TRUE(wait_until([&, n = name] { return read_file("/proc/self/task/" + newest + "/comm") == n; }))
                << name;
        }
        Stream::Commander c;
        EXPECT_VALUES("false false", s.open_from_args(line.c_str()), s.initialised());
        EXPECT_TRUE(wait_until([&] { return plain[0].bytes_avail() == 9; }));
        EXPECT_EQ("OPEN BAD\n", take(plain[0])) << "what is no line is told so";
        const auto pauses = [running] {
            return told_of(numbers_in("/proc/self/task")[running], "status", "\nvoluntary_ctxt_switches:");
        };
        EXPECT_TRUE(wait_until([&, before = pauses()] { return pauses() >= before + 2; })) << "looks for more";
        EXPECT_VALUES("0 true false", plain[0].hang_ups(), plain[0].init_commander(c), c.send_break(1));
        EXPECT_VALUES("true false false", plain[0].close(), plain[0].close(), plain[0].init_commander(c));
    }
    EXPECT_TRUE(wait_until([&] { return num_threads() == running; })) << "joined, also those never opened";
}

template <class S>
struct Serial : testing::Test {};
using Serials = testing::Types<Posix_serial_data_stream, Threaded, Polled>;
TYPED_TEST_SUITE(Serial, Serials);

TYPED_TEST(Serial, line_that_is_claimed_keeps_others_out) {
    const Pty pty;
    const char* const path = pty.path.c_str();
    const int other = ::open(path, O_RDWR | O_NOCTTY);
    const auto exclusive = [&] {
        int on = -1;
        return ioctl(other, TIOCGEXCL, &on) == 0 && on == 1;
    };
    Capture err(stderr);
    {
        TypeParam first, second, modest;
        first.set_exclusive(true), second.set_exclusive(true);
        if constexpr (std::is_same_v<TypeParam, Threaded>) second.set_open_failure_fatal(false); // it is, but to root
        EXPECT_VALUES("true true", first.open_default(path), exclusive());
        EXPECT_VALUES(texts(false, true, failed), second.open_default(path), second.get_fd() < 0, put(second, "x"));
        EXPECT_VALUES("true false true", first.close(), exclusive(), second.open_default(path));
        EXPECT_VALUES("true true true false", exclusive(), second.close(), modest.open_default(path), exclusive());
        EXPECT_VALUES("true true", modest.close(), first.open_default(path));
    }
    EXPECT_FALSE(exclusive()) << "closed by its end";
    EXPECT_NE(err.text().find(pty.path + " is in use by another program\n"), std::string::npos);
    ::close(other);
}

/// A stream and who is woken by it, without which a polled one does not look at its line at all.
template <class S>
struct Woken : testing::Test {
    static constexpr bool is_polled = std::is_same_v<S, Polled>;
    Woken() {
        s.init(mm), waiter.init(&mm), other.init(&mm);
        if constexpr (is_polled)
            s.attach(&waiter);
        else
            s.register_waiter(&waiter), s.register_waiter(&other), s.register_line_waiter(&waiter),
                s.set_open_failure_fatal(false);
    }
    /// Take events until it is so.
    template <class Condition>
    bool until(Condition is_so) {
        for (waiter_event e; !is_so(); told += e.id == S::event_data ? "" : e.id == S::event_line_lost ? "-" : "+")
            if (waiter.get_event(&e, Atime::from_now(20000)) != 0 || e.module_id != s.module_id()) return false;
        return true;
    }
    /// Wait until `n` bytes are there, then take all.
    std::string take(int n) {
        return until([&] { return s.bytes_avail() >= n; }), ::take(s);
    }
    module_man mm;
    waiter_descriptor waiter, other;
    std::string told; ///< of the line: lost -, back +
    Pty pty;
    Temporary_folder dir;
    const std::string loop = dir.file("loop"); ///< what is written to it comes back
    S s;
};
using Kinds = testing::Types<Threaded, Polled>;
TYPED_TEST_SUITE(Woken, Kinds);

TYPED_TEST(Woken, by_bytes_of_which_it_counts_what_its_buffer_cannot_hold) {
    auto& s = this->s;
    ASSERT_VALUES("true 57600", s.open_from_args((this->pty.path + ":57600").c_str()), s.get_baudRate());
    EXPECT_EQ(stream_name(this->is_polled ? "DSPosPSer" : "DSPosTSer", s, ", " + this->pty.path), s.name);
    this->pty.send(row(256));
    EXPECT_VALUES(row(256) + " true false", this->take(256), s._get_data(0), s.bytes_avail(1u));
    std::thread reader([&] { EXPECT_EQ(this->pty.receive(100000), std::string(100000, 'w')); });
    EXPECT_EQ(100000u, put(s, std::string(100000, 'w'))) << "waits for room";
    reader.join();
    ASSERT_VALUES("0 false true", mkfifo(this->loop.c_str(), 0600), s.open(this->loop.c_str()), s.get_fd() >= 0)
        << "open, but no line";
    EXPECT_EQ(5000u, put(s, std::string(4200, 'a') + std::string(800, 'b')));
    EXPECT_TRUE(this->until([&] { return s.counts().read == 5256; }));
    EXPECT_VALUES(texts(std::string(4200, 'a'), 800, ""), ::take(s), s.counts().lost, this->told);
    EXPECT_VALUES(texts(true, false, failed), s.close(), s.close(), put(s, "x"));
}

TYPED_TEST(Woken, by_a_line_that_is_lost_and_by_one_that_is_back) {
    auto& s = this->s;
    const auto told = [&](const char* all) { return this->until([&] { return this->told == all; }); };
    // The master end of a pair, whose slave may come and go.
    ASSERT_VALUES("true 0", s.open("/dev/ptmx"), unlockpt(s.get_fd()));
    const std::string other_end = ptsname(s.get_fd());
    for (const char* all : {"-", "-+-"}) {
        const int fd = ::open(other_end.c_str(), O_RDWR | O_NOCTTY);
        EXPECT_VALUES("1 a", ::write(fd, "a", 1), this->take(1));
        ::close(fd);
        EXPECT_TRUE(told(all)) << this->told;
    }
    EXPECT_EQ(s.hang_ups(), 2u);

    // Unplugged and plugged in again.
    const Capture refusals(stderr);
    auto pty = std::make_unique<Pty>();
    ASSERT_TRUE(s.open(pty->path.c_str()) && told("-+-+")) << this->told;
    const int reader = numbers_in("/proc/self/task").back(); // in the order of their beginning
    const auto pauses = [reader] { return told_of(reader, "status", "\nvoluntary_ctxt_switches:"); };
    const size_t descriptors = num_descriptors(), threads = num_threads();
    const int cycles = nightly() ? 10001 : 1001;
    for (int i = 0; i < cycles; ++i) {
        const std::string message = std::to_string(i);
        pty->send(message);
        ASSERT_VALUES(texts(message, 6), this->take(static_cast<int>(message.size())), put(s, "answer"));
        if (i % 4 == 1) pty->send("never read");
        if (i % 4 == 2) pty = std::make_unique<Pty>(); // at another number of the system
        pty->hang_up();
        if (i == 0 && !this->is_polled) { // nobody looks after it for a second
            EXPECT_TRUE(wait_until([&, before = pauses()] { return pauses() >= before + 4; }));
        }
        ASSERT_FALSE(i % 4 == 3 && s.open("/none")) << "it is not there yet";
        pty = std::make_unique<Pty>();
        ASSERT_TRUE(s.open(pty->path.c_str()));
        take(s);
        this->waiter.flush_events();
    }
    EXPECT_VALUES(texts(descriptors, threads), num_descriptors(), num_threads());
    const long slept = pauses(), ran_us = told_of(reader, "schedstat") / 1000;
    printf("%d cycles: in each the reader slept %.1f times and ran %.0f us\n", cycles, double(slept) / cycles,
           double(ran_us) / cycles);
    EXPECT_TRUE(this->is_polled || (slept < 20L * cycles && ran_us < 1000L * cycles)) << "it spins";
    this->told.clear();
    pty->hang_up();
    EXPECT_VALUES(texts(true, failed), told("-"), put(s, "x"));
    EXPECT_EQ(this->other.num_queued(), this->is_polled ? 0 : 1) << "nothing but bytes, of which it was told once";
}

TEST(Threaded_stream, waits_for_room_to_write_until_it_is_closed) {
    const Pty pty, next;
    Threaded s;
    ASSERT_TRUE(s.open(pty.path.c_str()));
    unsigned cut = 0;
    std::thread writer([&] { cut = put(s, std::string(100000, 'w')); });
    EXPECT_EQ("w", pty.receive(1)) << "it has begun";
    EXPECT_VALUES("true true", s.close(), s.open(next.path.c_str()));
    writer.join();
    EXPECT_TRUE(cut >= 1 && cut < 100000) << cut;
    EXPECT_VALUES(texts(1, "x", true, failed), put(s, "x"), next.receive(1), s.close(), put(s, "x"))
        << "the rest is not for the next line";
}

TEST(Threaded_stream, takes_no_bytes_of_others_once_it_is_closed_and_has_its_name_and_counts_whole) {
    const Temporary_folder dir;
    const std::string loop = dir.file("loop");
    EXPECT_VALUES("0 true", mkfifo(loop.c_str(), 0600),
                  Stream().start()); // the first thread of a process costs Qt a descriptor for good
    const size_t descriptors = num_descriptors();
    {
        Stream s;
        std::set<std::string> names = {stream_name("DSPosT", s, ""), stream_name("DSPosT", s, ", " + loop)};
        std::atomic<bool> stop{false};
        // Uses the numbers that the stream gives up, and snatches bytes that its reader was told of: neither may lose
        // bytes here nor make the stream wait there.
        std::thread bystander([&] {
            const int rival = ::open(loop.c_str(), O_RDONLY | O_NONBLOCK);
            char c, name[Data_stream::name_size];
            for (int ends[2]; !stop && pipe2(ends, O_NONBLOCK) == 0; ::close(ends[0]), ::close(ends[1])) {
                for (int i = 0; i < 20; ++i) {
                    EXPECT_VALUES("1 1", ::write(ends[1], "p", 1), ::read(ends[0], &c, 1)) << "stolen";
                    if (::read(rival, &c, 1) < 0) std::this_thread::yield();
                }
                s.get_name(name);
                names.insert(name);
                EXPECT_EQ(s.counts().written % 7, 0u);
            }
            ::close(rival);
        });
        for (int i = 0; i < 2000; ++i) {
            EXPECT_VALUES("true 7", s.open(loop.c_str(), false, false), put(s, "a piece"));
            EXPECT_TRUE(i % 2 || s.close());
        }
        stop = true;
        bystander.join();
        EXPECT_VALUES("14000 2", s.counts().written, names.size()) << *names.begin() << " to " << *names.rbegin();
    }
    EXPECT_EQ(descriptors, num_descriptors());
}

TEST(Threaded_stream, opens_nothing_without_a_reader_and_outlives_a_hang_up) {
    const auto no_reader = [] { // the one descriptor that is left goes to the device
        // A sanitizer wants a descriptor when it meets a class for the first time, at an exit too.
        EXPECT_TRUE(Stream().open("/dev/null", false, false));
        const rlim_t spare = dup(0);
        const struct rlimit limit = {spare + 1, spare + 1};
        ::close(spare);
        setrlimit(RLIMIT_NOFILE, &limit);
        Stream s;
        _exit(s.open("/dev/null", false, false) || put(s, "x") != failed || s.close() ? 1 : 7);
    };
    EXPECT_EQ(run_child(no_reader).end(), "7 ");
    const auto daemon = [] {
        setsid(); // a leader without a terminal would get this one and its hang-up
        Pty pty;
        Stream s;
        s.open(pty.path.c_str(), false, false);
        pty.hang_up();
        exit(wait_until([&] { return s.hang_ups() == 1; }) ? 7 : 1);
    };
    EXPECT_EQ(7, run_child(daemon).status);
}

// ---- polled

TEST(Polled_stream, brings_bytes_beside_events_of_which_none_holds_up_another_nor_is_lost) {
    struct : Test_diner<> {
        Posix_polled_data_stream line;
        std::atomic<unsigned> bytes{0}, line_events{0};
        std::atomic<bool> busy{false};
    } d;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    d.line.init(Diner_info_list::get());
    ASSERT_TRUE(d.line.attach(&d.waiter) && d.line.open_fd(ends[1]));
    d.on_event = [&](waiter_event& e) {
        EXPECT_TRUE(d.on_own_thread());
        if (e.module_id == 2000 && d.busy) d.post(1);
        if (e.module_id != d.line.module_id()) return;
        for (; d.line.bytes_avail() > 0; d.line.drop(1)) d.bytes += d.line[0];
        ++d.line_events;
    };
    unsigned sent = 0;
    const auto send = [&](size_t n) { sent += static_cast<unsigned>(write(ends[0], std::string(n, 1).data(), n)); };
    const auto come = [&](size_t n) { return send(n), wait_until([&] { return d.bytes == sent; }); };
    d.begin();
    EXPECT_TRUE(come(3)) << "it sleeps without limit";
    d.busy = true; // it never sleeps: each event posts the next
    d.post(1);
    EXPECT_TRUE(come(7));
    d.busy = false;
    const auto post = [&] {
        for (int n = 0; n < 3000; ++n) d.wake();
    };
    std::thread one(post), two(post);
    for (int n = 0; n < 3000; ++n) send(2);
    one.join(), two.join();
    EXPECT_TRUE(come(1));
    EXPECT_TRUE(wait_until([&] { return d.info.event_count == d.line_events + d.posted; }));
    d.terminate(true);
    EXPECT_VALUES(texts(sent, 0), d.line.bytes_read, d.line.bytes_lost);
    ::close(ends[0]);
}

} // namespace
