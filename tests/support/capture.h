// SPDX-License-Identifier: MIT
#pragma once
#include <cstdio>
#include <string>
#include <unistd.h>

/// Collects what is written to a descriptor (standard output or error, by stdio or raw) until text() is called.
class Capture {
public:
    explicit Capture(FILE* stream) : _stream(stream), _fd(fileno(stream)), _file(std::tmpfile()) {
        fflush(_stream);
        _saved = dup(_fd);
        dup2(fileno(_file), _fd);
    }
    ~Capture() {
        restore();
        fclose(_file);
    }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    /// End the capture and return the text.
    std::string text() {
        restore();
        std::string all;
        std::rewind(_file);
        for (int c; (c = std::fgetc(_file)) != EOF;) all += static_cast<char>(c);
        return all;
    }

private:
    void restore() {
        if (_saved < 0) return;
        fflush(_stream);
        dup2(_saved, _fd);
        close(_saved);
        _saved = -1;
    }

    FILE* _stream;
    int _fd;
    FILE* _file;
    int _saved;
};
