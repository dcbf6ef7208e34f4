#include "Semaphore.h"

#include <cerrno>
#include <ctime>

const int Semaphore::AVAILABLE = 1;

namespace {

// Polls of the count before a taker goes to sleep. Critical sections under
// the library's locks are a few hundred nanoseconds, so a short spin often
// saves two context switches; it is short enough to cost nothing when the
// holder has been descheduled.
const int SPIN_LIMIT = 100;

inline void cpuRelax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
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
    : m_count(initialCount < 0 ? 0 : initialCount), m_sleepers(0), m_maxCount(maxCount)
{
    if (m_maxCount >= 0 && m_count.load() > m_maxCount) {
        m_count.store(m_maxCount);
    }
    pthread_mutex_init(&m_mutex, nullptr);
    // Waits are measured on the monotonic clock so that setting the wall
    // clock neither shortens nor stretches a receive time-out.
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&m_available, &attributes);
    pthread_condattr_destroy(&attributes);
}

Semaphore::~Semaphore()
{
    pthread_cond_destroy(&m_available);
    pthread_mutex_destroy(&m_mutex);
}

bool Semaphore::tryTake()
{
    int current = m_count.load(std::memory_order_relaxed);
    while (current > 0) {
        if (m_count.compare_exchange_weak(current, current - 1, std::memory_order_seq_cst,
                                          std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

int Semaphore::take(int timeout)
{
    if (tryTake()) {
        return 1;
    }
    if (timeout == 0 || (timeout < 0 && timeout != WAIT_FOREVER)) {
        return 0;
    }
    for (int spin = 0; spin < SPIN_LIMIT; ++spin) {
        cpuRelax();
        if (m_count.load(std::memory_order_relaxed) > 0 && tryTake()) {
            return 1;
        }
    }
    return sleepingTake(timeout);
}

int Semaphore::sleepingTake(int timeout)
{
    // A giver increments the count and then reads m_sleepers; we increment
    // m_sleepers and then read the count. Both are sequentially consistent,
    // so at least one side sees the other: either we find the count, or the
    // giver sees us and signals under the mutex, which it can only take once
    // we are inside the wait. No wake-up is lost.
    const bool timed = timeout != WAIT_FOREVER;
    const timespec deadline = timed ? deadlineAfter(timeout) : timespec();
    pthread_mutex_lock(&m_mutex);
    m_sleepers.fetch_add(1, std::memory_order_seq_cst);
    int result = 1;
    while (!tryTake()) {
        if (!timed) {
            pthread_cond_wait(&m_available, &m_mutex);
        } else if (pthread_cond_timedwait(&m_available, &m_mutex, &deadline) == ETIMEDOUT) {
            // One last look: a count that came with the time-out is taken.
            result = tryTake() ? 1 : 0;
            break;
        }
    }
    m_sleepers.fetch_sub(1, std::memory_order_seq_cst);
    pthread_mutex_unlock(&m_mutex);
    return result;
}

int Semaphore::give()
{
    int current = m_count.load(std::memory_order_relaxed);
    do {
        if (m_maxCount >= 0 && current >= m_maxCount) {
            return 0;
        }
    } while (!m_count.compare_exchange_weak(current, current + 1, std::memory_order_seq_cst,
                                            std::memory_order_relaxed));
    if (m_sleepers.load(std::memory_order_seq_cst) > 0) {
        pthread_mutex_lock(&m_mutex);
        pthread_cond_signal(&m_available);
        pthread_mutex_unlock(&m_mutex);
    }
    return 1;
}

int Semaphore::count() const { return m_count.load(); }
