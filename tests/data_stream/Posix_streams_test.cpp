// SPDX-License-Identifier: MIT
#include "glue/data_stream/Posix_serial_data_stream.h"
#include "glue/data_stream/Posix_threaded_serial_data_stream.h"
#include "glue/diner/module_man.h"
#include "glue/vorn/Vorn_parser.h"
#include "support/Pty.h"
#include "support/test.h"
#include <regex>
#include <sys/ioctl.h>
#include <sys/resource.h>

namespace {

constexpr unsigned failed = static_cast<unsigned>(-1);

/// Two pages; it takes bytes as long as one page is unused. Whoever is given the ends closes them.
struct Pipe {
    explicit Pipe(int least_number) {
        const struct rlimit limit = {1200, 1200};
        int ends[2];
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0 || pipe(ends) != 0) abort();
        in = fcntl(ends[0], F_DUPFD, least_number);
        out = fcntl(ends[1], F_DUPFD, least_number);
        fcntl(out, F_SETPIPE_SZ, 8192);
        ::close(ends[0]);
        ::close(ends[1]);
    }
    int in, out;
};

TEST(Posix_stream, opens_with_flags_and_mode_and_closes_each_descriptor_once) {
    struct Stream : Posix_data_stream {
        int read_flags() const { return fcntl(read_fd(), F_GETFL) & (O_ACCMODE | O_NONBLOCK | O_APPEND); }
        int write_flags() const { return fcntl(write_fd(), F_GETFL) & (O_ACCMODE | O_NONBLOCK | O_APPEND); }
    } s;
    umask(0);
    const size_t before = num_descriptors();
    Temporary_folder dir;
    const std::string file = dir.file("f"), begin = "About to Open " + file + "\n",
                      opened = begin + "Opened " + file + "\n", error = "Error opening file [" + file + "]\n";
    const char* const path = file.c_str();
    Capture err(stderr);
    EXPECT_VALUES("false false false", s.open(path, false, true, false), s.open_write(path, false, true, true),
                  s.open_read(path, true));
    EXPECT_VALUES(texts(true, O_RDWR), s.open(path, true, true, false), s.read_flags());
    EXPECT_EQ(stream_name("DSPosix", s, ", " + file + ", rw"), s.name);
    EXPECT_VALUES(texts(true, O_RDWR | O_NONBLOCK | O_APPEND), s.open(path, false, false, true), s.write_flags());
    EXPECT_VALUES(texts(true, O_WRONLY | O_NONBLOCK | O_APPEND), s.open_write(path, true, false, true),
                  s.write_flags());
    EXPECT_VALUES(texts(true, O_WRONLY), s.open_write(path, false, true, false), s.write_flags());
    EXPECT_VALUES(texts(true, O_NONBLOCK), s.open_read(path, false), s.read_flags());
    EXPECT_EQ(begin + error + error + error + opened + opened, err.text());
    EXPECT_EQ(std::filesystem::perms(0666), std::filesystem::status(file).permissions());
    EXPECT_EQ(before + 2, num_descriptors()) << "what was open is closed first";
    EXPECT_VALUES("false true true false false false", s.close(), s.close_write(), s.close_read(), s.close(),
                  s.close_write(), s.close_read());
    EXPECT_VALUES("true false false true", s.open(path, false, true, false), s.close_read(), s.close_write(),
                  s.close());
    EXPECT_EQ(stream_name("DSPosix", s, ""), s.name);
    EXPECT_EQ(before, num_descriptors());
}

