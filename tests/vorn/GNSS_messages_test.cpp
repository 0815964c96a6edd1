// SPDX-License-Identifier: MIT
#include "glue/vorn/Vorn_printer.h"
#include "support/allocations.h"
#include "support/capture.h"
#include "support/frame.h"
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

using namespace GNSS_messages;
using namespace std::string_literals;

namespace {

struct Printed {
    std::string text; ///< what stands in the buffer
    int result;
};

/// Print a frame that fills its heap block into a heap block of `size`.
Printed print(const std::string& frame, bool verbose, int size = 1000) {
    const auto bytes = exact_copy(frame);
    const auto buf = exact_copy(std::string(static_cast<size_t>(size), '#'));
    auto* text = reinterpret_cast<char*>(buf.get());
    const Vorn_message m(bytes.get(), static_cast<uint32_t>(frame.size()));
    const int result = Vorn_printer(verbose).snprint(m, text, size);
    return {std::string(text, strnlen(text, static_cast<size_t>(size))), result};
}

/// One of the two messages with long rows of numbers.
std::string almanac(const std::string& id) {
    Frame f(id.c_str());
    if (id == "GA") {
        f.u1(31).i2(-2).i4(-600000).u1(0xFF).u1(0x0A).u1(1);
        for (float v : {1.5f, -2.f, 5153.5f, .0125f, 1.f, 2.f, -3.f, .5f, -1e-9f}) f.f4(v);
    } else {
        f.u1(24).i1(-7).i2(-1461).f4(86399.5f).u1(0xC0).f4(1).f8(-2.5);
        for (float v : {.001f, 4.f, 5.f, 6.f, 7.f, 8.f}) f.f4(v);
    }
    return f.str();
}

struct Golden {
    std::string frame;
    const char* labelled;
    const char* comma;
};

/// Each message once or more, with a value of its own in each field.
const std::vector<Golden>& golden() {
    static const std::vector<Golden> all = {
        {Frame("PG").f8(0.5).f8(-1.25).f8(123.4567).f4(1.5f).u1(4).str(),
         "PG lat=28.6478897565 lon=-71.6197243914 hgt=123.457m sigma=1.50 type=4",
         "PG,28.6478897565,-71.6197243914,123.457,1.50,4"},
        {Frame("PV").f8(3870000.125).f8(-1).f8(5e6).f4(.25f).f4(1).f4(-2).f4(3).f4(.5f).u1(255).str(),
         "PV pos={3870000.125,-1.000,5000000.000} psigma=0.250 vel={1.000,-2.000,3.000} vsigma=0.500 type=255",
         "PV,{3870000.125,-1.000,5000000.000},0.250,{1.000,-2.000,3.000},0.500,255"},
        {Frame("SG").f4(1).f4(2.25f).f4(.5f).f4(.75f).u1(3).str(), "SG hpos=1.00 vpos=2.25 hvel=0.50 vvel=0.75 type=3",
         "SG,1.00,2.25,0.50,0.75,3"},
        // What is not sent follows from the horizontal dilution alone.
        {Frame("DP").f4(1).f4(9).f4(8).u1(2).str(), "DP hdop=1.00 vdop=9.00 tdop=8.00 gdop=1.73 pdop=1.41 type=2",
         "DP,1.00,9.00,8.00,1.73,1.41,2"},
        {Frame("PS").u1(1).u1(2).u1(3).u1(4).u1(5).u1(6).u1(7).u1(200).str(),
         "PS type=1 locked={2,3} avail={4,5} used={6,7} fix=200", "PS,1,{2,3},{4,5},{6,7},200"},
        {Frame("RD").u2(2024).u1(6).u1(9).u1(1).str(), "RD date=09/06/2024 base=1", "RD,09/06/2024,1"},
        {Frame("ST").u4(0xFFFFFFFE).u1(3).str(), "ST ms=-2 type=3", "ST,-2,3"},
        {Frame("NT").u4(0x80000000).u2(65535).str(), "NT ms=-2147483648 day=65535", "NT,-2147483648,65535"},
        {Frame("GT").u4(0xFFFFFFFF).u2(0).str(), "GT ms=-1 week=0", "GT,-1,0"},
        {Frame("~~").u4(0xFFFFFFFE).str(), "RT ms=4294967294", "RT,4294967294"},
        {Frame("||").str(), "EE", "EE"},
        {almanac("GA"),
         "GA sv=31 week=-2 ms=-600000 healthA=ff healthS=a config=1 af1=1.500e+00 af0=-2.000e+00 rootA=5.154e+03"
         " ecc=1.250e-02 m0=1.000e+00 omega0=2.000e+00 argPer=-3.000e+00 deli=5.000e-01 omegaDot=-1.000e-09",
         "GA,31,-2,-600000,ff,a,1,1.500e+00,-2.000e+00,5.154e+03,1.250e-02,1.000e+00,2.000e+00,-3.000e+00,5.000e-01,"
         "-1.000e-09"},
        {almanac("NA"),
         "NA sv=24 freq=-7 day=-1461 time=86399.500 health=c0 tauN=1.000e+00 tauSys=-2.500e+00 ecc1.000e-03"
         " lambda=4.000e+00 argPer=5.000e+00 delT=6.000e+00 delTdt=7.000e+00 deli=8.000e+00",
         "NA,24,-7,-1461,86399.500,c0,1.000e+00,-2.500e+00,1.000e-03,4.000e+00,5.000e+00,6.000e+00,7.000e+00,"
         "8.000e+00"},
        {Frame("E1").u1(0).u1(255).str(), "E1 0 255", "E1,0,255"},
        {Frame("E2").u1(40).str(), "E2 40", "E2,40"},
        {Frame("SI").str(), "SI", "SI"},
        {Frame("SS").u1(5).u1(6).str(), "SS 5", "SS,5"},
        {Frame("EL").i1(-5).i1(90).i1(-128).str(), "EL -5 90 -128", "EL,-5,90,-128"},
        {Frame("AZ").u1(10).u1(179).u1(255).str(), "AZ 20 358 510", "AZ,20,358,510"},
        // Twice as many two-byte elements as there are: the fourth reads the line end, the others nothing.
        {Frame("TC").u2(258).u2(65535).u2(7).bare() + "\n", "TC 258 65535 7 0 0", "TC,258,65535,7,0,0"},
        {Frame("TC").u2(1).u1(0x02).bare() + "\x03\x04\n", "TC 1 770", "TC,1,770"},
        // Texts end at a zero or with the view.
        {"RE006%1%ok\n", "RE006%1%ok\n", "RE006%1%ok\n"},
        {std::string("ER004,no\n\0hidden", 16), "ER004,no\n", "ER004,no\n"},
        {"DL", "DL", "DL"},
    };
    return all;
}

TEST(Vorn_printer, prints_each_message_in_both_forms) {
    for (const Golden& g : golden()) {
        for (const bool verbose : {true, false}) {
            const std::string expected = verbose ? g.labelled : g.comma;
            const Printed p = print(g.frame, verbose);
            EXPECT_EQ(p.text, expected);
            EXPECT_EQ(p.result, static_cast<int>(expected.size())) << expected;
        }
    }
}

TEST(Vorn_printer, cuts_what_does_not_fit_and_says_how_much_is_left) {
    for (const Golden& g : golden()) {
        const std::string whole = g.labelled;
        const auto form = find(static_cast<uint16_t>(g.frame[0] | g.frame[1] << 8))->form;
        for (int size = 1; size <= static_cast<int>(whole.size()) + 2; ++size) {
            // Elements of an array leave one more byte free than they need to.
            size_t kept = static_cast<size_t>(size) - 1;
            if (form == Form::array && kept > 2) --kept;
            const Printed p = print(g.frame, true, size);
            EXPECT_EQ(p.text, whole.substr(0, kept)) << size;
            const bool text = form == Form::text;
            EXPECT_EQ(p.result, static_cast<int>(text ? whole.size() : p.text.size())) << whole << size;
        }
    }
}

TEST(Vorn_printer, reads_zero_for_what_a_cut_frame_lacks) {
    EXPECT_EQ(print("PG", true).text, "PG lat=0.0000000000 lon=0.0000000000 hgt=0.000m sigma=0.00 type=0");
    EXPECT_EQ(print("RD006\xE8\x07\x06", true).text, "RD date=00/06/2024 base=0");
    EXPECT_EQ(print("SI005\x01", true).text, "SI 1 0 0 0");
    // None of the fields may be looked for behind the end.
    const Capture out(stdout), err(stderr);
    for (const Golden& g : golden()) {
        for (size_t n = 0; n < g.frame.size(); ++n) print(g.frame.substr(0, n), true);
    }
}

TEST(Vorn_printer, an_array_message_that_is_too_short_leaves_the_buffer_alone) {
    for (const std::string frame : {"E1000", "E2000", "EC000", "NN000", "SI000", "EL000", "AZ000", "TC000",
                                    "SS001x"}) { // the last one has two spare bytes
        Capture out(stdout);
        const Printed p = print(frame, true, 10);
        EXPECT_EQ(out.text(), frame.substr(0, 2) + " message too short\n");
        EXPECT_TRUE(p.text == "##########" && p.result == 0) << p.text;
    }
}

TEST(Vorn_printer, an_unknown_message_is_dumped) {
    const struct {
        std::string frame;
        int size;
        std::string text, line;
    } cases[] = {{"ZZ002\0\xFF"s, 100, "ZZ ???:  5a 5a 30 30 32 00 ff\n", "UNKNOWN ZZ\n"},
                 {"ZZ002", 13, "ZZ ???:  5a ", "UNKNOWN ZZ\n"},
                 {"ZZ002", 1, "", "UNKNOWN ZZ\n"},
                 {"Z", 100, "Z 5a\n", "UNKNOWN Z\0\n"s},
                 {"", 100, "\n", "UNKNOWN \0\0\n"s}};
    for (const auto& c : cases) {
        Capture err(stderr);
        const Printed p = print(c.frame, true, c.size);
        EXPECT_EQ(err.text(), c.line);
        EXPECT_EQ(p.text, c.text);
        EXPECT_EQ(p.result, 0);
    }
}

TEST(Vorn_printer, without_room_nothing_happens) {
    Capture out(stdout), err(stderr);
    for (std::string frame : {"PG001x", "E1000", "E1002xx", "RE000", "ZZ000"}) {
        const Vorn_message m(frame.data(), static_cast<uint32_t>(frame.size()));
        for (const int size : {0, -1}) EXPECT_EQ(Vorn_printer().snprint(m, nullptr, size), 0);
    }
    EXPECT_EQ(out.text() + err.text(), "");
}

TEST(Vorn_printer, allocates_nothing) {
    std::vector<Golden> rows = golden();
    const auto round = [&rows] {
        for (Golden& g : rows) {
            char buf[300];
            const Vorn_message m(g.frame.data(), static_cast<uint32_t>(g.frame.size()));
            Vorn_printer().snprint(m, buf, sizeof buf);
        }
    };
    round();
    const long before = allocations();
    ASSERT_GT(before, 0) << "nothing is counted";
    round();
    EXPECT_EQ(allocations(), before);
}

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
