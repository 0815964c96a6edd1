// SPDX-License-Identifier: MIT
#include "glue/data_stream/Posix_threaded_serial_data_stream.h"
#include "glue/diner/module_man.h"
#include "support/Pty.h"
#include "support/allocations.h"
#include "support/capture.h"
#include "support/child.h"
#include "support/wait_until.h"
#include <atomic>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

namespace {

using Stream = Posix_threaded_data_stream;
using Serial = Posix_threaded_serial_data_stream;
constexpr unsigned failed = static_cast<unsigned>(-1);

struct Waiter : waiter_descriptor {
    explicit Waiter(module_man& mm) { init(&mm); }
    /// The id of the next event of `module`; -1 when none came in time.
    int next(short module) {
        waiter_event e;
        return get_event(&e, Atime::from_now(20000)) == 0 && e.module_id == module && e.data == 0 ? e.id : -1;
    }
};

/// Wait until `n` bytes are there, then take all.
std::string take(Data_stream& s, int n) {
    wait_until([&] { return s.bytes_avail() >= n; });
    return ::take(s);
}

/// The file where the system tells `what` of the thread that was started last.
std::string newest_thread(const char* what) {
    const std::vector<int> threads = numbers_in("/proc/self/task");
    const int newest = *std::max_element(threads.begin(), threads.end());
    return read_file("/proc/self/task/" + std::to_string(newest) + "/" + what);
}

/// Whether the newest thread goes to sleep of itself `n` times more: it looks again and again, but not all the time.
bool pauses(int n) {
    const auto count = [] {
        const std::string status = newest_thread("status"), key = "\nvoluntary_ctxt_switches:";
        return std::stol(status.substr(status.find(key) + key.size()));
    };
    const long before = count();
    return wait_until([&] { return count() >= before + n; });
}

TEST(Threaded_streams, have_readers_named_by_instance_in_four_characters) {
    std::vector<std::unique_ptr<Stream>> streams;
    for (int i = 0; i < 11; ++i) {
        streams.push_back(std::make_unique<Stream>());
        EXPECT_TRUE(streams.back()->start() && streams.back()->start());
        const std::string name = i < 10 ? "PDS" + std::to_string(i) + "\n" : "PDS1\n";
        EXPECT_TRUE(wait_until([&] { return newest_thread("comm") == name; })) << newest_thread("comm");
    }
    const size_t running = num_threads();
    streams.clear();
    EXPECT_TRUE(wait_until([&] { return num_threads() == running - 11; })) << "joined, though nothing was ever opened";
}

class Threaded_stream : public testing::Test {
protected:
    Threaded_stream() {
        s.init(mm);
        s.register_waiter(&waiter);
        s.register_line_waiter(&line);
        if (mkfifo(loop.c_str(), 0600) != 0) abort();
    }

