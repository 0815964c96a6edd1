// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"

namespace Debug {

/// Abstract sink of the `print` functions of the stores: a tree of named groups and labelled texts.
class KAV_API Dumper {
public:
    /// Opens a group. False: the caller leaves the group out, calling neither field() nor end() for it.
    virtual bool start(const char* name) = 0;
    /// Closes the group opened last.
    virtual void end(const char* name) = 0;
    /// One labelled text of the open group. Neither pointer is kept.
    virtual void field(const char* label, const char* text) = 0;
    virtual ~Dumper();
};

} // namespace Debug
