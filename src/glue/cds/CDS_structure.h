// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/Data_item.h"
#include "util/api.h"

namespace CDS::Remote {

/// One item of a structure description that another party sent.
struct Described_item {
    Data_item::class_type_t shape;
    Data_item::item_type_t type;
    unsigned short id;
    const char* name; ///< not terminated; points into the text
    int name_length;  ///< [characters]
    int depth;        ///< 0 for the outermost item
    bool container;   ///< children may follow, one deeper
};

/// Receives the items in the order of the description, a container before its children.
class KAV_API Structure_visitor {
public:
    /// False ends the reading.
    virtual bool item(const Described_item& item) = 0;

protected:
    ~Structure_visitor() = default;
};

enum Structure_result {
    structure_complete = 0, ///< one whole description, nothing behind it
    structure_stopped = 1,  ///< the visitor ended it
    structure_cut = 2,      ///< the text ends inside
    structure_malformed = 3 ///< something that no description holds, or nesting deeper than 64
};

/// Read a structure description of `length` [bytes] that came from outside: any bytes are safe, none behind `length` is
/// looked at, and no terminating zero is needed. Allocates nothing. O(length)
KAV_API Structure_result read_structure(const char* text, int length, Structure_visitor& visitor);

} // namespace CDS::Remote
