// SPDX-License-Identifier: MIT
#pragma once

/// Marks what the shared library exports; everything else stays hidden.
#define KAV_API __attribute__((visibility("default")))

/// Marks what hardly anybody but the library itself and its tests calls: the smallest builds do not export it.
#ifdef KAV_HIDE_INTERNALS
#define KAV_INTERNAL
#else
#define KAV_INTERNAL KAV_API
#endif

/// Lets the compiler check printf-style arguments. Positions count from 1; in member functions `this` is 1.
#define KAV_PRINTF(format_position, first_argument) __attribute__((format(printf, format_position, first_argument)))
