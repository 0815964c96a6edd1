// SPDX-License-Identifier: MIT
#include "glue/vorn/Vorn_error_decoder.h"
#include "glue/vorn/Vorn_response.h"
#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace {

using Decoder = Vorn_error_decoder;

// The first use in the process, when each test runs in a process of its own.
TEST(Vorn_error_decoder, threads_that_meet_at_the_first_use_all_find_what_they_look_for) {
    std::thread threads[4];
    for (std::thread& t : threads) t = std::thread([] { EXPECT_EQ(Decoder::get("data transfer delay"), 41); });
    for (std::thread& t : threads) t.join();
    EXPECT_TRUE(Decoder::init_done);
    Decoder::init();
    ASSERT_EQ(Decoder::lookup.count, 41);
    for (int i = 1; i < 41; ++i) EXPECT_TRUE(Decoder::lookup.items[i - 1] < Decoder::lookup.items[i]) << i;
}

TEST(Vorn_error_decoder, numbers_and_texts_lead_to_each_other) {
    const std::pair<int, const char*> known[] = {{1, ",wrong command"},
                                                 {16, ",wrong receiver id"},
                                                 {33, ",can't lock"},
                                                 {40, ",device busy,invalid file length"},
                                                 {41, ",data transfer delay"}};
    for (const auto& [code, text] : known) EXPECT_STREQ(errcode2str(code), text);
    for (int code = 1; code <= 41; ++code) {
        ASSERT_EQ(errcode2str(code)[0], ',') << code;
        EXPECT_EQ(Decoder::get(errcode2str(code) + 1), code);
        EXPECT_EQ(Decoder::get(errcode2str(code)), -1) << "the comma is no part of the text";
    }
    for (const char* text : {"", "wrong", "wrong command ", "device busy"}) EXPECT_EQ(Decoder::get(text), -1) << text;
    EXPECT_EQ(Decoder::get(nullptr), -1);
    for (int code : {0, 42, -1, 0x7FFFFFFF, -0x7FFFFFFF - 1}) EXPECT_EQ(errcode2str(code), nullptr) << code;
}

TEST(Vorn_error_decoder, the_last_field_of_a_reply_decides) {
    const std::pair<std::string, int> cases[] = {
        {"ER011{4,file not found}", 37},
        {"{4,file not found}\r\n", 37}, // a brace ends the text, also before a line end
        {"{file not found,ok}", -1},
        {"wrong command,", -1},
        {"a," + std::string(64, 'x'), -1},
        {"file not found}" + std::string(100, 'x'), 37},
        {std::string(70, 'x') + ",dup loop", 24},
    };
    for (const auto& [reply, code] : cases) EXPECT_EQ(Decoder::extract(reply.c_str()), code) << reply;
    EXPECT_EQ(Decoder::extract(nullptr), -1);

    // As the parser delivers it, with line end and zeros.
    char bytes[] = "ER014%7%{4,file not found\r\n\0";
    Vorn_response reply(bytes, sizeof bytes);
    int len = 0;
    const char* text = reply.strip_identifier(len);
    EXPECT_EQ(Decoder::extract(text, len), 37);
    EXPECT_EQ(Decoder::extract(text, len - 1), -1);
    EXPECT_EQ(Decoder::extract(text), -1);
}

TEST(Vorn_error_decoder, a_table_keeps_its_order_and_its_room) {
    Decoder::Table table;
    EXPECT_EQ(table.find("a"), -1);
    std::string names[42];
    for (int i = 0; i < 41; ++i) {
        names[i] = std::to_string(100 + i * 17 % 41);
        EXPECT_TRUE(table.insert({names[i].c_str(), i}));
        for (int k = 0; k <= i; ++k) ASSERT_EQ(table.find(names[k].c_str()), k) << i;
    }
    EXPECT_FALSE(table.insert({"099", 99}));
    EXPECT_EQ(table.count, 41);
    EXPECT_STREQ(table.items[0].text, "100");
}

} // namespace
