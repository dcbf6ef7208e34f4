#include "Semaphore.h"

#include "CheckedCall.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

#include <sched.h>

#include <unistd.h>

const int Semaphore::AVAILABLE = 1;

namespace {

const unsigned int SLEEPERS = 1U;
const unsigned int ONE = 2U;

// How long take() spins before it sleeps. The library's locks guard a few
// list operations, and a consumer often finds its next message within
// microseconds: waiting that out on the CPU saves a sleep and a wake-up.
// On a single processor nobody can give while we spin, so we never do.
const int SPIN_LIMIT = 200;

// Whether take() spins at all is learnt per semaphore from its recent waits.
// A spin pays when it succeeds about one time in three or more (it costs a
// few microseconds of processor; a sleep and a wake-up cost more, and on a
// virtual machine much more). A success earns SPIN_GAIN credit, a failure
// costs SPIN_LOSS, and take() spins while credit is left. A consumer whose
// messages come tens of microseconds apart therefore stops spinning: its
// spinning would keep its processor busy just when the thread that feeds it
// needs to be woken there.
const int SPIN_GAIN = 2;
const int SPIN_LOSS = 1;
const int MAX_SPIN_CREDIT = 16;
const unsigned int PROBE_INTERVAL = 16;

// How long takeExpectingSoon() goes on yielding after the spin, in
// microseconds.
const long long YIELD_SPIN_US = 100;

long long nowUs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

int spinLimit()
{
    static const int limit = sysconf(_SC_NPROCESSORS_ONLN) > 1 ? SPIN_LIMIT : 0;
    return limit;
}

inline void relax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#else
    std::atomic_signal_fence(std::memory_order_seq_cst);
#endif
}

// Absolute CLOCK_MONOTONIC deadline timeoutMs from now.
timespec deadlineAfter(int timeoutMs)
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    now.tv_sec += timeoutMs / 1000;
    now.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
    if (now.tv_nsec >= 1000000000L) {
        now.tv_sec += 1;
        now.tv_nsec -= 1000000000L;
    }
    return now;
}

}  // namespace

Semaphore::Semaphore(int initialCount, int maxCount, bool /*reserved*/)
    : m_state(0), m_spinCredit(MAX_SPIN_CREDIT), m_spinProbe(0), m_sleepers(0), m_signalled(0), m_maxCount(maxCount)
{
    int count = initialCount < 0 ? 0 : initialCount;
    if (m_maxCount >= 0 && count > m_maxCount) {
        count = m_maxCount;
    }
    m_state.store(static_cast<unsigned int>(count) * ONE, std::memory_order_relaxed);
    platform_check::abortOnError(pthread_mutex_init(&m_mutex, nullptr), "pthread_mutex_init");
    // Waits are measured on the monotonic clock so that setting the wall
    // clock neither shortens nor stretches a receive time-out.
    pthread_condattr_t attributes;
    platform_check::abortOnError(pthread_condattr_init(&attributes), "pthread_condattr_init");
    platform_check::abortOnError(pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC),
                                 "pthread_condattr_setclock");
    platform_check::abortOnError(pthread_cond_init(&m_available, &attributes), "pthread_cond_init");
    platform_check::abortOnError(pthread_condattr_destroy(&attributes), "pthread_condattr_destroy");
}

Semaphore::~Semaphore()
{
    platform_check::abortOnError(pthread_cond_destroy(&m_available), "pthread_cond_destroy");
    platform_check::abortOnError(pthread_mutex_destroy(&m_mutex), "pthread_mutex_destroy");
}

