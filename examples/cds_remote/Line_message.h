// SPDX-License-Identifier: MIT
// The transport is the application's own. Here a message is a letter, the length of its contents as 16 bits, the
// contents.
#pragma once
#include "glue/cds/CDS_remote.h"
#include "glue/data_stream/Data_stream.h"
#include <string>

constexpr int page_size = 48; ///< [bytes] longest contents; small, so that the description takes several pages

inline bool send_message(Data_stream& line, char kind, const char* contents, int length) {
    char message[3 + page_size];
    CDS::Remote::Send_buffer out(message, 0, sizeof message);
    out.append_CHAR(kind);
    out.append_UINT16(static_cast<unsigned short>(length));
    out.buf_append(contents, length);
    const unsigned n = static_cast<unsigned>(out.position - message);
    return line._write(reinterpret_cast<unsigned char*>(message), n) == n;
}

/// The next message, when it is there as a whole.
inline bool receive_message(Data_stream& line, char& kind, std::string& contents) {
    unsigned char message[3 + page_size];
    if (!line.get_data(message, 3)) return false;
    CDS::Remote::Receive_buffer in(reinterpret_cast<char*>(message), 3);
    unsigned short length;
    in.pop_CHAR(kind);
    in.pop_UINT16(length);
    if (length > page_size) { // no message of ours
        line.drop_all();
        return false;
    }
    if (!line.get_data(message, 3u + length)) return false;
    line.drop(3u + length);
    contents.assign(reinterpret_cast<char*>(message) + 3, length);
    return true;
}
