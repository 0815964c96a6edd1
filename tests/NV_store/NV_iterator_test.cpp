// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_buffer_iterator.h"
#include "glue/NV_store/NV_file_iterator.h"
#include "support/test.h"
#include <sys/syscall.h>

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
    if (script.empty()) return syscall(call, fd, data, n);
    const Step step = script.front();
    script.pop_front();
    errno = step.error;
    return step.error ? -1 : syscall(call, fd, data, std::min(n, static_cast<size_t>(step.most)));
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
    EXPECT_VALUES("false false false", it.push_bytes(data, 5), it.push_bytes(data, -1), it.write_position != 0);
    EXPECT_TRUE(it.push_uint16(0x0201));
    EXPECT_FALSE(it.push_uint32(0)) << "half of the room is taken";
    EXPECT_TRUE(it.push_uint16(0x0403));
    unsigned int used = 1, total = 1, word = 7;
    EXPECT_VALUES("true 4 4", it.get_free_space(used, total), used, total);
    unsigned char byte;
    EXPECT_VALUES("true true 1", it.peek_bytes(&byte, 1), it.pop_uint8(byte), byte);
    EXPECT_VALUES("false false", it.pop_uint32(word), word != 7) << "a failed pop leaves its target";
    EXPECT_VALUES("false false", it.peek_bytes(data, 4), it.pop_bytes(data, -1));
    it.reset_reading();
    EXPECT_VALUES(texts(true, 0x04030201u), it.pop_uint32(word), word);
    it.reset_writing();
    EXPECT_FALSE(it.pop_uint8(byte)) << "no longer readable";
    EXPECT_TRUE(it.push_uint32(5));
}

TEST(NV_buffer, Every_active_checksum_sees_what_passes_but_not_what_is_peeked) {
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
    EXPECT_VALUES("8 2 4", whole.bytes, whole.chunks, inner.bytes);
    NV_iterator::NV_iterator_header h;
    EXPECT_VALUES("true 8", it.peek_header(h), whole.bytes);
    EXPECT_VALUES("true 12 5", it.pop_header(h), whole.bytes, h.id);
    it.remove_checksum_getter(&whole);
}

class NV_file : public testing::Test {
protected:
    unsigned used() {
        unsigned int bytes = 0, total = 0;
        EXPECT_VALUES("true 16384", it.get_free_space(bytes, total), total);
        return bytes;
    }
    Temporary_folder folder;
    const std::string path = folder.file("settings");
    NV_file_iterator it{path.c_str()};
};

TEST_F(NV_file, The_mode_decides_what_it_allows_and_what_becomes_of_the_file) {
    EXPECT_VALUES("false false", it.push_bytes(data, 1), it.pop_bytes(data, 1)) << "closed";
    EXPECT_EQ(it.set_mode(NV_iterator::mode_read), -1) << "no such file";
    EXPECT_EQ(it.mode, NV_iterator::mode_closed);
    const std::pair<NV_iterator::modes_t, unsigned> table[] = {
        {NV_iterator::mode_write, 100},
        {NV_iterator::mode_journal_1, 200}, // appended, and the count goes on
        {NV_iterator::mode_journal_2, 300},
        {NV_iterator::mode_write, 100}};
    for (const auto& [mode, size] : table) {
        ASSERT_EQ(it.set_mode(mode), 0);
        EXPECT_VALUES(texts(mode, true), it.mode, it.push_bytes(data, 100));
        EXPECT_VALUES("false false", it.pop_bytes(data, 1), it.peek_bytes(data, 1));
        EXPECT_VALUES(texts(size, size), read_file(path).size(), used()) << size;
    }
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(static_cast<mode_t>(std::filesystem::status(path).permissions()), 0777 & ~mask);
    ASSERT_EQ(it.set_mode(NV_iterator::mode_read), 0);
    EXPECT_FALSE(it.push_bytes(data, 1));
    close_result = -7;
    EXPECT_EQ(it.set_mode(NV_iterator::mode_write), -7) << "a failed close opens nothing";
    EXPECT_EQ(it.mode, NV_iterator::mode_closed);
    EXPECT_EQ(read_file(path).size(), 100u);
}

TEST_F(NV_file, Peeks_without_consuming_but_counts_it) {
    write_file(path, "abcdef");
    ASSERT_EQ(it.set_mode(NV_iterator::mode_read), 0);
    char text[8] = {};
    auto* const to = reinterpret_cast<unsigned char*>(text);
    EXPECT_VALUES(texts(true, true, std::string("cde")), it.pop_bytes(to, 2), it.peek_bytes(to, 3), text);
    EXPECT_FALSE(it.peek_bytes(to, 5)) << "more than there is";
    EXPECT_VALUES(texts(true, std::string("cdef")), it.pop_bytes(to, 4), text);
    EXPECT_FALSE(it.pop_bytes(to, 1));
    EXPECT_EQ(used(), 2u + 3 + 5 + 4 + 1);
}

TEST_F(NV_file, Goes_on_after_interruptions_and_short_transfers_and_ends_at_errors) {
    ASSERT_EQ(it.set_mode(NV_iterator::mode_write), 0);
    script = {{EINTR, 0}, {0, 3}, {EAGAIN, 0}, {EINTR, 0}, {0, 1}};
    EXPECT_TRUE(it.push_uint64(0x3837363534333231ull));
    EXPECT_EQ(read_file(path), "12345678");
    Capture out(stdout);
    script = {{0, 3}, {ENOSPC, 0}};
    EXPECT_FALSE(it.push_bytes(data, 4));
    ASSERT_EQ(it.set_mode(NV_iterator::mode_read), 0);
    script = {{EIO, 0}, {EIO, 0}};
    EXPECT_VALUES("false false", it.pop_bytes(data, 2), it.peek_bytes(data, 2));
    script = {{0, 2}, {EINTR, 0}, {0, 1}, {EAGAIN, 0}};
    unsigned long long value = 0;
    EXPECT_VALUES("true true", it.pop_uint64(value), script.empty());
    EXPECT_EQ(value, 0x3837363534333231ull) << "errors have consumed nothing";
    EXPECT_EQ(out.text(), "Error in NV_file_iterator: No space left on device\n"
                          "Error in NV_file_iterator: Input/output error\n"
                          "Error in NV_file_iterator: Input/output error\n");
}

} // namespace
