// SPDX-License-Identifier: MIT
#include "glue/vorn/Vorn_error_decoder.h"
#include "util/assertion.h"
#include <climits>
#include <cstddef>
#include <cstring>

namespace {

constexpr const char* texts[] = {
    ",wrong command",
    ",1st parameter missed",
    ",wrong 1st parameter",
    ",value missed",
    ",value out of range",
    ",2nd parameter missed",
    ",wrong 2nd parameter",
    ",wrong file name",
    ",file open error",
    ",file system not mounted",
    ",file read error",
    ",file already exists",
    ",data transfer open",
    ",can't create file",
    ",terminated by user",
    ",wrong receiver id",
    ",wrong option name",
    ",bad option date",
    ",bad option value",
    ",access denied",
    ",option disabled",
    ",operation in progress",
    ",no file system device",
    ",dup loop",
    ",not supported",
    ",can't remove file",
    ",device is not accessible",
    ",broken file",
    ",wrong hardware version",
    ",incompatible file version",
    ",file write error",
    ",data transfer error",
    ",can't lock",
    ",no valid mass storage found",
    ",can't create work directory",
    ",file system not supported",
    ",file not found",
    ",can't copy onto itself",
    ",device is write protected",
    // One entry: as a field holds no comma, neither half of it is ever found, and the numbering counts it once.
    ",device busy,invalid file length",
    ",data transfer delay",
};
static_assert(sizeof texts / sizeof *texts == Vorn_error_decoder::num_errors);

bool fill(Vorn_error_decoder::Table& table) {
    for (int code = 1; const char* str = errcode2str(code); ++code) {
        if (str[0] != ',') {
            Util::assertion_failed("str[0] == ','", "glue/vorn/Vorn_error_decoder", 62,
                                   "static void Vorn_error_decoder::init()");
        }
        table.insert({str + 1, code});
    }
    return true;
}

} // namespace

const char* errcode2str(int code) {
    return code >= 1 && code <= Vorn_error_decoder::num_errors ? texts[code - 1] : nullptr;
}

Vorn_error_decoder::Table Vorn_error_decoder::lookup;
std::atomic<bool> Vorn_error_decoder::init_done{false};

bool Vorn_error_decoder::Item::operator<(const Item& b) const { return strcmp(text, b.text) < 0; }

bool Vorn_error_decoder::Item::operator>(const Item& b) const { return strcmp(text, b.text) > 0; }

bool Vorn_error_decoder::Table::insert(const Item& item) {
    if (count == num_errors) return false;
    int place = 0;
    while (place < count && !(items[place] > item)) ++place;
    for (int i = count; i > place; --i) items[i] = items[i - 1];
    items[place] = item;
    ++count;
    return true;
}

int32_t Vorn_error_decoder::Table::find(const char* text) const {
    const Item wanted(text, 0);
    int low = 0, high = count - 1;
    while (low <= high) {
        const int middle = (low + high) / 2;
        if (wanted < items[middle]) {
            high = middle - 1;
        } else if (wanted > items[middle]) {
            low = middle + 1;
        } else {
            return items[middle].code;
        }
    }
    return -1;
}

void Vorn_error_decoder::init() {
    // Threads that come together here wait until one of them has filled the table.
    static const bool filled = fill(lookup);
    init_done = filled;
}

int Vorn_error_decoder::get(const char* text) {
    if (!text) return -1;
    if (!init_done) init();
    return lookup.find(text);
}

int Vorn_error_decoder::extract(const char* reply) { return extract(reply, INT_MAX); }

int Vorn_error_decoder::extract(const char* reply, int len) {
    if (!reply) return -1;
    char field[64];
    size_t n = 0; // counts on behind the buffer and behind a "}"
    for (; len > 0 && *reply; ++reply, --len) {
        if (*reply == ',') {
            n = 0;
            continue;
        }
        if (n < sizeof field) field[n] = *reply == '}' ? '\0' : *reply;
        ++n;
    }
    if (n < 3) return -1; // shorter than any error text
    field[n < sizeof field ? n : sizeof field - 1] = '\0';
    return get(field);
}
