// SPDX-License-Identifier: MIT
#include "Visitor.h"
#include "glue/cds/CDS_value_text.h"
#include <cstdio>
#include <cstdlib>

using namespace CDS::Remote;

namespace {

class Collector : public Structure_visitor {
public:
    bool item(const Described_item& item) override {
        items.push_back({item, std::string(item.name, static_cast<size_t>(item.name_length))});
        return true;
    }
    std::vector<Remote_item> items;
};

void must(Client::Result result) {
    if (result == Client::done) return;
    fprintf(stderr, "visitor: the machine does not answer\n");
    exit(1);
}

} // namespace

std::string Visitor::fetch_description() {
    std::string description;
    must(_client.description(description));
    return description;
}

std::vector<Remote_item> Visitor::items_of(const std::string& description) {
    Collector collector;
    const auto result = read_structure(description.data(), static_cast<int>(description.size()), collector);
    return result == structure_complete ? collector.items : std::vector<Remote_item>();
}

std::string Visitor::read(const Remote_item& item) {
    std::string bytes, text, all;
    must(_client.values(item.described.id, 0, bytes));
    Receive_buffer in(bytes.data(), static_cast<int>(bytes.size()));
    unsigned char count = 1;
    if (item.described.shape == Data_item::class_array) in.pop_UINT8(count); // an array begins with their number
    if (item.described.type == Data_item::item_char) return '"' + std::string(in.position) + '"';
    for (int i = 0; i < count && pop_text(in, item.described.type, text); ++i) all += (i ? ", " : "") + text;
    return all;
}

bool Visitor::write(const Remote_item& item, const std::string& value) {
    char bytes[8];
    Send_buffer out(bytes, 0, sizeof bytes);
    Frame::Write_result result;
    if (!append_text(out, item.described.type, value)) return false;
    must(_client.write(item.described.id, std::string(bytes, out.position), result));
    return result == Frame::written;
}
