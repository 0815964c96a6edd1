// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <cstdio>
#include <string>

/// A picture that is being written to a file, on white ground: it begins with the constructor and is complete with the
/// destructor. Whether all was written, the file knows (`ferror`). Numbers come in the C locale, whatever the
/// process's. Places and sizes are in pixels from the upper left corner.
class Svg {
public:
    Svg(FILE* out, double width, double height, int font_size);
    ~Svg();
    Svg(const Svg&) = delete;
    Svg& operator=(const Svg&) = delete;

    /// As printf.
    KAV_PRINTF(2, 3) void put(const char* fmt, ...);
    /// Words that may hold anything. `attributes`, such as `text-anchor="end"`, may be empty.
    void text(double x, double y, const char* attributes, const std::string& words);
    /// The points of a line, one call each; `attributes` as above, taken for the first one.
    void line_to(double x, double y, const std::string& attributes);
    void end_line(); ///< nothing when none has begun

    /// Text as it may stand between tags and in attributes: no markup, and a '_' for what is no printable ASCII.
    static std::string escaped(const std::string& text);
    /// For an axis or a scale: the largest of 1, 2 and 5 times a power of ten that is not above `wanted`, which is
    /// positive.
    static double step(double wanted);

private:
    FILE* const _out;
    bool _in_line = false;
};
