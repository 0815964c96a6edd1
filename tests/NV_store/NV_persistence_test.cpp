// SPDX-License-Identifier: MIT
#include "NV_store/Image_builder.h"
#include "NV_store/Settings_fixture.h"
#include "support/capture.h"
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <memory>

using namespace NV_store;
using Image::bytes;
using Image::frame;
using Image::header;
using Image::hex;
using Image::value;

namespace {

constexpr int short_type = 8, byte_type = 4;
constexpr int changed = NV_item::changed_for_journal_1 | NV_item::changed_for_journal_2;

/// What saving an item gives: its bytes, or "failed".
std::string saved(NV_item& item, NV_iterator::modes_t mode, int capacity = 1024) {
    const auto block = std::make_unique<unsigned char[]>(static_cast<size_t>(capacity));
    NV_buffer_iterator it(block.get(), capacity, 0);
    it.set_mode(mode);
    if (!item.serialise(&it)) return "failed";
    return std::string(reinterpret_cast<char*>(block.get()), static_cast<size_t>(it.write_position));
}

/// An iterator over a copy of exactly the image's size, so that a read beyond it is seen.
struct Reader {
    explicit Reader(const std::string& image)
        : block(std::make_unique<unsigned char[]>(image.size()))
        , it(block.get(), static_cast<int>(image.size()), static_cast<int>(image.size())) {
        image.copy(reinterpret_cast<char*>(block.get()), image.size());
        it.set_mode(NV_iterator::mode_read);
    }
    std::unique_ptr<unsigned char[]> block;
    NV_buffer_iterator it;
};

struct Loaded {
    bool result;
    std::string complaint;
};

Loaded load(NV_item& item, const std::string& image) {
    Reader reader(image);
    Capture err(stderr);
    const bool result = item.deserialise(&reader.it);
    return {result, err.text()};
}

/// A container outside any tree, with a setting in it.
struct Pair : NV_container {
    explicit Pair(int first_default = 0)
        : NV_container(5, "pair"), first(this, 0x0102, "first", static_cast<short>(first_default)) {}
    NV_int16 first;
    NV_uint8 second{this, 7, "second", 3};
};

// ---- values

template <class Number, class T>
void check_record(T stored, const char* expected) {
    Number item(nullptr, 0x0102, "item");
    ASSERT_EQ(item.get(), T());
    item.set(stored);
    const std::string record = saved(item, NV_iterator::mode_write);
    EXPECT_EQ(hex(record), expected);

    Number other(nullptr, 0x0102, "other");
    EXPECT_TRUE(load(other, record).result);
    EXPECT_EQ(other.get(), stored);
    EXPECT_EQ(other.get_flags(), 0);

    Reader whole(record);
    EXPECT_TRUE(Number::deserialise_unknown(&whole.it));
    EXPECT_EQ(whole.it.read_position, whole.it.write_position);
    for (size_t cut = 4; cut < record.size(); ++cut) {
        Number kept(nullptr, 0x0102, "kept");
        EXPECT_TRUE(load(kept, record.substr(0, cut)).result) << "the frame's CRC is what tells";
        EXPECT_EQ(kept.get(), T());
        Reader short_of(record.substr(0, cut));
        EXPECT_FALSE(Number::deserialise_unknown(&short_of.it));
    }
}

TEST(NV_values, Are_stored_little_endian) {
    check_record<NV_int16, short>(-2, "08090201FEFF");
    check_record<NV_bool>(true, "0209020101");
    check_record<NV_char, char>('A', "0309020141");
    check_record<NV_uint8, unsigned char>(200, "04090201C8");
    check_record<NV_uint16, unsigned short>(0xABCD, "05090201CDAB");
    check_record<NV_uint32>(0x89ABCDEFu, "06090201EFCDAB89");
    check_record<NV_int8, signed char>(-128, "0709020180");
    check_record<NV_int32>(std::numeric_limits<int>::min(), "0909020100000080");
    check_record<NV_float>(1.5f, "0A0902010000C03F");
    check_record<NV_double>(-2.0, "0B09020100000000000000C0");
    check_record<NV_uint64>(0x0123456789ABCDEFull, "0F090201EFCDAB8967452301");
    check_record<NV_int64>(-2ll, "10090201FEFFFFFFFFFFFFFF");
}

TEST(NV_values, A_bool_is_true_for_any_byte_but_zero) {
    NV_bool item(nullptr, 1, "item");
    EXPECT_TRUE(load(item, bytes({2, 9, 1, 0, 0x80})).result);
    EXPECT_TRUE(item.get());
}

TEST(NV_values, A_record_of_another_item_is_consumed_in_silence) {
    const std::string good = bytes({short_type, 9, 2, 1, 5, 0});
    for (const int at : {0, 1, 2, 3}) {
        std::string other = good;
        other[static_cast<size_t>(at)] ^= 1;
        NV_int16 item(nullptr, 0x0102, "item", 9);
        Reader reader(other);
        Capture err(stderr);
        EXPECT_FALSE(item.deserialise(&reader.it));
        EXPECT_EQ(err.text(), "");
        EXPECT_EQ(reader.it.read_position, 4);
        EXPECT_EQ(item.get(), 9);
        EXPECT_EQ(item.get_flags(), NV_item::not_loaded);
    }
}

TEST(NV_values, Take_over_only_values_of_their_type_and_return_to_their_default) {
    NV_int16 item(nullptr, 1, "item", 4), like(nullptr, 2, "like", 8);
    NV_uint16 unlike(nullptr, 3, "unlike", 8);
    EXPECT_TRUE(item.set(like));
    EXPECT_EQ(item.get(), 8);
    EXPECT_FALSE(item.set(unlike));
    EXPECT_TRUE(item.set_default(false));
    EXPECT_EQ(item.get(), 4);
    EXPECT_EQ(item.get_flags(), changed);
}

TEST(NV_values, The_mode_and_the_flags_decide_what_is_written) {
    const struct {
        const char* what;
        void (*prepare)(NV_uint8&);
        const char* written; // in modes 2, 3, 4: w written, - left out
    } table[] = {
        {"fresh", [](NV_uint8&) {}, "---"},
        {"set", [](NV_uint8& i) { i.set(5); }, "www"},
        {"changed for the second journal alone",
         [](NV_uint8& i) { i.notify_updated(true, false, false, notify_none, nullptr); }, "w-w"},
        {"saved", [](NV_uint8& i) { i.set(5), saved(i, NV_iterator::mode_write); }, "w--"},
        {"saved to the first journal", [](NV_uint8& i) { i.set(5), saved(i, NV_iterator::mode_journal_1); }, "w--"},
        {"loaded",
         [](NV_uint8& i) {
             load(i, bytes({byte_type, 9, 1, 0, 7}));
         },
         "w--"}};
    for (const auto& row : table) {
        for (int mode = NV_iterator::mode_closed; mode <= 5; ++mode) {
            NV_uint8 item(nullptr, 1, "item");
            row.prepare(item);
            const int before = item.get_flags();
            const std::string out = saved(item, static_cast<NV_iterator::modes_t>(mode));
            const bool valid = mode >= NV_iterator::mode_write && mode <= NV_iterator::mode_journal_2;
            if (!valid) {
                EXPECT_EQ(out, "failed") << row.what << mode;
                continue;
            }
            const bool written = row.written[mode - NV_iterator::mode_write] == 'w';
            EXPECT_EQ(out.empty(), !written) << row.what << mode;
            EXPECT_EQ(item.get_flags(), written ? 0 : before) << row.what << mode;
        }
    }
}

// ---- containers

TEST(NV_containers, Are_stored_as_frames_with_a_checksum) {
    NV_container empty(5, "empty");
    EXPECT_EQ(saved(empty, NV_iterator::mode_write), "") << "never loaded";
    empty.notify_updated(true, notify_none);
    EXPECT_EQ(hex(saved(empty, NV_iterator::mode_write)), "010105000102050011383AF0");

    Pair pair;
    pair.first.set(-2);
    EXPECT_EQ(hex(saved(pair, NV_iterator::mode_write)), "0101050008090201FEFF01020500DEA70A33");
    EXPECT_EQ(pair.get_flags() | pair.first.get_flags(), 0);
    EXPECT_EQ(saved(pair, NV_iterator::mode_journal_1), "") << "nothing changed since";

    Settings tree(nullptr);
    tree.set_all();
    const std::string wheel = frame(1, 3, value(2, 1, bytes({0})) + value(8, 0x0102, bytes({7, 0})));
    const std::string sections =
        frame(13, 4, value(5, 1, bytes({10, 0})) + value(5, 1, bytes({20, 0})) + value(5, 1, bytes({30, 0})));
    const std::string active = value(14, 5, bytes({2, 3, 0, 2, 1}));
    EXPECT_EQ(hex(tree.image(NV_iterator::mode_write)),
              hex(frame(0, 1, value(10, 2, bytes({0, 0, 0x20, 0x40})) + wheel + sections + active)));
    tree.wheel.offset.set(1);
    EXPECT_EQ(hex(tree.image(NV_iterator::mode_journal_2)),
              hex(frame(0, 1, frame(1, 3, value(8, 0x0102, bytes({1, 0}))))))
        << "a journal holds what changed";
    EXPECT_EQ(tree.image(NV_iterator::mode_journal_1), "") << "one save counts for both journals";
}

TEST(NV_containers, A_save_that_runs_out_of_room_says_where) {
    for (int capacity = 0; capacity <= 18; ++capacity) {
        Pair pair;
        pair.first.set(-2);
        Capture err(stderr);
        const std::string out = saved(pair, NV_iterator::mode_write, capacity);
        const std::string complaint = err.text();
        if (capacity >= 14) { // the checksum is pushed without asking
            EXPECT_EQ(out.size(), capacity < 18 ? 14u : 18u);
            EXPECT_EQ(complaint, "");
            EXPECT_EQ(pair.get_flags(), 0);
        } else {
            EXPECT_EQ(out, "failed");
            EXPECT_EQ(complaint, capacity < 10 ? "Serialise failed for 1:pair\n" : "Serialise failed2 for 1:pair\n");
            EXPECT_EQ(pair.get_flags(), changed);
            EXPECT_EQ(pair.first.get_flags(), capacity < 10 ? changed : 0) << "what was written counts as saved";
        }
    }
}

TEST(NV_containers, A_load_says_what_is_wrong) {
    const std::string first = value(short_type, 0x0102, bytes({5, 0}));
    const std::string second = value(byte_type, 7, bytes({6}));
    const std::string good = frame(1, 5, first + second);
    std::string wrong_crc = good;
    wrong_crc.back() ^= 1;
    const std::string cut_crc = good.substr(0, good.size() - 3);
    const auto number = [](uint32_t n) { return std::to_string(n); };
    const std::string crc = number(Image::crc(good.substr(0, good.size() - 4)));
    const std::string flipped = number(Image::crc(good.substr(0, good.size() - 4)) ^ 0x01000000u);
    const std::string bad = "NV child was bad for 1:pair\n", unknown = "NV unknown child was bad for 1:pair\n";
    const struct {
        const char* what;
        std::string image;
        bool result;
        std::string complaint;
        int first, second; // values afterwards; 1 and 3 are the defaults, 99 was set before
    } table[] = {
        {"good", good, true, "", 5, 6},
        {"other order", frame(1, 5, second + first), true, "", 5, 6},
        {"empty file", "", false, "No NV settings for 1:pair\n", 99, 99},
        {"cut start", good.substr(0, 3), false, "No NV settings for 1:pair\n", 99, 99},
        {"other id", frame(1, 6, first), false, "Bad NV settings 6!=5 1!=1 1!=1 for 1:pair\n", 99, 99},
        {"other type", frame(13, 5, first), false, "Bad NV settings 5!=5 13!=1 1!=1 for 1:pair\n", 99, 99},
        {"a value", value(1, 5, ""), false, "Bad NV settings 5!=5 1!=1 9!=1 for 1:pair\n", 99, 99},
        {"missing", frame(1, 5, second), true, "", 99, 6},
        {"cut between records", good.substr(0, 10), false, "NV bad for 1:pair\n", 5, 99},
        {"cut in a value", good.substr(0, 9), false, "NV bad for 1:pair\n", 99, 99},
        {"wrong CRC", wrong_crc, false, "NV_store CRC32 Check " + crc + "!=" + flipped + " for 1:pair\n", 1, 3},
        {"cut CRC", cut_crc, false, "NV_store CRC32 Check " + crc + "!=0 for 1:pair\n", 1, 3},
        {"end of another", header(1, 1, 5) + first + header(13, 2, 77) + "\1\2\3\4", false, "*", 1, 3},
        {"other type of a child", frame(1, 5, value(byte_type, 0x0102, "\5")), false, bad, 99, 99},
        {"unknown value", frame(1, 5, value(short_type, 8, "xx") + first), true, "", 5, 99},
        {"unknown value, wrong marker", frame(1, 5, header(short_type, 8, 8) + "xx" + first), false, unknown, 99, 99},
    };
    for (const auto& row : table) {
        Pair pair(1);
        pair.first.set(99);
        pair.second.set(99);
        saved(pair, NV_iterator::mode_write);
        const Loaded loaded = load(pair, row.image);
        EXPECT_EQ(loaded.result, row.result) << row.what;
        if (row.complaint != "*")
            EXPECT_EQ(loaded.complaint, row.complaint) << row.what;
        else
            EXPECT_NE(loaded.complaint.find("CRC32 Check"), std::string::npos) << row.what;
        EXPECT_EQ(pair.first.get(), row.first) << row.what;
        EXPECT_EQ(pair.second.get(), row.second) << row.what;
        const bool reset = row.first == 1;
        EXPECT_EQ(pair.first.get_flags(), reset ? changed : 0) << "a load is no change, a reset is one";
    }
}

TEST(NV_containers, Unknown_records_are_skipped_by_type) {
    const struct {
        int type;
        size_t size; // of the value; 0: such a record cannot be skipped
    } table[] = {{2, 1},    {3, 1},    {4, 1},    {5, 2},    {6, 4},    {7, 1},    {8, 2},    {9, 4},    {10, 4},
                 {11, 8},   {15, 8},   {16, 8},   {12, 0},   {14, 0},   {17, 0},   {31, 0},   {0x22, 1}, {0x23, 1},
                 {0x25, 2}, {0x2A, 4}, {0x2B, 8}, {0x2F, 0}, {0x30, 0}, {0x21, 0}, {0x2D, 0}, {0x42, 0}, {0xE4, 0}};
    const std::string first = value(short_type, 0x0102, bytes({5, 0}));
    for (const auto& row : table) {
        const bool array = row.type >> 5 == 1;
        std::string record = array ? bytes({3}) + std::string(3 * row.size, 'x') : std::string(row.size, 'x');
        Pair pair;
        const std::string body = value(row.type, 99, record) + first;
        EXPECT_EQ(load(pair, frame(1, 5, body)).result, row.size > 0) << row.type;
        EXPECT_EQ(pair.first.get(), row.size > 0 ? 5 : 0) << row.type;
    }
    Pair pair;
    EXPECT_TRUE(load(pair, frame(1, 5, value(0x25, 99, bytes({0})) + first)).result) << "an array without elements";
}

TEST(NV_containers, An_unknown_container_leaves_its_checksum_to_be_read_as_a_header) {
    const std::string first = value(short_type, 0x0102, bytes({5, 0}));
    for (const int type : {0, 1, 13}) {
        Pair pair;
        const Loaded loaded = load(pair, frame(1, 5, frame(type, 99, value(4, 1, "x")) + first));
        EXPECT_FALSE(loaded.result);
        EXPECT_EQ(loaded.complaint, "NV unknown child was bad for 1:pair\n");
    }
    // A checksum whose second byte says "end" ends the outer container early, which resets it.
    for (int i = 0;; ++i) {
        const std::string unknown = frame(1, 99, value(9, 1, Image::little_endian(static_cast<uint64_t>(i), 4)));
        if (unknown[unknown.size() - 3] != 2) continue;
        Pair pair(77);
        const Loaded loaded = load(pair, frame(1, 5, first + unknown));
        EXPECT_FALSE(loaded.result);
        EXPECT_NE(loaded.complaint.find("NV_store CRC32 Check "), std::string::npos) << loaded.complaint;
        EXPECT_EQ(pair.first.get(), 77);
        break;
    }
    // Without its checksum it is skipped whole; ends that do not fit are refused.
    const std::string start = header(1, 1, 99), inner = value(4, 1, "x");
    const struct {
        std::string record;
        bool result;
    } table[] = {{start + inner + header(1, 2, 99), true},
                 {start + header(13, 1, 4) + header(13, 2, 4) + header(1, 2, 99), true},
                 {start + inner + header(1, 2, 98), false},
                 {start + inner + header(13, 2, 99), false},
                 {header(1, 9, 99) + inner + header(1, 2, 99), false},
                 {start + inner, false}};
    for (const auto& row : table) {
        Pair pair;
        EXPECT_EQ(load(pair, frame(1, 5, row.record + first)).result, row.result) << hex(row.record);
    }
}

TEST(NV_containers, A_wrong_inner_checksum_resets_the_inner_alone) {
    Settings tree(nullptr);
    tree.set_all();
    const std::string image = tree.image(NV_iterator::mode_write);
    const std::string wheel = value(8, 0x0102, bytes({7, 0})) + header(1, 2, 3);
    std::string damaged = image;
    damaged[image.find(wheel) + wheel.size()] ^= 1;
    tree.sections.left.set(99);
    const Loaded loaded = load(tree, damaged);
    EXPECT_FALSE(loaded.result);
    EXPECT_NE(loaded.complaint.find(" for 1:wheel\nNV child was bad for 0:machine\n"), std::string::npos);
    EXPECT_EQ(tree.text(), "{2.5,{true,-2},{99,20,30},wheel/offset}");
}

TEST(NV_containers, Like_elements_are_read_together_so_one_alone_does_not_load) {
    Settings tree(nullptr), other(nullptr);
    tree.set_all();
    EXPECT_TRUE(other.load(tree.image(NV_iterator::mode_write)));
    EXPECT_EQ(other.text(), tree.text());
    tree.sections.right.set(50);
    const Loaded loaded = load(other, tree.image(NV_iterator::mode_journal_1));
    EXPECT_FALSE(loaded.result);
    EXPECT_EQ(loaded.complaint, "NV child was bad for 13:sections\nNV child was bad for 0:machine\n");
    EXPECT_EQ(other.sections.left.get(), 50) << "the first element takes what was meant for the third";
}

TEST(NV_containers, A_journal_is_applied_frame_by_frame) {
    Settings tree(nullptr), other(nullptr);
    std::string journal;
    for (const short v : {1, 2, 3}) {
        tree.wheel.offset.set(v);
        tree.speed.set(static_cast<float>(v));
        journal += tree.image(NV_iterator::mode_journal_1);
    }
    Reader reader(journal);
    Capture err(stderr);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(other.deserialise(&reader.it));
    EXPECT_FALSE(other.deserialise(&reader.it));
    EXPECT_EQ(err.text(), "No NV settings for 0:machine\n");
    EXPECT_EQ(other.wheel.offset.get(), 3);
}

TEST(NV_containers, No_damage_to_an_image_goes_unseen_or_out_of_bounds) {
    Settings tree(nullptr);
    tree.set_all();
    const std::string image = tree.image(NV_iterator::mode_write);
    for (size_t at = 0; at < image.size(); ++at) {
        Settings cut(nullptr);
        EXPECT_FALSE(load(cut, image.substr(0, at)).result) << at;
        for (int bit = 0; bit < 8; ++bit) {
            std::string flipped = image;
            flipped[at] = static_cast<char>(flipped[at] ^ 1 << bit);
            Settings damaged(nullptr);
            EXPECT_FALSE(load(damaged, flipped).result) << at << '.' << bit;
        }
    }
}

} // namespace
