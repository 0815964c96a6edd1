// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/CDS_remote.h"

/// What the containers of both stores do with their children, a list of items, in the remote format.

/// Hand every child to an operation, in order, until one fails; where a later call may resume is the first sibling
/// behind that one, here or higher up.
template <class Children, class Operation>
Data_item::Serial_ret walk_children(const Children& children, Operation operation) {
    for (auto& child : children) {
        Data_item::Serial_ret result = operation(child);
        if (result.fail()) {
            result.sync_next(children.next(&child));
            return result;
        }
    }
    return Data_item::Serial_ret();
}

/// Append the descriptions of the children, `depth` levels deep.
template <class Children>
void describe_children(const Children& children, CDS::Remote::Send_buffer& out, int depth) {
    if (depth == 0) return;
    // 255 and negative depths mean everything and are handed down as they are.
    const int below = depth > 0 && depth < 255 ? depth - 1 : depth;
    const char* separator = "{";
    for (auto& child : children) {
        out.str_append(separator);
        child.serialise_structure(out, below);
        separator = ",";
    }
    out.str_append(children.size() ? "}" : "{}");
}
