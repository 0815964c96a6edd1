// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_scan.h"
#include "glue/NV_store/NV_container.h"
#include "platform/crc32.h"
#include "util/bytes.h"
#include <vector>

namespace NV_store {
namespace {

constexpr int header_size = Record_header::size, crc_size = record_crc_size;

uint32_t crc_of(const unsigned char* p, int n) { return static_cast<uint32_t>(Util::crc32(record_crc_seed(), p, n)); }

/// The product of two polynomials modulo the CRC's, in its order of bits: that of x^0 is the highest.
constexpr uint32_t product(uint32_t a, uint32_t b) {
    uint32_t sum = 0;
    for (; a; a <<= 1) {
        // Masks: which way it goes is a coin toss.
        sum ^= b & (0 - (a >> 31));
        b = b >> 1 ^ (0xEDB88320 & (0 - (b & 1)));
    }
    return sum;
}

/// x^8, x^16, x^32 and so on: what 1, 2, 4, ... bytes that follow make of a CRC.
struct Shifts {
    constexpr Shifts() : by() {
        by[0] = 0x00800000;
        for (int i = 1; i < 31; ++i) by[i] = product(by[i - 1], by[i - 1]);
    }
    uint32_t by[31];
};
constexpr Shifts shifts;

/// The CRC of `n` bytes begun as those of a record are, from the common one before (`first`) and behind them (`last`):
/// so containers in containers are all summed in one pass.
uint32_t crc_between(uint32_t first, uint32_t last, int n) {
    uint32_t difference = first ^ record_crc_seed();
    for (int i = 0; n >> i; ++i)
        if (n >> i & 1) difference = product(shifts.by[i], difference);
    return last ^ difference;
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
    head = Record_header::decode(_bytes + at);
    switch (head.marker) {
    case marker_start:
        return start_container();
    case marker_end:
        return end_container();
    case marker_value:
        return pass_value();
    default:
        return stop("no record");
    }
}

Record_walk::Step Record_walk::start_container() {
    if (Record_content::of(head.type_byte).kind != Record_content::container)
        return stop("a container of an unknown type");
    _open.push_back({at, sum_up_to(at)});
    ++depth;
    end += header_size;
    return container_started;
}

/// The CRC of all bytes up to a place that is not before the last one.
uint32_t Record_walk::sum_up_to(int place) {
    if (!_sums) return 0;
    _sum = static_cast<uint32_t>(Util::crc32(_sum, _bytes + _summed, place - _summed));
    _summed = place;
    return _sum;
}

/// The CRC of a container's bytes up to `place`. A short one is summed again, which takes less time than the reckoning;
/// how often, in short ones that lie in each other, is bounded by their length.
uint32_t Record_walk::sum_of(const Container& c, int place) {
    constexpr int is_short = 2048; // [bytes]
    const int n = place - c.start;
    return n <= is_short ? crc_of(_bytes + c.start, n) : crc_between(c.before, sum_up_to(place), n);
}

Record_walk::Step Record_walk::end_container() {
    if (depth == 0) return stop("the end of a container that did not start");
    const Container ended = _open.back();
    const Record_header own = Record_header::decode(_bytes + ended.start);
    if (head.id != own.id || head.type_byte != own.type_byte) return stop("the end of another container");
    const int crc_at = at + header_size;
    if (_n - crc_at < crc_size) return stop("cut inside a checksum");
    stored = Util::from_little_endian<uint32_t>(_bytes + crc_at);
    if (_sums) computed = sum_of(ended, crc_at);
    end = crc_at + crc_size;
    _open.pop_back();
    --depth;
    return container_ended;
}

Record_walk::Step Record_walk::pass_value() {
    const int room = _n - at - header_size;
    const int size = Record_content::of(head.type_byte).value_size(_bytes + at + header_size, room);
    if (size < 0) return stop(room > 0 ? "a value of an unknown type or length" : "cut inside a value");
    if (size > room) return stop("cut inside a value");
    end += header_size + size;
    return value_met;
}

namespace {

/// A whole record in memory: its sizes fit and, for a container, all checksums in it are right. Looks at bytes alone;
/// no tree is needed and no setting touched.
struct Stored_record {
    Record_header head = {};
    const unsigned char* at = nullptr;
    int size = 0; ///< [bytes] with header and checksum

    bool is_container() const { return head.marker == marker_start; }
    const unsigned char* content() const { return at + Record_header::size; }
    int content_size() const {
        return size - (is_container() ? 2 * Record_header::size + record_crc_size : Record_header::size);
    } ///< without header, end and checksum

