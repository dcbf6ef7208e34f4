// Channels, their names and the locator coming and going while other threads
// (and other processes) send: nothing hangs, nothing touches freed memory,
// and a removal never waits for a send to another name.
#include "CommsChannel.h"
#include "CCInterceptorContext.h"
#include "CCInterceptorDispatcher.h"
#include "ChannelTestHelpers.h"
#include "ChildProcess.h"
#include "CommsChannelDataContainerMessage.h"
#include "FakeResolver.h"
#include "ResolverProcess.h"
#include "RoundBarrier.h"
#include "TestUtil.h"
#include "WhiteBoxAccess.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {


// Everything that must happen within a test; generous for emulation and
// sanitizers.
const int TEST_DEADLINE_MS = 200000;

void failLoudly(const std::string& what)
{
    std::fprintf(stderr, "%s\n", what.c_str());
    std::fflush(stderr);
    std::abort();
}

std::string nameOf(const std::string& prefix, int index) { return prefix + std::to_string(index); }

// Threads of this process.
int threadCount() { return cctest::threadCount(); }

// The current locator has applied the resolver's first update: a look-up of
// registered, a channel of this process that the caller keeps (and with it
// the locator), waits for that update as a send does.
bool firstUpdateArrived(CommsChannel& registered)
{
    return CommsChannelLocatorInspector::localChannel(registered.channelName()) == &registered;
}

// Every locator this process made has withdrawn from the resolver again, so
// none is left.
bool everyLocatorWithdrew(cctest::FakeResolver& resolver)
{
    return cctest::waitUntil(
        [&] {
            const std::size_t registered = resolver.receivedOfType(COMMS_MSG_REGISTER_LOCATOR).size();
            return registered > 0 && resolver.receivedOfType(COMMS_MSG_UNREGISTER_LOCATOR).size() == registered;
        },
        TEST_DEADLINE_MS);
}

// Whether this process's current locator knows name (a locator is made if
// there is none: call it while a registered channel keeps one).
bool locatorKnows(const std::string& name) { return CommsChannelLocatorInspector::shared()->knowsName(name); }

// Standard output goes to /dev/null while it exists: sends to a name that is
// gone for the moment end at the null dispatcher, which prints a line each.
class QuietStdout {
public:
    QuietStdout() : m_saved(dup(STDOUT_FILENO))
    {
        std::fflush(stdout);
        const int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(devNull, STDOUT_FILENO);
        close(devNull);
    }
    ~QuietStdout()
    {
        std::fflush(stdout);
        dup2(m_saved, STDOUT_FILENO);
        close(m_saved);
    }
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;

private:
    int m_saved;
};

// While a message is being queued into its channel, sends one message from
// relay to "c", once the test says go. Runs under that channel's queue lock.
class RelayingInterceptor : public CCInterceptorDispatcher {
public:
    int intercept(CCInterceptorContext* /*context*/) override
    {
        entered = true;
        if (!cctest::waitUntil([this] { return go.load(); }, TEST_DEADLINE_MS)) {
            failLoudly("the interceptor was never told to go on");
        }
        relayed = relay->sendMsg("c", std::string("relayed")) + 1;
        return 1;
    }

    CommsChannel* relay = nullptr;
    std::atomic<bool> entered{false};
    std::atomic<bool> go{false};
    std::atomic<int> relayed{0};  // 0 while unsent, else sendMsg's result + 1
};

class CommsChannelLifetimeTest : public testing::Test {
protected:
    CommsChannelLifetimeTest() : watchdog(TEST_DEADLINE_MS + 30000) {}

    channeltest::Watchdog watchdog;
};

