// SPDX-License-Identifier: MIT
#include "glue/cds/CDSLookup.h"
#include "glue/cds/Item_walk.h"
#include "util/Debug_print.h"
#include "util/assertion.h"
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

namespace CDS {

// ---- change scan

Compare::Compare(const void* new_copy, const void* old_copy, unsigned int size)
    : position(static_cast<const unsigned char*>(new_copy))
    , old_position(static_cast<const unsigned char*>(old_copy))
    , length(size)
    , first_diff(0)
    , done(false) {
    scan();
}

void Compare::scan() {
    // Pieces by memcmp, which compares vectors; where one differs, smaller pieces find the place.
    for (const ptrdiff_t piece : {4096, 256, 8}) {
        const size_t n = static_cast<size_t>(piece);
        while (length - first_diff >= piece && memcmp(position + first_diff, old_position + first_diff, n) == 0)
            first_diff += piece;
    }
    while (first_diff < length && position[first_diff] == old_position[first_diff]) ++first_diff;
    if (first_diff >= length) done = true;
}

bool Compare::seek(const void* address) {
    const ptrdiff_t d = static_cast<const unsigned char*>(address) - position;
    if (d == 0) return done;
    position += d;
    old_position += d;
    length -= d;
    if (d < 0 || first_diff > d) {
        first_diff -= d;
        if (d < 0) scan();
    } else {
        first_diff = 0;
        scan();
    }
    return done;
}

// ---- names of numbered children

const char* get_number_as_name(unsigned int n) {
    static char** names = nullptr;
    static unsigned int count = 0;
    constexpr const char* file = "glue/cds/CDSLookup";
    constexpr const char* function = "const char* CDS::get_number_as_name(unsigned int)";
    if (n < count) return names[n];

    // A number so large that no table can hold it counts as a failed allocation.
    const uint64_t entries = uint64_t(n) + 1;
    const bool possible = entries <= UINT32_MAX && entries <= SIZE_MAX / sizeof *names;
    void* const grown = possible ? realloc(names, static_cast<size_t>(entries) * sizeof *names) : nullptr;
    if (!grown) Util::assertion_failed("names", file, 1, function);
    names = static_cast<char**>(grown);
    for (unsigned int i = count; i <= n; ++i) {
        char text[32];
        snprintf(text, sizeof text, "%d", static_cast<int>(i));
        names[i] = strdup(text);
        if (!names[i]) Util::assertion_failed("names[i]", file, 1, function);
        count = i + 1;
    }
    return names[n];
}

// ---- any item

Lookup_item::Lookup_item(Lookup_struct& parent_struct) : parent(&parent_struct) {}

Data_item* Lookup_item::find_data_item(const char* path) { return find_item(path, '.'); }
Data_item* Lookup_item::find_data_item(unsigned short wanted) { return find_item(wanted); }

void Lookup_item::serialise_structure(Remote::Send_buffer& out, int) {
    char header[256];
    snprintf(header, sizeof header, "%x:%x:%s", static_cast<unsigned>(get_type_byte()), static_cast<unsigned>(id),
             get_name());
    out.str_append(header);
}

void Lookup_item::print_declaration(int) const {}
int Lookup_item::struct_query() const { return 0; }
unsigned char Lookup_item::get_type_byte() const { return Data_item::get_type_byte(class_value, get_type()); }
Lookup_struct* Lookup_item::as_struct() { return nullptr; }
void Lookup_item::reserved_hook() {}

int Lookup_item::stream_size() {
    if (!_fixed_stream) return -1;
    const Lookup_struct* const children = as_struct();
    return children ? children->_children_size : _stream_size;
}

bool Lookup_item::_signal_update(Compare& compare) {
    if (compare.done || compare.seek(data_address())) return false;
    if (static_cast<ptrdiff_t>(data_size()) <= compare.first_diff) return false;
    if (update_listener) update_listener->updated(1);
    return true;
}

void Lookup_item::set_minmax(unsigned short& min, unsigned short& max) {
    min = std::min(min, id);
    max = std::max(max, id);
}

Lookup_item* Lookup_item::find_item(const char* path, char separator) {
    if (*path == 0) return this;
    Debug_print::dprint("Base find item, why? %s,%d,%s,%c\n", name, static_cast<int>(id), path, separator);
    return nullptr;
}

Lookup_item* Lookup_item::find_item(unsigned short wanted) { return wanted == id ? this : nullptr; }

Lookup_root* Lookup_item::root() {
    // Only a root is its own parent, and that answers for itself.
    if (parent == this) Util::flush_and_abort();
    return parent->root();
}

void Lookup_item::notify_cds(const void* address, unsigned int size) { root()->notify_head(address, size); }

bool Lookup_item::signal_update(const void* new_copy, const void* old_copy, unsigned int size) {
    // The scan moves by addresses, so bytes that are not this item's own would be compared at wild places.
    const auto at = reinterpret_cast<uintptr_t>(new_copy), own = reinterpret_cast<uintptr_t>(data_address());
    if (at < own ? own - at >= size : at - own >= data_size()) return false;
    Compare compare(new_copy, old_copy, size);
    return _signal_update(compare);
}

unsigned char Lookup_basic_array_base::get_type_byte() const {
    return Data_item::get_type_byte(class_array, get_type());
}

// ---- arrays

void Lookup_basic_array_base::print_elements(Value_type type, const void* elements, Debug::Dumper& dumper) const {
    if (type.code() == item_char) {
        const auto* const text = static_cast<const char*>(elements);
        return Data_item_array_stringify<char>(text, capacity).print(get_name(), dumper);
    }
    if (!dumper.start(get_name())) return;
    const auto* element = static_cast<const unsigned char*>(elements);
    for (unsigned i = 0; i < capacity; ++i, element += type.size())
        type.print(type.get(element), get_number_as_name(i), dumper);
    dumper.end(get_name());
}

// ---- structs

void Lookup_struct::_print(Debug::Dumper& dumper) const {
    if (!dumper.start(get_name())) return;
    for (Lookup_item& child : _children) child._print(dumper);
    dumper.end(get_name());
}

// A struct takes part whatever the start identifier is: the item to start at may lie inside it.

Data_item::Serial_ret Lookup_struct::serialise(Remote::Send_buffer& out, unsigned short& start_id) {
    serial_action_started(start_id);
    if (start_id == 0 && _children_size >= 0 && out.skip >= 0) {
        serialise_page(out);
        return serial_ok();
    }
    return walk_children(_children, [&](Lookup_item& child) { return child.serialise(out, start_id); });
}

/// Only the children that the buffer's slice meets: the others would drop what they append.
void Lookup_struct::serialise_page(Remote::Send_buffer& out) {
    auto at = _by_end.begin();
    if (out.skip > 0 && out.room > 0) {
        const auto ends_before = [](const Extent& e, int place) { return e.stream_end <= place; };
        at = std::lower_bound(at, _by_end.end(), out.skip, ends_before);
        if (at != _by_end.begin()) out.skip -= (at - 1)->stream_end;
    }
    unsigned short everything = 0;
    for (; at != _by_end.end() && out.room > 0; ++at) at->child->serialise(out, everything);
}

Data_item::Serial_ret Lookup_struct::deserialise(Remote::Receive_buffer& in, unsigned short& start_id) {
    serial_action_started(start_id);
    return walk_children(_children, [&](Lookup_item& child) { return child.deserialise(in, start_id); });
}

void Lookup_struct::serialise_structure(Remote::Send_buffer& out, int depth) {
    Lookup_item::serialise_structure(out, depth);
    describe_children(_children, out, depth);
}

void Lookup_struct::print_declaration(int indent) const {
    for (int i = 0; i < indent; ++i) Debug_print::dprint("    ");
    Debug_print::dprint("struct %s { \"%s\"\n", type_name, comment ? comment : "");
    for (Lookup_item& child : _children) child.print_declaration(indent + 1);
    for (int i = 0; i < indent; ++i) Debug_print::dprint("    ");
    Debug_print::dprint("} %s;\n", name);
}

bool Lookup_struct::_signal_update(Compare& compare) {
    if (compare.done || compare.seek(data_address())) return false;
    if (static_cast<ptrdiff_t>(data_size()) <= compare.first_diff) return false;
    bool changed = false;
    if (_by_end.empty()) {
        for (Lookup_item& child : _children) {
            changed |= child._signal_update(compare);
            if (compare.done) break;
        }
    } else {
        const auto ends_before = [](const Extent& e, const unsigned char* place) { return e.end <= place; };
        for (auto at = _by_end.begin(); !compare.done; ++at) {
            // Children that end before the next difference have nothing to report.
            at = std::lower_bound(at, _by_end.end(), compare.position + compare.first_diff, ends_before);
            if (at == _by_end.end()) break;
            changed |= at->child->_signal_update(compare);
        }
    }
    if (changed && update_listener) update_listener->updated(1);
    return changed;
}

void Lookup_struct::index_children() {
    _children_size = -1;
    _by_end.clear();
    _by_end.reserve(static_cast<size_t>(_children.size()));
    const unsigned char* end = nullptr;
    int stream_end = 0;
    bool sizes_known = true;
    for (Lookup_item& child : _children) {
        if (!child.has_fixed_extent()) return _by_end.clear();
        const auto start = static_cast<const unsigned char*>(child.data_address());
        if (std::less<>()(start, end)) return _by_end.clear();
        end = start + child.data_size();
        const int size = child.stream_size();
        sizes_known = sizes_known && size >= 0;
        stream_end += size;
        _by_end.push_back({end, &child, stream_end});
    }
    if (sizes_known) _children_size = stream_end;
}

void Lookup_struct::set_minmax(unsigned short& min, unsigned short& max) {
    min_id = max_id = id;
    for (Lookup_item& child : _children) child.set_minmax(min_id, max_id);
    index_children();
    min = std::min(min, min_id);
    max = std::max(max, max_id);
}

Lookup_item* Lookup_struct::find_item(const char* path, char separator) {
    if (*path == 0) return this;
    const char* const end = separator ? strchr(path, separator) : nullptr;
    const size_t n = end ? static_cast<size_t>(end - path) : strlen(path);
    for (Lookup_item& child : _children) {
        if (strncmp(child.get_name(), path, n) != 0 || child.get_name()[n] != 0) continue;
        return end ? child.find_item(end + 1, separator) : &child;
    }
    return nullptr;
}

Lookup_item* Lookup_struct::find_item(unsigned short wanted) {
    if (wanted == id) return this;
    if (wanted < min_id || wanted > max_id) return nullptr;
    for (Lookup_item& child : _children)
        if (Lookup_item* found = child.find_item(wanted)) return found;
    return nullptr;
}

} // namespace CDS
