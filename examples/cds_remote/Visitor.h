// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/CDS_structure.h"
#include "glue/data_stream/Data_stream.h"
#include <string>
#include <vector>

/// An item as its description names it.
struct Remote_item {
    CDS::Remote::Described_item described;
    std::string name;
};

/// The other party's side: it knows the line and the remote format, and nothing of the block.
class Visitor {
public:
    explicit Visitor(Data_stream& line) : _line(line) {}

    /// Fetch the whole description, page by page.
    std::string fetch_description();
    /// The items of a description in its order; none when it is malformed.
    static std::vector<Remote_item> items_of(const std::string& description);
    static const char* type_name(const Remote_item& item);
    /// Fetch the value of an item, as text.
    std::string read(const Remote_item& item);
    /// Write an int; false when the machine refuses.
    bool write(const Remote_item& item, int value);

private:
    std::string ask(char kind, const std::string& request);

    Data_stream& _line;
};
