// SPDX-License-Identifier: MIT
// Prints what a settings file holds, an image or a journal, without the program that wrote it. Damage is printed as far
// as it can be read.
#include "glue/NV_store/NV_buffer_iterator.h"
#include "glue/NV_store/NV_path.h"
#include "glue/NV_store/NV_scan.h"
#include "glue/cds/Value_type.h"
#include "options.h"
#include <algorithm>
#include <cstring>
#include <string>

namespace {

using namespace NV_store;

const char usage[] = "Usage: nv_dump FILE\n"
                     "Print the records of a settings file, - for standard input: containers with what is in them,\n"
                     "settings as type, id and value, and whether the checksum of each container is right.\n"
                     "  -h, --help this text\n"
                     "  --version  the version\n"
                     "Status 0: all is well, 1: the file is damaged, 2: wrong arguments, or it cannot be read.\n";

constexpr size_t max_size = 16 << 20; // [bytes]; no settings file comes near

std::string read_arguments(int argc, char** argv) {
    const auto files = read_options(argc, argv, usage, {}, 2);
    if (files.size() != 1) fail(2, "give one file (try --help)");
    return files[0];
}

std::string read_all(const std::string& path) {
    FILE* const file = path == "-" ? stdin : fopen(path.c_str(), "rb");
    if (!file) fail(2, "cannot read %s: %s", path.c_str(), strerror(errno));
    std::string bytes;
    char piece[4096];
    while (const size_t n = fread(piece, 1, sizeof piece, file)) {
        bytes.append(piece, n);
        if (bytes.size() > max_size) fail(2, "%s is larger than any settings file", path.c_str());
    }
    if (ferror(file)) fail(2, "cannot read %s: %s", path.c_str(), strerror(errno));
    if (file != stdin) fclose(file);
    if (bytes.empty()) fail(1, "%s: it is empty", path.c_str());
    return bytes;
}

const char* type_name(Data_item::item_type_t type) {
    switch (type) {
    case Data_item::item_root:
        return "root";
    case Data_item::item_struct:
        return "struct";
    case Data_item::item_container:
        return "container";
    case Data_item::item_pointer:
        return "pointer";
#define KAV_NAME(T, name, NAME)                                                                                        \
    case Data_item::item_##name:                                                                                       \
        return #name;
        KAV_BASE_TYPES(KAV_NAME)
#undef KAV_NAME
    default:
        return "?";
    }
}

std::string path_text(NV_iterator& it) {
    NV_path path;
    path.deserialise(&it);
    std::string text;
    for (int i = 0; i < path.size(); ++i) text += (i ? "/" : "") + std::to_string(path[i]);
    return text;
}

/// The value, or the values of an array, behind a header.
std::string values_text(Data_item::class_type_t shape, Data_item::item_type_t type, NV_iterator& it) {
    if (type == Data_item::item_pointer) return path_text(it);
    unsigned char count = 1;
    if (shape == Data_item::class_array) it.pop_uint8(count);
    const Value_type kind(type);
    std::string text;
    for (int i = 0; kind.width() > 0 && i < count; ++i) {
        uint64_t bits = 0;
        it.pop_bits(bits, kind.width());
        text += (i ? " " : "") + kind.text(kind.extended(bits));
    }
    return text;
}

class Dump {
public:
    explicit Dump(std::string bytes) : _bytes(std::move(bytes)), _walk(data(), static_cast<int>(_bytes.size())) {}

    /// Print all records; why the walk ended before the bytes did, null when it did not.
    const char* print() {
        for (;;) {
            switch (_walk.next()) {
            case Record_walk::container_started:
                indent(_walk.depth - 1);
                printf("%s %u\n", type_name(type()), unsigned{_walk.head.id});
                break;
            case Record_walk::value_met:
                print_value();
                break;
            case Record_walk::container_ended:
                print_checksum();
                break;
            case Record_walk::all_done:
                return nullptr;
            case Record_walk::stuck:
                return _walk.why;
            }
        }
    }
    int position() const { return _walk.at; }
    int containers = 0, bad = 0; ///< with a wrong checksum

private:
    unsigned char* data() { return reinterpret_cast<unsigned char*>(_bytes.data()); }
    static void indent(int depth) { printf("%*s", 2 * std::min(depth, 64), ""); } // damage nests as deeply as it likes
    Data_item::item_type_t type(Data_item::class_type_t* shape = nullptr) const {
        Data_item::class_type_t unused;
        Data_item::item_type_t type;
        Data_item::decode_type_byte(shape ? *shape : unused, type, _walk.head.type_byte);
        return type;
    }

    void print_value() {
        Data_item::class_type_t shape;
        const Data_item::item_type_t item_type = type(&shape);
        const int length = _walk.end - _walk.at - Record_header::size;
        NV_buffer_iterator it(data() + _walk.at + Record_header::size, length, length);
        indent(_walk.depth);
        printf("%s%s %u = %s\n", type_name(item_type), shape == Data_item::class_array ? "[]" : "",
               unsigned{_walk.head.id}, values_text(shape, item_type, it).c_str());
    }

    void print_checksum() {
        ++containers;
        indent(_walk.depth + 1);
        if (_walk.stored == _walk.computed) {
            printf("CRC %08X good\n", _walk.stored);
        } else {
            ++bad;
            printf("CRC %08X bad, computed %08X\n", _walk.stored, _walk.computed);
        }
    }

    std::string _bytes;
    Record_walk _walk;
};

} // namespace

int main(int argc, char** argv) {
    keep_standard_streams();
    const std::string path = read_arguments(argc, argv);
    Dump dump(read_all(path));
    const char* const stuck = dump.print();
    finish_output(2);
    if (stuck) fail(1, "%s: stops at byte %d: %s", path.c_str(), dump.position(), stuck);
    if (dump.bad) fail(1, "%s: %d of %d checksums are wrong", path.c_str(), dump.bad, dump.containers);
    return 0;
}
