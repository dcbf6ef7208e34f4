// Semaphore: a counting semaphore with an optional maximum, used by the
// CommsChannel library both as a lock (initial 1, maximum 1) and as a wake-up
// counter. Every operation is safe to call from any number of threads at once.
// The creator owns the object; it must not be destroyed while a thread still
// waits in take(). It may be destroyed by a thread whose take() returned, even
// while the give() that released that count has not returned yet.
//
// Uncontended take() and give() are one compare-and-swap on a single state
// word; the mutex and condition variable are touched only while some thread
// sleeps in take(). A take() that finds no count spins briefly before it
// sleeps; takeExpectingSoon() then also yields the processor for up to
// 100 us. Neither spins on a single processor.
#ifndef COMMSCHANNEL_SEMAPHORE_H
#define COMMSCHANNEL_SEMAPHORE_H

#include <pthread.h>
#include <time.h>

#include <atomic>

class Semaphore {
public:
    // The initial count of a semaphore that starts free.
    static const int AVAILABLE;
    // take() timeout meaning "wait as long as it takes".
    static const int WAIT_FOREVER = -1;

    // initialCount: counts available at once. maxCount: the count never
    // rises above it (give() on a full semaphore changes nothing); -1 means
    // no maximum. reserved: kept for interface compatibility; the library
    // always passes false and the value has no effect.
    Semaphore(int initialCount, int maxCount, bool reserved);
    virtual ~Semaphore();

    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    // Waits for a count and takes it. timeout is in milliseconds on a
    // monotonic clock; -1 waits without limit and 0 only tries. Any other
    // negative value is treated as 0. Returns non-zero when a count was
    // taken, 0 when the time ran out first.
    virtual int take(int timeout);
    // take() for a count that is expected within microseconds, such as the
    // answer to a request just sent: before sleeping, the caller keeps
    // yielding the processor to anything runnable for up to 100 us (within
    // the time-out), which saves a sleep and a wake-up when the count comes
    // in time. A thread that merely consumes a stream should use take(): a
    // caller that stays runnable competes for the processor with the
    // threads that produce its counts.
    int takeExpectingSoon(int timeout);
    // Releases one count, waking one waiter. Returns 1, or 0 when the count
    // was already at its maximum and stays there.
    virtual int give();

    // The current count; for diagnostics and tests, outdated at once.
    int count() const;
    // Whether a take() that finds no count spins before it sleeps: learnt
    // from the semaphore's recent waits (spinning stops while it rarely
    // pays, apart from an occasional probe). Never on one processor. For
    // diagnostics and tests, outdated at once.
    bool spinsBeforeSleeping() const;

private:
    bool tryTake();
    int spinningTake(int timeout, bool yieldBeforeSleep);
    bool shouldSpin();
    void noteSpin(bool succeeded);
    int sleepingTake(int timeout, const timespec& deadline);
    int wakingGive();

    // Bit 0: a thread sleeps, or is about to, in take(); set and cleared only
    // under m_mutex. Bits 1 and up: the count.
    std::atomic<unsigned int> m_state;
    // How well spinning has paid lately; see shouldSpin().
    std::atomic<int> m_spinCredit;
    std::atomic<unsigned int> m_spinProbe;
    int m_sleepers;  // guarded by m_mutex
    // Sleepers signalled by a give() that have not woken since; guarded by
    // m_mutex.
    int m_signalled;
    pthread_mutex_t m_mutex;
    pthread_cond_t m_available;
    const int m_maxCount;
};

#endif
