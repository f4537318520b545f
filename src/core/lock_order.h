// The order of the daemon's locks, checked as they are taken. Builds without NDEBUG only: a release pays nothing.
#pragma once

#include <stdint.h>

#ifndef NDEBUG
#include <stdlib.h>
#include <sys/uio.h>
#include <unistd.h>
#endif

/// The locks, in the order in which they may be taken; context.h says what each guards.
enum class LockRank : uint8_t { Motion, MotionState, ConfigStore, Preset, Bus, MotionRecord };

#ifdef NDEBUG

class LockPlace {
public:
    constexpr explicit LockPlace(LockRank)
    {
    }
    void check() const
    {
    }
    void taken() const
    {
    }
    void given() const
    {
    }
};

#else

namespace lock_order {

struct Lock {
    const char* name;
    uint32_t mayHold; // bit n: the thread that waits for it may hold the lock of rank n
};

inline constexpr uint32_t MOTION = 1U << static_cast<int>(LockRank::Motion);
inline constexpr uint32_t MOTION_STATE = 1U << static_cast<int>(LockRank::MotionState);
inline constexpr uint32_t CONFIG_STORE = 1U << static_cast<int>(LockRank::ConfigStore);
inline constexpr uint32_t BUS = 1U << static_cast<int>(LockRank::Bus);

// The first two exclude each other, the store's lock may be taken again, and a holder of the last three waits for
// nothing but, with BusLock, the last one.
inline constexpr Lock LOCKS[] = {
    {"MotionLock", 0},
    {"MotionStateLock", 0},
    {"ConfigStoreLock", MOTION | MOTION_STATE | CONFIG_STORE},
    {"PresetLock", MOTION | MOTION_STATE | CONFIG_STORE},
    {"BusLock", MOTION | MOTION_STATE | CONFIG_STORE},
    {"MotionRecordLock", MOTION | MOTION_STATE | CONFIG_STORE | BUS},
};

/// How often the calling thread holds each lock.
struct Held {
    uint8_t times[sizeof(LOCKS) / sizeof(LOCKS[0])];
};
inline constinit thread_local Held held{};

/// Writes to standard error which two locks met in the wrong order, and aborts. Any thread, any state of the heap.
[[noreturn]] inline void violated(const char* taken, const char* owned)
{
    const auto part = [](const char* text) { return iovec{const_cast<char*>(text), __builtin_strlen(text)}; };
    const iovec parts[] = {part("lock order: "), part(taken), part(" taken while "), part(owned), part(" is held\n")};
    [[maybe_unused]] const ssize_t written = writev(STDERR_FILENO, parts, sizeof(parts) / sizeof(parts[0]));
    abort();
}

} // namespace lock_order

/// One lock's place in the order.
class LockPlace {
public:
    constexpr explicit LockPlace(LockRank rank) : rank_(static_cast<uint8_t>(rank))
    {
    }
    /// Aborts when the calling thread holds what it must not while it waits for this lock.
    void check() const
    {
        const lock_order::Lock& wanted = lock_order::LOCKS[rank_];
        for (uint32_t rank = 0; rank < sizeof(lock_order::Held::times); ++rank)
            if (lock_order::held.times[rank] != 0 && (wanted.mayHold >> rank & 1) == 0)
                lock_order::violated(wanted.name, lock_order::LOCKS[rank].name);
    }
    /// Notes that the calling thread has acquired this lock, or has released it.
    void taken() const
    {
        ++lock_order::held.times[rank_];
    }
    void given() const
    {
        --lock_order::held.times[rank_];
    }

private:
    uint8_t rank_;
};

#endif
