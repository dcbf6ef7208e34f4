// Mutex, ScopedLock and ConditionVariable: the library's locks, thin wrappers
// over pthread_mutex_t and pthread_cond_t. The creator owns each object;
// none may be copied or moved, because pthread objects must stay where they
// were initialised. Every operation is safe from any thread. A pthread call
// that fails is a programming error (see CheckedCall.h): the process
// aborts after naming the call on standard error.
//
// Take locks through ScopedLock, so that a path that throws still unlocks:
//
//     Mutex m_queueMutex;
//     ConditionVariable m_queueChanged;   // waits on m_queueMutex
//
//     ScopedLock hold(m_queueMutex);
//     while (m_queue.empty()) {
//         if (!m_queueChanged.waitFor(m_queueMutex, timeoutMs)) {
//             break;  // timed out; the caller checks the queue once more
//         }
//     }
#ifndef COMMSCHANNEL_MUTEX_H
#define COMMSCHANNEL_MUTEX_H

#include <pthread.h>

#include "CheckedCall.h"

// A plain (non-recursive) mutex. Locking it twice from one thread, or
// unlocking it from a thread that does not hold it, is undefined: we use
// the default type rather than an error-checking one because the queue
// locks sit on the hot path of every message.
class Mutex {
public:
    Mutex();
    // REQUIRES: no thread holds or waits for the mutex.
    ~Mutex();

    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // Blocks until this thread holds the mutex.
    void lock() { platform_check::abortOnError(pthread_mutex_lock(&m_mutex), "pthread_mutex_lock"); }
    // REQUIRES: this thread holds the mutex.
    void unlock() { platform_check::abortOnError(pthread_mutex_unlock(&m_mutex), "pthread_mutex_unlock"); }

private:
    friend class ConditionVariable;
    pthread_mutex_t m_mutex;
};

// Holds a mutex for the lifetime of the object: locks in the constructor,
// unlocks in the destructor. Lives on the stack of the thread that holds it.
class ScopedLock {
public:
    explicit ScopedLock(Mutex& mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~ScopedLock() { m_mutex.unlock(); }

    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    Mutex& m_mutex;
};

// A condition variable whose timed waits run on CLOCK_MONOTONIC, so that
// setting the wall clock neither shortens nor stretches a time-out. Like
// any condition variable it may wake without a signal: wait in a loop on
// the state you are waiting for.
class ConditionVariable {
public:
    ConditionVariable();
    // REQUIRES: no thread waits on it.
    ~ConditionVariable();

    ConditionVariable(const ConditionVariable&) = delete;
    ConditionVariable& operator=(const ConditionVariable&) = delete;

    // REQUIRES: this thread holds mutex. Releases it while waiting and
    // holds it again on return. Blocks until signalled (or a spurious
    // wake-up).
    void wait(Mutex& mutex);
    // REQUIRES: this thread holds mutex. Like wait(), but for at most
    // milliseconds (a negative value means no limit, 0 only releases and
    // re-takes the lock). Returns false when the time ran out, true when
    // woken before; either way the caller re-checks its state.
    bool waitFor(Mutex& mutex, int milliseconds);
    // Wakes one waiter, or none if nobody waits. The caller need not hold
    // the mutex, though holding it avoids a waiter missing the change.
    void signal();
    // Wakes every waiter.
    void broadcast();

private:
    pthread_cond_t m_condition;
};

#endif