TEST(Posix_stream, keeps_what_came_before_the_end_and_bounds_whole_transfers_on_any_descriptor) {
    for (int least_number : {3, 1100}) { // the sets of select() end at 1024
        Pipe p(least_number), q(least_number);
        Posix_data_stream reader(p.in), writer(-1, p.out), both(q.in, q.out);
        const auto set_timeouts = [&](int ms) {
            for (auto* s : {&reader, &writer, &both}) s->set_read_timeout(ms), s->set_write_timeout(ms);
        };
        int waiting = 0;
        set_timeouts(200);
        // Each byte comes 100 ms after the last one was taken: ten take 900 ms, though no single wait reaches 200.
        std::atomic<bool> done{false};
        std::thread feeder([&] {
            for (; !done; std::this_thread::sleep_for(std::chrono::milliseconds(100)))
                if (ioctl(p.in, FIONREAD, &waiting) == 0 && waiting == 0 && ::write(p.out, "x", 1) != 1) break;
        });
        EXPECT_FALSE(reader.bytes_avail(10u));
        done = true;
        feeder.join();
        reader._get_data(1);
        reader.drop_all();
        EXPECT_EQ(5u, put(writer, "hello")) << "a stream without a read descriptor waits on the one it has";
        EXPECT_VALUES("true 2", reader.bytes_avail(2u), reader.bytes_avail())
            << "the next call has the whole time again";
        set_timeouts(10);
        const int taken = static_cast<int>(put(writer, std::string(5000, 'y')));
        EXPECT_VALUES(texts(0, 3 + taken, true), ioctl(p.in, FIONREAD, &waiting), waiting, taken < 5000)
            << "what had room";
        EXPECT_EQ(0u, put(both, "x")) << "asked of the read descriptor: that of a pipe never takes bytes";
        both.set_default_write_timeout();
        both.set_default_read_timeout();
        EXPECT_VALUES(texts(2, 'x', true, false), put(both, "xy"), both[0], both.close_write(), both.bytes_avail(3u))
            << "the end";
        EXPECT_VALUES(texts("xy", failed, 2, 2), take(both), put(both, "x"), both.bytes_read, both.bytes_written);
        EXPECT_FALSE(both.close_read() && both._get_data(0)) << "closed";

        Capture err(stderr);
        ::close(p.in);
        ::close(p.out);
        EXPECT_VALUES("false false", reader.bytes_avail(3000u), put(writer, "x") != 0);
        EXPECT_EQ("select(), Posix_data_stream::get_data: Bad file descriptor\n"
                  "select(), Posix_data_stream::_write: Bad file descriptor\n",
                  err.text());
    }
}

TEST(Serial_stream, is_a_line_at_the_speed_of_its_argument) {
    Pty pty;
    Capture err(stderr);
    Posix_serial_data_stream s((pty.path + ":38400").c_str());
    EXPECT_EQ(stream_name("DSPosSer", s, ", " + pty.path + ":38400"), s.name);
    EXPECT_EQ(B38400, pty.speed());
    Posix_data_stream::Commander c;
    EXPECT_VALUES("true true true", s.init_commander(c), c.send_break(100), s.close());
    EXPECT_VALUES("false false false false", s.initialised(), s.close(), s.init_commander(c), c.send_break(100));
    Temporary_folder dir;
    const std::string file = dir.file("f");
    EXPECT_VALUES("false false", s.open(file.c_str(), true, true, false), s.initialised()) << "no line, but open";
    EXPECT_NE(err.text().find(file + " is no serial line: Inappropriate ioctl for device\n"), std::string::npos);
    EXPECT_VALUES("true true false", s.get_fd() >= 0, s.init_commander(c), c.send_break(0));
    EXPECT_VALUES("true -1", s.open_write(file.c_str(), false, true, false), s.get_fd())
        << "two descriptors are no line";
}

// ---- threaded

using Stream = Posix_threaded_data_stream;
using Serial = Posix_threaded_serial_data_stream;

struct Waiter : waiter_descriptor {
    explicit Waiter(module_man& mm) { init(&mm); }
    /// The id of the next event of the first module; -1 when none came in time.
    int next() {
        waiter_event e;
        return get_event(&e, Atime::from_now(20000)) == 0 && e.module_id == 1026 && e.data == 0 ? e.id : -1;
    }
};

/// Wait until `n` bytes are there, then take all.
std::string take(Data_stream& s, int n) {
    wait_until([&] { return s.bytes_avail() >= n; });
    return ::take(s);
}

