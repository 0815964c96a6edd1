// SPDX-License-Identifier: MIT
#pragma once
#include "util/Debug_dumper.h"
#include "util/api.h"
#include <cstdio>

namespace Debug {

/// Dumper that writes indented text, a group as "name:" and a field as "label: text" two blanks further in.
class KAV_API Text_dumper : public Dumper {
public:
    /// `out` outlives the dumper.
    explicit Text_dumper(FILE* out) : _out(out) {}

    bool start(const char* name) override;
    void end(const char* name) override;
    void field(const char* label, const char* text) override;

private:
    FILE* _out;
    int _depth = 0;
};

} // namespace Debug
