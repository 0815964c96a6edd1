// SPDX-License-Identifier: MIT
#pragma once
#include "Line.h"
#include "glue/cds/CDS_client.h"
#include "glue/cds/CDS_structure.h"
#include <memory>
#include <string>
#include <vector>

/// A controller's data block as its server tells of it. All text is free of control characters.
class Live_block {
public:
    struct Item {
        std::string name, path; ///< the path without the outermost item's name
        Data_item::item_type_t type;
        unsigned short id;
        int depth;
        bool container, array;
        // After a look:
        size_t elements = 0;             ///< of an array
        std::vector<std::string> values; ///< of the elements; a char array is one text, in quotes
        std::vector<double> numbers;     ///< the same; none of a text

        bool is_text() const { return array && type == Data_item::item_char; }
        /// "path[2]" for an element.
        std::string path_of(size_t element) const;
    };

    /// Open the way and fetch the description; empty, or why not. `stop` as Line has it.
    std::string open(const std::string& source, int stop);
    /// Fetch all values, or those of the items in `only` (places in items); empty, or why not.
    std::string look(const std::vector<size_t>& only);
    /// Give the item of this path a value; empty, or why not.
    std::string set(const std::string& path, const std::string& value);

    std::vector<Item> items; ///< in the order of the description

private:
    std::string must(CDS::Remote::Client::Result result) const;
    static bool take(Item& item, CDS::Remote::Receive_buffer& in);
    std::string look_at_all();

    std::unique_ptr<Line> _line;
    std::unique_ptr<CDS::Remote::Client> _client;
};

/// Whether `path` is `wanted` or lies in it: an element, or an item of a struct.
bool is_in(const std::string& path, const std::string& wanted);