bool Semaphore::tryTake()
{
    unsigned int state = m_state.load(std::memory_order_relaxed);
    while (state >= ONE) {
        if (m_state.compare_exchange_weak(state, state - ONE, std::memory_order_acquire,
                                          std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

int Semaphore::take(int timeout) { return spinningTake(timeout, false); }

int Semaphore::takeExpectingSoon(int timeout) { return spinningTake(timeout, true); }

int Semaphore::spinningTake(int timeout, bool yieldBeforeSleep)
{
    if (tryTake()) {
        return 1;
    }
    if (timeout != WAIT_FOREVER && timeout <= 0) {
        return 0;
    }
    if (shouldSpin()) {
        for (int spin = 0; spin < spinLimit(); ++spin) {
            relax();
            if (m_state.load(std::memory_order_relaxed) >= ONE && tryTake()) {
                noteSpin(true);
                return 1;
            }
        }
        noteSpin(false);
    }
    const timespec deadline = deadlineAfter(timeout == WAIT_FOREVER ? 0 : timeout);
    if (yieldBeforeSleep && spinLimit() > 0) {
        // Then a while longer, yielding the processor to anything runnable
        // on it: an answer that is on its way is taken without the cost of
        // a sleep and a wake-up, which on a virtual machine means waking a
        // halted processor. Bounded by the time-out.
        const long long spinEnd = nowUs() + YIELD_SPIN_US;
        const long long timeoutEnd =
            timeout == WAIT_FOREVER ? spinEnd : static_cast<long long>(deadline.tv_sec) * 1000000 + deadline.tv_nsec / 1000;
        const long long end = spinEnd < timeoutEnd ? spinEnd : timeoutEnd;
        while (nowUs() < end) {
            sched_yield();
            if (m_state.load(std::memory_order_relaxed) >= ONE && tryTake()) {
                return 1;
            }
        }
    }
    return sleepingTake(timeout, deadline);
}

bool Semaphore::shouldSpin()
{
    if (spinLimit() == 0) {
        return false;
    }
    if (m_spinCredit.load(std::memory_order_relaxed) > 0) {
        return true;
    }
    // Out of credit: one wait in PROBE_INTERVAL spins anyway, so that a
    // pattern that has become short again is noticed.
    return m_spinProbe.fetch_add(1, std::memory_order_relaxed) % PROBE_INTERVAL == 0;
}

bool Semaphore::spinsBeforeSleeping() const
{
    return spinLimit() > 0 && m_spinCredit.load(std::memory_order_relaxed) > 0;
}

void Semaphore::noteSpin(bool succeeded)
{
    // Races between takers lose an update now and then, which only nudges
    // the estimate.
    const int credit = m_spinCredit.load(std::memory_order_relaxed);
    const int next = succeeded ? std::min(credit + SPIN_GAIN, MAX_SPIN_CREDIT) : std::max(credit - SPIN_LOSS, 0);
    m_spinCredit.store(next, std::memory_order_relaxed);
}

int Semaphore::sleepingTake(int timeout, const timespec& deadline)
{
    platform_check::abortOnError(pthread_mutex_lock(&m_mutex), "pthread_mutex_lock");
    ++m_sleepers;
    int taken = 0;
    unsigned int state = m_state.load(std::memory_order_relaxed);
    for (;;) {
        if (state >= ONE) {
            if (m_state.compare_exchange_weak(state, state - ONE, std::memory_order_acquire,
                                              std::memory_order_relaxed)) {
                taken = 1;
                break;
            }
            continue;
        }
        // Announce the sleep in the state word itself: a give() that has not
        // seen the flag fails its compare-and-swap and comes here through
        // the mutex, so its wake-up cannot be lost.
        if ((state & SLEEPERS) == 0 &&
            !m_state.compare_exchange_weak(state, state | SLEEPERS, std::memory_order_relaxed,
                                           std::memory_order_relaxed)) {
            continue;
        }
        const int woke = timeout == WAIT_FOREVER ? pthread_cond_wait(&m_available, &m_mutex)
                                                 : pthread_cond_timedwait(&m_available, &m_mutex, &deadline);
        if (m_signalled > 0) {
            --m_signalled;
        }
        if (woke == ETIMEDOUT) {
            taken = tryTake() ? 1 : 0;
            break;
        }
        platform_check::abortOnError(woke, timeout == WAIT_FOREVER ? "pthread_cond_wait" : "pthread_cond_timedwait");
        state = m_state.load(std::memory_order_relaxed);
    }
    if (--m_sleepers == 0) {
        m_signalled = 0;
    }
    if (m_sleepers <= m_signalled) {
        m_state.fetch_and(~SLEEPERS, std::memory_order_relaxed);
    }
    platform_check::abortOnError(pthread_mutex_unlock(&m_mutex), "pthread_mutex_unlock");
    return taken;
}

int Semaphore::give()
{
    unsigned int state = m_state.load(std::memory_order_relaxed);
    while ((state & SLEEPERS) == 0) {
        if (m_maxCount >= 0 && state / ONE >= static_cast<unsigned int>(m_maxCount)) {
            return 0;
        }
        // The release is this one atomic step: nothing of the semaphore is
        // touched afterwards, so its taker may destroy it at once.
        if (m_state.compare_exchange_weak(state, state + ONE, std::memory_order_release,
                                          std::memory_order_relaxed)) {
            return 1;
        }
    }
    return wakingGive();
}

int Semaphore::wakingGive()
{
    // A sleeper cannot leave take() while we hold the mutex, so the
    // semaphore outlives everything done here.
    platform_check::abortOnError(pthread_mutex_lock(&m_mutex), "pthread_mutex_lock");
    unsigned int state = m_state.load(std::memory_order_relaxed);
    for (;;) {
        if (m_maxCount >= 0 && state / ONE >= static_cast<unsigned int>(m_maxCount)) {
            platform_check::abortOnError(pthread_mutex_unlock(&m_mutex), "pthread_mutex_unlock");
            return 0;
        }
        if (m_state.compare_exchange_weak(state, state + ONE, std::memory_order_release,
                                          std::memory_order_relaxed)) {
            break;
        }
    }
    if (m_sleepers > m_signalled) {
        platform_check::abortOnError(pthread_cond_signal(&m_available), "pthread_cond_signal");
        ++m_signalled;
        // Once every sleeper has a wake-up on its way, later gives need not
        // come through here: each would queue another futile signal and
        // fight the woken thread for the mutex. A woken sleeper that finds
        // no count after all sets the flag again before it sleeps.
        if (m_signalled >= m_sleepers) {
            m_state.fetch_and(~SLEEPERS, std::memory_order_relaxed);
        }
    }
    platform_check::abortOnError(pthread_mutex_unlock(&m_mutex), "pthread_mutex_unlock");
    return 1;
}

int Semaphore::count() const { return static_cast<int>(m_state.load(std::memory_order_acquire) / ONE); }
