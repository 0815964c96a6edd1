// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_scan.h"
#include "glue/NV_store/NV_container.h"
#include "glue/NV_store/NV_path.h"
#include "glue/NV_store/NV_values.h"
#include "platform/crc32.h"
#include <vector>

namespace NV_store {
namespace {

constexpr int header_size = 4, crc_size = 4;

bool is_container_type(unsigned char type_byte) {
    return type_byte == Data_item::item_root || type_byte == Data_item::item_struct ||
           type_byte == Data_item::item_container;
}

NV_iterator::NV_iterator_header header_at(const unsigned char* p) {
    return {p[0], p[1], static_cast<unsigned short>(p[2] | p[3] << 8)};
}

/// [bytes] of one value of a type, 0 for a type without a fixed size.
int element_size(Data_item::item_type_t type) {
    return with_base_type(type, 0, [](auto base) { return static_cast<int>(sizeof(typename decltype(base)::Value)); });
}

/// [bytes] of the value behind a header, -1 when its type has none or `n` do not hold its count.
int value_size(unsigned char type_byte, const unsigned char* p, int n) {
    Data_item::class_type_t shape;
    Data_item::item_type_t type;
    Data_item::decode_type_byte(shape, type, type_byte);
    const int size = element_size(type);
    if (shape == Data_item::class_value && size > 0) return size;
    if (n < 1) return -1;
    if (shape == Data_item::class_value && type == Data_item::item_pointer)
        return p[0] <= NV_path::most ? 1 + 2 * p[0] : -1;
    if (shape == Data_item::class_array && size > 0) return 1 + p[0] * size;
    return -1;
}

uint32_t crc_of(const unsigned char* p, int n) {
    return static_cast<uint32_t>(Util::crc32(NV_iterator::NV_checksum().crc, p, n));
}

uint32_t word_at(const unsigned char* p) {
    return p[0] | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

} // namespace

Record_walk::Step Record_walk::stop(const char* reason) {
    why = reason;
    return stuck;
}

Record_walk::Step Record_walk::next() {
    at = end;
    if (at == _n && depth == 0) return all_done;
    if (_n - at < header_size) return stop(at == _n ? "the end of a container is missing" : "cut inside a header");
    head = header_at(_bytes + at);
    switch (head.marker) {
    case NV_iterator::marker_start:
        return start_container();
    case NV_iterator::marker_end:
        return end_container();
    case NV_iterator::marker_value:
        return pass_value();
    default:
        return stop("no record");
    }
}

Record_walk::Step Record_walk::start_container() {
    if (!is_container_type(head.type_byte)) return stop("a container of an unknown type");
    if (depth == deepest) return stop("nested too deeply");
    _open[depth++] = at;
    end += header_size;
    return container_started;
}

Record_walk::Step Record_walk::end_container() {
    if (depth == 0) return stop("the end of a container that did not start");
    const int start = _open[depth - 1];
    const NV_iterator::NV_iterator_header own = header_at(_bytes + start);
    if (head.id != own.id || head.type_byte != own.type_byte) return stop("the end of another container");
    const int crc_at = at + header_size;
    if (_n - crc_at < crc_size) return stop("cut inside a checksum");
    stored = word_at(_bytes + crc_at);
    computed = crc_of(_bytes + start, crc_at - start);
    end = crc_at + crc_size;
    --depth;
    return container_ended;
}

Record_walk::Step Record_walk::pass_value() {
    const int room = _n - at - header_size;
    const int size = value_size(head.type_byte, _bytes + at + header_size, room);
    if (size < 0) return stop(room > 0 ? "a value of an unknown type or length" : "cut inside a value");
    if (size > room) return stop("cut inside a value");
    end += header_size + size;
    return value_met;
}

bool Stored_record::read(const unsigned char* bytes, int n) {
    Record_walk walk(bytes, n);
    do {
        const Record_walk::Step step = walk.next();
        if (step == Record_walk::stuck || step == Record_walk::all_done) return false;
        if (step == Record_walk::container_ended && walk.stored != walk.computed) return false;
    } while (walk.depth > 0);
    head = header_at(bytes);
    at = bytes;
    size = walk.end;
    return true;
}

size_t whole_records(const std::string& bytes, const NV_container& root) {
    const auto* const p = reinterpret_cast<const unsigned char*>(bytes.data());
    const int n = static_cast<int>(bytes.size());
    int whole = 0;
    Stored_record r;
    while (r.read(p + whole, n - whole) && r.head.type_byte == root.get_type_byte() && r.head.id == root.get_id())
        whole += r.size;
    return static_cast<size_t>(whole);
}

namespace {

std::vector<Stored_record> records_in(const Stored_record& container) {
    std::vector<Stored_record> all;
    Stored_record r;
    for (int at = 0; at < container.content_size(); at += r.size) {
        r.read(container.content() + at, container.content_size() - at);
        all.push_back(r);
    }
    return all;
}

bool is_for(const Stored_record& record, const NV_item& item) {
    return record.head.id == item.get_id() && record.head.type_byte == item.get_type_byte();
}

bool fits(NV_item& item, const Stored_record& record);

/// Whether the elements of a list, all with one identifier, stand there as often as it has them.
bool list_fits(const NV_container& list, const Stored_record& record) {
    NV_item* child = nullptr;
    for (const Stored_record& r : records_in(record)) {
        child = list.get_next_child(child);
        if (!child && !(child = list.get_next_child(nullptr))) return false;
        if (r.head.id != list.get_next_child(nullptr)->get_id() || !fits(*child, r)) return false;
    }
    return !child || !list.get_next_child(child);
}

/// Whether an item can load a record as it stands. The usual case, which saves the copying.
bool fits(NV_item& item, const Stored_record& record) {
    if (!is_for(record, item)) return false;
    NV_container* const container = item.as_container();
    if (!container) return true;
    if (container->get_type() == Data_item::item_container) return list_fits(*container, record);
    NV_item* child = nullptr;
    Stored_record r;
    for (int at = 0; at < record.content_size(); at += r.size) {
        r.read(record.content() + at, record.content_size() - at);
        child = container->find_child(r.head.id, child);
        if (!child || !fits(*child, r)) return false;
    }
    return true;
}

class Pruner {
public:
    void put_record(NV_item& item, const Stored_record& record) {
        if (NV_container* container = item.as_container())
            put_container(*container, record);
        else
            put(record.at, record.size);
    }

