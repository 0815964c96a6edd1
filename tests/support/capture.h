// SPDX-License-Identifier: MIT
#pragma once
#include "util/Debug_print.h"
#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

/// The text that printf would print (255 characters at most).
template <class... Arguments>
std::string text_of(const char* format, Arguments... arguments) {
    char text[256];
    snprintf(text, sizeof text, format, arguments...);
    return text;
}

/// All of a file, which is closed.
inline std::string read_and_close(FILE* file) {
    std::string all;
    std::rewind(file);
    for (int c; (c = std::fgetc(file)) != EOF;) all += static_cast<char>(c);
    std::fclose(file);
    return all;
}

/// Collects what is written to a descriptor (standard output or error, by stdio or raw) until text() is called.
class Capture {
public:
    explicit Capture(FILE* stream) : _stream(stream), _saved(dup(fileno(stream))), _file(std::tmpfile()) {
        fflush(_stream);
        dup2(fileno(_file), fileno(_stream));
    }
    ~Capture() {
        if (_file) text();
    }
    Capture(const Capture&) = delete;

    /// End the capture and return the text.
    std::string text() {
        fflush(_stream);
        dup2(_saved, fileno(_stream));
        close(_saved);
        return read_and_close(std::exchange(_file, nullptr));
    }

private:
    FILE* const _stream;
    const int _saved;
    FILE* _file;
};

/// What `act` prints on the debug output, which is then a file; `flushed` receives whether any of it got there.
template <class Act>
std::string debug_text(Act act, bool* flushed = nullptr) {
    FILE* const before = std::exchange(Debug_print::debug_file, std::tmpfile());
    act();
    struct stat s = {};
    fstat(fileno(Debug_print::debug_file), &s);
    if (flushed) *flushed = s.st_size > 0;
    return read_and_close(std::exchange(Debug_print::debug_file, before));
}
