// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_name.h"
#include "jin/Test_bus.h"
#include "support/test.h"

namespace {

TEST(Name, fields_lie_where_the_bus_has_them) {
    const unsigned char bytes[] = {0x40, 0x42, 0x4F, 0x9A, 0x2E, 0x81, 0x32, 0xA3};
    JIN_name n;
    n.set_arbitrary_address(true).set_industry_group(2).set_device_class_instance(3).set_device_class(25);
    n.set_function(129).set_function_instance(5).set_ecu_instance(6);
    n.set_manufacturer_code(1234).set_identity_number(1000000);
    EXPECT_EQ(n.value, 0xA332812E9A4F4240u);
    unsigned char written[8];
    n.to_bytes(written);
    EXPECT_EQ(memcmp(written, bytes, 8), 0);
    const JIN_name r = JIN_name::from_bytes(bytes);
    EXPECT_EQ(r, n);
    EXPECT_VALUES("true 2 3", r.arbitrary_address(), r.industry_group(), r.device_class_instance());
    EXPECT_VALUES("25 129 5 6", r.device_class(), r.function(), r.function_instance(), r.ecu_instance());
    EXPECT_VALUES("1234 1000000", r.manufacturer_code(), r.identity_number());
    // What does not fit changes no neighbour, and each field can be changed again.
    EXPECT_EQ(n.set_ecu_instance(8 + 6).set_identity_number(0x200000 + 1000000).value, r.value);
    EXPECT_EQ(n.set_function(0).value, 0xA332002E9A4F4240u);
    EXPECT_VALUES("true false false", n.wins_against(r), r.wins_against(n), r.wins_against(r));
}

TEST(Message, only_what_applications_may_send_is_sendable) {
    static unsigned char bytes[1786];
    const struct {
        bool sendable;
        JIN_message m;
    } rows[] = {{true, {0xFECA, bytes, 0}},       {true, {0xFECA, bytes, 1785, 255, 0}},
                {false, {0xFECA, bytes, 1786}},   {true, {0xFECA, bytes, 20, 253, 7}},
                {false, {0xFECA, bytes, 8, 254}}, {false, {0xFECA, bytes, 8, 255, 8}},
                {true, {0xEF00, bytes, 8, 0}},    {false, {0xEF01, bytes, 8, 0}},
                {true, {0x3FFFF, bytes, 8}},      {false, {0x40000, bytes, 8}},
                {true, {0xEA00, bytes, 3}},       {false, {0xEE00, bytes, 8}},
                {false, {0xEB00, bytes, 8}},      {false, {0xEC00, bytes, 8}}};
    for (const auto& [sendable, m] : rows) EXPECT_EQ(m.is_sendable(), sendable) << std::hex << m.pgn << ' ' << m.size;
}

TEST(Message, request_names_a_pgn) {
    for (uint32_t size = 0; size < 12; ++size) {
        uint32_t pgn = 0;
        const JIN_grow_message m = message(0xEA00, std::string("\xCA\xFE\x02\0\0\0\0\0\0\0\0", size));
        EXPECT_VALUES(size < 3 || size > 8 ? "false 0" : texts(true, 0x2FECA), m.get_requested_pgn(pgn), pgn) << size;
    }
    uint32_t pgn;
    EXPECT_FALSE(message(0xE800, "123").get_requested_pgn(pgn));
}

TEST(Grow_message, grows_to_its_limit_and_keeps_what_it_has) {
    JIN_grow_message m(0xFECA, 4);
    EXPECT_VALUES("true true true true", m.append_uint8(1), m.append_uint16_le(0x0302), m.append_uint32_le(0x07060504),
                  m.append("", 0));
    m.source = 3;
    const JIN_grow_message copy(m);
    EXPECT_TRUE(m.resize(9));
    EXPECT_EQ(text_of_message(m), "FECA 03>FF 6: 01 02 03 04 05 06 07 FF FF");
    EXPECT_EQ(text_of_message(copy), "FECA 03>FF 6: 01 02 03 04 05 06 07");
    const std::string many(1785, 'x');
    EXPECT_VALUES("false false false", m.append(many.data(), 1785), m.resize(1786), m.append(many.data(), 0xFFFFFFFE));
    EXPECT_EQ(m.size, 9u);
    EXPECT_TRUE(m.append(many.data(), 1776));
    EXPECT_FALSE(m.append_uint8(0));
}

} // namespace