    module_man mm;
    Waiter waiter{mm}, line{mm};
    Pty pty;
    Temporary_folder dir;
    const std::string loop = dir.file("loop"); ///< what is written to it comes back
    Serial s;
};

TEST_F(Threaded_stream, wakes_each_waiter_and_never_fetches_itself) {
    Waiter other(mm);
    EXPECT_EQ(0, s.register_waiter(&other));
    ASSERT_TRUE(s.open_from_args((pty.path + ":57600").c_str()));
    EXPECT_EQ(57600, s.get_baudRate());
    pty.send(every_byte());
    EXPECT_EQ(Stream::event_data, waiter.next(1026));
    EXPECT_EQ(Stream::event_data, other.next(1026));
    EXPECT_EQ(every_byte(), take(s, 256));
    EXPECT_EQ(256u, put(s, every_byte()));
    EXPECT_EQ(every_byte(), pty.receive(256));
    EXPECT_TRUE(s._get_data(0));
    EXPECT_FALSE(s._get_data(1) || s.bytes_avail(1u));

    EXPECT_EQ(0, s.deregister_waiter(&other));
    other.flush_events();
    pty.send("x");
    EXPECT_EQ("x", take(s, 1));
    EXPECT_EQ(0, other.num_queued());
}

TEST_F(Threaded_stream, takes_no_heap_and_counts_what_the_buffer_cannot_hold) {
    s.open(loop.c_str());
    long before = 0;
    for (int i = 0; i < 200; ++i) {
        if (i == 10) before = allocations();
        unsigned char bytes[100] = {};
        ASSERT_EQ(100u, s._write(bytes, 100));
        while (s.bytes_avail() < 100) ASSERT_EQ(Stream::event_data, waiter.next(s.module_id()));
        ASSERT_TRUE(s.get_data(bytes, 100) && s.drop(100));
    }
    EXPECT_EQ(before, allocations());
    EXPECT_EQ(5000u, put(s, std::string(4200, 'a') + std::string(800, 'b')));
    EXPECT_TRUE(wait_until([&] {
        const std::lock_guard<Mutex> held(*s.stream_lock);
        return s.bytes_read == 25000 && s.bytes_lost == 800;
    }));
    EXPECT_EQ(std::string(4200, 'a'), take(s, 4200));
}

TEST_F(Threaded_stream, recovers_from_a_hang_up_when_it_is_opened_again) {
    ASSERT_TRUE(s.open(pty.path.c_str()));
    pty.send("one");
    EXPECT_EQ("one", take(s, 3));
    const size_t running = num_threads();
    pty.hang_up();
    EXPECT_EQ(Stream::event_line_lost, line.next(s.module_id()));
    EXPECT_EQ(failed, put(s, "x"));

    Pty again;
    EXPECT_TRUE(s.close() && s.open(again.path.c_str()));
    EXPECT_EQ(Stream::event_line_back, line.next(s.module_id()));
    again.send("two");
    EXPECT_EQ("two", take(s, 3));
    EXPECT_EQ(1u, s.hang_ups());
    EXPECT_TRUE(wait_until([&] { return num_threads() <= running; })) << "the same reader";
    EXPECT_EQ(0, line.num_queued());
    waiter_event e;
    while (waiter.get_event(&e, Atime::now()) == 0) EXPECT_EQ(Stream::event_data, e.id);
}

TEST_F(Threaded_stream, is_told_once_when_a_line_goes_and_once_when_it_comes_back_by_itself) {
    ASSERT_TRUE(s.open("/dev/ptmx")) << "the master end of a new pair, whose slave may come and go";
    unlockpt(s.get_fd());
    const std::string other_end = ptsname(s.get_fd());
    const auto send = [&](const char* byte) {
        const int fd = ::open(other_end.c_str(), O_RDWR | O_NOCTTY);
        EXPECT_EQ(1, ::write(fd, byte, 1));
        EXPECT_EQ(byte, take(s, 1));
        ::close(fd);
    };
    send("a");
    EXPECT_EQ(Stream::event_line_lost, line.next(s.module_id()));
    EXPECT_TRUE(pauses(3)) << "again and again";
    EXPECT_EQ(1u, s.hang_ups());
    send("b");
    EXPECT_EQ(Stream::event_line_back, line.next(s.module_id()));
    EXPECT_EQ(Stream::event_line_lost, line.next(s.module_id()));
    EXPECT_EQ(0, line.num_queued());
}

TEST_F(Threaded_stream, takes_an_end_of_file_for_no_hang_up_and_pauses_there) {
    const std::string path = dir.file("f");
    Stream file;
    ASSERT_TRUE(file.open(path.c_str(), true, false) && pauses(2));
    write_file(path, "grown");
    EXPECT_EQ("grown", take(file, 5));
    EXPECT_EQ(0u, file.hang_ups());
    Stream::Commander c;
    EXPECT_TRUE(file.init_commander(c) && !c.send_break(1));
    EXPECT_EQ(stream_name("DSPosT", file, ", " + path), file.get_name());
    EXPECT_TRUE(file.close() && !file.close() && !file.init_commander(c));
    EXPECT_EQ(stream_name("DSPosT", file, ""), file.get_name());
}

TEST_F(Threaded_stream, waits_for_room_to_write_until_it_is_closed) {
    ASSERT_TRUE(s.open(pty.path.c_str()));
    std::string bytes;
    for (int i = 0; i < 400; ++i) bytes += every_byte();
    unsigned written = 0;
    std::thread writer([&] { written = put(s, bytes); });
    EXPECT_EQ(bytes, pty.receive(bytes.size()));
    writer.join();
    EXPECT_EQ(bytes.size(), written);

    writer = std::thread([&] { written = put(s, bytes); });
    pty.receive(1); // it has begun
    Pty other;
    EXPECT_TRUE(s.close() && s.open(other.path.c_str()));
    writer.join();
    EXPECT_TRUE(written >= 1 && written < bytes.size()) << written;
    EXPECT_EQ(1u, put(s, "x"));
    EXPECT_EQ("x", other.receive(1)) << "the rest is not for the next line";
    s.close();
    EXPECT_EQ(failed, put(s, "x"));
    EXPECT_LT(pty.receive(bytes.size()).size(), bytes.size()) << "the other end sees that the line is closed";
}

TEST_F(Threaded_stream, takes_no_bytes_of_others_once_it_is_closed) {
    EXPECT_TRUE(Stream().start()); // the first thread of a process costs Qt a descriptor for good
    const size_t descriptors = num_descriptors();
    {
        Stream stream;
        std::atomic<bool> stop{false};
        int stolen = 0;
        // Uses the numbers that the stream gives up, and snatches bytes that its reader was told of: neither may lose
        // bytes here nor make the stream wait there.
        std::thread bystander([&] {
            const int rival = ::open(loop.c_str(), O_RDONLY | O_NONBLOCK);
            char c;
            while (!stop) {
                int ends[2];
                if (pipe2(ends, O_NONBLOCK) != 0) break;
                for (int i = 0; i < 20; ++i) {
                    if (::write(ends[1], "p", 1) != 1 || ::read(ends[0], &c, 1) != 1) ++stolen;
                    if (::read(rival, &c, 1) < 0) std::this_thread::yield();
                }
                ::close(ends[0]);
                ::close(ends[1]);
            }
            ::close(rival);
        });
        for (int i = 0; i < 2000; ++i) {
            ASSERT_TRUE(stream.open(loop.c_str(), false, false));
            EXPECT_EQ(1u, put(stream, "s"));
            EXPECT_TRUE(i % 2 || stream.close());
        }
        stop = true;
        bystander.join();
        EXPECT_EQ(0, stolen);
    }
    EXPECT_EQ(descriptors, num_descriptors());
}

TEST_F(Threaded_stream, tells_of_devices_that_are_missing_or_no_lines) {
    const std::string path = dir.file("f"), arguments = path + ":9600";
    EXPECT_FALSE(Stream::can_open(path.c_str()));
    EXPECT_EQ(ENOENT, errno);
    Capture err(stderr);
    s.set_open_failure_fatal(false);
    EXPECT_FALSE(s.open_from_args(arguments.c_str()));
    EXPECT_EQ("Error opening file [" + path + "]\n", err.text());
    write_file(path, "");
    EXPECT_TRUE(Stream::can_open(path.c_str()) && !s.open_from_args(arguments.c_str()));
    EXPECT_TRUE(s.get_fd() >= 0 && !s.initialised());
    EXPECT_EQ("OPEN BAD\n", read_file(path));
}

TEST(Threaded_streams, end_the_process_without_a_device_but_not_at_a_hang_up) {
    Child_result r = run_child([] { Serial("/dev/null/none:9600:rs485"); });
    EXPECT_EQ(255, r.status);
    EXPECT_EQ("Error opening file [/dev/null/none]\n", r.err);
    r = run_child([] {
        module_man mm;
        for (short id; mm.init_module(&id, false) == 0;) {
        }
        Serial().init(mm);
    });
    EXPECT_EQ(124, r.status) << "no module id left";
    r = run_child([] {
        setsid(); // a leader without a terminal, as a daemon is, would get this one and its hang-up
        Pty pty;
        Stream s;
        s.open(pty.path.c_str(), false, false);
        pty.hang_up();
        exit(wait_until([&] { return s.hang_ups() == 1; }) ? 7 : 1);
    });
    EXPECT_EQ(7, r.status) << "signal " << r.signal;
}

} // namespace
