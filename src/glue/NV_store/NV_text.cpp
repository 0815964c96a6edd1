// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_text.h"
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_pointer.h"
#include "glue/NV_store/NV_root.h"
#include "glue/NV_store/NV_values.h"
#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
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

/// The base type of a number that also says so; else item_root, which has no text form.
Data_item::item_type_t text_type(const NV_item& item) {
    return item.get_type() == item.get_number_type() ? item.get_type() : Data_item::item_root;
}

/// The setting of a base type.
template <class Base>
using Number = NV_number<typename Base::Value, Base::type>;

/// The whole numbers that a type holds; a bool's and a char's are their codes. Reading and telling the range is so the
/// same for all of them, which is half of the code that a type would take.
struct Range {
    bool is_whole;
    long long min;
    unsigned long long max;
};

Range range_of(Data_item::item_type_t type) {
    return with_base_type(type, Range{}, [](auto base) {
        using T = typename decltype(base)::Value;
        using Limits = std::numeric_limits<std::conditional_t<std::is_same_v<T, char>, unsigned char, T>>;
        if constexpr (std::is_floating_point_v<T>)
            return Range{};
        else
            return Range{true, static_cast<long long>(Limits::min()), static_cast<unsigned long long>(Limits::max())};
    });
}

/// A value of any base type.
struct Value {
    template <class T>
    void put(T v) {
        static_assert(sizeof v <= sizeof bytes);
        memcpy(bytes, &v, sizeof v);
    }
    template <class T>
    T get() const {
        T v;
        memcpy(&v, bytes, sizeof v);
        return v;
    }
    unsigned char bytes[8];
};

/// A whole number of a range, as the bits of its two's complement; false when the text is none.
bool read_whole_number(std::string_view text, const Range& range, unsigned long long& bits) {
    const bool hexadecimal = text.substr(0, 2) == "0x" || text.substr(0, 2) == "0X";
    const bool negative = !hexadecimal && range.min < 0 && text.substr(0, 1) == "-";
    if (hexadecimal || negative) text.remove_prefix(hexadecimal ? 2 : 1);
    const char* const end = text.data() + text.size();
    unsigned long long magnitude = 0;
    const std::from_chars_result read = std::from_chars(text.data(), end, magnitude, hexadecimal ? 16 : 10);
    if (read.ec != std::errc() || read.ptr != end) return false;
    bits = negative ? 0 - magnitude : magnitude;
    return magnitude <= (negative ? 0 - static_cast<unsigned long long>(range.min) : range.max);
}

bool read_bool(std::string_view text, bool& value) {
    value = text == "true" || text == "yes" || text == "1";
    return value || text == "false" || text == "no" || text == "0";
}

template <class T>
bool read_floating(std::string_view text, T& value) {
    const char* const end = text.data() + text.size();
    const std::from_chars_result read = std::from_chars(text.data(), end, value);
    // Of what is not finite, only the words that a setting itself has for it.
    if (!std::isfinite(value) && text != value_text(value)) return false;
    return read.ec == std::errc() && read.ptr == end;
}

/// Read a value that takes the whole text; false when it does not, or is out of range.
bool read_value(std::string_view text, Data_item::item_type_t type, Value& value) {
    const Range range = range_of(type);
    unsigned long long bits = 0;
    if (range.is_whole && type != Data_item::item_bool && !read_whole_number(text, range, bits)) return false;
    return with_base_type(type, false, [&](auto base) {
        typename decltype(base)::Value v{};
        bool good = true;
        if constexpr (std::is_same_v<decltype(v), bool>)
            good = read_bool(text, v);
        else if constexpr (std::is_floating_point_v<decltype(v)>)
            good = read_floating(text, v);
        else
            v = static_cast<decltype(v)>(bits);
        value.put(v);
        return good;
    });
}

/// What is wrong with a text that is no value.
std::string refusal(Data_item::item_type_t type) {
    const Range range = range_of(type);
    if (type == Data_item::item_bool) return "is neither true nor false";
    if (!range.is_whole) return "is no number that fits";
    return "is no number from " + value_text(range.min) + " to " + value_text(range.max);
}

std::string text_of(const NV_item& number) {
    return with_base_type(number.get_type(), std::string(), [&](auto base) {
        return value_text(static_cast<const Number<decltype(base)>&>(number).get());
    });
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
        const Data_item::item_type_t type = text_type(item);
        if (type == Data_item::item_root) return "has a type without a text form";
        Value value{};
        if (!read_value(text, type, value)) return '"' + shown(text) + "\" " + refusal(type);
        _setters.emplace_back([&item, value] {
            with_base_type(item.get_type(), false, [&](auto base) {
                return static_cast<Number<decltype(base)>&>(item).set(value.get<typename decltype(base)::Value>());
            });
        });
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
        text += text_type(*i) == Data_item::item_root ? "# " + path + " has no text form\n"
                                                      : path + '=' + text_of(*i) + '\n';
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
