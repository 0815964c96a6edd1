// SPDX-License-Identifier: MIT
#include "NV_store/Settings_fixture.h"
#include "glue/NV_store/NV_file_iterator.h"
#include "support/Temporary_folder.h"
#include "support/capture.h"
#include <cerrno>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

using namespace NV_store;

// This program stands in for the system calls of the library: the next ones do as the script says.
namespace {

struct Step {
    int error; ///< errno, 0: do it
    int most;  ///< [bytes] moved at most
};
std::deque<Step> script;
int close_result = 0;

template <class Buffer>
ssize_t scripted(long call, int fd, Buffer data, size_t n) {
    if (!script.empty()) {
        const Step step = script.front();
        script.pop_front();
        if (step.error) {
            errno = step.error;
            return -1;
        }
        n = std::min(n, static_cast<size_t>(step.most));
    }
    return syscall(call, fd, data, n);
}

} // namespace

#define EXPORTED extern "C" __attribute__((visibility("default")))
EXPORTED ssize_t read(int fd, void* data, size_t n) { return scripted(SYS_read, fd, data, n); }
EXPORTED ssize_t write(int fd, const void* data, size_t n) { return scripted(SYS_write, fd, data, n); }
EXPORTED int close(int fd) {
    const int done = static_cast<int>(syscall(SYS_close, fd));
    return close_result ? std::exchange(close_result, 0) : done;
}

namespace {

unsigned char data[200];

TEST(NV_buffer, Moves_all_or_nothing) {
    unsigned char block[4];
    NV_buffer_iterator it(block, 4, 0);
    EXPECT_FALSE(it.push_bytes(data, 5));
    EXPECT_FALSE(it.push_bytes(data, -1));
    EXPECT_EQ(it.write_position, 0);
    EXPECT_TRUE(it.push_uint16(0x0201));
    EXPECT_FALSE(it.push_uint32(0)) << "half of the room is taken";
    EXPECT_TRUE(it.push_uint16(0x0403));
    unsigned int used = 1, total = 1, word = 7;
    EXPECT_TRUE(it.get_free_space(used, total));
    EXPECT_EQ(used, 4u);
    EXPECT_EQ(total, 4u);

    unsigned char byte;
    EXPECT_TRUE(it.peek_bytes(&byte, 1));
    EXPECT_TRUE(it.pop_uint8(byte));
    EXPECT_EQ(byte, 1);
    EXPECT_FALSE(it.pop_uint32(word));
    EXPECT_EQ(word, 7u) << "a failed pop leaves its target";
    EXPECT_FALSE(it.peek_bytes(data, 4));
    EXPECT_FALSE(it.pop_bytes(data, -1));
    it.reset_reading();
    EXPECT_TRUE(it.pop_uint32(word));
    EXPECT_EQ(word, 0x04030201u);
    it.reset_writing();
    EXPECT_FALSE(it.pop_uint8(byte)) << "no longer readable";
    EXPECT_TRUE(it.push_uint32(5));
}

TEST(NV_iterators, Every_active_checksum_sees_what_passes_but_not_what_is_peeked) {
    unsigned char block[16];
    NV_buffer_iterator it(block, sizeof block, 0);
    NV_iterator::NV_checksum whole, inner;
    EXPECT_EQ(whole.crc, 0xC9E521FBu);
    it.add_checksum_getter(&whole);
    it.push_header({1, 1, 5});
    it.add_checksum_getter(&inner);
    it.push_header({1, 2, 5});
    it.remove_checksum_getter(&inner);
    EXPECT_EQ(whole.crc, 0xF03A3811u);
    EXPECT_EQ(whole.bytes, 8u);
    EXPECT_EQ(whole.chunks, 2u);
    EXPECT_EQ(inner.bytes, 4u);
    NV_iterator::NV_iterator_header h;
    EXPECT_TRUE(it.peek_header(h));
    EXPECT_EQ(whole.bytes, 8u);
    EXPECT_TRUE(it.pop_header(h));
    EXPECT_EQ(whole.bytes, 12u);
    EXPECT_EQ(h.id, 5);
    it.remove_checksum_getter(&whole);
}

class NV_file : public testing::Test {
protected:
    unsigned used() {
        unsigned int bytes = 0, total = 0;
        EXPECT_TRUE(it.get_free_space(bytes, total));
        EXPECT_EQ(total, 16384u);
        return bytes;
    }
    void TearDown() override { script.clear(); }

