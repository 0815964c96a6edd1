// SPDX-License-Identifier: MIT
#include "NV_store/Image_builder.h"
#include "apps/Commands.h"

using namespace Image;
using namespace std::string_literals;
using nv_dump = Commands;

namespace {

const std::string wheel = frame(1, 3, value(2, 1, bytes({1})) + value(8, 0x0102, bytes({0xFE, 0xFF})));
const std::string image = frame(0, 1,
                                value(10, 2, little_endian(0x3F59999A, 4)) + wheel +
                                    value(14, 5, bytes({2, 3, 0, 2, 1})) + value(0x25, 9, bytes({2, 7, 0, 8, 1})));

TEST_F(nv_dump, prints_an_image_and_the_changes_behind_it_up_to_where_it_is_damaged) {
    const std::string good = "root 1\n  float 2 = 0.85\n  struct 3\n    bool 1 = true\n    int16 258 = -2\n"
                             "    CRC ED26C0AC good\n  pointer 5 = 3/258\n  uint16[] 9 = 7 264\n  CRC 9ECEBAC3 good\n";
    write_file("settings", image + frame(0, 1, frame(13, 4, "")));
    EXPECT_EQ(answer("nv_dump settings"),
              "0 " + good + "root 1\n  container 4\n    CRC 3F047002 good\n  CRC 1163EF24 good\n");
    std::string bad = image;
    bad[25] ^= 1; // in the inner container's value
    const std::string got = answer("nv_dump -", bad);
    EXPECT_EQ(got.rfind("1 nv_dump: -: 2 of 2 checksums are wrong\nroot 1\n", 0), 0u) << got;
    EXPECT_NE(got.find("\n    CRC ED26C0AC bad, computed 267A1309\n"), std::string::npos) << got;

    std::string deep;
    for (int i = 0; i < 65; ++i) deep += header(1, 1, i);
    for (const auto& [bytes, complaint] :
         {std::pair{image.substr(0, image.size() - 5) + "abcde", "53: the end of another container"},
          {wheel + header(1, 2, 3), "23: the end of a container that did not start"},
          {deep, "260: the end of a container is missing"}}) {
        const std::string end = "1 nv_dump: -: stops at byte "s + complaint + "\n";
        EXPECT_EQ(answer("nv_dump -", bytes).substr(0, end.size()), end);
    }
    expect_cuts_told("nv_dump -", image, 1);
}

} // namespace
