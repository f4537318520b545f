// The check of the lock order, as debug builds have it; this file is compiled without NDEBUG in every build.

#include "core/mutex.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace {

constexpr LockRank RANKS[] = {LockRank::Motion, LockRank::MotionState, LockRank::ConfigStore, LockRank::Preset,
                              LockRank::Bus};
constexpr const char* NAMES[] = {"MotionLock", "MotionStateLock", "ConfigStoreLock", "PresetLock", "BusLock"};

bool taken(Mutex& mutex, bool waiting) NO_THREAD_SAFETY_ANALYSIS
{
    if (!waiting)
        return mutex.tryLock();
    mutex.lock();
    return true;
}

bool takeBoth(LockRank first, LockRank second, bool waiting) NO_THREAD_SAFETY_ANALYSIS
{
    Mutex outer(first);
    Mutex inner(second);
    outer.lock();
    const bool both = taken(inner, waiting);
    inner.unlock();
    outer.unlock();
    return both;
}

void takeAgain(RecursiveMutex& mutex) NO_THREAD_SAFETY_ANALYSIS
{
    mutex.lock();
    mutex.lock();
    mutex.unlock();
    mutex.unlock();
}

// Held down the side, taken along the top: + allowed, - against the order.
constexpr const char* ALLOWED[] = {
    "--+++", // MotionLock: not with MotionStateLock
    "--+++", // MotionStateLock
    "--+++", // ConfigStoreLock, which may be taken again
    "-----", // PresetLock
    "-----", // BusLock
};

TEST(LockOrder, AcceptsTheOrderAndAbortsOnEverythingElse)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (size_t held = 0; held < std::size(RANKS); ++held) {
        for (size_t next = 0; next < std::size(RANKS); ++next) {
            SCOPED_TRACE(std::string(NAMES[next]) + " after " + NAMES[held]);
            if (ALLOWED[held][next] == '+') {
                EXPECT_TRUE(takeBoth(RANKS[held], RANKS[next], true));
                EXPECT_TRUE(takeBoth(RANKS[held], RANKS[next], false));
                continue;
            }
            const std::string text =
                std::string("^lock order: ") + NAMES[next] + " taken while " + NAMES[held] + " is held\n";
            EXPECT_EXIT((void)takeBoth(RANKS[held], RANKS[next], true), testing::KilledBySignal(SIGABRT), text);
        }
    }
    EXPECT_EXIT((void)takeBoth(LockRank::Bus, LockRank::Motion, false), testing::KilledBySignal(SIGABRT), "");
}

TEST(LockOrder, ForgetsWhatWasGivenBackAndKnowsThreadsApart)
{
    RecursiveMutex store(LockRank::ConfigStore);
    {
        const RecursiveLockGuard once(store);
        takeAgain(store);
        // Another thread may take what this one must not.
        std::thread([] { EXPECT_TRUE(takeBoth(LockRank::Motion, LockRank::Bus, true)); }).join();
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        EXPECT_EXIT((void)takeBoth(LockRank::Motion, LockRank::Bus, true), testing::KilledBySignal(SIGABRT),
                    "MotionLock taken while ConfigStoreLock is held");
    }
    EXPECT_TRUE(takeBoth(LockRank::Motion, LockRank::Bus, true));
}

} // namespace
