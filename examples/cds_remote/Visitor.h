// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/CDS_client.h"
#include "glue/cds/CDS_structure.h"
#include <string>
#include <vector>

/// An item as its description names it.
struct Remote_item {
    CDS::Remote::Described_item described;
    std::string name;
};

/// The other party's side: it knows the line, and nothing of the block but what it is told.
class Visitor {
public:
    explicit Visitor(Data_stream& line) : _client(line) {}

    std::string fetch_description();
    /// The items of a description in its order; none when it is malformed.
    static std::vector<Remote_item> items_of(const std::string& description);
    /// Fetch the value of an item, as text.
    std::string read(const Remote_item& item);
    /// Write a value; false when the machine refuses.
    bool write(const Remote_item& item, const std::string& value);

private:
    CDS::Remote::Client _client;
};
