// SPDX-License-Identifier: MIT
#include "Visitor.h"
#include "Line_message.h"
#include "glue/cds/CDS_remote_values.h"
#include "glue/cds/Data_item_text.h"
#include <cstdio>
#include <cstdlib>

using CDS::Remote::Described_item;
using CDS::Remote::Receive_buffer;
using CDS::Remote::Send_buffer;

namespace {

template <class T>
std::string next_value(Receive_buffer& in) {
    T value;
    if (!CDS::Remote::pop_value(in, value)) return "?";
    char text[32];
    Data_item_stringify<T>(&value).to_string(text, sizeof text);
    return text;
}

struct Type {
    Data_item::item_type_t code;
    const char* name;
    std::string (*next_value)(Receive_buffer&); ///< take the next value as text
};

constexpr Type types[] = {{Data_item::item_bool, "bool", next_value<bool>},
                          {Data_item::item_char, "char", next_value<char>},
                          {Data_item::item_uint8, "unsigned char", next_value<unsigned char>},
                          {Data_item::item_uint16, "unsigned short", next_value<unsigned short>},
                          {Data_item::item_uint32, "unsigned int", next_value<unsigned int>},
                          {Data_item::item_uint64, "unsigned long long", next_value<unsigned long long>},
                          {Data_item::item_int8, "signed char", next_value<signed char>},
                          {Data_item::item_int16, "short", next_value<short>},
                          {Data_item::item_int32, "int", next_value<int>},
                          {Data_item::item_int64, "long long", next_value<long long>},
                          {Data_item::item_float, "float", next_value<float>},
                          {Data_item::item_double, "double", next_value<double>}};

const Type* type_of(const Described_item& item) {
    for (const Type& type : types)
        if (type.code == item.type) return &type;
    return nullptr;
}

std::string id_bytes(unsigned short id) {
    char bytes[2];
    Send_buffer(bytes, 0, sizeof bytes).append_UINT16(id);
    return std::string(bytes, sizeof bytes);
}

std::string int_bytes(int value) {
    char bytes[4];
    Send_buffer(bytes, 0, sizeof bytes).append_INT32(value);
    return std::string(bytes, sizeof bytes);
}

class Collector : public CDS::Remote::Structure_visitor {
public:
    bool item(const Described_item& item) override {
        items.push_back({item, std::string(item.name, static_cast<size_t>(item.name_length))});
        return true;
    }
    std::vector<Remote_item> items;
};

} // namespace

std::string Visitor::ask(char kind, const std::string& request) {
    std::string answer;
    if (send_message(_line, kind, request.data(), static_cast<int>(request.size())) &&
        receive_message(_line, kind, answer))
        return answer;
    fprintf(stderr, "visitor: the machine does not answer\n");
    exit(1);
}

std::string Visitor::fetch_description() {
    std::string all, page;
    do {
        page = ask('D', int_bytes(static_cast<int>(all.size())));
        all += page;
    } while (page.size() == page_size);
    return all;
}

std::vector<Remote_item> Visitor::items_of(const std::string& description) {
    Collector collector;
    const auto result =
        CDS::Remote::read_structure(description.data(), static_cast<int>(description.size()), collector);
    return result == CDS::Remote::structure_complete ? collector.items : std::vector<Remote_item>();
}

const char* Visitor::type_name(const Remote_item& item) {
    const Type* const type = type_of(item.described);
    return type ? type->name : item.described.container ? "struct" : "(unknown)";
}

std::string Visitor::read(const Remote_item& item) {
    const Type* const type = type_of(item.described);
    if (!type) return "?";
    const std::string bytes = ask('R', id_bytes(item.described.id));
    Receive_buffer in(bytes.data(), static_cast<int>(bytes.size()));
    if (item.described.shape == Data_item::class_value) return type->next_value(in);

    unsigned char count = 0; // an array begins with the number of its elements
    in.pop_UINT8(count);
    if (type->code == Data_item::item_char) return '"' + std::string(bytes.c_str() + 1) + '"';
    std::string text;
    for (int i = 0; i < count; ++i) text += (i ? ", " : "") + type->next_value(in);
    return text;
}

bool Visitor::write(const Remote_item& item, int value) {
    return ask('W', id_bytes(item.described.id) + int_bytes(value)) == id_bytes(0);
}
