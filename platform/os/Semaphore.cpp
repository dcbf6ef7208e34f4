#include "Semaphore.h"

#include <cerrno>
#include <ctime>

const int Semaphore::AVAILABLE = 1;

namespace {

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
    : m_count(initialCount < 0 ? 0 : initialCount), m_maxCount(maxCount)
{
    if (m_maxCount >= 0 && m_count > m_maxCount) {
        m_count = m_maxCount;
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

int Semaphore::take(int timeout)
{
    pthread_mutex_lock(&m_mutex);
    if (timeout == WAIT_FOREVER) {
        while (m_count == 0) {
            pthread_cond_wait(&m_available, &m_mutex);
        }
    } else {
        const timespec deadline = deadlineAfter(timeout < 0 ? 0 : timeout);
        while (m_count == 0) {
            const int rc = pthread_cond_timedwait(&m_available, &m_mutex, &deadline);
            if (rc == ETIMEDOUT && m_count == 0) {
                pthread_mutex_unlock(&m_mutex);
                return 0;
            }
        }
    }
    --m_count;
    pthread_mutex_unlock(&m_mutex);
    return 1;
}

int Semaphore::give()
{
    pthread_mutex_lock(&m_mutex);
    if (m_maxCount >= 0 && m_count >= m_maxCount) {
        pthread_mutex_unlock(&m_mutex);
        return 0;
    }
    ++m_count;
    pthread_cond_signal(&m_available);
    pthread_mutex_unlock(&m_mutex);
    return 1;
}

int Semaphore::count() const
{
    pthread_mutex_lock(&m_mutex);
    const int value = m_count;
    pthread_mutex_unlock(&m_mutex);
    return value;
}
