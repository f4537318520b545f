// The check of the lock order, as debug builds have it; this file is compiled without NDEBUG in every build.

#include "core/mutex.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr std::pair<LockRank, const char*> LOCKS[] = {{LockRank::Motion, "MotionLock"},
                                                      {LockRank::MotionState, "MotionStateLock"},
                                                      {LockRank::ConfigStore, "ConfigStoreLock"},
                                                      {LockRank::Preset, "PresetLock"},
                                                      {LockRank::Bus, "BusLock"}};

// Held down the side, taken along the top: + allowed, - against the order.
constexpr const char* ALLOWED[] = {
    "--+++", // MotionLock: not with MotionStateLock
    "--+++", // MotionStateLock
    "--+++", // ConfigStoreLock, which may be taken again
    "-----", // PresetLock
    "-----", // BusLock
};

bool takeBoth(LockRank first, LockRank second, bool waiting) NO_THREAD_SAFETY_ANALYSIS
{
    Mutex outer(first);
    Mutex inner(second);
    outer.lock();
    const bool both = waiting ? (inner.lock(), true) : inner.tryLock();
    inner.unlock();
    outer.unlock();
    return both;
}

TEST(LockOrder, AcceptsTheOrderAndAbortsOnEverythingElse)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (size_t held = 0; held < std::size(LOCKS); ++held) {
        for (size_t next = 0; next < std::size(LOCKS); ++next) {
            const auto [outer, outerName] = LOCKS[held];
            const auto [inner, innerName] = LOCKS[next];
            const std::string what = std::string(innerName) + " taken while " + outerName + " is held\n";
            if (ALLOWED[held][next] == '+')
                EXPECT_TRUE(takeBoth(outer, inner, true) && takeBoth(outer, inner, false)) << what;
            else
                EXPECT_EXIT((void)takeBoth(outer, inner, (held + next) % 2 == 0), testing::KilledBySignal(SIGABRT),
                            "^lock order: " + what);
        }
    }
}

} // namespace
