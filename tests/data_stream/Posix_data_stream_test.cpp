// SPDX-License-Identifier: MIT
#include "glue/data_stream/Posix_data_stream.h"
#include "glue/data_stream/Posix_serial_data_stream.h"
#include "support/Pty.h"
#include "support/capture.h"
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <tuple>

namespace {

constexpr unsigned failed = static_cast<unsigned>(-1);

/// Two pages; it takes bytes as long as one page is unused. Whoever is given the ends closes them.
struct Pipe {
    explicit Pipe(int least_number = 3) {
        struct rlimit limit;
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 1200);
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

TEST(Posix_stream, opens_with_flags_and_mode_and_tells_standard_error) {
    // Both directions, write or read; whether it exists, shall be created, blocks, appends; flags, -1: fails.
    const std::tuple<char, bool, bool, bool, bool, int> cases[] = {
        {'b', false, false, true, false, -1},      {'b', true, false, false, true, O_RDWR | O_NONBLOCK | O_APPEND},
        {'b', false, true, true, false, O_RDWR},   {'w', false, true, false, true, O_WRONLY | O_NONBLOCK | O_APPEND},
        {'w', false, false, true, true, -1},       {'w', true, false, true, false, O_WRONLY},
        {'r', true, false, true, false, O_RDONLY}, {'r', true, false, false, false, O_RDONLY | O_NONBLOCK},
        {'r', false, false, true, false, -1},
    };
    struct Stream : Posix_data_stream {
        using Posix_data_stream::read_fd;
        using Posix_data_stream::write_fd;
    };
    const mode_t old_mask = umask(0);
    for (const auto& [how, exists, create, blocking, append, expected] : cases) {
        SCOPED_TRACE(testing::Message() << how << exists << create << blocking << append);
        Temporary_folder dir;
        const std::string file = dir.file("f");
        const char* const path = file.c_str();
        if (exists) ::close(creat(path, 0666));
        Stream s;
        Capture err(stderr);
        const bool ok = how == 'b'   ? s.open(path, create, blocking, append)
                        : how == 'w' ? s.open_write(path, create, blocking, append)
                                     : s.open_read(path, blocking);
        const std::string begin = how == 'b' ? "About to Open " + file + "\n" : "";
        const std::string success = how == 'b' ? "Opened " + file + "\n" : "";
        EXPECT_EQ(begin + (expected < 0 ? "Error opening file [" + file + "]\n" : success), err.text());
        ASSERT_EQ(expected >= 0, ok);
        if (!ok) continue;
        const int flags = fcntl(how == 'r' ? s.read_fd() : s.write_fd(), F_GETFL);
        EXPECT_EQ(expected, flags & (O_ACCMODE | O_NONBLOCK | O_APPEND));
        EXPECT_EQ(std::filesystem::perms(0666), std::filesystem::status(file).permissions());
    }
    umask(old_mask);
}

TEST(Posix_stream, closes_each_descriptor_once_and_its_name_follows) {
    Temporary_folder dir;
    const std::string file = dir.file("f");
    const char* const path = file.c_str();
    Capture err(stderr);
    const size_t before = num_descriptors();
    {
        Posix_data_stream s;
        EXPECT_FALSE(s.close() || s.close_read() || s.close_write());
        ASSERT_TRUE(s.open(path, true, true, false) && s.open(path, false, true, false)) << "closes the old one";
        EXPECT_EQ(stream_name("DSPosix", s, ", " + file + ", rw"), s.get_name());
        EXPECT_FALSE(s.close_read() || s.close_write()) << "one descriptor for both is closed by close()";
        EXPECT_TRUE(num_descriptors() == before + 1 && s.close());
        // Each direction has its own, and may be replaced whichever way it was opened.
        ASSERT_TRUE(s.open(path, false, true, false) && s.open_write(path, false, true, false));
        EXPECT_EQ(stream_name("DSPosix", s, ", " + file + ", w"), s.get_name());
        ASSERT_TRUE(s.open_read(path, true) && s.open_write(path, false, true, false));
        EXPECT_EQ(before + 2, num_descriptors());
        EXPECT_TRUE(!s.close() && s.close_write() && num_descriptors() == before + 1);
    }
    EXPECT_EQ(before, num_descriptors()) << "the destructor closes what is open";
}

TEST(Posix_stream, reads_what_was_asked_for_and_keeps_what_came_before_the_end) {
    Pipe p;
    Posix_data_stream s(p.in, p.out);
    put(s, "0123456789");
    EXPECT_TRUE(s.bytes_avail(4u) && s.bytes_avail() == 4 && s[5] == '5');
    EXPECT_EQ("012345", take(s));
    s.close_write();
    EXPECT_EQ(failed, put(s, "x"));
    EXPECT_TRUE(s.printf("x")) << "-1 is not 0";
    EXPECT_FALSE(s.bytes_avail(5u)) << "four bytes, then the end";
    EXPECT_EQ("6789", take(s));
    EXPECT_EQ(10u, s.bytes_read);
    s.close_read();
    EXPECT_FALSE(s._get_data(0)) << "closed";
}

constexpr int numbers[] = {3, 1100}; ///< of descriptors: the sets of select() end at 1024

TEST(Posix_stream, one_time_out_bounds_a_whole_read) {
    for (int least_number : numbers) {
        Pipe p(least_number);
        Posix_data_stream s(p.in, p.out);
        s.set_read_timeout(200);
        // Each byte comes 100 ms after the last one was taken: ten take 900 ms, though no single wait reaches 200.
        std::promise<void> done;
        std::thread feeder([&, stopped = done.get_future()] {
            do {
                int waiting = 0;
                ioctl(p.in, FIONREAD, &waiting);
                if (waiting == 0 && ::write(p.out, "x", 1) != 1) break;
            } while (stopped.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout);
        });
        EXPECT_FALSE(s.bytes_avail(10u));
        done.set_value();
        feeder.join();
        s.drop_all();
        put(s, "xxx");
        EXPECT_TRUE(s.bytes_avail(3u)) << "the next call has the whole time again";
    }
}

TEST(Posix_stream, waits_with_limits_on_any_descriptor_and_goes_on_when_that_fails) {
    for (int least_number : numbers) {
        Pipe p(least_number), q(least_number);
        Posix_data_stream reader(p.in), writer(-1, p.out), both(q.in, q.out);
        const auto set_timeouts = [&](int ms) {
            for (auto* s : {&reader, &writer, &both}) s->set_read_timeout(ms), s->set_write_timeout(ms);
        };
        set_timeouts(10);
        EXPECT_EQ(5u, put(writer, "hello")) << "a stream without a read descriptor waits on the one it has";
        EXPECT_TRUE(reader.bytes_avail(5u));
        EXPECT_FALSE(reader.bytes_avail(6u)) << "the time is over";
        EXPECT_EQ(4097u, put(writer, std::string(5000, 'y'))) << "the count that had room";
        EXPECT_EQ(5u + 4097u, writer.bytes_written);
        EXPECT_EQ(0u, put(both, "x")) << "asked of the read descriptor: that of a pipe never takes bytes";
        both.set_default_write_timeout();
        both.set_default_read_timeout();
        EXPECT_EQ(1u, put(both, "x"));
        EXPECT_EQ('x', both[0]);

        set_timeouts(10);
        Capture err(stderr);
        ::close(q.in);
        ::close(q.out);
        EXPECT_FALSE(both.bytes_avail(2u) || put(both, "x") != 0);
        EXPECT_EQ("select(), Posix_data_stream::get_data: Bad file descriptor\n"
                  "select(), Posix_data_stream::_write: Bad file descriptor\n",
                  err.text());
    }
}

TEST(Serial_stream, carries_every_byte_value_at_the_speed_of_its_argument) {
    Pty pty;
    const speed_t before = pty.speed();
    Capture err(stderr);
    Posix_serial_data_stream s((pty.path + ":38400").c_str());
    EXPECT_EQ(stream_name("DSPosSer", s, ", " + pty.path + ":38400"), s.get_name());
    EXPECT_EQ(B38400, pty.speed());
    pty.send(every_byte());
    ASSERT_TRUE(s.bytes_avail(256u));
    EXPECT_EQ(every_byte(), take(s));
    EXPECT_EQ(256u, put(s, every_byte()));
    EXPECT_EQ(every_byte(), pty.receive(256));
    Posix_data_stream::Commander c;
    EXPECT_TRUE(s.init_commander(c) && c.send_break(100));
    EXPECT_TRUE(s.restore());
    EXPECT_EQ(before, pty.speed());
    EXPECT_TRUE(s.close());
    EXPECT_FALSE(s.initialised() || s.close() || s.init_commander(c) || c.send_break(100));
    Temporary_folder dir;
    const std::string file = dir.file("f");
    EXPECT_FALSE(s.open(file.c_str(), true, true, false) || s.initialised()) << "no line, but open";
    EXPECT_TRUE(s.get_fd() >= 0 && s.init_commander(c) && !c.send_break(0));
    EXPECT_TRUE(s.open_write(file.c_str(), false, true, false));
    EXPECT_EQ(-1, s.get_fd()) << "two descriptors are no line";
}

} // namespace
