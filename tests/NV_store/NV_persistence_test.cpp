// SPDX-License-Identifier: MIT
#include "NV_store/Image_builder.h"
#include "NV_store/Settings_fixture.h"
#include "glue/NV_store/NV_file_iterator.h"
#include "glue/NV_store/NV_scan.h"
#include "support/test.h"
#include <sys/syscall.h>

using namespace NV_store;
using namespace Image;

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

constexpr int changed = NV_item::changed_for_journal_1 | NV_item::changed_for_journal_2;

/// What reading an image gives: the result and, behind it, the complaint.
template <class Operation>
std::string outcome(const std::string& image, Operation operation, int* left = nullptr) {
    Capture err(stderr);
    const bool result = read_image(image, operation, left);
    return texts(result, err.text());
}
std::string load(NV_item& item, const std::string& image, int* left = nullptr) {
    const auto operation = [&](NV_iterator* it) { return item.deserialise(it); };
    return outcome(image, operation, left);
}

/// What `tell` says of the numbers below `end`, each text behind the first number that it is true of.
template <class Tell>
std::string ranges(size_t end, Tell tell) {
    std::string all, last;
    for (size_t n = 0; n < end; ++n)
        if (const std::string now = tell(n); now != last) all += texts(n, last = now, "\n");
    return all;
}

/// A container outside any tree.
struct Pair : NV_container {
    Pair() : NV_container(5, "pair") {}
    /// Holds 99 twice, and nothing is changed.
    static std::unique_ptr<Pair> stored() {
        auto pair = std::make_unique<Pair>();
        pair->_from_string("{99,99}");
        image_of(*pair);
        return pair;
    }
    NV_int16 first{this, 0x0102, "first", 1};
    NV_uint8 second{this, 7, "second", 3};
};

const std::string first_5 = value(8, 0x0102, bytes({5, 0})), second_6 = value(4, 7, bytes({6}));
const std::string good = frame(1, 5, first_5 + second_6);

// ---- values

template <class Number>
void expect_whole_or_nothing() {
    Number stored(nullptr, 1, "stored"), read(nullptr, 1, "read");
    stored.set(77);
    const std::string record = image_of(stored);
    int left = 0;
    for (size_t length = 4; length <= record.size(); ++length) {
        const bool whole = length == record.size();
        const std::string cut = record.substr(0, length);
        EXPECT_VALUES(texts("true ", whole ? stored.get() : read.get_default()), load(read, cut), read.get());
        EXPECT_EQ(outcome(cut, Number::deserialise_unknown, &left), texts(whole, ""));
    }
    EXPECT_VALUES("0 0", read.get_flags(), left) << stored.get_type();
}

// Their bytes are those of tests/formats.
TEST(NV_values, Are_loaded_whole_and_one_that_is_cut_is_for_the_checksum_to_tell) {
#define KAV_EXPECT(T, name, NAME) expect_whole_or_nothing<NV_##name>();
    KAV_BASE_TYPES(KAV_EXPECT)
    NV_bool item(nullptr, 1, "item");
    EXPECT_VALUES("true  true", load(item, bytes({2, 9, 1, 0, 0x80})), item.get());
}

TEST(NV_values, Take_over_only_values_of_their_type_and_return_to_their_default) {
    NV_int16 item(nullptr, 0x0102, "item", 9), like(nullptr, 2, "like", 8);
    for (const size_t at : {0u, 1u, 2u, 3u}) {
        std::string other = first_5;
        other[at] ^= 1;
        int left;
        EXPECT_VALUES("false  2", load(item, other, &left), left) << "consumed in silence";
        EXPECT_VALUES(texts(9, NV_item::not_loaded), item.get(), item.get_flags());
    }
    NV_uint16 unlike(nullptr, 3, "unlike", 7);
    struct : NV_uint8 {
        using NV_uint8::NV_uint8;
        item_type_t get_type() const override { return item_int16; } // but it has one byte
    } liar{nullptr, 4, "liar"};
    EXPECT_VALUES("true false false 8", item.set(like), item.set(unlike), item.set(liar), item.get());
    EXPECT_VALUES(texts(true, 9, changed), item.set_default(false), item.get(), item.get_flags());
}