    std::string out;
    int dropped = 0; ///< records

private:
    void put_container(NV_container& container, const Stored_record& record) {
        const size_t start = out.size();
        put(record.at, header_size);
        const std::vector<Stored_record> records = records_in(record);
        dropped += static_cast<int>(records.size());
        for (NV_item* child = container.get_next_child(nullptr); child; child = container.get_next_child(child)) {
            if (container.find_child(child->get_id(), nullptr) == child) put_like(container, *child, records);
        }
        const unsigned char end[header_size] = {record.head.type_byte, NV_iterator::marker_end, record.at[2],
                                                record.at[3]};
        put(end, header_size);
        const uint32_t crc =
            crc_of(reinterpret_cast<const unsigned char*>(out.data()) + start, static_cast<int>(out.size() - start));
        for (int shift = 0; shift < 32; shift += 8) out += static_cast<char>(crc >> shift & 0xFF);
    }

    /// A load hands records in order to all children with one identifier, so there must be one for each of them.
    void put_like(const NV_container& container, NV_item& first, const std::vector<Stored_record>& records) {
        std::vector<NV_item*> like;
        for (NV_item* i = &first; i; i = container.get_next_child(i))
            if (i->get_id() == first.get_id()) like.push_back(i);
        std::vector<const Stored_record*> known;
        for (const Stored_record& r : records)
            if (is_for(r, *like[known.size() % like.size()])) known.push_back(&r);
        const size_t used = known.size() - known.size() % like.size();
        for (size_t i = 0; i < used; ++i) put_record(*like[i % like.size()], *known[i]);
        dropped -= static_cast<int>(used);
    }

    void put(const unsigned char* p, int n) { out.append(reinterpret_cast<const char*>(p), static_cast<size_t>(n)); }
};

} // namespace

std::string prune(const std::string& bytes, NV_container& root, int& dropped) {
    Pruner pruner;
    const size_t whole = whole_records(bytes, root);
    Stored_record r;
    for (size_t at = 0; at < whole; at += static_cast<size_t>(r.size)) {
        r.read(reinterpret_cast<const unsigned char*>(bytes.data()) + at, static_cast<int>(whole - at));
        if (fits(root, r))
            pruner.out.append(bytes, at, static_cast<size_t>(r.size));
        else
            pruner.put_record(root, r);
    }
    dropped = pruner.dropped;
    return pruner.out;
}

} // namespace NV_store
