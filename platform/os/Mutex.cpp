#include "Mutex.h"

#include <cerrno>
#include <ctime>

namespace {

// The absolute CLOCK_MONOTONIC time milliseconds from now.
timespec monotonicDeadline(int milliseconds)
{
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += milliseconds / 1000;
    deadline.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    return deadline;
}

}  // namespace

Mutex::Mutex() { platform_check::abortOnError(pthread_mutex_init(&m_mutex, nullptr), "pthread_mutex_init"); }

Mutex::~Mutex() { platform_check::abortOnError(pthread_mutex_destroy(&m_mutex), "pthread_mutex_destroy"); }

ConditionVariable::ConditionVariable()
{
    pthread_condattr_t attributes;
    platform_check::abortOnError(pthread_condattr_init(&attributes), "pthread_condattr_init");
    platform_check::abortOnError(pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC),
                                 "pthread_condattr_setclock");
    platform_check::abortOnError(pthread_cond_init(&m_condition, &attributes), "pthread_cond_init");
    platform_check::abortOnError(pthread_condattr_destroy(&attributes), "pthread_condattr_destroy");
}

ConditionVariable::~ConditionVariable()
{
    platform_check::abortOnError(pthread_cond_destroy(&m_condition), "pthread_cond_destroy");
}

void ConditionVariable::wait(Mutex& mutex)
{
    platform_check::abortOnError(pthread_cond_wait(&m_condition, &mutex.m_mutex), "pthread_cond_wait");
}

bool ConditionVariable::waitFor(Mutex& mutex, int milliseconds)
{
    if (milliseconds < 0) {
        wait(mutex);
        return true;
    }
    const timespec deadline = monotonicDeadline(milliseconds);
    const int rc = pthread_cond_timedwait(&m_condition, &mutex.m_mutex, &deadline);
    if (rc == ETIMEDOUT) {
        return false;
    }
    platform_check::abortOnError(rc, "pthread_cond_timedwait");
    return true;
}

void ConditionVariable::signal()
{
    platform_check::abortOnError(pthread_cond_signal(&m_condition), "pthread_cond_signal");
}

void ConditionVariable::broadcast()
{
    platform_check::abortOnError(pthread_cond_broadcast(&m_condition), "pthread_cond_broadcast");
}
