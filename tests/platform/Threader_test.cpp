// Threader: starting and joining threads, and what happens to an exception
// or a pthread_exit inside a thread's entry function.
#include "Threader.h"

#include "CommsException.h"
#include "PlatformTestSupport.h"
#include "Semaphore.h"
#include "SyslogCapture.h"
#include "TestUtil.h"

#include <pthread.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

// What an entry function of these tests works on.
struct Job {
    Semaphore release{0, -1, false};   // the entry waits for this when asked to
    Semaphore started{0, -1, false};   // the entry gives this when it starts
    bool waitForRelease = false;
    std::atomic<int> runs{0};
    int plainRuns = 0;                  // written by the entry, read after the join only
    std::atomic<unsigned long> selfId{0};
    std::string threadName;             // read after the join only
    void* argumentSeen = nullptr;       // read after the join only
};

void* runJob(void* raw)
{
    Job* job = static_cast<Job*>(raw);
    job->argumentSeen = raw;
    job->selfId = static_cast<unsigned long>(pthread_self());
    job->started.give();
    if (job->waitForRelease) {
        job->release.take(-1);
    }
    char name[16] = {0};
    pthread_getname_np(pthread_self(), name, sizeof name);
    job->threadName = name;
    ++job->plainRuns;
    ++job->runs;
    return nullptr;
}

void* throwStdException(void*) { throw std::runtime_error("disk on fire"); }
void* throwString(void*) { throw std::string("plain string thrown"); }
void* throwCharPointer(void*) { throw "character pointer thrown"; }
void* throwInt(void*) { throw 42; }
void* throwCommsException(void*) { throw CommsException("CommsChannel 'receive' timed out, timeout duration = 5"); }

// Sets its flag when destroyed: shows that unwinding ran through a frame.
struct UnwindWitness {
    explicit UnwindWitness(std::atomic<bool>& flag) : m_flag(flag) {}
    ~UnwindWitness() { m_flag = true; }
    std::atomic<bool>& m_flag;
};

std::atomic<bool> exitUnwound{false};
std::atomic<bool> afterExitReached{false};

void* exitThroughPthreadExit(void*)
{
    UnwindWitness witness(exitUnwound);
    pthread_exit(nullptr);
    afterExitReached = true;  // never reached
    return nullptr;
}

void* exitThroughPthreadExitInsideTryCatchAll(void*)
{
    UnwindWitness witness(exitUnwound);
    try {
        pthread_exit(nullptr);
    } catch (...) {
        // The forced unwind must be re-thrown by whoever catches it.
        throw;
    }
    afterExitReached = true;
    return nullptr;
}

void* waitForOwnThread(void* raw)
{
    Job* job = static_cast<Job*>(raw);
    Threader threader;
    threader.waitForThreadCompletion(static_cast<unsigned long>(pthread_self()));
    ++job->runs;
    return nullptr;
}

class ThreaderTest : public testing::Test {
protected:
    // Starts runJob on job and returns the id that spawn stored.
    unsigned long spawnJob(Job& job, const std::string& name = "")
    {
        unsigned long id = 0;
        Threader threader;
        EXPECT_EQ(1, threader.spawn(&id, runJob, &job, name, TARN_PRIORITY_NORMAL, 0));
        return id;
    }
    unsigned long spawnEntry(Threader::EntryFunction entry, const std::string& name = "", void* argument = nullptr)
    {
        unsigned long id = 0;
        Threader threader;
        EXPECT_EQ(1, threader.spawn(&id, entry, argument, name, TARN_PRIORITY_NORMAL, 0));
        return id;
    }
    static void wait(unsigned long id)
    {
        Threader threader;
        threader.waitForThreadCompletion(id);
    }
    // Runs a wait for id on a thread of its own; true once it has returned.
    struct PendingWait {
        explicit PendingWait(unsigned long id) : done(false)
        {
            thread = std::thread([this, id]() {
                ThreaderTest::wait(id);
                done = true;
            });
        }
        ~PendingWait() { thread.join(); }
        bool waitForReturn(int timeoutMs = 20000)
        {
            return cctest::waitUntil([this]() { return done.load(); }, timeoutMs);
        }
        std::atomic<bool> done;
        std::thread thread;
    };
    // Runs entry on a new named thread while stderr and the system log are
    // captured, waits for it and answers what was written to stderr.
    std::string stderrOfThread(Threader::EntryFunction entry, const std::string& name)
    {
        if (!syslogCapture) {
            syslogCapture.reset(new cctest::SyslogCapture());
        }
        testing::internal::CaptureStderr();
        wait(spawnEntry(entry, name));
        return testing::internal::GetCapturedStderr();
    }

