// SPDX-License-Identifier: MIT
#include "NV_store/Image_builder.h"
#include "NV_store/Settings_fixture.h"
#include "glue/NV_store/NV_scan.h"
#include "support/frame.h"
#include "support/test.h"

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
std::string saved(NV_item& item, NV_iterator::modes_t mode = NV_iterator::mode_write, int capacity = 1024) {
    const auto block = std::make_unique<unsigned char[]>(static_cast<size_t>(capacity));
    NV_buffer_iterator it(block.get(), capacity, 0);
    it.set_mode(mode);
    if (!item.serialise(&it)) return "failed";
    return std::string(reinterpret_cast<char*>(block.get()), static_cast<size_t>(it.write_position));
}

struct Loaded {
    bool result;
    std::string complaint;
    int left; ///< [bytes] not read
};

/// From a copy of exactly the image's size, so that a read beyond it is seen.
template <class Operation>
Loaded read(const std::string& image, Operation operation) {
    const auto exact = exact_copy(image);
    NV_buffer_iterator it(exact.get(), static_cast<int>(image.size()), static_cast<int>(image.size()));
    it.set_mode(NV_iterator::mode_read);
    Capture err(stderr);
    const bool result = operation(&it);
    return {result, err.text(), it.write_position - it.read_position};
}

Loaded load(NV_item& item, const std::string& image) {
    return read(image, [&](NV_iterator* it) { return item.deserialise(it); });
}

/// A container outside any tree, with a setting in it.
struct Pair : NV_container {
    explicit Pair(int first_default = 0)
        : NV_container(5, "pair"), first(this, 0x0102, "first", static_cast<short>(first_default)) {}
    NV_int16 first;
    NV_uint8 second{this, 7, "second", 3};
};

const std::string first_5 = value(short_type, 0x0102, bytes({5, 0})), second_6 = value(byte_type, 7, bytes({6}));

// ---- values

