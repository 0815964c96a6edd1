// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_buffer_iterator.h"
#include "glue/NV_store/NV_file_iterator.h"
#include "support/test.h"
#include <sys/syscall.h>

using namespace NV_store;

namespace {

// This program stands in for the system calls of the library: the next ones move so many bytes at most, or fail with
// an errno, as a negative number.
std::deque<int> script;
int close_result = 0;

template <class Buffer>
ssize_t scripted(long call, int fd, Buffer data, size_t n) {
    if (script.empty()) return syscall(call, fd, data, n);
    const int step = script.front();
    script.pop_front();
    errno = -step;
    return step < 0 ? -1 : syscall(call, fd, data, std::min(n, static_cast<size_t>(step)));
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

unsigned char data[200], byte;
unsigned int used, total, word = 7;

TEST(NV_buffer, Moves_all_or_nothing) {
    unsigned char block[4];
    NV_buffer_iterator it(block, 4, 0);
    EXPECT_VALUES("false false 0", it.push_bytes(data, 5), it.push_bytes(data, -1), it.write_position);
    EXPECT_VALUES("true false true", it.push_uint16(0x0201), it.push_uint32(0), it.push_uint16(0x0403));
    EXPECT_VALUES("true 4 4", it.get_free_space(used, total), used, total);
    EXPECT_VALUES("true true 1", it.peek_bytes(&byte, 1), it.pop_uint8(byte), byte);
    EXPECT_VALUES("false 7", it.pop_uint32(word), word) << "a failed pop leaves its target";
    EXPECT_VALUES("false false", it.peek_bytes(data, 4), it.pop_bytes(data, -1));
    it.reset_reading();
    EXPECT_VALUES(texts(true, 0x04030201u), it.pop_uint32(word), word);
    it.reset_writing();
    EXPECT_VALUES("false true", it.pop_uint8(byte), it.push_uint32(5)) << "no longer readable, and empty";
}

TEST(NV_buffer, Every_active_checksum_sees_what_passes_but_not_what_is_peeked) {
    unsigned char block[16];
    NV_buffer_iterator it(block, sizeof block, 0);
    NV_iterator::NV_checksum whole, inner;
    NV_iterator::NV_iterator_header h;
    it.add_checksum_getter(&whole);
    it.push_header({1, 1, 5});
    it.add_checksum_getter(&inner);
    it.push_header({1, 2, 5});
    it.remove_checksum_getter(&inner);
    EXPECT_VALUES(texts(0xF03A3811u, 8, 2, 4), whole.crc, whole.bytes, whole.chunks, inner.bytes);
    EXPECT_VALUES("true 8 true 12 5", it.peek_header(h), whole.bytes, it.pop_header(h), whole.bytes, h.id);
    it.remove_checksum_getter(&whole);
}

struct NV_file : testing::Test {
    Temporary_folder folder;
    const std::string path = folder.file("settings");
    NV_file_iterator it{path.c_str()};
};

TEST_F(NV_file, The_mode_decides_what_it_allows_and_what_becomes_of_the_file) {
    /// What pushing, popping and peeking do in a mode, and then the size of the file and what counts as used.
    const auto moves = [&](NV_iterator::modes_t mode) {
        const Values done = {it.set_mode(mode), it.mode, it.push_bytes(data, 100), it.pop_bytes(data, 1),
                             it.peek_bytes(data, 1)};
        return done.text + " " + Values{it.get_free_space(used, total), read_file(path).size(), used, total}.text;
    };
    EXPECT_EQ(moves(NV_iterator::mode_read), "-1 0 false false false true 0 0 16384") << "no such file";
    EXPECT_EQ(moves(NV_iterator::mode_write), "0 2 true false false true 100 100 16384");
    EXPECT_EQ(moves(NV_iterator::mode_journal_1), "0 3 true false false true 200 200 16384") << "appended";
    EXPECT_EQ(moves(NV_iterator::mode_journal_2), "0 4 true false false true 300 300 16384");
    EXPECT_EQ(moves(NV_iterator::mode_write), "0 2 true false false true 100 100 16384");
    EXPECT_EQ(moves(NV_iterator::mode_read), "0 1 false true true true 100 102 16384");
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(static_cast<mode_t>(std::filesystem::status(path).permissions()), 0777 & ~mask);
    close_result = -7;
    EXPECT_EQ(moves(NV_iterator::mode_write), "-7 0 false false false true 100 102 16384") << "it opens nothing";
}

TEST_F(NV_file, Peeks_without_consuming_but_counts_it) {
    write_file(path, "abcdef");
    ASSERT_EQ(it.set_mode(NV_iterator::mode_read), 0);
    char text[8] = {};
    auto* const to = reinterpret_cast<unsigned char*>(text);
    EXPECT_VALUES("true true cde", it.pop_bytes(to, 2), it.peek_bytes(to, 3), text);
    EXPECT_VALUES("false true cdef", it.peek_bytes(to, 5), it.pop_bytes(to, 4), text) << "5: more than there is";
    EXPECT_VALUES(texts(false, true, 2 + 3 + 5 + 4 + 1), it.pop_bytes(to, 1), it.get_free_space(used, total), used);
}

TEST_F(NV_file, Goes_on_after_interruptions_and_short_transfers_and_ends_at_errors) {
    ASSERT_EQ(it.set_mode(NV_iterator::mode_write), 0);
    script = {-EINTR, 3, -EAGAIN, -EINTR, 1};
    EXPECT_VALUES("true 12345678", it.push_uint64(0x3837363534333231ull), read_file(path));
    Capture out(stdout);
    script = {3, -ENOSPC};
    EXPECT_FALSE(it.push_bytes(data, 4));
    ASSERT_EQ(it.set_mode(NV_iterator::mode_read), 0);
    script = {-EIO, -EIO};
    EXPECT_VALUES("false false", it.pop_bytes(data, 2), it.peek_bytes(data, 2));
    script = {2, -EINTR, 1, -EAGAIN};
    unsigned long long value = 0;
    EXPECT_VALUES(texts(true, true, 0x3837363534333231ull), it.pop_uint64(value), script.empty(), value)
        << "errors have consumed nothing";
    EXPECT_EQ(out.text(), "Error in NV_file_iterator: No space left on device\n"
                          "Error in NV_file_iterator: Input/output error\n"
                          "Error in NV_file_iterator: Input/output error\n");
}

} // namespace