    pftest::Watchdog watchdog{60000};
    std::unique_ptr<cctest::SyslogCapture> syslogCapture;
};

TEST_F(ThreaderTest, SpawnRunsTheEntryWithItsArgument)
{
    Job job;
    const unsigned long id = spawnJob(job);
    wait(id);
    EXPECT_EQ(1, job.runs.load());
    EXPECT_EQ(static_cast<void*>(&job), job.argumentSeen);
}

TEST_F(ThreaderTest, SpawnStoresTheIdOfTheNewThread)
{
    Job job;
    job.waitForRelease = true;
    const unsigned long id = spawnJob(job);
    ASSERT_NE(0, job.started.take(20000));
    EXPECT_NE(0UL, id);
    EXPECT_EQ(job.selfId.load(), id);
    job.release.give();
    wait(id);
}

TEST_F(ThreaderTest, IdCanBeWaitedForAssoonAsSpawnReturns)
{
    // A thread that ends at once is still joined: the wait sees its work.
    for (int i = 0; i < 100; ++i) {
        Job job;
        const unsigned long id = spawnJob(job);
        wait(id);
        ASSERT_EQ(1, job.plainRuns) << "iteration " << i;
    }
}

TEST_F(ThreaderTest, WaitBlocksUntilTheThreadHasEnded)
{
    Job job;
    job.waitForRelease = true;
    const unsigned long id = spawnJob(job);
    PendingWait pending(id);
    EXPECT_FALSE(cctest::waitUntil([&]() { return pending.done.load(); }, 300));
    job.release.give();
    ASSERT_TRUE(pending.waitForReturn());
    EXPECT_EQ(1, job.plainRuns);
}

TEST_F(ThreaderTest, SeveralWaitersForOneThreadAllReturnWhenItEnds)
{
    Job job;
    job.waitForRelease = true;
    const unsigned long id = spawnJob(job);
    PendingWait first(id);
    PendingWait second(id);
    PendingWait third(id);
    EXPECT_FALSE(cctest::waitUntil([&]() { return first.done || second.done || third.done; }, 300));
    job.release.give();
    EXPECT_TRUE(first.waitForReturn());
    EXPECT_TRUE(second.waitForReturn());
    EXPECT_TRUE(third.waitForReturn());
}

TEST_F(ThreaderTest, WaitingTwiceForTheSameIdIsHarmless)
{
    Job job;
    const unsigned long id = spawnJob(job);
    wait(id);
    PendingWait again(id);
    EXPECT_TRUE(again.waitForReturn());
    EXPECT_EQ(1, job.runs.load());
}

TEST_F(ThreaderTest, WaitingForAnUnknownIdReturnsAtOnce)
{
    PendingWait unknown(123456789UL);
    EXPECT_TRUE(unknown.waitForReturn());
    PendingWait zero(0UL);
    EXPECT_TRUE(zero.waitForReturn());
}

TEST_F(ThreaderTest, AThreadWaitingForItselfReturns)
{
    Job job;
    const unsigned long id = spawnEntry(waitForOwnThread, "", &job);
    wait(id);
    EXPECT_EQ(1, job.runs.load());
}

TEST_F(ThreaderTest, SpawnWithoutEntryFailsAndStoresZero)
{
    unsigned long id = 77;
    Threader sut;
    EXPECT_EQ(0, sut.spawn(&id, nullptr, nullptr, "", TARN_PRIORITY_NORMAL, 0));
    EXPECT_EQ(0UL, id);
}

TEST_F(ThreaderTest, ReceiverStyleSpawnWithEmptyNamePriorityOneAndZeroWorks)
{
    Job job;
    unsigned long id = 0;
    Threader sut;
    EXPECT_EQ(1, sut.spawn(&id, runJob, &job, std::string(), static_cast<TarnThreadPriority>(1), 0));
    wait(id);
    EXPECT_EQ(1, job.runs.load());
}

TEST_F(ThreaderTest, SpawnWithAStackSizeWorks)
{
    Job job;
    unsigned long id = 0;
    Threader sut;
    EXPECT_EQ(1, sut.spawn(&id, runJob, &job, "stacked", TARN_PRIORITY_LOW, 1024 * 1024));
    wait(id);
    EXPECT_EQ(1, job.runs.load());
}

TEST_F(ThreaderTest, NamedThreadCarriesItsNameCutTo15Bytes)
{
    Job shortJob;
    shortJob.waitForRelease = true;
    const unsigned long shortId = spawnJob(shortJob, "locator");
    Job longJob;
    longJob.waitForRelease = true;
    const unsigned long longId = spawnJob(longJob, "a-very-long-thread-name");
    // The name is set once spawn has returned; the entries read it later.
    shortJob.release.give();
    longJob.release.give();
    wait(shortId);
    wait(longId);
    EXPECT_EQ("locator", shortJob.threadName);
    EXPECT_EQ("a-very-long-thr", longJob.threadName);
}

