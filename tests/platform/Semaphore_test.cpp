// Semaphore: counting, maximum, time-outs in milliseconds, waiting without
// limit, and many threads at once.
#include "Semaphore.h"

#include "PlatformTestSupport.h"
#include "TestUtil.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Runs sut.take(timeout) (or another take) on a thread of its own and
// records its answer, so that a test can watch a take that may block.
class PendingTake {
public:
    PendingTake(Semaphore& semaphore, int timeout)
        : PendingTake([&semaphore, timeout]() { return semaphore.take(timeout); })
    {
    }
    explicit PendingTake(std::function<int()> take) : m_result(-1)
    {
        m_thread = std::thread([this, take]() { m_result = take(); });
    }
    ~PendingTake()
    {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    bool returned() const { return m_result.load() != -1; }
    int result() const { return m_result.load(); }
    bool waitForReturn(int timeoutMs = 20000)
    {
        return cctest::waitUntil([this]() { return returned(); }, timeoutMs);
    }

private:
    std::atomic<int> m_result;
    std::thread m_thread;
};

// Four threads taking counts of a semaphore with take(1) (or with takes
// chosen per thread) until stopped, counting what they got.
class RacingTakers {
public:
    RacingTakers(Semaphore& semaphore, const std::function<int(Semaphore&, int thread)>& take)
    {
        for (int t = 0; t < 4; ++t) {
            m_threads.emplace_back([this, &semaphore, take, t]() {
                while (!m_stop.load()) {
                    if (take(semaphore, t) != 0) {
                        ++m_taken;
                    }
                }
            });
        }
    }
    ~RacingTakers() { stop(); }
    int taken() const { return m_taken.load(); }
    void stop()
    {
        m_stop = true;
        for (std::thread& thread : m_threads) {
            if (thread.joinable()) {
                thread.join();
            }
        }
    }

private:
    std::atomic<int> m_taken{0};
    std::atomic<bool> m_stop{false};
    std::vector<std::thread> m_threads;
};

// Gives the semaphore `gives` times, sleeping for `pause` after every
// `pauseEvery`-th give (never when pauseEvery is 0), long enough for a
// taker to stop spinning and sleep.
void giveWithPauses(Semaphore& semaphore, int gives, int pauseEvery, std::chrono::microseconds pause)
{
    for (int i = 0; i < gives; ++i) {
        semaphore.give();
        if (pauseEvery != 0 && i % pauseEvery == 0) {
            std::this_thread::sleep_for(pause);
        }
    }
}

// Waits on the empty semaphore until it has learnt not to spin, so that
// every later wait sleeps at once.
void stopSpinning(Semaphore& semaphore)
{
    while (semaphore.spinsBeforeSleeping()) {
        ASSERT_EQ(0, semaphore.take(1));
    }
}

class SemaphoreTest : public testing::Test {
protected:
    pftest::Watchdog watchdog{60000};
};

TEST_F(SemaphoreTest, AvailableIsOne)
{
    EXPECT_EQ(1, Semaphore::AVAILABLE);
}

TEST_F(SemaphoreTest, TakeSucceedsWhileCountsRemainThenTimesOut)
{
    Semaphore sut(2, -1, false);
    EXPECT_NE(0, sut.take(0));
    EXPECT_NE(0, sut.take(0));
    EXPECT_EQ(0, sut.take(0));
}

TEST_F(SemaphoreTest, AvailableInitialCountGivesOneTake)
{
    Semaphore sut(Semaphore::AVAILABLE, 1, false);
    EXPECT_NE(0, sut.take(-1));
    EXPECT_EQ(0, sut.take(0));
}

TEST_F(SemaphoreTest, TimedTakeOnEmptySemaphoreReturnsZeroAfterTimingOut)
{
    Semaphore sut(0, 1, false);
    const long long start = cctest::nowMs();
    EXPECT_EQ(0, sut.take(100));
    // The time-out is a lower bound: it never gives up early.
    EXPECT_GE(cctest::nowMs() - start, 100);
}

TEST_F(SemaphoreTest, TimedTakeOfOneSecondOrMoreReturnsZeroAfterTimingOut)
{
    // Crosses a whole second, where the deadline's seconds and nanoseconds
    // are carried.
    Semaphore sut(0, 1, false);
    const long long start = cctest::nowMs();
    EXPECT_EQ(0, sut.take(1250));
    EXPECT_GE(cctest::nowMs() - start, 1250);
}

TEST_F(SemaphoreTest, ZeroTimeoutOnlyTries)
{
    Semaphore sut(0, 1, false);
    EXPECT_EQ(0, sut.take(0));
    sut.give();
    EXPECT_NE(0, sut.take(0));
}

TEST_F(SemaphoreTest, NegativeTimeoutOtherThanMinusOneOnlyTries)
{
    Semaphore sut(0, 1, false);
    PendingTake pending(sut, -5);
    ASSERT_TRUE(pending.waitForReturn());
    EXPECT_EQ(0, pending.result());
}

TEST_F(SemaphoreTest, TimedTakeReturnsNonZeroWhenGivenDuringTheWait)
{
    Semaphore sut(0, 1, false);
    PendingTake pending(sut, 600000);
    EXPECT_FALSE(cctest::waitUntil([&]() { return pending.returned(); }, 300));
    sut.give();
    ASSERT_TRUE(pending.waitForReturn());
    EXPECT_NE(0, pending.result());
}

TEST_F(SemaphoreTest, TakeMinusOneWaitsUntilGiven)
{
    Semaphore sut(0, 1, false);
    PendingTake pending(sut, -1);
    EXPECT_FALSE(cctest::waitUntil([&]() { return pending.returned(); }, 300));
    sut.give();
    ASSERT_TRUE(pending.waitForReturn());
    EXPECT_NE(0, pending.result());
}

TEST_F(SemaphoreTest, TakeMinusOneReturnsAtOnceWhenACountIsThere)
{
    Semaphore sut(1, 1, false);
    PendingTake pending(sut, -1);
    ASSERT_TRUE(pending.waitForReturn());
    EXPECT_NE(0, pending.result());
    EXPECT_EQ(0, sut.count());
}

TEST_F(SemaphoreTest, GiveOnFullSemaphoreKeepsTheMaximum)
{
    Semaphore sut(1, 1, false);
    EXPECT_EQ(0, sut.give());
    EXPECT_EQ(1, sut.count());
    EXPECT_NE(0, sut.take(0));
    EXPECT_EQ(0, sut.take(0));
}

TEST_F(SemaphoreTest, OneShotSemaphoreGivenTwiceWakesOnce)
{
    Semaphore sut(0, 1, false);
    EXPECT_EQ(1, sut.give());
    EXPECT_EQ(0, sut.give());
    EXPECT_NE(0, sut.take(0));
    EXPECT_EQ(0, sut.take(0));
}

TEST_F(SemaphoreTest, InitialCountAboveMaximumIsLoweredToTheMaximum)
{
    Semaphore sut(5, 2, false);
    EXPECT_EQ(2, sut.count());
    EXPECT_NE(0, sut.take(0));
    EXPECT_NE(0, sut.take(0));
    EXPECT_EQ(0, sut.take(0));
}

TEST_F(SemaphoreTest, NegativeInitialCountStartsEmpty)
{
    Semaphore sut(-3, -1, false);
    EXPECT_EQ(0, sut.count());
    EXPECT_EQ(0, sut.take(0));
}

TEST_F(SemaphoreTest, WithoutMaximumEveryGiveCounts)
{
    Semaphore sut(0, -1, false);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(1, sut.give());
    }
    EXPECT_EQ(1000, sut.count());
    for (int i = 0; i < 1000; ++i) {
        ASSERT_NE(0, sut.take(0));
    }
    EXPECT_EQ(0, sut.take(0));
}

