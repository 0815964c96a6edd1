// SPDX-License-Identifier: MIT
#pragma once
#include "platform/pcf.h"
#include "util/api.h"

/// The flash file store of a POSIX host: files in a directory, with a quota in bytes. What the pcf functions of
/// platform/pcf.h do there:
///
/// - A new file is written beside its name and renamed into place when it is closed; before an append the file's length
/// is
///   noted, and the note goes when it is closed. So open, write, close is all or nothing, also across a crash and
///   across a write that fails: the next mount() puts things right.
/// - One process at a time has a directory mounted; for a second one it is not mounted.
/// - Names with a '/' are refused. Iteration is sorted by name.
///
/// Any thread. Left out of the library with -DKAV_FLASH_STORE=external, where the board brings the functions.
namespace Pcf_host {

/// Use `directory`, which exists, with `quota` [bytes]. False, with errno set, when it cannot be used or another
/// process has it. What was mounted is unmounted first.
KAV_API bool mount(const char* directory, unsigned int quota);
/// Open slots are dropped as a power cut would.
KAV_API void unmount();

/// What can be made to fail.
enum Call {
    call_open_read,
    call_read,
    call_create,
    call_open_write,
    call_write,
    call_close_write,
    call_remove,
    call_info,
    num_calls
};
enum Fault {
    fault_none,
    fault_busy,        ///< the call answers busy
    fault_error,       ///< the call fails
    fault_short_write, ///< half of the bytes are written
};

/// For tests: let the `nth` next call (1: the very next) of a kind fail, and the `times - 1` after it.
KAV_API void inject(Call call, int nth, Fault fault, int times = 1);

} // namespace Pcf_host
