// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <mutex>

namespace Util {

/// Finds locks that are waited for in contradictory orders before threads meet there: it remembers which lock was ever
/// waited for while which other one was held. A wait that closes a cycle can end in a deadlock, even if not today.
///
/// For debug builds: with KAV_CHECK_LOCK_ORDER every Mutex asks the one instance and aborts at the first contradiction.
/// That costs a walk through a table, under a lock of its own, for each lock taken while another one is held; no heap
/// is used. Any thread.
class KAV_INTERNAL Lock_order {
public:
    Lock_order();
    Lock_order(const Lock_order&) = delete;
    Lock_order& operator=(const Lock_order&) = delete;
    static Lock_order& get(); ///< lives as long as the process

    /// The calling thread is about to wait for `lock`. False when that contradicts what was seen before, which is
    /// reported on the debug output: for each step of the cycle the thread, the two locks and the calls that led there.
    bool wait(const void* lock);
    void taken(const void* lock);    ///< by the calling thread
    void released(const void* lock); ///< by the calling thread, in any order
    void destroyed(const void* lock);

private:
    static constexpr int max_steps = 1024, max_way = 16;

    /// A thread waited for `wanted` while it held `held`.
    struct Step {
        void tell(const char* when) const;

        const void *held, *wanted;
        char thread[16]; ///< its name
        void* calls[10];
        int num_calls;
    };

    bool known(const void* held, const void* wanted) const;
    int find_way(const void* from, const void* to, int length);

    std::mutex _mutex;
    Step _steps[max_steps]; ///< what comes when it is full is checked, but not remembered
    int _num_steps = 0;
    const Step* _way[max_way]; ///< the one that was found
};

} // namespace Util