TEST_F(CommsChannelLifetimeTest, DestroyingAChannelDoesNotWaitForASendToAnotherChannelWhoseInterceptorSendsOn)
{
    cctest::FakeResolver fakeResolver;
    ASSERT_TRUE(fakeResolver.ok());
    RelayingInterceptor interceptor;
    CommsChannel a("a", &interceptor);
    CommsChannel c("c");
    CommsChannel relay("relay");
    interceptor.relay = &relay;
    CommsChannel* b = new CommsChannel("b");
    ASSERT_TRUE(firstUpdateArrived(a));

    // Thread 1 sends to "a"; its interceptor holds the send there.
    std::atomic<int> sentToA{0};
    std::thread sender([&] { sentToA = relay.sendMsg("a", std::string("to a")) + 1; });
    ASSERT_TRUE(cctest::waitUntil([&] { return interceptor.entered.load(); }, TEST_DEADLINE_MS));
    // Thread 2 destroys the unrelated "b" meanwhile; it must not wait for
    // the send into "a".
    std::atomic<bool> bDestroyed{false};
    std::thread destroyer([&] {
        delete b;
        bDestroyed = true;
    });
    const bool destroyedDuringSend = cctest::waitUntil([&] { return bDestroyed.load(); }, 20000);
    // Then the interceptor sends on to "c", which needs the locator's map.
    interceptor.go = true;
    const bool bothEnded =
        cctest::waitUntil([&] { return bDestroyed.load() && sentToA.load() != 0; }, 20000);
    if (!bothEnded) {
        failLoudly("the send to \"a\" and the destruction of \"b\" block each other");
    }
    sender.join();
    destroyer.join();

    EXPECT_TRUE(destroyedDuringSend);
    EXPECT_EQ(2, sentToA.load());
    EXPECT_EQ(2, interceptor.relayed.load());
    std::string data;
    ASSERT_EQ(1, c.receiveMsg(data));
    EXPECT_EQ("relayed", data);
}

TEST_F(CommsChannelLifetimeTest, DestroyingAChannelWaitsOnlyUntilTheSendIntoItHasQueued)
{
    cctest::FakeResolver fakeResolver;
    ASSERT_TRUE(fakeResolver.ok());
    RelayingInterceptor interceptor;
    CommsChannel c("c");
    CommsChannel relay("relay");
    interceptor.relay = &relay;
    CommsChannel* a = new CommsChannel("a", &interceptor);
    ASSERT_TRUE(firstUpdateArrived(c));

    std::atomic<int> sentToA{0};
    std::thread sender([&] { sentToA = relay.sendMsg("a", std::string("to a")) + 1; });
    ASSERT_TRUE(cctest::waitUntil([&] { return interceptor.entered.load(); }, TEST_DEADLINE_MS));
    std::atomic<bool> aDestroyed{false};
    std::thread destroyer([&] {
        delete a;
        aDestroyed = true;
    });
    // The send into "a" is still queuing: the channel must not go yet.
    const bool destroyedTooEarly = cctest::waitUntil([&] { return aDestroyed.load(); }, 300);
    interceptor.go = true;
    if (!cctest::waitUntil([&] { return aDestroyed.load() && sentToA.load() != 0; }, 20000)) {
        failLoudly("the destruction of \"a\" never ended");
    }
    sender.join();
    destroyer.join();

    EXPECT_FALSE(destroyedTooEarly);
    EXPECT_EQ(2, sentToA.load());
    EXPECT_EQ(2, interceptor.relayed.load());
}