TEST(NV_values, The_mode_and_the_flags_decide_what_is_written) {
    // In modes 0 to 5: w written, - left out, x failed.
    const std::tuple<const char*, const char*, void (*)(NV_uint8&)> table[] = {
        {"fresh", "xx---x", [](NV_uint8&) {}},
        {"set", "xxwwwx", [](NV_uint8& i) { i.set(5); }},
        {"set, second", "xxw-wx", [](NV_uint8& i) { i.notify_updated(true, false, false, notify_none, nullptr); }},
        {"saved", "xxw--x", [](NV_uint8& i) { i.set(5), image_of(i); }},
        {"saved, first", "xxw--x", [](NV_uint8& i) { i.set(5), image_of(i, NV_iterator::mode_journal_1); }},
        {"loaded", "xxw--x", [](NV_uint8& i) { load(i, second_6); }}};
    for (const auto& [what, written, prepare] : table) {
        for (int mode = 0; mode <= 5; ++mode) {
            NV_uint8 item(nullptr, 7, "item");
            prepare(item);
            const int flags = item.get_flags();
            const std::string out = image_of(item, static_cast<NV_iterator::modes_t>(mode));
            const char became = out == "failed" ? 'x' : out.empty() ? '-' : 'w';
            EXPECT_VALUES(texts(written[mode], became == 'w' ? 0 : flags), became, item.get_flags()) << what << mode;
        }
    }
}

// ---- containers

TEST(NV_containers, Are_stored_as_frames_with_a_checksum) {
    NV_container empty(5, "empty");
    EXPECT_EQ(image_of(empty), "") << "never loaded";
    empty.notify_updated(true, notify_none);
    EXPECT_EQ(image_of(empty), bytes({1, 1, 5, 0, 1, 2, 5, 0, 0x11, 0x38, 0x3A, 0xF0}));

    Settings tree(nullptr), other(nullptr);
    tree.set_all();
    const auto width = [](int w) { return value(5, 1, bytes({w, 0})); };
    const std::string image = tree.image(NV_iterator::mode_write);
    EXPECT_NE(image.find(frame(13, 4, width(10) + width(20) + width(30))), std::string::npos);
    EXPECT_VALUES(texts(true, tree.text(), 0, 0), other.load(image), other.text(), other.get_flags(),
                  other.wheel.get_flags());
    tree.wheel.offset.set(1);
    const std::string change = frame(0, 1, frame(1, 3, value(8, 0x0102, bytes({1, 0}))));
    EXPECT_EQ(tree.image(NV_iterator::mode_journal_2), change) << "a journal holds what changed";
    EXPECT_EQ(tree.image(NV_iterator::mode_journal_1), "") << "one save counts for both journals";
    tree.sections.right.set(50);
    EXPECT_EQ(load(other, tree.image(NV_iterator::mode_journal_1)),
              "false NV child was bad for 13:sections\nNV child was bad for 0:machine\n");
    EXPECT_EQ(other.sections.left.get(), 50) << "the first element takes what was meant for the third";
}

TEST(NV_containers, A_save_that_runs_out_of_room_says_where_and_of_a_cut_one_what_is_whole_is_loaded) {
    const auto save = [](size_t capacity) {
        Pair pair;
        pair.first.set(-2);
        Capture err(stderr);
        const std::string image = image_of(pair, NV_iterator::mode_write, static_cast<int>(capacity));
        const std::string what = image == "failed" ? image : texts(image.size());
        return texts(what, pair.get_flags(), pair.first.get_flags(), err.text());
    };
    // What was written counts as saved, and the checksum is pushed without asking.
    EXPECT_EQ(ranges(19, save), "0 failed 3 3 Serialise failed for 1:pair\n \n"
                                "10 failed 3 0 Serialise failed2 for 1:pair\n \n"
                                "14 14 0 0  \n18 18 0 0  \n");
    // A checksum that is cut resets its container.
    const auto load_cut = [](size_t length) {
        const auto pair = Pair::stored();
        return Values{load(*pair, good.substr(0, length)), text_form(*pair)}.text;
    };
    const std::string bad_crc = "false NV_store CRC32 Check " + texts(crc(good.substr(0, 19))) + "!=0 for 1:pair\n";
    EXPECT_EQ(ranges(24, load_cut),
              "0 false No NV settings for 1:pair\n {99,99} \n4 false NV bad for 1:pair\n {99,99} \n"
              "10 false NV bad for 1:pair\n {5,99} \n15 false NV bad for 1:pair\n {5,6} \n"
              "19 " +
                  bad_crc + " {1,3} \n23 true  {5,6} \n");
}

