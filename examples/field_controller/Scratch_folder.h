// SPDX-License-Identifier: MIT
#pragma once
#include <string>
#include <sys/types.h>

/// A folder among the system's temporary files that goes with the program, however that ends: a child process makes it,
/// waits for the end and removes it. Before the first thread.
class Scratch_folder {
public:
    explicit Scratch_folder(const std::string& name); ///< of the program; a unique ending is added
    ~Scratch_folder();                                ///< the folder is gone afterwards
    Scratch_folder(const Scratch_folder&) = delete;
    Scratch_folder& operator=(const Scratch_folder&) = delete;

    std::string path; ///< empty when there is none to be had: errno

private:
    int join(); ///< end the keeper; its exit status: an errno, 0 when it made the folder and removed it

    pid_t _keeper = -1;
    int _lifeline = -1; ///< closed when the program ends: the keeper reads the other end
};