/// What the system tells in `file` of the thread that was started last, behind `key`.
std::string newest_thread(const char* file, const std::string& key = "") {
    const std::vector<int> threads = numbers_in("/proc/self/task");
    const int newest = *std::max_element(threads.begin(), threads.end());
    const std::string text = read_file("/proc/self/task/" + std::to_string(newest) + "/" + file);
    return text.substr(text.find(key) + key.size());
}

/// How often it went to sleep of itself: a thread that looks again and again without a pause never does.
long pauses() { return std::stol(newest_thread("status", "\nvoluntary_ctxt_switches:")); }

TEST(Threaded_streams, have_readers_named_by_instance_in_four_characters) {
    std::thread([] {}).join(); // a sanitizer's own thread begins with the first
    const size_t running = num_threads();
    {
        Stream first, others[9], eleventh;
        for (const auto& [s, name] : {std::pair{&first, "PDS0\n"}, {&others[8], "PDS9\n"}, {&eleventh, "PDS1\n"}}) {
            EXPECT_VALUES("true true", s->start(), s->start());
            EXPECT_TRUE(wait_until([&, n = name] { return newest_thread("comm") == n; })) << name;
        }
    }
    EXPECT_TRUE(wait_until([&] { return num_threads() == running; })) << "joined, though nothing was ever opened";
}

class Threaded_stream : public testing::Test {
protected:
    Threaded_stream() {
        s.init(mm);
        EXPECT_VALUES("0 0", s.register_waiter(&waiter), s.register_line_waiter(&line));
        if (mkfifo(loop.c_str(), 0600) != 0) abort();
    }
    module_man mm;
    Waiter waiter{mm}, line{mm};
    Pty pty;
    Temporary_folder dir;
    const std::string file = dir.file("f"), loop = dir.file("loop"); ///< what is written to the loop comes back
    Serial s;
};

template <class Serial_stream>
void expect_claims() {
    const Pty pty;
    const int other = ::open(pty.path.c_str(), O_RDWR | O_NOCTTY);
    const auto exclusive = [&] {
        int on = -1;
        return ioctl(other, TIOCGEXCL, &on) == 0 && on == 1;
    };
    Capture err(stderr);
    {
        Serial_stream first, second, modest;
        first.set_exclusive(true);
        second.set_exclusive(true);
        EXPECT_VALUES("true true", first.open_default(pty.path.c_str()), exclusive());
        EXPECT_FALSE(second.open_default(pty.path.c_str()));
        EXPECT_VALUES(texts(true, failed), second.get_fd() < 0, put(second, "x"))
            << "it does not read what is another's";
        EXPECT_VALUES("true false true", first.close(), exclusive(), second.open_default(pty.path.c_str()));
        EXPECT_VALUES("true true true false", exclusive(), second.close(), modest.open_default(pty.path.c_str()),
                      exclusive());
        EXPECT_VALUES("true true", modest.close(), first.open_default(pty.path.c_str()));
    }
    EXPECT_FALSE(exclusive()) << "closed by its end";
    EXPECT_NE(err.text().find(pty.path + " is in use by another program\n"), std::string::npos);
    ::close(other);
}

TEST(Serial_streams, keep_others_out_of_a_line_that_they_claim) {
    expect_claims<Posix_serial_data_stream>();
    expect_claims<Posix_threaded_serial_data_stream>();
}