TEST_F(SemaphoreTest, TheBoolArgumentChangesNothing)
{
    Semaphore sut(0, 1, true);
    EXPECT_EQ(0, sut.take(0));
    sut.give();
    EXPECT_NE(0, sut.take(0));
}

TEST_F(SemaphoreTest, OneGiveWakesExactlyOneOfManyWaiters)
{
    Semaphore sut(0, -1, false);
    std::vector<std::unique_ptr<PendingTake>> waiters;
    for (int i = 0; i < 6; ++i) {
        waiters.emplace_back(new PendingTake(sut, -1));
    }
    auto returnedCount = [&]() {
        int n = 0;
        for (const auto& waiter : waiters) {
            n += waiter->returned() ? 1 : 0;
        }
        return n;
    };
    sut.give();
    ASSERT_TRUE(cctest::waitUntil([&]() { return returnedCount() == 1; }, 20000));
    EXPECT_FALSE(cctest::waitUntil([&]() { return returnedCount() > 1; }, 300));
    for (int i = 0; i < 5; ++i) {
        sut.give();
    }
    ASSERT_TRUE(cctest::waitUntil([&]() { return returnedCount() == 6; }, 20000));
    for (const auto& waiter : waiters) {
        EXPECT_NE(0, waiter->result());
    }
}