TEST(NV_containers, A_load_says_what_is_wrong) {
    const uint32_t sum = crc(good.substr(0, 19));
    const std::string other_end = header(1, 1, 5) + first_5 + header(13, 2, 77);
    // A checksum of an unknown container is read as a header: this one says "end", which ends the outer one early.
    std::string early;
    for (unsigned i = 0; early.empty() || early[early.size() - 3] != 2; ++i)
        early = frame(1, 99, value(9, 1, little_endian(i, 4)));
    const auto in_pair = [&](const std::string& records) { return frame(1, 5, records + first_5); };
    const std::string start = header(1, 1, 99), inner = value(4, 1, "x"), end = header(1, 2, 99);
    std::string starts, ends, abyss; // no stack would hold a recursion into the last
    for (int depth = 0; depth < 100; ++depth) starts += start, ends += end;
    while (abyss.size() < 4000000) abyss += start;
    const std::string bad = " for 1:pair\n {99,99}", not_it = "false Bad NV settings ";
    // What comes of images: result, complaint and values.
    const std::pair<std::string, std::vector<std::string>> table[] = {
        {"true  {5,6}", {good, frame(1, 5, second_6 + first_5)}},
        {"true  {99,6}", {frame(1, 5, second_6)}},
        {"true  {5,99}",
         {other_end + little_endian(crc(other_end), 4), in_pair(value(0x25, 99, bytes({0}))), // no elements
          in_pair(start + inner + end), in_pair(start + header(13, 1, 4) + header(13, 2, 4) + end),
          in_pair(starts + ends)}},
        {not_it + "6!=5 1!=1 1!=1" + bad, {frame(1, 6, first_5)}},
        {not_it + "5!=5 13!=1 1!=1" + bad, {frame(13, 5, first_5)}},
        {not_it + "5!=5 1!=1 9!=1" + bad, {value(1, 5, "")}},
        {"false NV_store CRC32 Check " + texts(sum) + "!=" + texts(sum ^ 1) + " for 1:pair\n {1,3}",
         {good.substr(0, 19) + little_endian(sum ^ 1, 4)}},
        {"false NV child was bad" + bad, {frame(1, 5, value(4, 0x0102, "\5"))}}, // of another type
        {"false NV unknown child was bad" + bad,
         {in_pair(header(8, 8, 8) + "xx"),         // no marker of a value
          in_pair(header(1, 9, 99) + inner + end), // nor of a container
          in_pair(frame(1, 99, inner)), in_pair(frame(0, 99, inner)), in_pair(frame(13, 99, inner)), // their checksums
          in_pair(start + inner + header(1, 2, 98)), in_pair(start + inner + header(13, 2, 99)),
          in_pair(abyss)}}, // no end
        {"", {frame(1, 5, first_5 + early)}}};
    for (const auto& [after, images] : table) {
        for (const std::string& image : images) {
            const auto pair = Pair::stored();
            const std::string got = Values{load(*pair, image), text_form(*pair)}.text;
            const bool reset = pair->first.get() == 1;
            EXPECT_EQ(after.empty() && reset ? "" : got, after) << testing::PrintToString(image.substr(0, 40));
            EXPECT_EQ(pair->first.get_flags(), reset ? changed : 0) << "a load is no change, a reset is one";
        }
    }
}