TEST_F(Threaded_stream, wakes_each_waiter_never_fetches_itself_and_counts_what_the_buffer_cannot_hold) {
    Waiter other(mm);
    EXPECT_EQ(0, s.register_waiter(&other));
    ASSERT_VALUES("true 57600", s.open_from_args((pty.path + ":57600").c_str()), s.get_baudRate());
    EXPECT_EQ(stream_name("DSPosTSer", s, ", " + pty.path), s.name);
    pty.send(every_byte());
    EXPECT_VALUES(texts(Stream::event_data, Stream::event_data), waiter.next(), other.next());
    EXPECT_VALUES(texts(every_byte(), true, false, false), take(s, 256), s._get_data(0), s._get_data(1),
                  s.bytes_avail(1u));
    EXPECT_EQ(0, s.deregister_waiter(&other));
    other.flush_events();
    ASSERT_VALUES(texts(false, true), s.open(loop.c_str()), s.get_fd() >= 0) << "open, but no line";
    EXPECT_EQ(5000u, put(s, std::string(4200, 'a') + std::string(800, 'b')));
    EXPECT_TRUE(wait_until([&] {
        const std::lock_guard<Mutex> held(*s.stream_lock);
        return s.bytes_read == 5256 && s.bytes_lost == 800;
    }));
    EXPECT_VALUES(texts(std::string(4200, 'a'), 0), take(s, 4200), other.num_queued());
}

TEST_F(Threaded_stream, tells_of_a_line_that_is_lost_and_of_one_that_is_back) {
    // The master end of a pair, whose slave may come and go.
    ASSERT_VALUES("true 0", s.open("/dev/ptmx"), unlockpt(s.get_fd()));
    const std::string other_end = ptsname(s.get_fd());
    for (const bool came_back : {false, true}) {
        const int fd = ::open(other_end.c_str(), O_RDWR | O_NOCTTY);
        EXPECT_VALUES("1 a", ::write(fd, "a", 1), take(s, 1));
        ::close(fd);
        EXPECT_TRUE(!came_back || line.next() == Stream::event_line_back);
        EXPECT_EQ(Stream::event_line_lost, line.next());
    }
    ASSERT_VALUES(texts(true, Stream::event_line_back), s.open(pty.path.c_str()), line.next());
    pty.hang_up();
    EXPECT_VALUES(texts(Stream::event_line_lost, failed), line.next(), put(s, "x"));
    EXPECT_VALUES("3 0", s.hang_ups(), line.num_queued());
}

TEST_F(Threaded_stream, takes_files_for_what_they_are) {
    EXPECT_VALUES(texts(false, ENOENT), Stream::can_open(file.c_str()), errno);
    Capture err(stderr);
    s.set_open_failure_fatal(false);
    EXPECT_FALSE(s.open_from_args((file + ":9600").c_str()));
    EXPECT_EQ("Error opening file [" + file + "]\n", err.text());
    Stream plain;
    Stream::Commander c;
    ASSERT_TRUE(plain.open(file.c_str(), true, false));
    EXPECT_EQ(stream_name("DSPosT", plain, ", " + file), plain.name);
    EXPECT_VALUES("false false", s.open_from_args((file + ":9600").c_str()), s.initialised());
    EXPECT_EQ("OPEN BAD\n", take(plain, 9)) << "what is no line is told so";
    EXPECT_TRUE(wait_until([before = pauses()] { return pauses() >= before + 2; })) << "looks for more all the time";
    EXPECT_VALUES("0 true false", plain.hang_ups(), plain.init_commander(c), c.send_break(1));
    EXPECT_VALUES("true false false", plain.close(), plain.close(), plain.init_commander(c));
}

TEST_F(Threaded_stream, waits_for_room_to_write_until_it_is_closed) {
    ASSERT_TRUE(s.open(pty.path.c_str()));
    const std::string bytes(100000, 'w');
    unsigned whole = 0, cut = 0;
    std::thread writer([&] { whole = put(s, bytes), cut = put(s, bytes); });
    EXPECT_EQ(bytes + "w", pty.receive(bytes.size() + 1)) << "the second has begun";
    Pty other;
    EXPECT_VALUES("true true", s.close(), s.open(other.path.c_str()));
    writer.join();
    EXPECT_VALUES(texts(bytes.size(), true, true), whole, cut >= 1, cut < bytes.size()) << cut;
    EXPECT_VALUES("1 x", put(s, "x"), other.receive(1)) << "the rest is not for the next line";
    EXPECT_VALUES(texts(true, failed), s.close(), put(s, "x"));
}

