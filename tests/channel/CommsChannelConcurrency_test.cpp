// Many threads producing into and consuming from channels at once: every
// message is received exactly once, none is lost, none is duplicated.
//
// A plain receive takes the front of the queue whatever its request id, so
// the tests keep by-id answers out of plain consumers' reach by design: every
// message without a request id has a higher queue priority than every answer,
// and an answer is only queued once its waiter has registered (so its token
// goes to the waiter, never to the queue). Each queue token then stands for
// a message without request id that is in front of all answers.
#include "CommsChannel.h"
#include "ChannelTestHelpers.h"
#include "CommsChannelDataContainerMessage.h"
#include "FakeResolver.h"
#include "WhiteBoxAccess.h"
#include "TestUtil.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Everything that must happen within a test; generous for emulation.
const int TEST_DEADLINE_MS = 240000;

// Message types by queue priority: plain messages go in front of answers.
const int PLAIN_HIGH = 2;    // priority 2
const int PLAIN_NORMAL = 0;  // priority 1
const int ANSWER_LOW = 1;    // priority 0

// Collects what the consumers received, from any thread.
class Received {
public:
    void add(const std::string& data)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_data.push_back(data);
    }
    std::vector<std::string> sorted()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::string> copy = m_data;
        std::sort(copy.begin(), copy.end());
        return copy;
    }
    std::size_t size()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_data.size();
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_data;
};

// Lets every thread start at the same moment.
class StartLine {
public:
    void wait()
    {
        while (!m_open.load()) {
            std::this_thread::yield();
        }
    }
    void open() { m_open = true; }

private:
    std::atomic<bool> m_open{false};
};

void failLoudly(const std::string& what)
{
    std::fprintf(stderr, "%s\n", what.c_str());
    std::fflush(stderr);
    std::abort();
}

std::string duplicatesIn(const std::vector<std::string>& sorted)
{
    std::string duplicates;
    for (std::size_t i = 1; i < sorted.size(); ++i) {
        if (sorted[i] == sorted[i - 1]) {
            duplicates += sorted[i] + " ";
        }
    }
    return duplicates;
}

class CommsChannelConcurrencyTest : public testing::Test {
protected:
    CommsChannelConcurrencyTest() : watchdog(TEST_DEADLINE_MS + 30000) {}
    void SetUp() override { ASSERT_TRUE(fakeResolver.ok()); }

    // The resolver's first update releases only one first resolution of the
    // process; senders that start together wait until it has arrived.
    // A look-up of one of the process's own channels, registered, waits
    // for that update as a send does.
    static bool firstUpdateArrived(CommsChannel& registered)
    {
        return CommsChannelLocatorInspector::localChannel(registered.channelName()) == &registered;
    }
    static bool noWaiterLeft(CommsChannel& channel, int lastRequestId)
    {
        for (int id = 0; id <= lastRequestId; ++id) {
            if (CommsChannelInspector::hasRequestIdEntry(channel, id)) {
                return false;
            }
        }
        return true;
    }

    void waitUntilRegistered(CommsChannel& channel, int requestId)
    {
        if (!cctest::waitUntil(
                [&] { return CommsChannelInspector::hasRequestIdEntry(channel, requestId); },
                TEST_DEADLINE_MS)) {
            failLoudly("waiter for request id " + std::to_string(requestId) + " never registered");
        }
    }

    channeltest::Watchdog watchdog;
    cctest::FakeResolver fakeResolver;
};