TEST_F(CommsChannelLifetimeTest, SendsToNamesThatAreRemovedAndRegisteredAgainInThisProcessNeverHang)
{
    const int NAMES = 4;
    const int SENDERS = 4;
    const int LOCAL_CYCLES = 400;
    // The fake resolver answers every port request with 0 and relays
    // nothing, so the only rows the locator gets are the ones pushed below,
    // each after the previous one was applied: no datagram to the locator
    // is ever lost, and no port request waits for ever.
    cctest::FakeResolver fakeResolver;
    ASSERT_TRUE(fakeResolver.ok());
    // Keeps the locator alive throughout, so the churn below changes names
    // only.
    CommsChannel anchor("anchor");
    ASSERT_TRUE(firstUpdateArrived(anchor));
    // The locator's socket is the one its registration came from.
    ASSERT_TRUE(fakeResolver.waitForType(COMMS_MSG_REGISTER_LOCATOR, 1, TEST_DEADLINE_MS));
    const int locatorPort = fakeResolver.receivedOfType(COMMS_MSG_REGISTER_LOCATOR).back().sourcePort;
    cctest::UdpSocket remoteSink;
    ASSERT_TRUE(remoteSink.ok());
    QuietStdout quiet;
    std::atomic<bool> stop{false};
    std::atomic<long> sends{0};
    std::atomic<long> remoteRounds{0};
    std::vector<std::thread> threads;

    // Names of this process come and go, a bounded number of times: every
    // registration and removal is a row to the fake resolver, and a burst
    // beyond what its socket holds would lose port requests.
    std::atomic<int> churning{NAMES};
    for (int n = 0; n < NAMES; ++n) {
        threads.emplace_back([&, n] {
            for (int cycle = 0; cycle < LOCAL_CYCLES && !stop; ++cycle) {
                CommsChannel target(nameOf("target ", n));
                std::this_thread::yield();
            }
            --churning;
        });
    }
    // Names of another process, as the resolver would announce and withdraw
    // them.
    threads.emplace_back([&] {
        for (long round = 0; !stop; ++round) {
            const std::string name = nameOf("remote ", static_cast<int>(round % NAMES));
            const bool add = (round / NAMES) % 2 == 0;
            fakeResolver.sendUpdate(locatorPort, {std::make_tuple(add ? 0 : 1, name, remoteSink.port())});
            if (!cctest::waitUntil([&] { return locatorKnows(name) == add; }, TEST_DEADLINE_MS)) {
                failLoudly("the locator never applied a row");
            }
            ++remoteRounds;
        }
    });
    for (int s = 0; s < SENDERS; ++s) {
        threads.emplace_back([&, s] {
            CommsChannel sender(nameOf("sender ", s));
            for (long k = 0; !stop; ++k) {
                const std::string prefix = k % 2 == 0 ? "target " : "remote ";
                sender.sendMsg(nameOf(prefix, static_cast<int>((k / 2) % NAMES)), "payload");
                ++sends;
            }
        });
    }
    const bool churnEnded = cctest::waitUntil([&] { return churning.load() == 0; }, TEST_DEADLINE_MS);
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_TRUE(churnEnded);
    EXPECT_GT(sends.load(), 0);
    EXPECT_GT(remoteRounds.load(), 0);
    // Of this process's names only the anchor's is left.
    EXPECT_TRUE(locatorKnows("anchor"));
    for (int n = 0; n < NAMES; ++n) {
        EXPECT_FALSE(locatorKnows(nameOf("target ", n))) << n;
    }
    for (int s = 0; s < SENDERS; ++s) {
        EXPECT_FALSE(locatorKnows(nameOf("sender ", s))) << s;
    }
}

CC_CHILD_MAIN(churnNames)
{
    // args: name prefix, count of names. Each line "NEXT" from the parent
    // registers the next name and withdraws it again; "END" ends the child.
    const std::string prefix = args.at(0);
    const int names = std::stoi(args.at(1));
    CommsChannel anchor(prefix + "anchor");
    cctest::childSay("READY");
    std::string line;
    for (int round = 0; cctest::childHear(line) && line == "NEXT"; ++round) {
        {
            CommsChannel target(nameOf(prefix, round % names));
            cctest::childSay("UP");
            if (!cctest::childHear(line) || line != "DOWN") {
                break;
            }
        }
        cctest::childSay("GONE");
    }
    return cctest::CHILD_OK;
}

