// SPDX-License-Identifier: MIT
#include "util/Debug_dumper.h"

Debug::Dumper::~Dumper() = default;