TEST_F(ThreaderTest, ManyThreadsSpawnedAndJoinedFromManyThreads)
{
    // Ids of joined threads are given out again at once, so a new thread
    // often gets the id of one that another spawner is just releasing; each
    // wait must still join its own thread (the thread sanitizer sees the
    // entry's plain write racing with the read below if it does not).
    std::vector<std::thread> spawners;
    std::atomic<int> total{0};
    for (int s = 0; s < 4; ++s) {
        spawners.emplace_back([&]() {
            for (int i = 0; i < 25; ++i) {
                Job job;
                unsigned long id = 0;
                Threader threader;
                threader.spawn(&id, runJob, &job, "", TARN_PRIORITY_NORMAL, 0);
                threader.waitForThreadCompletion(id);
                total += job.plainRuns;
            }
        });
    }
    for (std::thread& spawner : spawners) {
        spawner.join();
    }
    EXPECT_EQ(100, total.load());
}

TEST_F(ThreaderTest, EscapingStdExceptionIsReportedWithItsText)
{
    const std::string err = stderrOfThread(throwStdException, "worker");
    EXPECT_EQ("Threader: thread worker ended by an uncaught exception: disk on fire\n", err);
}

TEST_F(ThreaderTest, EscapingStringIsReportedWithItsText)
{
    const std::string err = stderrOfThread(throwString, "");
    EXPECT_EQ("Threader: thread (unnamed) ended by an uncaught exception: plain string thrown\n", err);
}

TEST_F(ThreaderTest, EscapingCharPointerIsReportedWithItsText)
{
    const std::string err = stderrOfThread(throwCharPointer, "cp");
    EXPECT_NE(std::string::npos, err.find("character pointer thrown")) << err;
}

TEST_F(ThreaderTest, EscapingExceptionOfOtherTypeIsReported)
{
    const std::string err = stderrOfThread(throwInt, "intthrower");
    EXPECT_EQ("Threader: thread intthrower ended by an uncaught exception: exception of unknown type\n", err);
}

TEST_F(ThreaderTest, EscapingCommsExceptionIsReportedWithItsText)
{
    const std::string err = stderrOfThread(throwCommsException, "rx");
    EXPECT_NE(std::string::npos, err.find("CommsChannel 'receive' timed out, timeout duration = 5")) << err;
}

TEST_F(ThreaderTest, EscapingExceptionIsNotWrittenToTheSystemLog)
{
    const std::string err = stderrOfThread(throwStdException, "logged");
    EXPECT_NE(std::string::npos, err.find("disk on fire")) << err;
    if (!syslogCapture->ok()) {
        GTEST_SKIP() << "cannot take over /dev/log: " << syslogCapture->errorText();
    }
    EXPECT_TRUE(syslogCapture->recordsContaining("Threader").empty());
}

TEST_F(ThreaderTest, EscapingExceptionEndsOnlyItsThreadAndTheProcessGoesOn)
{
    Job bystander;
    bystander.waitForRelease = true;
    const unsigned long bystanderId = spawnJob(bystander);
    ASSERT_NE(0, bystander.started.take(20000));

    const std::string err = stderrOfThread(throwString, "doomed");
    EXPECT_NE(std::string::npos, err.find("plain string thrown"));

    // The other thread still runs, and new threads still start.
    bystander.release.give();
    wait(bystanderId);
    EXPECT_EQ(1, bystander.runs.load());
    Job later;
    wait(spawnJob(later));
    EXPECT_EQ(1, later.runs.load());
}

TEST_F(ThreaderTest, PthreadExitInsideTheEntryUnwindsAndEndsTheThreadQuietly)
{
    exitUnwound = false;
    afterExitReached = false;
    const std::string err = stderrOfThread(exitThroughPthreadExit, "exiting");
    EXPECT_TRUE(exitUnwound.load());
    EXPECT_FALSE(afterExitReached.load());
    EXPECT_EQ("", err);
}

TEST_F(ThreaderTest, PthreadExitPassesThroughACatchAllThatRethrows)
{
    exitUnwound = false;
    afterExitReached = false;
    const std::string err = stderrOfThread(exitThroughPthreadExitInsideTryCatchAll, "rethrowing");
    EXPECT_TRUE(exitUnwound.load());
    EXPECT_FALSE(afterExitReached.load());
    EXPECT_EQ("", err);
}

}  // namespace