TEST_F(CommsChannelLifetimeTest, SendsToNamesThatAnotherProcessRemovesAndRegistersAgainNeverHang)
{
    const int NAMES = 3;
    const int SENDERS = 4;
    const int ROUNDS = 150;
    cctest::ResolverProcess resolver;
    ASSERT_TRUE(resolver.started());
    CommsChannel anchor("anchor");
    ASSERT_TRUE(firstUpdateArrived(anchor));
    QuietStdout quiet;
    cctest::ChildProcess child("churnNames", {"far ", std::to_string(NAMES)});
    ASSERT_TRUE(child.waitForLine("READY", 20000));
    std::atomic<bool> stop{false};
    std::atomic<long> sends{0};
    std::vector<std::thread> threads;
    for (int s = 0; s < SENDERS; ++s) {
        threads.emplace_back([&, s] {
            CommsChannel sender(nameOf("sender ", s));
            for (long k = 0; !stop; ++k) {
                sender.sendMsg(nameOf("far ", static_cast<int>(k % NAMES)), "payload");
                ++sends;
            }
        });
    }
    // The child's names come and go one at a time, each once this process
    // has learnt it, so that the resolver's rows never pile up (a row or an
    // answer lost by the locator's socket would leave a sender waiting for
    // ever). A name of this process comes and goes in step, so that local
    // and remote removals meet the same senders.
    bool stepped = true;
    for (int round = 0; round < ROUNDS && stepped; ++round) {
        const std::string name = nameOf("far ", round % NAMES);
        std::unique_ptr<CommsChannel> local(new CommsChannel(nameOf("far ", NAMES)));
        child.writeLine("NEXT");
        stepped = child.waitForLine("UP", 20000);
        stepped = stepped && cctest::waitUntil([&] { return locatorKnows(name); }, 20000);
        child.writeLine("DOWN");
        stepped = stepped && child.waitForLine("GONE", 20000);
        local.reset();
    }
    child.writeLine("END");
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_TRUE(stepped);
    EXPECT_EQ(cctest::CHILD_OK, child.wait(20000));
    EXPECT_GT(sends.load(), 0);
}

TEST_F(CommsChannelLifetimeTest, SendsFromAnUnregisteredTwinWhileItsNamesakeComesAndGoesOutliveEachLocator)
{
    const int CYCLES = 1500;
    cctest::FakeResolver fakeResolver;
    ASSERT_TRUE(fakeResolver.ok());
    // Keeps the receiver in place, so that only the locator comes and goes.
    CommsChannel unnamed("");
    QuietStdout quiet;
    // The first channel of a name is registered; a second one of the same
    // name is not, yet it sends. Each time the registered one goes, the
    // process has no registered channel left and its locator ends, while
    // the twin's thread may be inside that very locator resolving a name.
    std::unique_ptr<CommsChannel> namesake(new CommsChannel("twin"));
    CommsChannel twin("twin");
    ASSERT_TRUE(firstUpdateArrived(*namesake));
    std::atomic<bool> stop{false};
    std::atomic<long> queued{0};
    std::atomic<long> refused{0};
    std::thread sender([&] {
        while (!stop) {
            // Queued into the namesake while it is registered; refused while
            // the name is unknown (the fake resolver answers 0).
            if (twin.sendMsg("twin", "to my namesake") == 1) {
                ++queued;
            } else {
                ++refused;
            }
        }
    });
    for (int cycle = 0; cycle < CYCLES; ++cycle) {
        namesake.reset();
        namesake.reset(new CommsChannel("twin"));
    }
    // Both outcomes must have occurred, or the sends never met the churn.
    const bool bothSeen =
        cctest::waitUntil([&] { return queued.load() > 0 && refused.load() > 0; }, TEST_DEADLINE_MS);
    stop = true;
    sender.join();
    namesake.reset();

    EXPECT_TRUE(bothSeen) << queued.load() << " queued, " << refused.load() << " refused";
    EXPECT_TRUE(everyLocatorWithdrew(fakeResolver));
}

