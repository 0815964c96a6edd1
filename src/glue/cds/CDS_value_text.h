// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/CDS_remote.h"
#include "util/api.h"
#include <string>

/// Values of the remote format as text, by the type that a description gives. Numbers are written in the C locale with
/// as many digits as tell them from all others.
namespace CDS::Remote {

/// "unsigned short" and so on; "struct" for containers, "(unknown)" for what no value has.
KAV_API const char* type_name(Data_item::item_type_t type);
/// [bytes] of one value; 0 for what is none.
KAV_API int value_width(Data_item::item_type_t type);

/// Take the next value as text; a char as its code, 0 to 255, a bool as "true" or "false". False, and nothing changed,
/// when too few bytes remain or the type has no values.
KAV_API bool pop_text(Receive_buffer& in, Data_item::item_type_t type, std::string& text);
/// The same as a number; a large integer is rounded.
KAV_API bool pop_number(Receive_buffer& in, Data_item::item_type_t type, double& number);
/// Append a value that is given as text: "true", "false", a number of the type's range; integers also as 0x1F. False,
/// and nothing appended, when it is none.
KAV_API bool append_text(Send_buffer& out, Data_item::item_type_t type, const std::string& text);

} // namespace CDS::Remote
