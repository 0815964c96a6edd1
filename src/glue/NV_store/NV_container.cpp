// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_container.h"
#include "glue/NV_store/NV_path.h"
#include "glue/NV_store/NV_root.h"
#include "glue/cds/Item_walk.h"
#include "util/Debug_print.h"
#include "util/assertion.h"
#include "util/number_text.h"
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace NV_store {

/// Keeps a checksum in an iterator's list on every way out of a function.
class Checksum_scope {
public:
    explicit Checksum_scope(NV_iterator& it) : _it(it) { _it.add_checksum_getter(&_checksum); }
    ~Checksum_scope() { finish(); }
    Checksum_scope(const Checksum_scope&) = delete;
    Checksum_scope& operator=(const Checksum_scope&) = delete;
    /// Take it out of the list; the CRC so far.
    uint32_t finish() {
        if (_checksum.in_list()) _it.remove_checksum_getter(&_checksum);
        return _checksum.crc;
    }

private:
    NV_iterator& _it;
    NV_iterator::NV_checksum _checksum;
};

NV_container::NV_container(NV_container* parent_container, NV_root* tree, unsigned short settings_id, const char* text)
    : NV_item(parent_container, settings_id, text), root(!tree && parent ? parent->get_root() : tree) {}

NV_container::NV_container(unsigned short settings_id, const char* text)
    : NV_container(nullptr, nullptr, settings_id, text) {}

NV_container::~NV_container() { release_children(); }

// ---- children

void NV_container::add_child(NV_item* child) {
    if (get_type() != item_container) {
        for (const NV_item& other : _children) {
            if (other.get_id() != child->get_id()) continue;
            Debug_print::try_print("Duplicate NV_store ID %s:%d %s:%d in %s\n", child->name,
                                   static_cast<int>(child->get_id()), other.name, static_cast<int>(other.get_id()),
                                   name);
            exit(-119);
        }
    }
    _children.push(child);
    child->parent = this;
    // A container under construction is none yet and takes its root itself.
    if (NV_container* container = child->as_container()) container->_set_root(root);
    const int changed = child->flags & (changed_for_journal_1 | changed_for_journal_2);
    for (NV_container* above = this; above; above = above->parent)
        above->change_flags(changed, ~child->flags & not_loaded);
}

void NV_container::remove_child(NV_item* child) {
    if (_children.remove(child) == 0) return;
    child->parent = nullptr;
    if (root) child->leave_tree(*root);
}

void NV_container::release_children() {
    while (NV_item* child = _children.first()) remove_child(child);
}

void NV_container::leave_tree(NV_root& tree) {
    for (NV_item& child : _children) child.leave_tree(tree);
    NV_item::leave_tree(tree);
    root = nullptr;
}

NV_item* NV_container::get_next_child(const NV_item* child) const {
    return child ? _children.next(child) : _children.first();
}

NV_item* NV_container::get_next_in_tree(const NV_item* item) const {
    const NV_container* const container = const_cast<NV_item*>(item)->as_container();
    if (container && container->_children.first()) return container->_children.first();
    for (const NV_item* at = item; at && at != this; at = at->parent) {
        if (NV_item* sibling = at->parent ? at->parent->_children.next(at) : nullptr) return sibling;
    }
    return nullptr;
}

NV_item* NV_container::find_child(unsigned short child_id, const NV_item* last) const {
    for (NV_item* i = last ? _children.next(last) : _children.first(); i; i = _children.next(i))
        if (i->get_id() == child_id) return i;
    if (!last) return nullptr;
    for (NV_item& i : _children) {
        if (i.get_id() == child_id) return &i;
        if (&i == last) break;
    }
    return nullptr;
}

int NV_container::get_my_index(const NV_item* child) const {
    int index = 0;
    for (const NV_item& own : _children) {
        if (&own == child) return index;
        ++index;
    }
    return -1;
}

NV_item* NV_container::operator[](int index) const {
    NV_item* const ret = _children[index];
    if (!ret)
        Util::assertion_failed("ret != __null", "glue/NV_store/NV_container", 1,
                               "NV_store::NV_item* NV_store::NV_container::operator[](int) const");
    return ret;
}

void NV_container::_set_root(NV_root* tree) {
    if (root && root != tree) leave_tree(*root);
    root = tree;
    for (NV_item& child : _children)
        if (NV_container* container = child.as_container()) container->_set_root(tree);
}

// ---- finding

Data_item* NV_container::find_data_item(unsigned short data_id) {
    if (data_id == get_data_id()) return this;
    for (NV_item& child : _children)
        if (Data_item* found = child.find_data_item(data_id)) return found;
    return nullptr;
}

NV_item* NV_container::_search(const char* path) {
    constexpr size_t max_length = 256; // [characters] of a component that something follows
    const char* const slash = strchr(path, '/');
    const char* const comma = slash ? nullptr : strchr(path, ',');
    char first[max_length + 1];
    const char* component = path;
    if (const char* const end = slash ? slash : comma) {
        const size_t n = std::min(static_cast<size_t>(end - path), comma ? max_length - 1 : max_length);
        memcpy(first, path, n);
        first[n] = 0;
        component = first;
    }

    NV_item* found = nullptr;
    if (!children_named()) {
        const char* end;
        const uint32_t number = Util::to_ulong32(component, 10, &end);
        if (end == component || number >= static_cast<uint32_t>(num_children())) return nullptr;
        found = (*this)[static_cast<int>(number)];
    } else {
        for (NV_item& child : _children)
            if (strcmp(child.name, component) == 0) {
                found = &child;
                break;
            }
    }
    return found && slash ? found->_search(slash + 1) : found;
}

NV_item* NV_container::follow_path(const NV_path& path) {
    NV_item* at = this;
    for (int i = 0; i < path.size(); ++i) {
        NV_container* const container = at->as_container();
        if (!container) return nullptr;
        at = nullptr;
        for (NV_item& child : container->_children)
            if (child.get_id() == path[i]) {
                at = &child;
                break;
            }
        if (!at) return nullptr;
    }
    return at;
}

bool NV_container::build_path(NV_path* path, const NV_item* item) const {
    path->clear();
    unsigned short ids[max_path_ids];
    int n = 0;
    for (const NV_item* at = item; at != this; at = at->get_parent()) {
        if (!at || n == max_path_ids) return false;
        ids[n++] = at->get_id();
    }
    while (n > 0) path->push(ids[--n]);
    return true;
}

// ---- remote format and text

void NV_container::_print(Debug::Dumper& dumper) const {
    if (!dumper.start(name)) return;
    for (const NV_item& child : _children) child._print(dumper);
    dumper.end(name);
}

Data_item::Serial_ret NV_container::serialise(CDS::Remote::Send_buffer& out, unsigned short& start_id) {
    serial_action_started(start_id);
    return walk_children(_children, [&](NV_item& child) { return child.serialise(out, start_id); });
}

Data_item::Serial_ret NV_container::deserialise(CDS::Remote::Receive_buffer& in, unsigned short& start_id) {
    serial_action_started(start_id);
    return walk_children(_children, [&](NV_item& child) { return child.deserialise(in, start_id); });
}

void NV_container::serialise_structure(CDS::Remote::Send_buffer& out, int depth) {
    NV_item::serialise_structure(out, depth);
    describe_children(_children, out, depth);
}

int NV_container::_to_string(char* buffer, int size) const {
    if (size < 1) return 0;
    int at = 0;
    const auto put = [&](char c) {
        if (size - at >= 2) buffer[at++] = c;
    };
    put('{');
    bool first = true;
    for (const NV_item& child : _children) {
        if (!first) put(',');
        first = false;
        // A child tells how long its text is, which may be more than there was room for.
        const int room = size - at;
        at += std::min(child._to_string(buffer + at, room), room - 1);
    }
    put('}');
    buffer[at] = 0;
    return at;
}

static const char* skip_blanks(const char* text) { return text + strspn(text, " \t"); }

const char* NV_container::_from_string(const char* text) {
    text = skip_blanks(text);
    if (*text != '{') return nullptr;
    ++text;
    bool first = true;
    for (NV_item& child : _children) {
        if (!first) {
            text = skip_blanks(text);
            if (*text != ',') return nullptr;
            ++text;
        }
        first = false;
        text = child._from_string(text);
        if (!text) return nullptr;
    }
    text = skip_blanks(text);
    return *text == '}' ? text + 1 : nullptr;
}

bool NV_container::set_default(bool all) {
    if (!all) return true;
    for (NV_item& child : _children)
        if (!child.set_default(true)) return false;
    return true;
}

bool NV_container::signal_all(NV_root* r) {
    bool all = true;
    for (NV_item& child : _children) all &= child.signal_all(r);
    return NV_item::signal_all(r) && all;
}

// ---- stored records

/// Report what went wrong, with this container's type and name behind it; false.
bool NV_container::failed(const char* format, ...) const {
    char what[96];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(what, sizeof what, format, arguments);
    va_end(arguments);
    Debug_print::dprint("%s for %d:%s\n", what, static_cast<int>(get_type()), name);
    return false;
}

bool NV_container::serialise(NV_iterator* it) {
    bool valid;
    if (!wanted(*it, valid)) return valid;
    Checksum_scope checksum(*it);
    it->push_header(header(marker_start));
    for (NV_item& child : _children)
        if (!child.serialise(it)) return failed("Serialise failed");
    if (!it->push_header(header(marker_end))) return failed("Serialise failed2");
    it->push_uint32(checksum.finish());
    saved();
    return true;
}

bool NV_container::deserialise(NV_iterator* it) {
    Checksum_scope checksum(*it);
    Record_header start;
    if (!it->pop_header(start)) return failed("No NV settings");
    const Record_header own = header(marker_start);
    if (!(start == own))
        return failed("Bad NV settings %d!=%d %d!=%d %d!=%d", int{start.id}, int{own.id}, int{start.type_byte},
                      int{own.type_byte}, int{start.marker}, 1);
    return load_children(*it) && finish_load(*it, checksum);
}

/// The records up to the end header, which stays unread.
bool NV_container::load_children(NV_iterator& it) {
    NV_item* last = nullptr;
    for (;;) {
        Record_header record;
        if (!it.peek_header(record)) return failed("NV bad");
        if (record.marker == marker_end) return true;
        if (!load_record(it, record.id, last)) return false;
    }
}

/// Every child with that identifier reads a record; without one it is skipped. Only lists have several.
bool NV_container::load_record(NV_iterator& it, unsigned short record_id, NV_item*& last) {
    NV_item* const found = find_child(record_id, last);
    if (!found) return it.skip_record() || failed("NV unknown child was bad");
    if (get_type() != item_container) {
        last = found;
        return load_child(it, *found);
    }
    for (NV_item& child : _children)
        if (child.get_id() == record_id && !load_child(it, child)) return false;
    return true;
}

bool NV_container::load_child(NV_iterator& it, NV_item& child) {
    return child.deserialise(&it) || failed("NV child was bad");
}

bool NV_container::finish_load(NV_iterator& it, Checksum_scope& checksum) {
    loaded();
    Record_header end;
    it.pop_header(end);
    const uint32_t computed = checksum.finish();
    unsigned int stored = 0;
    // A CRC that was cut off is a wrong one.
    if (it.pop_uint32(stored) && stored == computed) return true;
    failed("NV_store CRC32 Check %u!=%u", static_cast<unsigned>(computed), stored);
    set_default(true);
    return false;
}

bool NV_container::deserialise_unknown(NV_iterator* it) { return it->skip_container(); }

} // namespace NV_store
