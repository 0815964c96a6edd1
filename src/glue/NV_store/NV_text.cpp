// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_text.h"
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_pointer.h"
#include "glue/NV_store/NV_root.h"
#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

namespace NV_store {
namespace {

// ---- paths

bool is_control(char c) { return static_cast<unsigned char>(c) < ' ' || c == 127; }
bool is_blank(char c) { return c == ' ' || c == '\t'; }

/// Whether a name can stand in a path as it is.
bool is_plain(std::string_view name) {
    return !name.empty() && !strchr("#[ ", name.front()) && name.back() != ' ' &&
           name.find_first_of("/,=") == std::string_view::npos && std::none_of(name.begin(), name.end(), is_control);
}

bool is_unique(const NV_item& item) {
    const NV_container& parent = *item.get_parent();
    for (const NV_item* i = parent.get_next_child(nullptr); i; i = parent.get_next_child(i))
        if (i != &item && strcmp(i->get_name(), item.get_name()) == 0) return false;
    return true;
}

std::string path_of(const NV_item& item) {
    const NV_container* const parent = item.get_parent();
    if (!parent) return "/"; // no line has it, but one from a hand may
    std::string path = parent->get_parent() ? path_of(*parent) + '/' : "";
    if (parent->children_named() && is_plain(item.get_name()) && is_unique(item)) return path + item.get_name();
    const std::string position = std::to_string(parent->get_my_index(&item));
    return path + (parent->children_named() ? '[' + position + ']' : position);
}

// ---- values

/// Whether an item is a number that also says so.
bool has_text(const NV_item& item) {
    return item.get_number_type() != Data_item::item_root && item.get_type() == item.get_number_type();
}

/// Read a value that takes the whole text; false when it does not, or is out of range.
bool read_value(std::string_view text, Value_type type, uint64_t& bits) {
    if (type.is_bool() && (text == "yes" || text == "no")) {
        bits = text == "yes";
        return true;
    }
    if (!type.read(text, bits)) return false;
    // Of what is not finite, only the words that a setting itself has for it.
    return !type.is_floating() || std::isfinite(type.number(bits)) || text == type.text(bits);
}

/// What is wrong with a text that is no value.
std::string refusal(Value_type type) {
    if (type.is_bool()) return "is neither true nor false";
    if (type.is_floating()) return "is no number that fits";
    return "is no number from " + type.text(type.min()) + " to " + type.text(type.max());
}

std::string text_of(const NV_item& number) {
    return Value_type(number.get_number_type()).text(static_cast<const NV_number_base&>(number).get_bits());
}

/// A value or a path as it can be shown in a message.
std::string shown(std::string_view text) {
    constexpr size_t max_shown = 60; // [characters]
    std::string s(text.substr(0, max_shown));
    std::replace_if(s.begin(), s.end(), is_control, '?');
    return text.size() > max_shown ? s + "..." : s;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (is_blank(text.front()))) text.remove_prefix(1);
    while (!text.empty() && (is_blank(text.back()) || text.back() == '\r')) text.remove_suffix(1);
    return text;
}

/// Checks line after line and remembers what is to be set.
class Importer {
public:
    explicit Importer(NV_root& root) {
        for (NV_item* i = &root; i; i = root.get_next_in_tree(i)) _items[path_of(*i)] = i;
    }

    /// What is wrong with a line; empty when nothing is.
    std::string take(std::string_view line, int number) {
        line = trimmed(line);
        if (line.empty() || line.front() == '#') return "";
        const size_t equals = line.find('=');
        if (equals == std::string_view::npos) return "no '=' in \"" + shown(line) + '"';
        const std::string_view path = trimmed(line.substr(0, equals)), value = trimmed(line.substr(equals + 1));
        const auto found = _items.find(path);
        std::string error;
        if (found == _items.end())
            error = "there is no such setting";
        else if (const int before = std::exchange(_lines[found->second], number))
            error = "was set in line " + std::to_string(before) + " already";
        else
            error = take_value(*found->second, value);
        return error.empty() ? error : shown(path) + ": " + error;
    }

    int set_all() {
        for (const auto& set : _setters) set();
        return static_cast<int>(_setters.size());
    }

private:
    std::string take_value(NV_item& item, std::string_view text) {
        if (item.as_container()) return "is no setting but a container";
        if (NV_pointer* pointer = item.as_pointer()) return take_target(*pointer, text);
        if (!has_text(item)) return "has a type without a text form";
        const Value_type type(item.get_number_type());
        uint64_t bits;
        if (!read_value(text, type, bits)) return '"' + shown(text) + "\" " + refusal(type);
        _setters.emplace_back([&item, bits] { static_cast<NV_number_base&>(item).set_bits(bits, notify_all); });
        return "";
    }

    std::string take_target(NV_pointer& pointer, std::string_view text) {
        NV_item* target = nullptr;
        if (!text.empty()) {
            const auto found = _items.find(text);
            if (found == _items.end()) return "there is nothing at \"" + shown(text) + '"';
            target = found->second;
            if (!pointer.can_point_at(target)) return "cannot point at \"" + shown(text) + '"';
        }
        _setters.emplace_back([&pointer, target] { pointer.set(target); });
        return "";
    }

    std::map<std::string, NV_item*, std::less<>> _items; ///< by path
    std::map<const NV_item*, int> _lines;                ///< where they are given
    std::vector<std::function<void()>> _setters;
};

} // namespace

std::string export_text(NV_root& root) {
    std::string text;
    const Scoped_lock held(root);
    for (NV_item* i = &root; i; i = root.get_next_in_tree(i)) {
        if (i->as_container()) continue;
        const std::string path = path_of(*i);
        if (const NV_pointer* pointer = i->as_pointer()) {
            const NV_item* const target = pointer->get();
            text += path + '=' + (target ? path_of(*target) : "") + '\n';
            continue;
        }
        text += has_text(*i) ? path + '=' + text_of(*i) + '\n' : "# " + path + " has no text form\n";
    }
    return text;
}

Import_result import_text(NV_root& root, const std::string& text) {
    const Scoped_lock held(root);
    Importer importer(root);
    Import_result result;
    int number = 0;
    for (std::string_view rest = text; !rest.empty();) {
        const size_t end = std::min(rest.find('\n'), rest.size());
        const std::string error = importer.take(rest.substr(0, end), ++number);
        if (!error.empty()) {
            result.error = "line " + std::to_string(number) + ": " + error;
            return result;
        }
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    result.values = importer.set_all();
    return result;
}

} // namespace NV_store