TEST_F(CommsChannelConcurrencyTest, ProducersAndPlainAndByIdConsumersOnOneChannelReceiveEveryMessageOnce)
{
    const int QUEUERS = 3;        // addToMsgQ
    const int SENDERS = 3;        // sendMsg within the process
    const int PER_PRODUCER = 150;
    const int PLAIN_CONSUMERS = 3;
    const int ANSWER_PRODUCERS = 2;
    const int BY_ID_CONSUMERS = 24;  // request ids 1..24

    CommsChannel sut("sink");
    CommsChannel source("source");
    ASSERT_TRUE(firstUpdateArrived(sut));
    StartLine startLine;
    std::vector<std::string> expectedPlain;
    std::vector<std::thread> threads;

    for (int t = 0; t < QUEUERS; ++t) {
        for (int k = 0; k < PER_PRODUCER; ++k) {
            expectedPlain.push_back("queued " + std::to_string(t) + "/" + std::to_string(k));
        }
        threads.emplace_back([&, t] {
            startLine.wait();
            for (int k = 0; k < PER_PRODUCER; ++k) {
                CommsChannelDataContainerMessage message =
                    channeltest::message("queued " + std::to_string(t) + "/" + std::to_string(k), PLAIN_HIGH);
                sut.addToMsgQ(message);
            }
        });
    }
    for (int t = 0; t < SENDERS; ++t) {
        for (int k = 0; k < PER_PRODUCER; ++k) {
            expectedPlain.push_back("sent " + std::to_string(t) + "/" + std::to_string(k));
        }
        // Half send from the sink itself (to its own name), half from
        // another channel; the string overload gives type 0.
        CommsChannel& from = t % 2 == 0 ? sut : source;
        threads.emplace_back([&, t] {
            startLine.wait();
            for (int k = 0; k < PER_PRODUCER; ++k) {
                if (from.sendMsg("sink", "sent " + std::to_string(t) + "/" + std::to_string(k)) != 1) {
                    failLoudly("a send within the process failed");
                }
            }
        });
    }
    for (int t = 0; t < ANSWER_PRODUCERS; ++t) {
        threads.emplace_back([&, t] {
            startLine.wait();
            for (int id = 1 + t; id <= BY_ID_CONSUMERS; id += ANSWER_PRODUCERS) {
                waitUntilRegistered(sut, id);
                CommsChannelDataContainerMessage answer =
                    channeltest::message("answer " + std::to_string(id), ANSWER_LOW, id);
                if (id % 2 == 0) {
                    sut.addToMsgQ(answer);
                } else {
                    answer.setChannel("sink");
                    source.sendMsg(answer);
                }
            }
        });
    }

    Received plain;
    std::atomic<int> answersInPlainConsumers{0};
    for (int c = 0; c < PLAIN_CONSUMERS; ++c) {
        threads.emplace_back([&] {
            startLine.wait();
            CommsChannelDataContainerMessage message;
            while (sut.receiveMsg(message) == 1) {
                if (message.requestId() != 0) {
                    ++answersInPlainConsumers;
                }
                plain.add(message.getData());
            }
        });
    }
    std::vector<std::string> answers(BY_ID_CONSUMERS + 1);
    std::vector<long> answerIds(BY_ID_CONSUMERS + 1, -1);
    for (int id = 1; id <= BY_ID_CONSUMERS; ++id) {
        threads.emplace_back([&, id] {
            startLine.wait();
            CommsChannelDataContainerMessage message;
            const int result =
                id % 3 == 0 ? sut.receiveMsg(message, static_cast<long>(id)) : sut.receiveMsg_ByID_Timed(message, id, -1);
            if (result == 1) {
                answers[static_cast<std::size_t>(id)] = message.getData();
                answerIds[static_cast<std::size_t>(id)] = message.requestId();
            }
        });
    }

    startLine.open();
    const std::size_t plainTotal = expectedPlain.size();
    if (!cctest::waitUntil([&] { return plain.size() >= plainTotal; }, TEST_DEADLINE_MS)) {
        failLoudly("plain consumers received " + std::to_string(plain.size()) + " of " + std::to_string(plainTotal));
    }
    // Each shutdown releases one plain consumer for good.
    for (int c = 0; c < PLAIN_CONSUMERS; ++c) {
        sut.shutdown();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    std::sort(expectedPlain.begin(), expectedPlain.end());
    const std::vector<std::string> receivedPlain = plain.sorted();
    EXPECT_EQ("", duplicatesIn(receivedPlain));
    EXPECT_EQ(expectedPlain, receivedPlain);
    EXPECT_EQ(0, answersInPlainConsumers.load());
    for (int id = 1; id <= BY_ID_CONSUMERS; ++id) {
        EXPECT_EQ("answer " + std::to_string(id), answers[static_cast<std::size_t>(id)]);
        EXPECT_EQ(id, answerIds[static_cast<std::size_t>(id)]);
    }
    EXPECT_TRUE(sut.isQEmpty());
    EXPECT_TRUE(noWaiterLeft(sut, BY_ID_CONSUMERS));
}

TEST_F(CommsChannelConcurrencyTest, ByIdWaitersBalanceTheirTokensWhetherTheAnswerCameBeforeOrAfterThem)
{
    const int WAITERS = 40;  // request ids 1..40
    const int ANSWER_PRODUCERS = 4;

    CommsChannel sut("");
    StartLine startLine;
    std::vector<std::thread> threads;
    // Answers race with their waiters: some are queued before the waiter
    // registers (token on the queue), some after (token to the waiter).
    for (int t = 0; t < ANSWER_PRODUCERS; ++t) {
        threads.emplace_back([&, t] {
            startLine.wait();
            for (int id = 1 + t; id <= WAITERS; id += ANSWER_PRODUCERS) {
                CommsChannelDataContainerMessage answer =
                    channeltest::message("answer " + std::to_string(id), id % 7, id);
                sut.addToMsgQ(answer);
                std::this_thread::yield();
            }
        });
    }
    std::vector<std::string> answers(WAITERS + 1);
    for (int id = 1; id <= WAITERS; ++id) {
        threads.emplace_back([&, id] {
            startLine.wait();
            CommsChannelDataContainerMessage message;
            if (sut.receiveMsg_ByID_Timed(message, id, TEST_DEADLINE_MS) == 1) {
                answers[static_cast<std::size_t>(id)] = message.getData();
            }
        });
    }

    startLine.open();
    for (std::thread& thread : threads) {
        thread.join();
    }

    for (int id = 1; id <= WAITERS; ++id) {
        EXPECT_EQ("answer " + std::to_string(id), answers[static_cast<std::size_t>(id)]);
    }
    EXPECT_TRUE(sut.isQEmpty());
    // Every token was taken by the waiter its answer belonged to.
    EXPECT_EQ(0, CommsChannelInspector::queueSemaphoreCount(sut));
    EXPECT_TRUE(noWaiterLeft(sut, WAITERS));
}

TEST_F(CommsChannelConcurrencyTest, ChannelsOfOneProcessSendingToEachOtherAtOnceLoseNothing)
{
    const int CHANNELS = 4;
    const int PER_DESTINATION = 100;

    std::vector<std::unique_ptr<CommsChannel>> channels;
    for (int c = 0; c < CHANNELS; ++c) {
        channels.emplace_back(new CommsChannel("peer " + std::to_string(c)));
    }
    ASSERT_TRUE(firstUpdateArrived(*channels.front()));
    StartLine startLine;
    std::vector<std::thread> threads;
    std::vector<Received> received(CHANNELS);
    for (int c = 0; c < CHANNELS; ++c) {
        threads.emplace_back([&, c] {
            startLine.wait();
            for (int k = 0; k < PER_DESTINATION; ++k) {
                for (int d = 0; d < CHANNELS; ++d) {
                    if (d == c) {
                        continue;
                    }
                    const std::string data = std::to_string(c) + ">" + std::to_string(d) + " #" + std::to_string(k);
                    char buffer[64];
                    std::snprintf(buffer, sizeof buffer, "%s", data.c_str());
                    const int sent = k % 2 == 0
                                         ? channels[static_cast<std::size_t>(c)]->sendMsg("peer " + std::to_string(d), data)
                                         : channels[static_cast<std::size_t>(c)]->sendMsg(
                                               "peer " + std::to_string(d), buffer, static_cast<int>(data.size()));
                    if (sent != 1) {
                        failLoudly("a send within the process failed");
                    }
                }
            }
        });
        threads.emplace_back([&, c] {
            startLine.wait();
            for (int n = 0; n < (CHANNELS - 1) * PER_DESTINATION; ++n) {
                std::string data;
                if (channels[static_cast<std::size_t>(c)]->receiveMsg(data) != 1) {
                    failLoudly("a receive returned nothing");
                }
                received[static_cast<std::size_t>(c)].add(data);
            }
        });
    }

    startLine.open();
    for (std::thread& thread : threads) {
        thread.join();
    }

    for (int d = 0; d < CHANNELS; ++d) {
        std::vector<std::string> expected;
        for (int c = 0; c < CHANNELS; ++c) {
            for (int k = 0; k < PER_DESTINATION && c != d; ++k) {
                expected.push_back(std::to_string(c) + ">" + std::to_string(d) + " #" + std::to_string(k));
            }
        }
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(expected, received[static_cast<std::size_t>(d)].sorted()) << "at peer " << d;
        EXPECT_TRUE(channels[static_cast<std::size_t>(d)]->isQEmpty());
    }
}

}  // namespace