    Temporary_folder folder;
    const std::string path = folder.file("settings");
    NV_file_iterator it{path.c_str()};
};

TEST_F(NV_file, The_mode_decides_what_it_allows_and_what_becomes_of_the_file) {
    EXPECT_FALSE(it.push_bytes(data, 1)) << "closed";
    EXPECT_FALSE(it.pop_bytes(data, 1));
    EXPECT_EQ(it.set_mode(NV_iterator::mode_read), -1) << "no such file";
    EXPECT_EQ(it.mode, NV_iterator::mode_closed);
    const struct {
        NV_iterator::modes_t mode;
        size_t size; // of the file after pushing 100 bytes
        unsigned used;
    } table[] = {{NV_iterator::mode_write, 100, 100},
                 {NV_iterator::mode_journal_1, 200, 200}, // appended, and the count goes on
                 {NV_iterator::mode_journal_2, 300, 300},
                 {NV_iterator::mode_write, 100, 100}};
    for (const auto& row : table) {
        ASSERT_EQ(it.set_mode(row.mode), 0);
        EXPECT_EQ(it.mode, row.mode);
        EXPECT_TRUE(it.push_bytes(data, 100));
        EXPECT_FALSE(it.pop_bytes(data, 1));
        EXPECT_FALSE(it.peek_bytes(data, 1));
        EXPECT_EQ(read_file(path).size(), row.size);
        EXPECT_EQ(used(), row.used);
    }
    const mode_t mask = umask(0);
    umask(mask);
    struct stat s;
    ASSERT_EQ(stat(path.c_str(), &s), 0);
    EXPECT_EQ(s.st_mode & 0777, 0777 & ~mask);
    ASSERT_EQ(it.set_mode(NV_iterator::mode_read), 0);
    EXPECT_FALSE(it.push_bytes(data, 1));
}

TEST_F(NV_file, Peeks_without_consuming_but_counts_it) {
    write_file(path, "abcdef");
    ASSERT_EQ(it.set_mode(NV_iterator::mode_read), 0);
    char text[8] = {};
    auto* const to = reinterpret_cast<unsigned char*>(text);
    EXPECT_TRUE(it.pop_bytes(to, 2));
    EXPECT_TRUE(it.peek_bytes(to, 3));
    EXPECT_STREQ(text, "cde");
    EXPECT_FALSE(it.peek_bytes(to, 5)) << "more than there is";
    EXPECT_TRUE(it.pop_bytes(to, 4));
    EXPECT_STREQ(text, "cdef");
    EXPECT_FALSE(it.pop_bytes(to, 1));
    EXPECT_EQ(used(), 2u + 3 + 5 + 4 + 1);
}

TEST_F(NV_file, A_pipe_cannot_be_peeked) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int writer = open(path.c_str(), O_RDWR);
    ASSERT_EQ(write(writer, "abc", 3), 3);
    ASSERT_EQ(it.set_mode(NV_iterator::mode_read), 0);
    EXPECT_FALSE(it.peek_bytes(data, 2));
    close(writer);
}

TEST_F(NV_file, Goes_on_after_interruptions_and_short_transfers) {
    ASSERT_EQ(it.set_mode(NV_iterator::mode_write), 0);
    script = {{EINTR, 0}, {0, 3}, {EAGAIN, 0}, {EINTR, 0}, {0, 1}};
    EXPECT_TRUE(it.push_uint64(0x3837363534333231ull));
    EXPECT_EQ(read_file(path), "12345678");
    ASSERT_EQ(it.set_mode(NV_iterator::mode_read), 0);
    script = {{0, 2}, {EINTR, 0}, {0, 1}, {EAGAIN, 0}};
    unsigned long long value = 0;
    EXPECT_TRUE(it.pop_uint64(value));
    EXPECT_EQ(value, 0x3837363534333231ull);
    EXPECT_TRUE(script.empty());
}

TEST_F(NV_file, Errors_end_a_transfer_and_are_printed) {
    EXPECT_EQ(NV_file_iterator::blocking_read(0, nullptr, 1), -1);
    EXPECT_EQ(NV_file_iterator::blocking_write(1, data, -1), -1);
    EXPECT_EQ(NV_file_iterator::blocking_write(1, data, 0), 0);
    NV_file_iterator full("/dev/full");
    ASSERT_EQ(full.set_mode(NV_iterator::mode_write), 0);
    Capture out(stdout);
    EXPECT_FALSE(full.push_bytes(data, 4));
    EXPECT_EQ(out.text(), "Error in NV_file_iterator: No space left on device\n");

    write_file(path, "abc");
    ASSERT_EQ(it.set_mode(NV_iterator::mode_read), 0);
    script = {{EIO, 0}, {EIO, 0}};
    Capture again(stdout);
    EXPECT_FALSE(it.pop_bytes(data, 2));
    EXPECT_FALSE(it.peek_bytes(data, 2));
    EXPECT_EQ(again.text(), "Error in NV_file_iterator: Input/output error\n"
                            "Error in NV_file_iterator: Input/output error\n");
    EXPECT_TRUE(it.pop_bytes(data, 3)) << "nothing was consumed";
}

TEST_F(NV_file, A_failed_close_is_reported_and_opens_nothing) {
    ASSERT_EQ(it.set_mode(NV_iterator::mode_write), 0);
    close_result = -1;
    EXPECT_EQ(it.set_mode(NV_iterator::mode_write), -1);
    EXPECT_EQ(it.mode, NV_iterator::mode_closed);
    EXPECT_EQ(it.set_mode(NV_iterator::mode_write), 0);
    EXPECT_EQ(it.set_mode(NV_iterator::mode_closed), 0);
}

TEST_F(NV_file, A_tree_is_saved_and_loaded_in_place) {
    Settings tree(nullptr), other(nullptr);
    tree.set_all();
    const std::string text = tree.text();
    it.set_mode(NV_iterator::mode_write);
    EXPECT_TRUE(tree.serialise(&it));
    tree.speed.set(8);
    it.set_mode(NV_iterator::mode_journal_1);
    EXPECT_TRUE(tree.serialise(&it));
    it.set_mode(NV_iterator::mode_read);
    EXPECT_TRUE(other.deserialise(&it));
    EXPECT_EQ(other.text(), text);
    EXPECT_TRUE(other.deserialise(&it));
    EXPECT_EQ(other.text(), tree.text());
    EXPECT_NE(other.text(), text);

    // A tree that was never loaded has nothing to write, and truncates all the same.
    Settings fresh(nullptr);
    it.set_mode(NV_iterator::mode_write);
    EXPECT_TRUE(fresh.serialise(&it));
    EXPECT_EQ(read_file(path), "");
}

} // namespace
