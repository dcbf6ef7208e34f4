// Mutex, ScopedLock and ConditionVariable: exclusion, waiting with and
// without a limit, waking one or all waiters, and the report a failed
// pthread call leaves before the process ends.
#include "Mutex.h"

#include "ChildProcess.h"
#include "PlatformTestSupport.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

long long elapsedMs(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

// A flag guarded by a mutex, with a condition that announces changes.
class MutexTest : public ::testing::Test {
protected:
    void set(int value)
    {
        ScopedLock hold(m_mutex);
        m_state = value;
        m_changed.broadcast();
    }
    // Waits, without limit, until the state is at least value.
    void awaitAtLeast(int value)
    {
        ScopedLock hold(m_mutex);
        while (m_state < value) {
            m_changed.wait(m_mutex);
        }
    }

    pftest::Watchdog m_watchdog;
    Mutex m_mutex;
    ConditionVariable m_changed;  // waits on m_mutex
    int m_state = 0;              // guarded by m_mutex
};

TEST_F(MutexTest, ScopedLocksKeepConcurrentIncrementsExact)
{
    const int THREADS = 4;
    const int ROUNDS = 20000;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < ROUNDS; ++i) {
                ScopedLock hold(m_mutex);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(static_cast<long>(THREADS) * ROUNDS, counter);
}

TEST_F(MutexTest, ScopedLockUnlocksWhenAnExceptionLeavesItsScope)
{
    try {
        ScopedLock hold(m_mutex);
        throw 1;
    } catch (int) {
    }
    std::thread other([&] { ScopedLock hold(m_mutex); });
    other.join();
    SUCCEED();
}

TEST_F(MutexTest, WaitForWithoutSignalTimesOutAfterItsTime)
{
    ScopedLock hold(m_mutex);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(m_changed.waitFor(m_mutex, 50));
    EXPECT_GE(elapsedMs(start), 50);
}

TEST_F(MutexTest, WaitForZeroReturnsAtOnce)
{
    ScopedLock hold(m_mutex);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(m_changed.waitFor(m_mutex, 0));
    EXPECT_LT(elapsedMs(start), 1000);
}

TEST_F(MutexTest, WaitForReturnsTrueWhenSignalledInTime)
{
    std::thread setter([&] { set(1); });
    bool woken = true;
    {
        ScopedLock hold(m_mutex);
        while (m_state < 1 && woken) {
            woken = m_changed.waitFor(m_mutex, 20000);
        }
    }
    setter.join();
    EXPECT_TRUE(woken);
}

TEST_F(MutexTest, NegativeWaitForWaitsWithoutLimitUntilSignalled)
{
    std::thread waiter([&] {
        ScopedLock hold(m_mutex);
        while (m_state < 1) {
            EXPECT_TRUE(m_changed.waitFor(m_mutex, -1));
        }
    });
    set(1);
    waiter.join();
}

TEST_F(MutexTest, BroadcastWakesEveryWaiter)
{
    const int WAITERS = 3;
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < WAITERS; ++i) {
        waiters.emplace_back([&] {
            awaitAtLeast(1);
            ++woken;
        });
    }
    set(1);
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(WAITERS, woken.load());
}

TEST_F(MutexTest, SignalWakesAWaiter)
{
    std::thread waiter([&] {
        ScopedLock hold(m_mutex);
        m_state = 1;
        m_changed.signal();
        while (m_state < 2) {
            m_changed.wait(m_mutex);
        }
    });
    awaitAtLeast(1);
    {
        ScopedLock hold(m_mutex);
        m_state = 2;
        m_changed.signal();
    }
    waiter.join();
}

// The child sends its standard error to the pipe the parent reads, then
// reports a failed call the way every platform wrapper does.
CC_CHILD_MAIN(failedCall)
{
    (void)args;
    dup2(STDOUT_FILENO, STDERR_FILENO);
    platform_check::abortOnError(EINVAL, "pthread_mutex_lock");
    return cctest::CHILD_FAILED;
}

TEST(CheckedCallTest, FailedCallIsNamedOnOneLineAndAbortsTheProcess)
{
    cctest::ChildProcess child("failedCall", {});
    std::string line;
    ASSERT_TRUE(child.readLine(line, 10000));
    EXPECT_EQ("CommsChannel: pthread_mutex_lock failed: Invalid argument", line);
    EXPECT_EQ(128 + SIGABRT, child.wait(10000));
}

TEST(CheckedCallTest, ZeroResultReturnsQuietly)
{
    platform_check::abortOnError(0, "pthread_mutex_lock");
    SUCCEED();
}

}  // namespace
