// SPDX-License-Identifier: MIT
#pragma once
#include "support/Temporary_folder.h"

/// Whether the program was started with --nightly: many rounds instead of a few.
inline bool nightly() { return read_file("/proc/self/cmdline").find("--nightly") != std::string::npos; }