TEST(NV_containers, Unknown_values_are_skipped_by_type_and_load_and_scan_know_the_same) {
    // Of so many bytes each; known to the scan, and skipped by the load. No image holds arrays of 64-bit integers, and
    // a pointer is left out only by the safe store.
    const std::tuple<std::string, size_t, bool, bool> table[] = {{"\x02\x03\x04\x07\x22\x23", 1, true, true},
                                                                 {"\x05\x08\x25", 2, true, true},
                                                                 {"\x06\x09\x0A\x2A", 4, true, true},
                                                                 {"\x0B\x0F\x10\x2B", 8, true, true},
                                                                 {"\x2F\x30", 8, false, false},
                                                                 {"\x0C\x11\x1F\x21\x2D\x2E\x42\xE4", 1, false, false},
                                                                 {"\x0E", 2, true, false}};
    for (const auto& [types, size, known, skipped] : table) {
        for (const unsigned char type : types) {
            const bool counted = type >> 5 == 1 || type == 0x0E;
            const std::string content = counted ? '\3' + std::string(3 * size, 'x') : std::string(size, 'x');
            const std::string image = frame(1, 5, value(type, 99, content) + first_5);
            Pair pair;
            int dropped = 0;
            EXPECT_VALUES(texts(skipped ? 't' : 'f', skipped ? 5 : 1), load(pair, image)[0], pair.first.get());
            EXPECT_EQ(whole_records(image, pair), known ? image.size() : 0) << int{type};
            EXPECT_EQ(prune(image, pair, dropped), known ? frame(1, 5, first_5) : "") << int{type};
        }
    }
}

TEST(NV_containers, No_damage_goes_unseen_and_a_wrong_inner_checksum_resets_the_inner_alone) {
    Settings tree(nullptr);
    tree.set_all();
    const std::string image = tree.image(NV_iterator::mode_write);
    const auto damaged = [&](size_t at, int bit) {
        std::string bad = image;
        bad[at] = static_cast<char>(bad[at] ^ 1 << bit);
        return load(tree, bad);
    };
    for (size_t bit = 0; bit < 8 * image.size(); ++bit)
        EXPECT_EQ(damaged(bit / 8, bit % 8).substr(0, 5), "false") << bit;
    tree._from_string("{2.5,{false,7},{99,20,30},wheel/offset}");
    const std::string wheel = value(8, 0x0102, bytes({7, 0})) + header(1, 2, 3);
    EXPECT_NE(damaged(image.find(wheel) + wheel.size(), 0).find(" for 1:wheel\nNV child was bad for 0:machine\n"),
              std::string::npos);
    EXPECT_EQ(tree.text(), "{2.5,{true,-2},{99,20,30},wheel/offset}");
}

// ---- the medium

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
    NV_iterator::NV_iterator_header h;
    EXPECT_VALUES(texts(true, 1, 0x0403), it.peek_header(h), h.type_byte, h.id);
    EXPECT_VALUES(texts(true, 0x04030201u), it.pop_uint32(word), word);
    it.reset_writing();
    EXPECT_VALUES("false true", it.pop_uint8(byte), it.push_uint32(5)) << "no longer readable, and empty";
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

TEST_F(NV_file, Peeks_without_consuming_but_counts_it_though_not_in_a_checksum) {
    write_file(path, "abcdef");
    ASSERT_EQ(it.set_mode(NV_iterator::mode_read), 0);
    NV_iterator::NV_checksum passed;
    it.add_checksum_getter(&passed);
    NV_iterator::NV_iterator_header h;
    EXPECT_VALUES(texts(true, 'a', true, 'c'), it.pop_bytes(data, 2), *data, it.peek_header(h), h.type_byte);
    EXPECT_VALUES(texts(false, true, 'c'), it.peek_bytes(data, 5), it.pop_header(h), h.type_byte) << "5: too many";
    EXPECT_VALUES(texts(false, true, 2 + 4 + 5 + 4 + 1), it.pop_bytes(data, 1), it.get_free_space(used, total), used);
    it.remove_checksum_getter(&passed);
    EXPECT_VALUES(texts(crc("cdef"), 4, 1), passed.crc, passed.bytes, passed.chunks);
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
