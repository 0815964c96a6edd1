// SPDX-License-Identifier: MIT
#include "support/capture.h"
#include "support/child.h"
#include "util/Lock_order.h"
#include "util/Mutex.h"
#include <csignal>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

namespace {

/// A thread takes what small letters name, releases what capitals name and destroys b at an x. What is left of the
/// script from where the order is found wrong.
std::string rest_of(const char* script) {
    Util::Lock_order order;
    char locks[3];
    std::thread([&] { // a new one holds nothing
        for (; *script; ++script) {
            const void* const lock = &locks[(*script - 'A') % 32 % 3];
            if (*script == 'x') {
                order.destroyed(&locks[1]);
            } else if (isupper(*script)) {
                order.released(lock);
            } else {
                if (!order.wait(lock)) return;
                order.taken(lock);
            }
        }
    })
        .join();
    return script;
}

TEST(Lock_order, is_wrong_where_a_wait_closes_a_circle) {
    const std::pair<const char*, const char*> cases[] = {
        {"abBAabBA", ""},     {"abBAbaAB", "aAB"},     {"abABbaAB", "aAB"},
        {"abBAbcCBacCA", ""}, {"abBAbcCBcaAC", "aAC"}, {"abAcBCcaAC", "aAC"},
        {"abBAxbaAB", ""},    {"aaAbBA", ""},          {"abBAcbBCcaACbaAB", "aAB"},
    };
    for (const auto& [script, rest] : cases) {
        Capture err(stderr);
        EXPECT_EQ(rest_of(script), rest) << script;
        EXPECT_EQ(err.text().find("\n  before thread ") != std::string::npos, *rest != 0);
    }
}

#ifdef KAV_CHECK_LOCK_ORDER
TEST(Lock_order, of_mutexes_ends_the_process) {
    const Child_result r = run_child([] {
        Mutex a, b;
        for (auto [first, second] : {std::pair(&a, &b), std::pair(&b, &a)}) {
            const std::lock_guard<Mutex> outer(*first), inner(*second);
        }
    });
    EXPECT_EQ(r.signal, SIGABRT);
    EXPECT_EQ(r.err.find("Locks are taken in contradictory orders:\n  now thread test_util_Lock"), 0u) << r.err;
}
#endif

} // namespace
