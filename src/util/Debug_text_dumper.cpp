// SPDX-License-Identifier: MIT
#include "util/Debug_text_dumper.h"

namespace Debug {

bool Text_dumper::start(const char* name) {
    fprintf(_out, "%*s%s:\n", 2 * _depth, "", name);
    ++_depth;
    return true;
}

void Text_dumper::end(const char*) { --_depth; }

void Text_dumper::field(const char* label, const char* text) {
    fprintf(_out, "%*s%s: %s\n", 2 * _depth, "", label, text);
}

} // namespace Debug
