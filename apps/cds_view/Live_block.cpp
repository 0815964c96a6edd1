// SPDX-License-Identifier: MIT
#include "Live_block.h"
#include "glue/cds/CDS_value_text.h"
#include <algorithm>
#include <set>
#include <utility>

using namespace CDS::Remote;

namespace {

/// [ms] for an answer, which takes 2.2 s on a line at 9600 baud.
constexpr int answer_ms = 3000;

std::string printable(const char* text, size_t n) {
    std::string clean(text, n);
    for (char& c : clean)
        if (c < 0x20 || c > 0x7E) c = '_';
    return clean;
}

/// Collects the items of a description.
class Collector : public Structure_visitor {
public:
    explicit Collector(std::vector<Live_block::Item>& items) : _items(items) {}
    bool item(const Described_item& d) override {
        Live_block::Item item{};
        item.name = printable(d.name, static_cast<size_t>(d.name_length));
        item.type = d.type, item.id = d.id, item.depth = d.depth;
        item.container = d.container || value_width(d.type) == 0;
        item.array = d.shape == Data_item::class_array;
        _path.resize(static_cast<size_t>(d.depth));
        for (const std::string& above : _path) item.path += (&above == &_path[0]) ? "" : above + ".";
        if (d.depth > 0) item.path += item.name;
        _path.push_back(item.name);
        _items.push_back(std::move(item));
        // Values are asked for by identifier: what shares one with another item cannot be told from it.
        return _ids.insert(d.id).second;
    }

private:
    std::vector<Live_block::Item>& _items;
    std::vector<std::string> _path;
    std::set<unsigned short> _ids;
};

/// The elements of an array that are given as one text, with their number in front.
bool append_elements(Send_buffer& out, const Live_block::Item& item, const std::string& value) {
    if (item.is_text()) {
        if (value.size() > 255) return false;
        const size_t n = std::max(value.size(), item.elements); // zeros take the place of the text that was there
        out.append_UINT8(static_cast<unsigned char>(n));
        for (size_t i = 0; i < n; ++i) out.append_CHAR(i < value.size() ? value[i] : '\0');
        return true;
    }
    const auto count = 1 + std::count(value.begin(), value.end(), ',');
    if (count > 255) return false;
    out.append_UINT8(static_cast<unsigned char>(count));
    for (size_t from = 0, to; from <= value.size(); from = to + 1) {
        to = std::min(value.find(',', from), value.size());
        if (!append_text(out, item.type, value.substr(from, to - from))) return false;
    }
    return true;
}

} // namespace

bool is_in(const std::string& path, const std::string& wanted) {
    if (path.compare(0, wanted.size(), wanted) != 0) return false;
    return wanted.empty() || path.size() == wanted.size() || path[wanted.size()] == '.' || path[wanted.size()] == '[';
}

std::string Live_block::Item::path_of(size_t element) const {
    return array && !is_text() ? path + "[" + std::to_string(element) + "]" : path;
}

std::string Live_block::must(Client::Result result) const {
    switch (result) {
    case Client::done:
        return "";
    case Client::busy:
        return "it has as many clients as it takes";
    case Client::refused:
        return "it answers nonsense";
    case Client::locked:
        return "one of its threads keeps its data locked";
    default:
        return "it does not answer";
    }
}

std::string Live_block::open(const std::string& source, int stop) {
    items.clear();
    _client.reset();
    _line = std::make_unique<Line>(stop, answer_ms);
    std::string reason = _line->open(source);
    if (!reason.empty()) return reason;
    _client = std::make_unique<Client>(*_line);
    std::string description;
    reason = must(_client->description(description));
    if (!reason.empty()) return reason;
    Collector collector(items);
    switch (read_structure(description.data(), static_cast<int>(description.size()), collector)) {
    case structure_complete:
        return "";
    case structure_stopped:
        return "two of its items have the same identifier";
    default:
        return "its description is damaged";
    }
}

/// Take an item's value; false, and nothing changed, when it is not there as a whole.
bool Live_block::take(Item& item, Receive_buffer& in) {
    Receive_buffer rest = in;
    unsigned char count = 1;
    if (item.array && !rest.pop_UINT8(count)) return false;
    if (rest.remaining < count * value_width(item.type)) return false;
    item.values.clear();
    item.numbers.clear();
    item.elements = count;
    if (item.is_text()) {
        const char* const end = std::find(rest.position, rest.position + count, '\0');
        item.values.push_back('"' + printable(rest.position, static_cast<size_t>(end - rest.position)) + '"');
        rest.position += count;
        rest.remaining -= count;
    }
    for (unsigned i = 0; i < count && !item.is_text(); ++i) {
        Receive_buffer again = rest;
        double number = 0;
        pop_number(again, item.type, number);
        item.numbers.push_back(number);
        item.values.emplace_back();
        pop_text(rest, item.type, item.values.back());
    }
    in = rest;
    return true;
}

/// Answer for answer, each beginning with the first item that the one before did not hold whole.
std::string Live_block::look_at_all() {
    std::string bytes;
    Receive_buffer in(nullptr, 0);
    for (Item& item : items) {
        if (item.container || take(item, in)) continue;
        const std::string reason = must(_client->values(items[0].id, item.id, bytes));
        if (!reason.empty()) return reason;
        in = Receive_buffer(bytes.data(), static_cast<int>(bytes.size()));
        if (!take(item, in)) return must(Client::refused);
    }
    return "";
}

std::string Live_block::look(const std::vector<size_t>& only) {
    if (only.empty()) return look_at_all();
    for (const size_t n : only) {
        std::string bytes;
        const std::string reason = must(_client->values(items[n].id, 0, bytes));
        if (!reason.empty()) return reason;
        Receive_buffer in(bytes.data(), static_cast<int>(bytes.size()));
        if (!take(items[n], in)) return must(Client::refused);
    }
    return "";
}

std::string Live_block::set(const std::string& path, const std::string& value) {
    const auto found = std::find_if(items.begin(), items.end(), [&](const Item& i) { return i.path == path; });
    if (found == items.end() || found->container) return "there is no such value";
    std::string reason = look({static_cast<size_t>(found - items.begin())}); // tells how long a text may be
    if (!reason.empty()) return reason;
    char bytes[Frame::max_contents];
    Send_buffer out(bytes, 0, sizeof bytes);
    if (!(found->array ? append_elements(out, *found, value) : append_text(out, found->type, value)))
        return value + " is no " + type_name(found->type);
    Frame::Write_result result;
    reason = must(_client->write(found->id, std::string(bytes, out.position), result));
    if (!reason.empty()) return reason;
    switch (result) {
    case Frame::written:
        return "";
    case Frame::not_allowed:
        return "the controller does not allow it";
    case Frame::wrong_length:
        return "it has not so many elements";
    default:
        return "there is no such value";
    }
}