TEST_F(CommsChannelLifetimeTest, FirstResolutionsWaitingForTheResolverAreLetGoWhenTheLocatorEnds)
{
    const int WAITERS = 2;
    // Never answers a locator's registration, so every first resolution
    // waits for an update that does not come.
    cctest::FakeResolver fakeResolver(false, true);
    ASSERT_TRUE(fakeResolver.ok());
    CommsChannel unnamed("");
    QuietStdout quiet;
    std::unique_ptr<CommsChannel> namesake(new CommsChannel("twin"));
    std::vector<std::unique_ptr<CommsChannel>> twins;
    for (int w = 0; w < WAITERS; ++w) {
        twins.emplace_back(new CommsChannel("twin"));
    }
    std::atomic<int> returned{0};
    std::atomic<int> refused{0};
    std::vector<std::thread> senders;
    for (int w = 0; w < WAITERS; ++w) {
        senders.emplace_back([&, w] {
            if (twins[static_cast<std::size_t>(w)]->sendMsg("elsewhere", "waits for the first update") == 0) {
                ++refused;
            }
            ++returned;
        });
    }
    // Time for both to reach the wait; one that comes later finds the
    // locator ending and is refused all the same.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(0, returned.load());

    // The last registered channel goes, and with it the locator: the waits
    // end with it instead of running out their time-out.
    namesake.reset();
    if (!cctest::waitUntil([&] { return returned.load() == WAITERS; }, 20000)) {
        failLoudly(std::to_string(returned.load()) + " of " + std::to_string(WAITERS) +
                   " sends returned after the locator ended");
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(WAITERS, refused.load());
    EXPECT_TRUE(everyLocatorWithdrew(fakeResolver));
}

TEST_F(CommsChannelLifetimeTest, LocatorComesAndGoesWithTheLastChannelAndEachThreadIsJoinedOnce)
{
    const int THREADS = 8;
    const int CYCLES_PER_THREAD = 300;
    cctest::FakeResolver fakeResolver;
    ASSERT_TRUE(fakeResolver.ok());
    // Keeps the receiver in place: only the locator, which lives as long as
    // the process has named channels, comes and goes here.
    CommsChannel unnamed("");
    const int threadsBefore = threadCount();
    std::atomic<int> failures{0};
    cctest::RoundBarrier barrier(THREADS);
    std::vector<std::thread> threads;

    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            const std::string name = nameOf("cycler ", t);
            for (int cycle = 0; cycle < CYCLES_PER_THREAD; ++cycle) {
                {
                    CommsChannel sut(name);
                    // The first update releases only one first resolution of
                    // a locator; wait for it rather than race other threads'
                    // sends.
                    if (!firstUpdateArrived(sut)) {
                        failLoudly("a locator never got the resolver's first update");
                    }
                    std::string data;
                    if (sut.sendMsg(name, "cycle " + std::to_string(cycle)) != 1 || sut.receiveMsg(data) != 1 ||
                        data != "cycle " + std::to_string(cycle)) {
                        ++failures;
                    }
                }
                // Every second round all named channels are gone before the
                // next one is made, so the locator ends and comes back; in
                // the others the last channel of one locator races with the
                // first channel of the next.
                if (cycle % 2 == 0) {
                    barrier.arriveAndWait();
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(0, failures.load());
    // Each locator registered at the resolver when it was made and withdrew
    // when it ended, and its thread is gone.
    EXPECT_TRUE(everyLocatorWithdrew(fakeResolver));
    EXPECT_GE(fakeResolver.receivedOfType(COMMS_MSG_REGISTER_LOCATOR).size(),
              static_cast<std::size_t>(CYCLES_PER_THREAD / 2));
    EXPECT_TRUE(cctest::waitUntil([&] { return threadCount() == threadsBefore; }, TEST_DEADLINE_MS))
        << threadCount() << " threads, " << threadsBefore << " before";
}

}  // namespace
