// SPDX-License-Identifier: MIT
#include "NV_store/Image_builder.h"
#include "NV_store/Settings_fixture.h"
#include "glue/NV_store/NV_file_iterator.h"
#include "glue/NV_store/NV_scan.h"
#include "stress/faulty_calls.h"
#include "support/test.h"

using namespace NV_store;
using namespace Image;

namespace {

constexpr int changed = NV_item::changed_for_journal_1 | NV_item::changed_for_journal_2;

/// What reading an image gives: the result and, behind it, the complaint.
std::string load(NV_item& item, const std::string& image, int* left = nullptr) {
    Capture err(stderr);
    const bool result = load_image(item, image, left);
    return texts(result, err.text());
}

/// What `tell` says of the numbers below `end`, each text behind the first number that it is true of.
template <class Tell>
std::string ranges(size_t end, Tell tell) {
    std::string all, last;
    for (size_t n = 0; n < end; ++n)
        if (const std::string now = tell(n); now != last) all += texts(n, last = now, "\n");
    return all;
}

/// A container outside any tree, which holds 99 twice; nothing is changed.
struct Pair : NV_container {
    Pair() : NV_container(5, "pair") { _from_string("{99,99}"), image_of(*this); }
    NV_int16 first{this, 0x0102, "first", 1};
    NV_uint8 second{this, 7, "second", 3};
};

const std::string first_5 = value(8, 0x0102, bytes({5, 0})), second_6 = value(4, 7, bytes({6}));
const std::string good = frame(1, 5, first_5 + second_6);

// ---- values

TEST(NV_values, Take_over_only_values_of_their_type_and_return_to_their_default) {
    NV_int16 item(nullptr, 0x0102, "item", 9), like(nullptr, 2, "like", 8);
    int left;
    for (const size_t at : {0u, 1u, 2u, 3u}) {
        std::string other = first_5;
        other[at] ^= 1;
        EXPECT_VALUES("false  2", load(item, other, &left), left) << "consumed in silence";
        EXPECT_VALUES(texts(9, NV_item::not_loaded), item.get(), item.get_flags());
    }
    std::string record = first_5;
    NV_buffer_iterator it(reinterpret_cast<unsigned char*>(record.data()), 6, 6);
    EXPECT_VALUES("true 6", NV_int16::deserialise_unknown(&it), it.read_position);
    NV_bool on(nullptr, 3, "on");
    EXPECT_VALUES("true  true", load(on, bytes({2, 9, 3, 0, 0x80})), on.get());
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

TEST(NV_containers, Are_loaded_as_they_were_saved_and_no_damage_goes_unseen) {
    Settings tree(nullptr), other(nullptr);
    tree.set_all();
    const std::string image = tree.image(NV_iterator::mode_write);
    EXPECT_VALUES(texts(true, tree.text(), 0, 0), other.load(image), other.text(), other.get_flags(),
                  other.wheel.get_flags());
    tree.sections.right.set(50);
    EXPECT_EQ(load(other, tree.image(NV_iterator::mode_journal_1)),
              "false NV child was bad for 13:sections\nNV child was bad for 0:machine\n");
    EXPECT_EQ(other.sections.left.get(), 50) << "the first element takes what was meant for the third";

    for (size_t bit = 0; bit < 8 * image.size(); ++bit) {
        std::string damaged = image;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ 1 << bit % 8);
        EXPECT_EQ(load(other, damaged).substr(0, 5), "false") << bit;
    }
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
    const std::string full = " for 1:pair\n \n";
    EXPECT_EQ(ranges(24, save), "0 failed 3 3 Serialise failed" + full + "10 failed 3 0 Serialise failed" + full +
                                    "15 failed 3 0 Serialise failed2" + full + "19 19 0 0  \n23 23 0 0  \n");
    // A checksum that is cut resets its container.
    const auto load_cut = [](size_t length) {
        Pair pair;
        return Values{load(pair, good.substr(0, length)), text_form(pair), pair.first.get_flags()}.text;
    };
    const std::string bad_crc = "false NV_store CRC32 Check " + texts(crc(good.substr(0, 19))) + "!=0 for 1:pair\n";
    EXPECT_EQ(ranges(24, load_cut),
              "0 false No NV settings for 1:pair\n {99,99} 0 \n4 false NV bad for 1:pair\n {99,99} 0 \n10 false NV bad "
              "for 1:pair\n {5,99} 0 \n15 false NV bad for 1:pair\n {5,6} 0 \n19 " +
                  bad_crc + " {1,3} 3 \n23 true  {5,6} 0 \n");
}

TEST(NV_containers, A_load_says_what_is_wrong) {
    const std::string other_end = header(1, 1, 5) + first_5 + header(13, 2, 77);
    const auto in_pair = [&](const std::string& records) { return frame(1, 5, records + first_5); };
    const std::string start = header(1, 1, 99), inner = value(4, 1, "x"), end = header(1, 2, 99);
    std::string abyss; // no stack would hold a recursion into it
    while (abyss.size() < 4000000) abyss += start;
    const std::string bad = " for 1:pair\n {99,99}";
    // What comes of images: result, complaint and values.
    const std::pair<std::string, std::vector<std::string>> table[] = {
        {"true  {5,6}", {good, frame(1, 5, second_6 + first_5)}},
        {"true  {5,99}",
         {other_end + little_endian(crc(other_end), 4), in_pair(value(0x25, 99, bytes({0}))), // no elements
          in_pair(start + inner + end), in_pair(start + header(13, 1, 4) + header(13, 2, 4) + end)}},
        {"false Bad NV settings 6!=5 13!=1 9!=1" + bad, {value(13, 6, first_5)}},
        {"false NV child was bad" + bad, {frame(1, 5, value(4, 0x0102, "\5"))}}, // of another type
        {"false NV unknown child was bad" + bad,
         {header(1, 1, 5) + value(8, 99, "x"),     // cut
          in_pair(header(8, 8, 8) + "xx"),         // no marker of a value
          in_pair(header(1, 9, 99) + inner + end), // nor of a container
          in_pair(frame(1, 99, inner)),            // its checksum
          in_pair(start + inner + header(1, 2, 98)), in_pair(start + inner + header(13, 2, 99)),
          in_pair(abyss)}}}; // no end
    for (const auto& [after, images] : table) {
        for (const std::string& image : images) {
            Pair pair;
            EXPECT_VALUES(after, load(pair, image), text_form(pair)) << testing::PrintToString(image.substr(0, 40));
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
            EXPECT_VALUES(texts(skipped ? 't' : 'f', skipped ? 5 : 99), load(pair, image)[0], pair.first.get());
            EXPECT_EQ(whole_records(image, pair), known ? image.size() : 0) << int{type};
            EXPECT_EQ(prune(image, pair, dropped), known ? frame(1, 5, first_5) : "") << int{type};
        }
    }
}

// ---- the medium

unsigned char data[200], byte;
unsigned int used, total, word = 7;

TEST(NV_buffer, Moves_all_or_nothing) {
    unsigned char block[4];
    NV_buffer_iterator it(block, 4, 0);
    EXPECT_VALUES("false true true 4 4", it.push_bytes(data, -1), it.push_uint32(0x04030201),
                  it.get_free_space(used, total), used, total);
    EXPECT_VALUES("true 1 false 7 false", it.pop_uint8(byte), byte, it.pop_uint32(word), word, it.pop_bytes(data, -1));
    it.reset_reading();
    EXPECT_VALUES("true 1", it.peek_bytes(&byte, 1), byte);
    it.reset_writing();
    EXPECT_VALUES("false true", it.pop_uint8(byte), it.push_uint32(5)) << "no longer readable, and empty";
}

TEST(NV_file, The_mode_decides_what_it_allows_and_what_becomes_of_the_file) {
    const Temporary_folder folder;
    const std::string path = folder.file("settings");
    NV_file_iterator it(path.c_str());
    /// What pushing, popping and peeking do in a mode, and then the size of the file and what counts as used.
    const auto moves = [&](NV_iterator::modes_t mode) {
        const Values done = {it.set_mode(mode), it.push_bytes(data, 100), it.pop_bytes(data, 1),
                             it.peek_bytes(data, 1)};
        return done.text + " " + Values{it.get_free_space(used, total), read_file(path).size(), used}.text;
    };
    umask(022);
    EXPECT_EQ(moves(NV_iterator::mode_write), "0 true false false true 100 100");
    EXPECT_EQ(moves(NV_iterator::mode_journal_2), "0 true false false true 200 200") << "appended";
    EXPECT_EQ(moves(NV_iterator::mode_write), "0 true false false true 100 100");
    EXPECT_EQ(moves(NV_iterator::mode_read), "0 false true true true 100 102");
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0755));
    Faulty::arm(Faulty::error_once, 1, EIO);
    EXPECT_EQ(moves(NV_iterator::mode_write), "-1 false false false true 100 102") << "not closed, nor opened";

    NV_iterator::NV_iterator_header h;
    for (const auto& [kind, error] :
         {std::pair{Faulty::one_byte, 0}, {Faulty::error_once, EINTR}, {Faulty::error_once, EAGAIN}}) {
        it.set_mode(NV_iterator::mode_closed);
        Faulty::arm(kind, 2, error); // after opening it
        EXPECT_VALUES("0 true true", it.set_mode(NV_iterator::mode_write), it.push_uint64(0x6867666564636261ull),
                      Faulty::calls > 2);
        Faulty::arm(kind, 3, error); // after closing and opening it
        EXPECT_VALUES("0 true true", it.set_mode(NV_iterator::mode_read), it.pop_header(h), Faulty::calls > 3);
        EXPECT_EQ(read_file(path), "abcdefgh") << error;
        EXPECT_VALUES(texts('a', true, 'e'), h.type_byte, it.peek_header(h), h.type_byte) << error;
    }
    Capture out(stdout);
    Faulty::arm(Faulty::error_for_ever, 1, EIO);
    EXPECT_VALUES("false false", it.pop_bytes(data, 2), it.peek_bytes(data, 2)) << "which consumes nothing";
    Faulty::armed = false;
    EXPECT_EQ(out.text(),
              "Error in NV_file_iterator: Input/output error\nError in NV_file_iterator: Input/output error\n");
    NV_iterator::NV_checksum passed;
    it.add_checksum_getter(&passed);
    EXPECT_VALUES(texts(false, true, 'e'), it.peek_bytes(data, 5), it.pop_header(h), h.type_byte) << "5: too many";
    it.remove_checksum_getter(&passed);
    EXPECT_VALUES("false true 30", it.pop_bytes(data, 1), it.get_free_space(used, total), used) << "of all attempts";
    EXPECT_VALUES(texts(crc("efgh"), 4, 1), passed.crc, passed.bytes, passed.chunks) << "what was peeked at, once";
}

} // namespace