TEST_F(SemaphoreTest, ManyProducersAndConsumersBalanceExactly)
{
    Semaphore sut(0, -1, false);
    const int producers = 4;
    const int consumers = 4;
    const int perProducer = 2000;
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int c = 0; c < consumers; ++c) {
        threads.emplace_back([&]() {
            for (int i = 0; i < producers * perProducer / consumers; ++i) {
                if (sut.take(-1) != 0) {
                    ++taken;
                }
            }
        });
    }
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&]() {
            for (int i = 0; i < perProducer; ++i) {
                sut.give();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(producers * perProducer, taken.load());
    EXPECT_EQ(0, sut.count());
}

TEST_F(SemaphoreTest, UsedAsLockItExcludesOtherThreads)
{
    Semaphore sut(1, 1, false);
    long counter = 0;  // guarded by sut only: a race shows up as a lost update
    int insideAtOnce = 0;
    std::atomic<int> maxInside{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&]() {
            for (int i = 0; i < 5000; ++i) {
                sut.take(-1);
                ++insideAtOnce;
                if (insideAtOnce > maxInside.load()) {
                    maxInside = insideAtOnce;
                }
                ++counter;
                --insideAtOnce;
                sut.give();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(6 * 5000, counter);
    EXPECT_EQ(1, maxInside.load());
}

TEST_F(SemaphoreTest, TakerMayDestroyTheSemaphoreAsSoonAsItsTakeReturns)
{
    // A one-shot hand-off whose taker deletes the semaphore at once, while
    // the give that released it may still be on its way out. Half of the
    // rounds give late, so that the taker has gone to sleep first. Under the
    // sanitizers a give that touched the semaphore after its release shows
    // as a use after free.
    for (int round = 0; round < 2000; ++round) {
        Semaphore* handOff = new Semaphore(0, 1, false);
        const bool late = round % 2 == 1;
        std::thread giver([handOff, late]() {
            if (late) {
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
            handOff->give();
        });
        ASSERT_EQ(1, handOff->take(-1));
        delete handOff;
        giver.join();
    }
}

TEST_F(SemaphoreTest, LockHandedBetweenSleepingThreadsNeverLosesAWakeUp)
{
    // Each thread holds the lock long enough for the others to stop spinning
    // and sleep, so every give meets sleepers; a lost wake-up hangs here.
    Semaphore sut(1, 1, false);
    std::atomic<int> rounds{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&]() {
            for (int i = 0; i < 200; ++i) {
                ASSERT_EQ(1, sut.take(-1));
                std::this_thread::sleep_for(std::chrono::microseconds(50));
                ++rounds;
                sut.give();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(800, rounds.load());
    EXPECT_EQ(1, sut.count());
}

TEST_F(SemaphoreTest, TimedTakesRacingWithGivesNeverLoseOrInventCounts)
{
    Semaphore sut(0, -1, false);
    RacingTakers takers(sut, [](Semaphore& semaphore, int) { return semaphore.take(1); });
    const int gives = 3000;
    giveWithPauses(sut, gives, 0, std::chrono::microseconds(0));
    ASSERT_TRUE(cctest::waitUntil([&]() { return takers.taken() + sut.count() == gives && sut.count() == 0; },
                                  30000));
    takers.stop();
    EXPECT_EQ(gives, takers.taken());
}

// --- takeExpectingSoon ---------------------------------------------------

TEST_F(SemaphoreTest, TakeExpectingSoonTakesAnAvailableCountAndOnlyTriesWithZeroTimeout)
{
    Semaphore sut(1, -1, false);
    EXPECT_NE(0, sut.takeExpectingSoon(0));
    EXPECT_EQ(0, sut.takeExpectingSoon(0));
    EXPECT_EQ(0, sut.takeExpectingSoon(-7));
    EXPECT_EQ(0, sut.count());
}

TEST_F(SemaphoreTest, TakeExpectingSoonTimesOutNoEarlierThanItsTimeout)
{
    // The yielding before the sleep counts against the time-out, and a
    // time-out shorter than it is still honoured.
    Semaphore sut(0, 1, false);
    for (int timeout : {1, 30}) {
        const long long start = cctest::nowMs();
        EXPECT_EQ(0, sut.takeExpectingSoon(timeout));
        EXPECT_GE(cctest::nowMs() - start, timeout);
    }
}

TEST_F(SemaphoreTest, TakeExpectingSoonWaitsUntilGivenAndTakesTheCount)
{
    Semaphore sut(0, 1, false);
    PendingTake pending([&sut]() { return sut.takeExpectingSoon(-1); });
    EXPECT_FALSE(cctest::waitUntil([&]() { return pending.returned(); }, 300));
    sut.give();
    ASSERT_TRUE(pending.waitForReturn());
    EXPECT_NE(0, pending.result());
    EXPECT_EQ(0, sut.count());
}

TEST_F(SemaphoreTest, TakesOfBothKindsRacingWithGivesNeverLoseOrInventCounts)
{
    Semaphore sut(0, -1, false);
    RacingTakers takers(sut, [](Semaphore& semaphore, int thread) {
        return thread % 2 == 0 ? semaphore.takeExpectingSoon(1) : semaphore.take(1);
    });
    const int gives = 3000;
    giveWithPauses(sut, gives, 64, std::chrono::microseconds(200));
    ASSERT_TRUE(cctest::waitUntil([&]() { return takers.taken() == gives; }, 30000));
    takers.stop();
    EXPECT_EQ(gives, takers.taken());
    EXPECT_EQ(0, sut.count());
}

// --- learning whether to spin ----------------------------------------------

bool severalProcessors() { return sysconf(_SC_NPROCESSORS_ONLN) > 1; }

TEST_F(SemaphoreTest, ANewSemaphoreSpinsBeforeSleepingExceptOnOneProcessor)
{
    Semaphore sut(0, 1, false);
    EXPECT_EQ(severalProcessors(), sut.spinsBeforeSleeping());
}

TEST_F(SemaphoreTest, SpinningStopsAfterWaitsThatItCouldNotShorten)
{
    if (!severalProcessors()) {
        GTEST_SKIP() << "a single processor never spins";
    }
    Semaphore sut(0, 1, false);
    // Every take times out: none of the spins found a count.
    for (int i = 0; i < 40 && sut.spinsBeforeSleeping(); ++i) {
        EXPECT_EQ(0, sut.take(1));
    }
    EXPECT_FALSE(sut.spinsBeforeSleeping());
    // Counts that are there already need no spin and change nothing.
    sut.give();
    EXPECT_NE(0, sut.take(-1));
    EXPECT_FALSE(sut.spinsBeforeSleeping());
}

TEST_F(SemaphoreTest, SpinningResumesOnceCountsComeWhileTheTakerWouldSpin)
{
    if (!severalProcessors()) {
        GTEST_SKIP() << "a single processor never spins";
    }
    Semaphore sut(0, 1, false);
    ASSERT_NO_FATAL_FAILURE(stopSpinning(sut));
    // A giver that answers every take at once, from another processor: the
    // occasional probing spin finds the count, and spinning pays again.
    std::atomic<int> wanted{0};
    std::atomic<bool> stop{false};
    std::thread giver([&]() {
        int given = 0;
        while (!stop.load()) {
            if (wanted.load() > given) {
                ++given;
                sut.give();
            }
        }
    });
    const long long start = cctest::nowMs();
    int takes = 0;
    while (!sut.spinsBeforeSleeping() && cctest::nowMs() - start < 20000) {
        ++wanted;
        ASSERT_NE(0, sut.take(-1));
        ++takes;
    }
    stop = true;
    giver.join();
    EXPECT_TRUE(sut.spinsBeforeSleeping()) << "after " << takes << " takes";
}

TEST_F(SemaphoreTest, SemaphoreThatStoppedSpinningStillWakesEveryTaker)
{
    // With spinning off, every wait sleeps: nothing may be lost there.
    Semaphore sut(0, -1, false);
    ASSERT_NO_FATAL_FAILURE(stopSpinning(sut));
    const int rounds = 500;
    std::atomic<int> taken{0};
    std::thread taker([&]() {
        for (int i = 0; i < rounds; ++i) {
            if (sut.take(-1) != 0) {
                ++taken;
            }
        }
    });
    giveWithPauses(sut, rounds, 8, std::chrono::microseconds(100));
    ASSERT_TRUE(cctest::waitUntil([&]() { return taken.load() == rounds; }, 20000));
    taker.join();
    EXPECT_EQ(0, sut.count());
}

TEST_F(SemaphoreTest, GivesArrivingWhileSleepersWakeReachEverySleeper)
{
    // Three takers that sleep at once, and one that only ever tries and
    // so takes counts from under woken sleepers. Gives come in bursts: the
    // first gives of a burst wake the sleepers, the rest find them already
    // woken. Every count is taken once and nobody sleeps through one.
    Semaphore sut(0, -1, false);
    ASSERT_NO_FATAL_FAILURE(stopSpinning(sut));
    const int gives = 3000;
    std::atomic<int> taken{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> takers;
    for (int t = 0; t < 3; ++t) {
        takers.emplace_back([&] {
            while (!stop.load()) {
                if (sut.take(-1) != 0) {
                    ++taken;
                }
            }
        });
    }
    takers.emplace_back([&] {
        while (!stop.load()) {
            if (sut.take(0) != 0) {
                ++taken;
            } else {
                std::this_thread::yield();
            }
        }
    });
    giveWithPauses(sut, gives, 16, std::chrono::microseconds(200));
    const bool allTaken = cctest::waitUntil([&] { return taken.load() == gives; }, 20000);
    stop = true;
    // One more count for each sleeping taker, so that all of them return.
    for (int t = 0; t < 3; ++t) {
        sut.give();
    }
    for (std::thread& taker : takers) {
        taker.join();
    }
    EXPECT_TRUE(allTaken) << taken.load() << " of " << gives << " counts taken";
    EXPECT_EQ(gives + 3, taken.load() + sut.count());
}

// A derived semaphore's take and give are reached through a Semaphore*, as
// the channel library calls them.
class CountingSemaphore : public Semaphore {
public:
    CountingSemaphore() : Semaphore(0, -1, false) {}
    int take(int timeout) override
    {
        ++takes;
        return Semaphore::take(timeout);
    }
    int give() override
    {
        ++gives;
        return Semaphore::give();
    }
    int takes = 0;
    int gives = 0;
};

TEST_F(SemaphoreTest, TakeAndGiveAreVirtualInTheThirdAndFourthSlots)
{
    EXPECT_EQ(2, pftest::vtableIndex(&Semaphore::take));
    EXPECT_EQ(3, pftest::vtableIndex(&Semaphore::give));
    std::unique_ptr<Semaphore> sut(new CountingSemaphore());
    sut->give();
    EXPECT_NE(0, sut->take(-1));
    EXPECT_EQ(1, static_cast<CountingSemaphore*>(sut.get())->takes);
    EXPECT_EQ(1, static_cast<CountingSemaphore*>(sut.get())->gives);
}

}  // namespace
