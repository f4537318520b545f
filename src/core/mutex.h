// Annotated mutexes and their guards: clang's -Wthread-safety proves the locking that the annotations state. Without
// NDEBUG a thread that takes them in the wrong order aborts, saying which.
#pragma once

#include "core/lock_order.h"

#include <pthread.h>
#include <stdint.h>

#include <atomic>

#if defined(__clang__)
#define THREAD_ANNOTATION(x) __attribute__((x))
#else
#define THREAD_ANNOTATION(x)
#endif
#define CAPABILITY(name) THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(lock) THREAD_ANNOTATION(guarded_by(lock))
#define REQUIRES(...) THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS THREAD_ANNOTATION(no_thread_safety_analysis)

/// A mutex that is ready without being created. Any thread.
class CAPABILITY("mutex") Mutex {
public:
    constexpr explicit Mutex(LockRank rank) : place_(rank)
    {
    }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ACQUIRE()
    {
        place_.check();
        (void)pthread_mutex_lock(&mutex_);
        place_.taken();
    }
    bool tryLock() TRY_ACQUIRE(true)
    {
        place_.check();
        if (pthread_mutex_trylock(&mutex_) != 0)
            return false;
        place_.taken();
        return true;
    }
    void unlock() RELEASE()
    {
        place_.given();
        (void)pthread_mutex_unlock(&mutex_);
    }

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    [[no_unique_address]] LockPlace place_;
};

/// A mutex that its holder may take again. Any thread. Made of a plain one, because not every C library has a constant
/// that initialises a recursive one.
class CAPABILITY("mutex") RecursiveMutex {
public:
    constexpr explicit RecursiveMutex(LockRank rank) : place_(rank)
    {
    }
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    void lock() ACQUIRE()
    {
        place_.check();
        const pthread_t self = pthread_self();
        if (owner_.load() != self) { // only this thread itself makes it the owner, or ends that
            (void)pthread_mutex_lock(&mutex_);
            owner_.store(self);
        }
        ++depth_;
        place_.taken();
    }
    void unlock() RELEASE()
    {
        place_.given();
        if (--depth_ > 0)
            return;
        owner_.store(pthread_t{});
        (void)pthread_mutex_unlock(&mutex_);
    }

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<pthread_t> owner_{}; // pthread_t{} while it is free: no thread of Linux has that number
    uint32_t depth_ = 0;             // how often the owner holds it; only the owner looks
    [[no_unique_address]] LockPlace place_;
};

/// Holds a mutex for the length of a scope.
template <typename M>
class SCOPED_CAPABILITY BasicLockGuard {
public:
    explicit BasicLockGuard(M& mutex) ACQUIRE(mutex) : mutex_(mutex)
    {
        mutex_.lock();
    }
    ~BasicLockGuard() RELEASE()
    {
        mutex_.unlock();
    }
    BasicLockGuard(const BasicLockGuard&) = delete;
    BasicLockGuard& operator=(const BasicLockGuard&) = delete;

private:
    M& mutex_;
};

using LockGuard = BasicLockGuard<Mutex>;
using RecursiveLockGuard = BasicLockGuard<RecursiveMutex>;