    /// Read the record at `bytes`: false when what is there is none, or not whole within `n` [bytes].
    bool read(const unsigned char* bytes, int n);
};

bool Stored_record::read(const unsigned char* bytes, int n) {
    Record_walk walk(bytes, n);
    do {
        const Record_walk::Step step = walk.next();
        if (step == Record_walk::stuck || step == Record_walk::all_done) return false;
        if (step == Record_walk::container_ended && walk.stored != walk.computed) return false;
    } while (walk.depth > 0);
    head = Record_header::decode(bytes);
    at = bytes;
    size = walk.end;
    return true;
}

bool is_for(const Stored_record& record, const NV_item& item) {
    return record.head.id == item.get_id() && record.head.type_byte == item.get_type_byte();
}

} // namespace

size_t whole_records(const std::string& bytes, const NV_container& root) {
    const auto* const p = reinterpret_cast<const unsigned char*>(bytes.data());
    const int n = static_cast<int>(bytes.size());
    int whole = 0;
    Stored_record r;
    while (r.read(p + whole, n - whole) && is_for(r, root)) whole += r.size;
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

/// Goes through a container's record and the tree at once, to see whether the record can be loaded as it stands. That
/// is the usual case, and pruning copies.
class Fit {
public:
    /// [bytes] of the whole record, which is the container's; 0 when it cannot be loaded.
    static int size(NV_container& container, const unsigned char* bytes, int n) {
        Record_walk walk(bytes, n, false); // the load looks at the checksums
        Fit fit;
        if (walk.next() != Record_walk::container_started) return 0;
        for (fit.open(container); walk.depth > 0;) {
            const Record_walk::Step step = walk.next();
            if (step == Record_walk::stuck) return 0;
            if (step == Record_walk::container_ended) {
                if (!fit.close()) return 0;
                continue;
            }
            NV_item* const item = fit.find(walk.head);
            if (!item) return 0;
            if (step != Record_walk::container_started) continue;
            if (!item->as_container()) return 0;
            fit.open(*item->as_container());
        }
        return walk.end;
    }

private:
    struct Level {
        NV_container* container;
        NV_item* last; ///< item of the record before
        bool is_list;
    };

    void open(NV_container& c) { _levels.push_back({&c, nullptr, c.get_type() == Data_item::item_container}); }
    /// The elements of a list, all with one identifier, must stand there as often as it has them.
    bool close() {
        const Level l = _levels.back();
        _levels.pop_back();
        return !l.is_list || !l.last || !l.container->get_next_child(l.last);
    }
    NV_item* find(const Record_header& head) {
        Level& l = _levels.back();
        const NV_container& c = *l.container;
        if (l.is_list) {
            NV_item* const first = c.get_next_child(nullptr);
            l.last = c.get_next_child(l.last);
            if (!l.last) l.last = first;
            if (!first || head.id != first->get_id()) return nullptr;
        } else {
            l.last = c.find_child(head.id, l.last);
        }
        return l.last && head.id == l.last->get_id() && head.type_byte == l.last->get_type_byte() ? l.last : nullptr;
    }

    std::vector<Level> _levels;
};

class Pruner {
public:
    void put_record(NV_item& item, const Stored_record& record) {
        NV_container* const container = item.as_container();
        if (container && record.is_container())
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
        unsigned char end[header_size + crc_size];
        Record_header{record.head.type_byte, marker_end, record.head.id}.encode(end);
        put(end, header_size);
        const uint32_t crc =
            crc_of(reinterpret_cast<const unsigned char*>(out.data()) + start, static_cast<int>(out.size() - start));
        Util::to_little_endian(crc, end + header_size);
        put(end + header_size, crc_size);
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

std::string prune(std::string bytes, NV_container& root, int& dropped) {
    const auto* const p = reinterpret_cast<const unsigned char*>(bytes.data());
    const int n = static_cast<int>(bytes.size());
    Pruner pruner;
    int kept = 0; // [bytes] up to which all is as it was
    Stored_record r;
    for (int at = 0; at < n; at += r.size) {
        r.size = Fit::size(root, p + at, n - at);
        if (r.size > 0) {
            if (kept == at)
                kept += r.size;
            else
                pruner.out.append(bytes, static_cast<size_t>(at), static_cast<size_t>(r.size));
        } else if (r.read(p + at, n - at)) {
            pruner.put_record(root, r);
        } else {
            break;
        }
    }
    dropped = pruner.dropped;
    bytes.resize(static_cast<size_t>(kept));
    return bytes += pruner.out;
}

} // namespace NV_store
