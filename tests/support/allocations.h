// SPDX-License-Identifier: MIT
#pragma once

/// Heap blocks that all threads of the program have asked for so far. Take the difference over what must not allocate,
/// after one round that warms up whatever is built on first use.
long allocations();
