// SPDX-License-Identifier: MIT
#include "glue/vorn/GNSS_messages.h"
#include "support/frame.h"
#include <gtest/gtest.h>
#include <set>
#include <string>

using namespace GNSS_messages;

namespace {

/// Length [bytes] of the whole frame as the receiver sends it; for arrays and texts the least.
const struct {
    const char* wire;
    Form form;
    int length;
} published[] = {
    {"PG", Form::fields, 35}, {"PV", Form::fields, 51}, {"SG", Form::fields, 23}, {"DP", Form::fields, 19},
    {"PS", Form::fields, 14}, {"RD", Form::fields, 11}, {"ST", Form::fields, 11}, {"NT", Form::fields, 12},
    {"GT", Form::fields, 12}, {"~~", Form::fields, 10}, {"||", Form::fields, 6},  {"GA", Form::fields, 52},
    {"NA", Form::fields, 51}, {"E1", Form::array, 6},   {"E2", Form::array, 6},   {"EC", Form::array, 6},
    {"NN", Form::array, 6},   {"SI", Form::array, 6},   {"SS", Form::array, 7},   {"EL", Form::array, 6},
    {"AZ", Form::array, 6},   {"TC", Form::array, 6},   {"RE", Form::text, 5},    {"ER", Form::text, 5},
    {"DL", Form::text, 5},    {"NP", Form::text, 5},
};

uint16_t id_of(const char* wire) {
    return static_cast<uint16_t>(static_cast<unsigned char>(wire[0]) + 256 * static_cast<unsigned char>(wire[1]));
}

Vorn_message view(std::string& bytes) { return {bytes.data(), static_cast<uint32_t>(bytes.size())}; }

TEST(GNSS_messages, the_catalogue_knows_each_identifier_and_its_lengths) {
    std::set<unsigned> known;
    for (const auto& p : published) {
        const Info* info = find(id_of(p.wire));
        ASSERT_NE(info, nullptr) << p.wire;
        EXPECT_EQ(info->form, p.form) << p.wire;
        EXPECT_EQ(info->min_length, p.length) << p.wire;
        EXPECT_EQ(info->max_length, p.form == Form::fields ? p.length : 4100) << p.wire;
        known.insert(info->id);
    }
    int n = 0;
    catalogue(n);
    EXPECT_EQ(static_cast<size_t>(n), known.size());
    for (unsigned id = 0; id <= 0xFFFF; ++id) {
        EXPECT_EQ(find(static_cast<uint16_t>(id)) != nullptr, known.count(id) == 1) << id;
    }
}

TEST(GNSS_messages, an_index_stays_inside_its_field_and_its_frame) {
    std::string ps = Frame("PS").u1(1).u1(2).u1(3).u1(4).u1(5).u1(6).u1(7).u1(8).str();
    std::string tc = Frame("TC").u2(0xFFFE).u2(1).bare();
    const Msg_PS p(view(ps));
    const Msg_TC t(view(tc));
    EXPECT_TRUE(p.avail(1) == 5 && p.used(0) == 6);
    const int values[][3] = {{0, 2, 0xFFFE}, {1, 3, 1}, {2, 0, 0}, {-1, 0, 0}, {0x7FFFFFFF, 0, 0}};
    for (const auto& [index, locked, element] : values) {
        EXPECT_EQ(p.locked(index), locked) << index;
        EXPECT_EQ(t.get(index), element) << index;
    }
}

} // namespace