TEST_F(Threaded_stream, takes_no_bytes_of_others_once_it_is_closed) {
    EXPECT_TRUE(Stream().start()); // the first thread of a process costs Qt a descriptor for good
    const size_t descriptors = num_descriptors();
    std::atomic<bool> stop{false};
    // Uses the numbers that the stream gives up, and snatches bytes that its reader was told of: neither may lose bytes
    // here nor make the stream wait there.
    std::thread bystander([&] {
        const int rival = ::open(loop.c_str(), O_RDONLY | O_NONBLOCK);
        char c;
        for (int ends[2]; !stop && pipe2(ends, O_NONBLOCK) == 0; ::close(ends[0]), ::close(ends[1])) {
            for (int i = 0; i < 20; ++i) {
                EXPECT_VALUES("1 1", ::write(ends[1], "p", 1), ::read(ends[0], &c, 1)) << "stolen";
                if (::read(rival, &c, 1) < 0) std::this_thread::yield();
            }
        }
        ::close(rival);
    });
    {
        Stream stream;
        for (int i = 0; i < 2000; ++i) {
            ASSERT_VALUES("true 1", stream.open(loop.c_str(), false, false), put(stream, "s"));
            EXPECT_TRUE(i % 2 || stream.close());
        }
    }
    stop = true;
    bystander.join();
    EXPECT_EQ(descriptors, num_descriptors());
}

TEST_F(Threaded_stream, has_its_name_and_counts_whole_for_whoever_asks_while_it_is_opened_and_closed) {
    struct : Vorn_parser::Checker {
        bool check(Data_stream&, unsigned short, int) override { return false; }
    } nothing; // each refusal is reported with the stream's name
    Stream stream;
    std::atomic<bool> done{false};
    Capture err(stderr);
    std::thread listener([&] {
        Vorn_parser parser(&stream, false);
        parser.set_checker(&nothing);
        unsigned char packet[100];
        while (!done) {
            parser.get_packet(packet, sizeof packet);
            EXPECT_TRUE(stream.counts().written % 7 == 0);
        }
    });
    for (int i = 0; i <= 1000; ++i) {
        ASSERT_VALUES("true 7", stream.open(loop.c_str(), false, false), put(stream, "PG001x\n"));
        EXPECT_TRUE(i % 2 == 0 || stream.close());
    }
    EXPECT_TRUE(wait_until([&] { return stream.counts().read >= 7 && stream.bytes_avail() == 0; }));
    done = true;
    listener.join();
    EXPECT_EQ(stream.counts().written, 7007u);
    const std::string text = err.text();
    const std::regex form(" in (.*)\\[");
    std::set<std::string> names = {stream_name("DSPosT", stream, ""), stream_name("DSPosT", stream, ", " + loop)};
    for (std::sregex_iterator it(text.begin(), text.end(), form), end; it != end; ++it) names.insert((*it)[1]);
    EXPECT_EQ(names.size(), 2u) << "a torn one among " << *names.begin() << " to " << *names.rbegin();
}

TEST(Threaded_streams, end_the_process_without_a_device_but_not_at_a_hang_up) {
    EXPECT_EQ(run_child([] { Serial("/dev/null/none:9600:rs485"); }).end(),
              "255 Error opening file [/dev/null/none]\n");
    const auto no_ids = [] {
        module_man mm;
        for (short id; mm.init_module(&id, false) == 0;) {
        }
        Serial().init(mm);
    };
    EXPECT_EQ(124, run_child(no_ids).status);
    const auto no_reader = [] { // the one descriptor that is left goes to the device
        {
            Stream first; // a sanitizer wants a descriptor when it meets a class for the first time, at an exit too
            first.open("/dev/null", false, false);
            put(first, "x");
        }
        const int spare = dup(0);
        const struct rlimit limit = {static_cast<rlim_t>(spare) + 1, static_cast<rlim_t>(spare) + 1};
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

} // namespace