template <class Number, class T>
void check_record(T stored, const char* expected) {
    Number item(nullptr, 0x0102, "item"), other(nullptr, 0x0102, "other");
    item.set(stored);
    const std::string record = saved(item);
    EXPECT_EQ(hex(record), expected);
    EXPECT_VALUES(texts(true, stored, 0), load(other, record).result, other.get(), other.get_flags()) << expected;
    EXPECT_EQ(read(record, Number::deserialise_unknown).left, 0);
    for (size_t length = 4; length < record.size(); ++length) {
        const std::string cut = record.substr(0, length);
        Number kept(nullptr, 0x0102, "kept");
        EXPECT_VALUES(texts(true, T()), load(kept, cut).result, kept.get()) << "the frame's CRC is what tells";
        EXPECT_FALSE(read(cut, Number::deserialise_unknown).result);
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
    NV_bool item(nullptr, 1, "item");
    EXPECT_VALUES("true true", load(item, bytes({2, 9, 1, 0, 0x80})).result, item.get());
}

TEST(NV_values, Take_over_only_values_of_their_type_and_return_to_their_default) {
    for (const size_t at : {0u, 1u, 2u, 3u}) {
        std::string other = first_5;
        other[at] ^= 1;
        NV_int16 item(nullptr, 0x0102, "item", 9);
        const Loaded loaded = load(item, other);
        EXPECT_VALUES("true true 2", !loaded.result, loaded.complaint.empty(), loaded.left) << "consumed in silence";
        EXPECT_VALUES(texts(9, NV_item::not_loaded), item.get(), item.get_flags());
    }
    NV_int16 item(nullptr, 1, "item", 4), like(nullptr, 2, "like", 8);
    NV_uint16 unlike(nullptr, 3, "unlike", 8);
    struct : NV_uint8 {
        using NV_uint8::NV_uint8;
        item_type_t get_type() const override { return item_int16; } // but it has one byte
    } liar{nullptr, 4, "liar"};
    EXPECT_VALUES("true 8", item.set(like), item.get());
    EXPECT_VALUES("false false", item.set(unlike), item.set(liar));
    EXPECT_TRUE(item.set_default(false));
    EXPECT_VALUES(texts(4, changed), item.get(), item.get_flags());
}

TEST(NV_values, The_mode_and_the_flags_decide_what_is_written) {
    const struct {
        const char* what;
        void (*prepare)(NV_uint8&);
        const char* written; ///< in modes 0 to 5: w written, - left out, x failed
    } table[] = {
        {"fresh", [](NV_uint8&) {}, "xx---x"},
        {"set", [](NV_uint8& i) { i.set(5); }, "xxwwwx"},
        {"changed for the second journal alone",
         [](NV_uint8& i) { i.notify_updated(true, false, false, notify_none, nullptr); }, "xxw-wx"},
        {"saved", [](NV_uint8& i) { i.set(5), saved(i); }, "xxw--x"},
        {"in the first journal", [](NV_uint8& i) { i.set(5), saved(i, NV_iterator::mode_journal_1); }, "xxw--x"},
        {"loaded", [](NV_uint8& i) { load(i, second_6); }, "xxw--x"}};
    for (const auto& row : table) {
        for (int mode = 0; mode <= 5; ++mode) {
            NV_uint8 item(nullptr, 7, "item");
            row.prepare(item);
            const int before = item.get_flags();
            const std::string out = saved(item, static_cast<NV_iterator::modes_t>(mode));
            const char became = out == "failed" ? 'x' : out.empty() ? '-' : 'w';
            EXPECT_EQ(became, row.written[mode]) << row.what << mode;
            EXPECT_EQ(item.get_flags(), became == 'w' ? 0 : before) << row.what << mode;
        }
    }
}

// ---- containers

TEST(NV_containers, Are_stored_as_frames_with_a_checksum) {
    NV_container empty(5, "empty");
    EXPECT_EQ(saved(empty), "") << "never loaded";
    empty.notify_updated(true, notify_none);
    EXPECT_EQ(hex(saved(empty)), "010105000102050011383AF0");

    Settings tree(nullptr), other(nullptr);
    tree.set_all();
    const std::string wheel = frame(1, 3, value(2, 1, bytes({0})) + value(8, 0x0102, bytes({7, 0})));
    const std::string sections =
        frame(13, 4, value(5, 1, bytes({10, 0})) + value(5, 1, bytes({20, 0})) + value(5, 1, bytes({30, 0})));
    const std::string active = value(14, 5, bytes({2, 3, 0, 2, 1}));
    const std::string image = tree.image(NV_iterator::mode_write);
    EXPECT_EQ(hex(image), hex(frame(0, 1, value(10, 2, bytes({0, 0, 0x20, 0x40})) + wheel + sections + active)));
    EXPECT_TRUE(other.load(image));
    EXPECT_EQ(other.get_flags() | other.wheel.get_flags() | other.active.get_flags(), 0);
    EXPECT_EQ(other.text(), tree.text());
    tree.wheel.offset.set(1);
    EXPECT_EQ(hex(tree.image(NV_iterator::mode_journal_2)),
              hex(frame(0, 1, frame(1, 3, value(8, 0x0102, bytes({1, 0}))))))
        << "a journal holds what changed";
    EXPECT_EQ(tree.image(NV_iterator::mode_journal_1), "") << "one save counts for both journals";
    tree.sections.right.set(50);
    const Loaded loaded = load(other, tree.image(NV_iterator::mode_journal_1));
    EXPECT_EQ(loaded.complaint, "NV child was bad for 13:sections\nNV child was bad for 0:machine\n");
    EXPECT_EQ(other.sections.left.get(), 50) << "the first element takes what was meant for the third";
}

TEST(NV_containers, A_save_that_runs_out_of_room_says_where) {
    for (int capacity = 0; capacity <= 18; ++capacity) {
        Pair pair;
        pair.first.set(-2);
        Capture err(stderr);
        const size_t size = saved(pair, NV_iterator::mode_write, capacity).size();
        const char* const where = capacity < 10 ? "Serialise failed for 1:pair\n" : "Serialise failed2 for 1:pair\n";
        const bool whole = capacity >= 14; // the checksum is pushed without asking
        EXPECT_TRUE(size == (capacity == 18 ? 18 : whole ? 14 : strlen("failed"))) << size;
        EXPECT_EQ(err.text(), whole ? "" : where);
        EXPECT_EQ(pair.get_flags(), whole ? 0 : changed);
        EXPECT_EQ(pair.first.get_flags(), capacity < 10 ? changed : 0) << "what was written counts as saved";
    }
}

TEST(NV_containers, A_load_says_what_is_wrong) {
    const std::string good = frame(1, 5, first_5 + second_6), body = good.substr(0, good.size() - 4);
    const auto number = [](uint32_t n) { return std::to_string(n); };
    const std::string crc = number(Image::crc(body)), other_crc = number(Image::crc(body) ^ 1);
    const std::string wrong_crc = body + Image::little_endian(Image::crc(body) ^ 1, 4);
    const std::string other_end = header(1, 1, 5) + first_5 + header(13, 2, 77);
    const std::string bad = "NV child was bad for 1:pair\n", unknown = "NV unknown child was bad for 1:pair\n";
    // A checksum of an unknown container is read as a header: this one says "end", which ends the outer one early.
    std::string early;
    for (unsigned i = 0; early.empty() || early[early.size() - 3] != 2; ++i)
        early = frame(1, 99, value(9, 1, Image::little_endian(i, 4)));
    const auto skipped = [&](const std::string& records) { return frame(1, 5, records + first_5); };
    const std::string start = header(1, 1, 99), inner = value(4, 1, "x"), end = header(1, 2, 99);
    std::string starts, ends;
    for (int depth = 0; depth < 100; ++depth) starts += start, ends += end;
    std::string abyss; // no stack would hold a recursion
    while (abyss.size() < 4000000) abyss += start;
    const struct {
        const char* what;
        std::string image;
        std::string complaint; ///< of a load that failed
        int first, second;     ///< values afterwards; 1 and 3 are the defaults, 99 was set before
    } table[] = {
        {"good", good, "", 5, 6},
        {"other order", frame(1, 5, second_6 + first_5), "", 5, 6},
        {"empty file", "", "No NV settings for 1:pair\n", 99, 99},
        {"cut start", good.substr(0, 3), "No NV settings for 1:pair\n", 99, 99},
        {"other id", frame(1, 6, first_5), "Bad NV settings 6!=5 1!=1 1!=1 for 1:pair\n", 99, 99},
        {"other type", frame(13, 5, first_5), "Bad NV settings 5!=5 13!=1 1!=1 for 1:pair\n", 99, 99},
        {"a value", value(1, 5, ""), "Bad NV settings 5!=5 1!=1 9!=1 for 1:pair\n", 99, 99},
        {"missing", frame(1, 5, second_6), "", 99, 6},
        {"cut between records", good.substr(0, 10), "NV bad for 1:pair\n", 5, 99},
        {"cut in a value", good.substr(0, 9), "NV bad for 1:pair\n", 99, 99},
        {"wrong CRC", wrong_crc, "NV_store CRC32 Check " + crc + "!=" + other_crc + " for 1:pair\n", 1, 3},
        {"cut CRC", good.substr(0, good.size() - 3), "NV_store CRC32 Check " + crc + "!=0 for 1:pair\n", 1, 3},
        {"end of another", other_end + Image::little_endian(Image::crc(other_end), 4), "", 5, 99},
        {"other type of a child", frame(1, 5, value(byte_type, 0x0102, "\5")), bad, 99, 99},
        {"unknown value, wrong marker", skipped(header(short_type, 8, 8) + "xx"), unknown, 99, 99},
        {"array without elements", skipped(value(0x25, 99, bytes({0}))), "", 5, 99},
        {"unknown struct", skipped(frame(1, 99, inner)), unknown, 99, 99},
        {"unknown root", skipped(frame(0, 99, inner)), unknown, 99, 99},
        {"unknown list", skipped(frame(13, 99, inner)), unknown, 99, 99},
        {"its checksum ends the outer one", frame(1, 5, first_5 + early), "*", 1, 3},
        {"without its checksum", skipped(start + inner + end), "", 5, 99},
        {"nested", skipped(start + header(13, 1, 4) + header(13, 2, 4) + end), "", 5, 99},
        {"other end", skipped(start + inner + header(1, 2, 98)), unknown, 99, 99},
        {"end of other type", skipped(start + inner + header(13, 2, 99)), unknown, 99, 99},
        {"nested deeply", skipped(starts + ends), "", 5, 99},
        {"nested without end", skipped(abyss), unknown, 99, 99},
        {"other start", skipped(header(1, 9, 99) + inner + end), unknown, 99, 99},
    };
    for (const auto& row : table) {
        Pair pair(1);
        pair.first.set(99);
        pair.second.set(99);
        saved(pair);
        const Loaded loaded = load(pair, row.image);
        EXPECT_EQ(loaded.result, row.complaint.empty()) << row.what;
        EXPECT_EQ(row.complaint == "*" ? "*" : loaded.complaint, row.complaint) << row.what;
        EXPECT_VALUES(texts(row.first, row.second), pair.first.get(), pair.second.get()) << row.what;
        EXPECT_EQ(pair.first.get_flags(), row.first == 1 ? changed : 0) << "a load is no change, a reset is one";
    }
}

/// As a save in place leaves it: values that are whole are loaded, a checksum that is cut resets its container.
TEST(NV_containers, Cut_anywhere_load_what_is_whole) {
    const std::string good = frame(1, 5, first_5 + second_6);
    for (size_t length = 4; length < good.size(); ++length) {
        Pair pair(1);
        pair.first.set(99);
        pair.second.set(99);
        const bool reset = length + 4 >= good.size();
        EXPECT_FALSE(load(pair, good.substr(0, length)).result) << length;
        EXPECT_VALUES(texts(reset          ? 1
                            : length >= 10 ? 5
                                           : 99,
                            reset          ? 3
                            : length >= 15 ? 6
                                           : 99),
                      pair.first.get(), pair.second.get())
            << length;
    }
}

TEST(NV_containers, May_nest_as_deeply_as_they_like) {
    NV_root root(nullptr, 1, "root");
    std::deque<NV_container> levels;
    for (int i = 0; i < 100; ++i)
        levels.emplace_back(i == 0 ? static_cast<NV_container*>(&root) : &levels.back(), &root, 1, "level");
    NV_uint8 deepest(&levels.back(), 1, "deepest");
    deepest.set(7);
    const std::string image = saved(root, NV_iterator::mode_write, 4096);
    deepest.set(8);
    int dropped = 0;
    EXPECT_VALUES(texts(image.size(), image, 0), whole_records(image, root), prune(image, root, dropped), dropped);
    EXPECT_VALUES("true 7", load(root, image).result, deepest.get());
}

TEST(NV_containers, Unknown_values_are_skipped_by_type_and_load_and_scan_know_the_same) {
    const struct {
        const char* types;
        size_t size;         ///< [bytes] of a value
        bool known, skipped; ///< to the scan; by the load
    } table[] = {{"\x02\x03\x04\x07\x22\x23", 1, true, true},
                 {"\x05\x08\x25", 2, true, true},
                 {"\x06\x09\x0A\x2A", 4, true, true},
                 {"\x0B\x0F\x10\x2B", 8, true, true},
                 {"\x2F\x30", 8, false, false}, // no image holds arrays of 64-bit integers
                 {"\x0C\x11\x1F\x21\x2D\x2E\x42\xE4", 1, false, false},
                 {"\x0E", 2, true, false}}; // a pointer, which only the safe store leaves out
    for (const auto& row : table) {
        for (const unsigned char type : std::string(row.types)) {
            const bool counted = type >> 5 == 1 || type == 0x0E;
            const std::string content = counted ? '\3' + std::string(3 * row.size, 'x') : std::string(row.size, 'x');
            const std::string image = frame(1, 5, value(type, 99, content) + first_5);
            Pair pair;
            EXPECT_EQ(load(pair, image).result, row.skipped) << int{type};
            EXPECT_EQ(pair.first.get(), row.skipped ? 5 : 0) << int{type};
            EXPECT_EQ(whole_records(image, pair), row.known ? image.size() : 0) << int{type};
            int dropped = 0;
            EXPECT_EQ(hex(prune(image, pair, dropped)), row.known ? hex(frame(1, 5, first_5)) : "");
        }
    }
}

TEST(NV_containers, No_damage_goes_unseen_and_a_wrong_inner_checksum_resets_the_inner_alone) {
    Settings tree(nullptr);
    tree.set_all();
    std::string image = tree.image(NV_iterator::mode_write);
    for (size_t bit = 0; bit < 8 * image.size(); ++bit) {
        const char before = std::exchange(image[bit / 8], static_cast<char>(image[bit / 8] ^ 1 << bit % 8));
        EXPECT_FALSE(load(tree, image).result) << bit;
        image[bit / 8] = before;
    }
    tree.set_all();
    tree.sections.left.set(99);
    const std::string wheel = value(8, 0x0102, bytes({7, 0})) + header(1, 2, 3);
    image[image.find(wheel) + wheel.size()] ^= 1;
    const Loaded loaded = load(tree, image);
    EXPECT_NE(loaded.complaint.find(" for 1:wheel\nNV child was bad for 0:machine\n"), std::string::npos);
    EXPECT_EQ(tree.text(), "{2.5,{true,-2},{99,20,30},wheel/offset}");
}

} // namespace
