// SPDX-License-Identifier: MIT
#include "NV_store/Image_builder.h"
#include "support/test.h"

using Image::bytes;
using Image::frame;
using Image::header;
using Image::value;

namespace {

const std::string wheel = frame(1, 3, value(2, 1, bytes({1})) + value(8, 0x0102, bytes({0xFE, 0xFF})));
const std::string image = frame(0, 1,
                                value(10, 2, Image::little_endian(0x3F59999A, 4)) + wheel +
                                    value(14, 5, bytes({2, 3, 0, 2, 1})) + value(0x25, 9, bytes({2, 7, 0, 8, 1})));

TEST(nv_dump, prints_an_image_and_the_changes_behind_it) {
    Temporary_folder folder;
    write_file(folder.file("settings"), image + frame(0, 1, frame(13, 4, "")));
    const Child_result r = run_program(NV_DUMP, {folder.file("settings")});
    EXPECT_EQ(r.out, "root 1\n  float 2 = 0.85\n  struct 3\n    bool 1 = true\n    int16 258 = -2\n"
                     "    CRC ED26C0AC good\n  pointer 5 = 3/258\n  uint16[] 9 = 7 264\n  CRC 9ECEBAC3 good\n"
                     "root 1\n  container 4\n    CRC 3F047002 good\n  CRC 1163EF24 good\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.status, 0);
}

TEST(nv_dump, says_in_one_line_what_is_wrong) {
    std::string bad = image;
    bad[25] ^= 1; // in the inner container's value
    std::string deep;
    for (int i = 0; i < 65; ++i) deep += header(1, 1, i);
    const struct {
        std::string bytes;
        const char* line;
    } table[] = {{"", "it is empty"},
                 {bad, "2 of 2 checksums are wrong"},
                 {image.substr(0, image.size() - 5) + "abcde", "stops at byte 53: the end of another container"},
                 {"garbage", "stops at byte 0: no record"},
                 {wheel + header(1, 2, 3), "stops at byte 23: the end of a container that did not start"},
                 {header(12, 9, 1) + "x", "stops at byte 0: a value of an unknown type or length"},
                 {header(14, 9, 1) + bytes({17}), "stops at byte 0: a value of an unknown type or length"},
                 {header(2, 1, 1), "stops at byte 0: a container of an unknown type"},
                 {deep, "stops at byte 260: the end of a container is missing"}};
    for (const auto& row : table) {
        const Child_result r = run_program(NV_DUMP, {"-"}, row.bytes);
        EXPECT_EQ(r.err, std::string("nv_dump: -: ") + row.line + "\n");
        EXPECT_EQ(r.status, 1);
    }
    EXPECT_NE(run_program(NV_DUMP, {"-"}, bad).out.find("CRC ED26C0AC bad, computed 267A1309"), std::string::npos);
    for (size_t n = 1; n < image.size(); ++n) {
        const Child_result r = run_program(NV_DUMP, {"-"}, image.substr(0, n));
        EXPECT_EQ(r.status, 1) << n;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
    for (const char* output : {">&-", ">/dev/full"})
        EXPECT_EQ(run_shell(NV_DUMP " --help " + std::string(output)).status, 2) << output;
    for (const std::vector<std::string>& wrong :
         std::vector<std::vector<std::string>>{{}, {"a", "b"}, {"-x"}, {"/none"}})
        EXPECT_EQ(run_program(NV_DUMP, wrong).status, 2);
}

} // namespace
