// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_structure.h"
#include "glue/cds/CDS_remote.h"
#include <cstring>

namespace CDS::Remote {
namespace {

constexpr int deepest = 64;

/// Receive_buffer's header reading goes by a terminating zero, so each header is read from a copy that has one. A
/// header is at most 255 characters.
struct Header_copy {
    Header_copy(const char* text, int left) : length(0) {
        while (length < left && length < 255 && !strchr(",{}", text[length])) {
            bytes[length] = text[length];
            ++length;
        }
        bytes[length] = 0;
    }
    char bytes[256];
    int length;
};

/// Whether a text that ends here may yet become a header: hexadecimal digits, after at most one colon.
bool may_go_on(const char* text) {
    constexpr const char* digits = "0123456789abcdefABCDEF";
    const size_t first = strspn(text, digits);
    if (text[first] == 0) return true;
    if (first == 0 || text[first] != ':') return false;
    text += first + 1;
    return text[strspn(text, digits)] == 0;
}

} // namespace

Structure_result read_structure(const char* text, int length, Structure_visitor& visitor) {
    const char* const end = text + length;
    int depth = 0;
    for (;;) {
        const Header_copy header(text, static_cast<int>(end - text));
        const bool at_end = text + header.length == end;
        Receive_buffer in(header.bytes, header.length);
        Data_item::item_type_t type_byte;
        Described_item item{};
        if (!in.pop_item(type_byte, item.id, item.name_length))
            return at_end && may_go_on(header.bytes) ? structure_cut : structure_malformed;
        item.name_length += in.remaining; // names of other makers may hold more than letters and digits
        text += header.length;
        Data_item::decode_type_byte(item.shape, item.type, static_cast<unsigned char>(type_byte));
        item.name = text - item.name_length;
        item.depth = depth;
        item.container = text < end && *text == '{';
        if (!visitor.item(item)) return structure_stopped;

        if (item.container) {
            ++text;
            if (++depth > deepest) return structure_malformed;
            if (text < end && *text != '}') continue;
        }
        // Behind an item, or in an empty container: levels end, a sibling follows, or all is over.
        while (text < end && *text == '}') {
            if (--depth < 0) return structure_malformed;
            ++text;
        }
        if (text == end) return depth == 0 ? structure_complete : structure_cut;
        if (depth == 0 || *text != ',') return structure_malformed;
        ++text;
    }
}

} // namespace CDS::Remote
