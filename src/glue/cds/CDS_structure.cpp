// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_structure.h"
#include "glue/cds/CDS_remote.h"
#include <cstring>
#include <optional>

namespace CDS::Remote {
namespace {

constexpr int max_depth = 64;

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

/// A description while it is read.
class Description {
public:
    Description(const char* text, int length) : _at(text), _end(text + length) {}

    Structure_result read(Structure_visitor& visitor) {
        for (;;) {
            Described_item item{};
            if (const auto result = read_header(item)) return *result;
            if (!visitor.item(item)) return structure_stopped;
            if (item.container) {
                ++_at;
                if (++_depth > max_depth) return structure_malformed;
                if (_at < _end && *_at != '}') continue;
            }
            if (const auto result = go_on()) return *result;
        }
    }

private:
    /// None when there is one.
    std::optional<Structure_result> read_header(Described_item& item) {
        const Header_copy header(_at, static_cast<int>(_end - _at));
        Receive_buffer in(header.bytes, header.length);
        Data_item::item_type_t type_byte;
        if (!in.pop_item(type_byte, item.id, item.name_length)) {
            const bool at_end = _at + header.length == _end;
            return at_end && may_go_on(header.bytes) ? structure_cut : structure_malformed;
        }
        item.name_length += in.remaining; // names of other makers may hold more than letters and digits
        _at += header.length;
        Data_item::decode_type_byte(item.shape, item.type, static_cast<unsigned char>(type_byte));
        item.name = _at - item.name_length;
        item.depth = _depth;
        item.container = _at < _end && *_at == '{';
        return {};
    }

    /// Behind an item, or in an empty container: levels end, and a sibling follows (none), or all is over.
    std::optional<Structure_result> go_on() {
        while (_at < _end && *_at == '}') {
            if (--_depth < 0) return structure_malformed;
            ++_at;
        }
        if (_at == _end) return _depth == 0 ? structure_complete : structure_cut;
        if (_depth == 0 || *_at != ',') return structure_malformed;
        ++_at;
        return {};
    }

    const char* _at;
    const char* const _end;
    int _depth = 0;
};

} // namespace

Structure_result read_structure(const char* text, int length, Structure_visitor& visitor) {
    return Description(text, length).read(visitor);
}

} // namespace CDS::Remote
