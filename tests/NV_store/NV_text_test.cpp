// SPDX-License-Identifier: MIT
#include "NV_store/Settings_fixture.h"
#include "glue/NV_store/NV_text.h"
#include "support/test.h"

using namespace NV_store;

namespace {

template <class T>
using Limits = std::numeric_limits<T>;

/// Says that it is what it is not.
struct Own_type : NV_int8 {
    using NV_int8::NV_int8;
    item_type_t get_type() const override { return item_double; }
};

/// Every type, and names that a path cannot hold.
struct Odd : NV_root {
    Odd() : NV_root(nullptr, 1, "odd") {}
    NV_char c{this, 1, "c", '\xE4'};
    NV_uint8 u8{this, 2, "", 255};
    NV_uint32 u32{this, 3, "a/b", Limits<unsigned>::max()};
    NV_int8 i8{this, 4, "=", -128};
    NV_int32 i32{this, 5, "#1", Limits<int>::min()};
    NV_uint64 u64{this, 6, "[6]", Limits<unsigned long long>::max()};
    NV_int64 i64{this, 7, "a b", Limits<long long>::min()};
    NV_float f{this, 8, "f", 0.1f};
    NV_double d{this, 9, "twin", -Limits<double>::infinity()};
    NV_bool b{this, 10, "twin", true};
    NV_pointer to_twin{this, 11, "to twin"}, none{this, 12, "line\n"};
    Own_type own{this, 13, "own"};
};

TEST(NV_text, names_each_setting_by_a_path_of_its_own) {
    Settings tree(nullptr);
    tree.set_all();
    tree.active.set(&tree.sections.left);
    EXPECT_EQ(export_text(tree), "speed=2.5\nwheel/fitted=false\nwheel/offset=7\nsections/0=10\nsections/1=20\n"
                                 "sections/2=30\nactive=sections/0\n");
    Odd odd;
    odd.to_twin.set(&odd.b);
    EXPECT_EQ(export_text(odd), "c=228\n[1]=255\n[2]=4294967295\n[3]=-128\n[4]=-2147483648\n"
                                "[5]=18446744073709551615\na b=-9223372036854775808\nf=0.1\n[8]=-inf\n[9]=true\n"
                                "to twin=[9]\n[11]=\n# own has no text form\n");
}

TEST(NV_text, reads_back_what_it_wrote) {
    Settings from(nullptr), to(nullptr);
    from.set_all();
    from.active.set(&from.sections);
    EXPECT_EQ(import_text(to, export_text(from)).values, 7);
    EXPECT_EQ(to.text(), from.text());
    std::mt19937_64 random(7);
    Odd a, b;
    for (int i = 0; i < 3000; ++i) {
        const unsigned long long bits = random();
        float f;
        memcpy(&f, &bits, sizeof f);
        a.f.set(f);
        a.d.set(i % 2 ? static_cast<double>(bits) / 3e9 : static_cast<double>(f));
        const std::string text = export_text(a), error = import_text(b, text).error;
        const float back = b.f.get();
        ASSERT_EQ(error + export_text(b), text);
        ASSERT_TRUE(f != f || (memcmp(&back, &f, sizeof f) == 0 && a.d.get() == b.d.get())) << text;
    }
}

TEST(NV_text, takes_what_a_hand_may_have_written) {
    Settings tree(nullptr);
    int told = 0;
    QObject::connect(&tree.wheel.offset, &NV_item::value_changed, [&] { told += tree.is_locked(); });
    const Import_result r =
        import_text(tree, "# a comment\r\n\r\n  wheel/offset =\t-0 \r\nwheel/fitted=no\n\nspeed=1e1\n"
                          "sections/1=0xfF\nactive=");
    EXPECT_EQ(r.error + tree.text(), "{10,{false,0},{0,255,0},}");
    EXPECT_VALUES("5 1", r.values, told);
}

TEST(NV_text, a_refused_text_changes_nothing_and_says_why) {
    const std::pair<const char*, const char*> table[] = {
        {"wheel/offset", "no '=' in \"wheel/offset\""},
        {"wheel/size=1", "wheel/size: there is no such setting"},
        {"sections/3=1", "sections/3: there is no such setting"},
        {"wheel=1", "wheel: is no setting but a container"},
        {"speed=2", "speed: was set in line 1 already"},
        {"wheel/offset=32768", "wheel/offset: \"32768\" is no number from -32768 to 32767"},
        {"wheel/offset=0x-1", "wheel/offset: \"0x-1\" is no number from -32768 to 32767"},
        {"sections/0=1 2", "sections/0: \"1 2\" is no number from 0 to 65535"},
        {"wheel/fitted=truly", "wheel/fitted: \"truly\" is neither true nor false"},
        {"active=wheel/none\a", "active: there is nothing at \"wheel/none?\""},
        {"active=sections/1", "active: cannot point at \"sections/1\""},
        {"active=/", "active: cannot point at \"/\""},
    };
    Settings tree(nullptr);
    for (const auto& [line, error] : table) {
        const Import_result r = import_text(tree, std::string("speed=5\nsections/2=9\n\n") + line);
        EXPECT_EQ(std::to_string(r.values) + " " + r.error, std::string("0 line 4: ") + error);
    }
    for (const std::string value : {"1e39", "0.5f", "infinity", "nan(1)", "1,5", "+1", "0x1p3"})
        EXPECT_EQ(import_text(tree, "speed=" + value).error, "line 1: speed: \"" + value + "\" is no number that fits");
    EXPECT_LT(import_text(tree, "speed=" + std::string(1000, '9')).error.size(), 120u);
    EXPECT_EQ(tree.text(), Settings(nullptr).text());
    Odd odd;
    EXPECT_EQ(import_text(odd, "own=1").error, "line 1: own: has a type without a text form");
}

} // namespace
