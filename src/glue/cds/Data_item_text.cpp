// SPDX-License-Identifier: MIT
#include "glue/cds/Data_item_text.h"
#include <cstring>
#include <string>

void Data_item_array_stringify<char>::print(const char* label, Debug::Dumper& dumper) const {
    const size_t room = _capacity > 0 ? static_cast<size_t>(_capacity) : 0;
    const std::string text = '"' + std::string(_array, strnlen(_array, room)) + '"';
    dumper.field(label, text.c_str());
}

const char* Data_item_array_destringify<char>::from_string(const char* text) {
    if (*text != '[') return nullptr;
    ++text;
    int n = 0;
    for (; n < _capacity && *text && *text != ']'; ++n) _array[n] = *text++;
    for (; n < _capacity; ++n) _array[n] = 0;
    return text[0] == ']' && text[1] == 0 ? text + 1 : nullptr;
}
