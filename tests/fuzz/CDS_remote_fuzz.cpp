// SPDX-License-Identifier: MIT
// The two readers of what another party sends. "v", a byte that picks the item to begin at, and values for a block; or
// "s", a byte that says where to cut, and a structure description.
#include "cds/Block_fixture.h"
#include "fuzz/checks.h"
#include "glue/cds/CDS_remote.h"
#include "glue/cds/CDS_structure.h"
#include "util/Debug_print.h"
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

using namespace CDS::Remote;

namespace {

class Collector : public Structure_visitor {
public:
    bool item(const Described_item& i) override {
        items.push_back(i);
        return true;
    }
    std::vector<Described_item> items;
};

/// The description of these items.
std::string written(const std::vector<Described_item>& items) {
    std::string text;
    for (size_t n = 0; n < items.size(); ++n) {
        const Described_item& i = items[n];
        const bool last = n + 1 == items.size();
        const int next_depth = last ? 0 : items[n + 1].depth;
        char numbers[16];
        snprintf(numbers, sizeof numbers, "%x:%x:", static_cast<unsigned>(Data_item::get_type_byte(i.shape, i.type)),
                 static_cast<unsigned>(i.id));
        text += numbers + std::string(i.name, static_cast<size_t>(i.name_length));
        if (i.container) text += "{";
        if (next_depth > i.depth) continue;
        if (i.container) text += "}";
        text += std::string(static_cast<size_t>(i.depth - next_depth), '}') + (last ? "" : ",");
    }
    return text;
}

/// Reads a description; what it told is written down in `again`.
Structure_result read(const std::string& text, std::string& again) {
    const auto bytes = exact(text);
    Collector collector;
    const Structure_result result = read_structure(bytes.get(), static_cast<int>(text.size()), collector);
    int most = 0;
    for (const Described_item& i : collector.items) {
        require(i.name >= bytes.get() && i.name_length >= 0 && i.name + i.name_length <= bytes.get() + text.size(),
                "names lie in the text");
        require(i.depth >= 0 && i.depth <= most, "only a container has items one deeper");
        most = i.depth + i.container;
    }
    again = written(collector.items);
    return result;
}

void fuzz_structure(const std::string& text, unsigned char cut) {
    std::string plain, again;
    if (read(text, plain) != structure_complete) return;
    require(read(plain, again) == structure_complete && again == plain, "a description written again reads the same");
    const std::string head = plain.substr(0, cut * plain.size() / 256);
    const Structure_result result = read(head, again);
    require(result == structure_cut || result == structure_complete, "a description that ends early is cut");
}

void fuzz_values(const std::string& values, unsigned char begin) {
    CDS::Head head(nullptr, 0);
    Block block{};
    Data_item::lookup_max_id = 1; // the same identifiers each time
    Block_items items(head, block);
    std::lock_guard<Mutex> guard(head);
    const auto bytes = exact(values);
    const int size = static_cast<int>(values.size());
    Receive_buffer in(bytes.get(), size);
    unsigned short start = begin % 12;
    const Data_item::Serial_ret result = items.root.deserialise(in, start);
    require(in.remaining >= 0 && in.position + in.remaining == bytes.get() + size, "the reader stays in the bytes");
    require(result.ok() || items.root.find_item(result.stop()), "a failure names an item");
    require(!result.next_set() || items.root.find_item(result.next()), "a place to resume is an item");

    // What was taken in goes out as the same bytes, whatever the bytes were.
    char out_bytes[2][64];
    for (char* page : out_bytes) {
        Send_buffer out(page, 0, sizeof out_bytes[0]);
        unsigned short all = 0;
        items.root.serialise(out, all);
        Receive_buffer back(page, static_cast<int>(out.position - page));
        require(items.root.deserialise(back, all).ok() && back.remaining == 0, "its own stream is read whole");
    }
    require(memcmp(out_bytes[0], out_bytes[1], 30) == 0, "values survive the way out and in");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const std::string rest(reinterpret_cast<const char*>(data) + 2, size - 2);
    if (data[0] == 'v')
        fuzz_values(rest, data[1]);
    else
        fuzz_structure(rest, data[1]);
    return 0;
}
