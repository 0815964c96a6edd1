// SPDX-License-Identifier: MIT
#include "glue/vorn/Vorn_printer.h"
#include "support/frame.h"
#include "support/test.h"
#include <regex>

using namespace GNSS_messages;
using namespace std::string_literals;

namespace {

using Printed = std::pair<std::string, int>; ///< what stands in the buffer, and the result

/// Print a frame that fills its heap block into a heap block of `size`.
Printed print(const std::string& frame, bool verbose, int size = 1000) {
    std::vector<char> bytes(frame.begin(), frame.end()), buf(static_cast<size_t>(size), '#');
    const Vorn_message m(bytes.data(), static_cast<uint32_t>(frame.size()));
    static const int warm = Vorn_printer().snprint(Msg_EE(m), buf.data(), 1);
    const long before = allocations() + warm;
    const int result = Vorn_printer(verbose).snprint(m, buf.data(), size);
    EXPECT_TRUE(result == 0 || allocations() == before);
    return {std::string(buf.data(), strnlen(buf.data(), buf.size())), result};
}

/// The other form: commas for the blanks, and neither labels nor a unit.
std::string comma_form(const std::string& labelled) {
    return std::regex_replace(labelled, std::regex("m? (\\w+=|ecc)?"), ",");
}

/// Each message once or more, with a value of its own in each field.
const std::pair<std::string, std::string> golden[] = {
    {Frame("PG").f8(0.5).f8(-1.25).f8(123.4567).f4(1.5f).u1(4).str(),
     "PG lat=28.6478897565 lon=-71.6197243914 hgt=123.457m sigma=1.50 type=4"},
    {Frame("PV").f8(3870000.125).f8(-1).f8(5e6).f4(.25f, 1, -2, 3, .5f).u1(255).str(),
     "PV pos={3870000.125,-1.000,5000000.000} psigma=0.250 vel={1.000,-2.000,3.000} vsigma=0.500 type=255"},
    {Frame("SG").f4(1, 2.25f, .5f, .75f).u1(3).str(), "SG hpos=1.00 vpos=2.25 hvel=0.50 vvel=0.75 type=3"},
    // What is not sent follows from the horizontal dilution alone.
    {Frame("DP").f4(1, 9, 8).u1(2).str(), "DP hdop=1.00 vdop=9.00 tdop=8.00 gdop=1.73 pdop=1.41 type=2"},
    {Frame("PS").u1(1, 2, 3, 4, 5, 6, 7, 200).str(), "PS type=1 locked={2,3} avail={4,5} used={6,7} fix=200"},
    {Frame("RD").u2(2024).u1(6, 9, 1).str(), "RD date=09/06/2024 base=1"},
    {Frame("ST").u4(0xFFFFFFFE).u1(3).str(), "ST ms=-2 type=3"},
    {Frame("NT").u4(0x80000000).u2(65535).str(), "NT ms=-2147483648 day=65535"},
    {Frame("GT").u4(0xFFFFFFFF).u2(0).str(), "GT ms=-1 week=0"},
    {Frame("~~").u4(0xFFFFFFFE).str(), "RT ms=4294967294"},
    {Frame("||").str(), "EE"},
    {Frame("GA").u1(31).u2(-2).u4(-600000).u1(0xFF, 0x0A, 1).f4(1.5f, -2, 5153.5f, .0125f, 1, 2, -3, .5f, -1e-9f).str(),
     "GA sv=31 week=-2 ms=-600000 healthA=ff healthS=a config=1 af1=1.500e+00 af0=-2.000e+00 rootA=5.154e+03"
     " ecc=1.250e-02 m0=1.000e+00 omega0=2.000e+00 argPer=-3.000e+00 deli=5.000e-01 omegaDot=-1.000e-09"},
    {Frame("NA").u1(24).u1(-7).u2(-1461).f4(86399.5f).u1(0xC0).f4(1).f8(-2.5).f4(.001f, 4, 5, 6, 7, 8).str(),
     "NA sv=24 freq=-7 day=-1461 time=86399.500 health=c0 tauN=1.000e+00 tauSys=-2.500e+00 ecc1.000e-03"
     " lambda=4.000e+00 argPer=5.000e+00 delT=6.000e+00 delTdt=7.000e+00 deli=8.000e+00"},
    {Frame("E1").u1(0, 255).str(), "E1 0 255"},
    {Frame("E2").u1(40).str(), "E2 40"},
    {Frame("EC").u1(41, 7).str(), "EC 41 7"},
    {Frame("NN").u1(1, 24).str(), "NN 1 24"},
    {Frame("SI").str(), "SI"},
    {Frame("SI").u1(200).str(), "SI 200"},
    {Frame("SS").u1(5, 6).str(), "SS 5"},
    {Frame("EL").u1(-5).u1(90).u1(-128).str(), "EL -5 90 -128"},
    {Frame("AZ").u1(10, 179, 255).str(), "AZ 20 358 510"},
    // Twice as many two-byte elements as there are: the fourth reads the line end, the others nothing.
    {Frame("TC").u2(258).u2(65535).u2(7).bare() + "\n", "TC 258 65535 7 0 0"},
    {Frame("TC").u2(1).u1(0x02).bare() + "\x03\x04\n", "TC 1 770"},
    // Texts end at a zero or with the view.
    {"RE006%1%ok\n", "RE006%1%ok\n"},
    {"ER004,no\n\0hidden"s, "ER004,no\n"},
    {"NP", "NP"},
    {"DL", "DL"},
};

TEST(Vorn_printer, prints_each_message_in_both_forms_and_cuts_what_does_not_fit) {
    for (const auto& [frame, labelled] : golden) {
        const Form form = find(static_cast<uint16_t>(frame[0] | frame[1] << 8))->form;
        for (const bool verbose : {true, false}) {
            const std::string whole = verbose ? labelled : comma_form(labelled);
            for (size_t size = 1; size <= whole.size() + 2; ++size) {
                // Elements of an array leave one more byte free than they need to.
                const std::string kept = whole.substr(0, size - (form == Form::array && size > 3 ? 2 : 1));
                const size_t result = (form == Form::text ? whole : kept).size();
                EXPECT_EQ(print(frame, verbose, static_cast<int>(size)), Printed(kept, result)) << size;
            }
        }
    }
    const Capture out(stdout), err(stderr);
    for (const auto& [frame, labelled] : golden) // none of the fields may be looked for behind the end
        for (size_t n = 0; n < frame.size(); ++n) print(frame.substr(0, n), true);
}

TEST(Vorn_printer, reads_zero_for_what_a_frame_lacks_calls_arrays_too_short_and_dumps_what_is_unknown) {
    EXPECT_EQ(print("RD006\xE8\x07\x06", true).first, "RD date=00/06/2024 base=0");
    EXPECT_EQ(print("SI005\x01", true).first, "SI 1 0 0 0");
    std::string ps = Frame("PS").u1(1, 2, 3, 4).str();
    const Msg_PS m(Vorn_message(ps.data(), static_cast<uint32_t>(ps.size())));
    EXPECT_VALUES("3 0 0 0", m.locked(1), m.locked(2), m.locked(-1), m.used(1));
    for (const std::string frame : {"E1000", "E2000", "EC000", "NN000", "SI000", "EL000", "AZ000", "TC000",
                                    "SS001x"}) { // the last one has two spare bytes
        Capture out(stdout);
        EXPECT_EQ(print(frame, true, 10), Printed("##########", 0)) << "untouched";
        EXPECT_EQ(out.text(), frame.substr(0, 2) + " message too short\n");
    }
    Capture err(stderr);
    EXPECT_EQ(print("ZZ002\0\xFF"s, true, 100), Printed("ZZ ???:  5a 5a 30 30 32 00 ff\n", 0));
    EXPECT_EQ(print("ZZ002", true, 13), Printed("ZZ ???:  5a ", 0));
    EXPECT_EQ(print("", true, 100), Printed("\n", 0));
    EXPECT_EQ(err.text(), "UNKNOWN ZZ\nUNKNOWN ZZ\nUNKNOWN \0\0\n"s);
}

} // namespace
