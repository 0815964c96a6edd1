// SPDX-License-Identifier: MIT
#include "glue/vorn/Ascii_message.h"
#include "glue/vorn/Binary_message.h"
#include "util/number_text.h"
#include <algorithm>
#include <cstring>

namespace {

/// Five bytes of frame header and the first of the body.
constexpr uint32_t skipped = 6;

/// A copy that ends in a zero, since the functions that read numbers know no other end.
struct Number_text {
    Number_text(const char* characters, int len) {
        const size_t n = static_cast<size_t>(std::clamp(len, 0, int(sizeof text) - 1));
        if (n > 0) memcpy(text, characters, n);
        text[n] = 0;
    }
    char text[64];
};

Number_text number_text(const Ascii_message& m, int k) {
    int len;
    const char* field = m.get_string(k, len);
    return Number_text(field, len);
}

} // namespace

Ascii_message::Ascii_message(const Binary_message& m, bool skip) : text(reinterpret_cast<char*>(m.data)), size(m.size) {
    if (!skip) return;
    const uint32_t head = std::min(skipped, size);
    text += head;
    size -= head;
}

Ascii_message::~Ascii_message() = default;

char* Ascii_message::end() const { return std::find(text, text + size, '\0'); }

bool Ascii_message::isnull() const { return size == 0 || text[0] == 0; }

void Ascii_message::zap() { std::fill_n(text, size, '\0'); }

char* Ascii_message::strchr(const char* from, char c) const {
    if (from < text || from >= text + size) return nullptr;
    return static_cast<char*>(memchr(text + (from - text), c, static_cast<size_t>(text + size - from)));
}

char* Ascii_message::get_field(int k) const {
    if (k < 0) return nullptr;
    char* const last = end();
    char* field = text;
    for (; k > 0; --k) {
        field = std::find(field, last, ',');
        if (field == last) return nullptr;
        ++field;
    }
    while (field < last && *field == '{') ++field;
    return field;
}

char* Ascii_message::field_end(char* field) const {
    return std::find_if(field, end(), [](char c) { return c == ',' || c == '}'; });
}

char Ascii_message::get_char(int k) const {
    const char* field = get_field(k);
    return field && field < end() ? *field : '\0';
}

char* Ascii_message::get_string(int k, int& len) const {
    char* field = get_field(k);
    len = field ? static_cast<int>(field_end(field) - field) : 0;
    return field;
}

bool Ascii_message::is_field_valid(int k) const { return field_exists(k) && get_char(k) != ','; }

int Ascii_message::get_num_valid_fields() const {
    int n = 0;
    while (is_field_valid(n)) ++n;
    return n;
}

double Ascii_message::get_double(int k) const { return Util::to_double(number_text(*this, k).text); }
uint32_t Ascii_message::get_uint32(int k) const { return Util::to_ulong32(number_text(*this, k).text); }
int32_t Ascii_message::get_int32(int k) const { return Util::to_long32(number_text(*this, k).text); }
int32_t Ascii_message::get_timeval(int k) const {
    int len;
    const char* field = get_string(k, len);
    return parse_timeval(field, len);
}

int32_t Ascii_message::parse_timeval(const char* characters, int len) {
    static const struct {
        char letter;
        uint32_t seconds;
    } units[] = {{'d', 86400}, {'h', 3600}, {'m', 60}, {'s', 1}};
    const Number_text copy(characters, len);
    const char* at = copy.text;
    uint32_t total = 0; // a sum beyond 32 bits wraps
    for (const auto& unit : units) {
        const char* behind;
        const int32_t number = Util::to_long32(at, 10, &behind);
        if (behind == at) return 0;
        if (*behind != unit.letter) continue;
        total += static_cast<uint32_t>(number) * unit.seconds;
        if (unit.letter == 's') return static_cast<int32_t>(total);
        at = behind + 1;
    }
    return 0;
}

bool Ascii_message::name_match(const char* name, int n) const {
    const size_t wanted = std::min<size_t>(n < 0 ? strlen(name) : static_cast<size_t>(n), size);
    return wanted == 0 || strncmp(text, name, wanted) == 0;
}

bool Ascii_message::shift_fields(int k) {
    const char* field = get_field(k);
    if (!field) return false;
    std::copy(field, static_cast<const char*>(end()), text);
    return true;
}

void Ascii_message::setup(char* dst, uint32_t dst_size) {
    const uint32_t copied = std::min(size, dst_size);
    const uint32_t length = dst_size > uint64_t(size) + 1 ? size : dst_size;
    std::copy_n(text, copied, dst);
    std::fill(dst + copied, dst + length + 1, '\0');
    text = dst;
    size = length;
}

void Ascii_message::set(const Binary_message& m, bool skip) {
    zap();
    const Ascii_message source(m, skip);
    std::copy_n(source.text, std::min<size_t>(size, static_cast<size_t>(source.end() - source.text)), text);
}
