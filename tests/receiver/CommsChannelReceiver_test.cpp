// The receiver registry: the singleton, its list of watched channels, the
// descriptor set and the status socket through which list changes wake the
// receiver thread. Unnamed channels keep the locator out of the way.
#include "CommsChannel.h"
#include "CommsChannelReceiver.h"
#include "ReceiverProbe.h"
#include "ReceiverStorage.h"
#include "RoundBarrier.h"
#include "TestUtil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using cctest::ReceiverProbe;

// The 4 bytes of a status update for id, in host byte order.
std::string statusBytes(statusUpdateMsgId id)
{
    const std::int32_t value = static_cast<std::int32_t>(id);
    char bytes[4];
    std::memcpy(bytes, &value, 4);
    return std::string(bytes, 4);
}

class CommsChannelReceiverTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(peer.ok()); }

    // Sends a data message to the channel from the peer and takes it out.
    std::string roundTrip(CommsChannel& channel, const std::string& data)
    {
        peer.sendTo(channel.port(), cctest::dataEncoding("", data));
        if (!cctest::waitForQueued(channel)) {
            return "(nothing arrived)";
        }
        std::string received;
        channel.receiveMsg(received);
        return received;
    }

    cctest::UdpSocket peer;
};

TEST_F(CommsChannelReceiverTest, FirstChannelCreatesTheReceiverWithItsStatusSocket)
{
    ASSERT_EQ(nullptr, ReceiverProbe::current());

    CommsChannel channel("");

    CommsChannelReceiver* sut = ReceiverProbe::current();
    ASSERT_NE(nullptr, sut);
    EXPECT_EQ(sut, CommsChannelReceiver::instance());
    EXPECT_EQ(1, sut->numReceiveChannels());
    EXPECT_EQ(std::vector<CommsChannel*>{&channel}, ReceiverProbe::channels());
    EXPECT_GT(ReceiverProbe::statusSocket(), 0);
    EXPECT_NE(0, ReceiverProbe::statusPort());
    EXPECT_TRUE(ReceiverProbe::isMonitored(ReceiverProbe::statusSocket()));
    EXPECT_TRUE(ReceiverProbe::isMonitored(channel.socketHandle()));
    EXPECT_EQ("hello", roundTrip(channel, "hello"));
}

TEST_F(CommsChannelReceiverTest, SameChannelAddedTwiceIsListedTwiceAndOneRemovalTakesTheFirstEntry)
{
    CommsChannel first("");
    CommsChannel second("");
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();

    EXPECT_EQ(1, sut->addReceiveChannel(&first));
    EXPECT_EQ(3, sut->numReceiveChannels());
    EXPECT_EQ((std::vector<CommsChannel*>{&first, &second, &first}), ReceiverProbe::channels());

    sut->removeReceiveChannel(&first);

    EXPECT_EQ(2, sut->numReceiveChannels());
    EXPECT_EQ((std::vector<CommsChannel*>{&second, &first}), ReceiverProbe::channels());
    EXPECT_EQ(sut, ReceiverProbe::current());
    EXPECT_TRUE(ReceiverProbe::isMonitored(first.socketHandle()));
    EXPECT_EQ("still served", roundTrip(first, "still served"));
}

TEST_F(CommsChannelReceiverTest, RemovingAChannelNotInTheListStillSendsAStatusUpdate)
{
    CommsChannel listed("");
    CommsChannel unlisted("");
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();
    sut->removeReceiveChannel(&unlisted);
    ASSERT_EQ(std::vector<CommsChannel*>{&listed}, ReceiverProbe::channels());
    cctest::UdpSocket spy;
    ASSERT_TRUE(spy.ok());
    std::string update;
    {
        cctest::StatusUpdateDiversion diversion(spy.port());

        sut->removeReceiveChannel(&unlisted);

        EXPECT_TRUE(spy.receive(update, 10000));
    }
    EXPECT_EQ(statusBytes(CHANNEL_REMOVED), update);
    EXPECT_EQ(std::vector<CommsChannel*>{&listed}, ReceiverProbe::channels());
    EXPECT_EQ(sut, ReceiverProbe::current());
    EXPECT_EQ("served", roundTrip(listed, "served"));
}

TEST_F(CommsChannelReceiverTest, RemovingAChannelNotInAnEmptyListShutsTheReceiverDown)
{
    CommsChannel unlisted("");
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();
    sut->removeReceiveChannel(&unlisted);
    ASSERT_EQ(nullptr, ReceiverProbe::current());
    // A receiver with an empty list.
    sut = CommsChannelReceiver::instance();
    ASSERT_EQ(0, sut->numReceiveChannels());
    ASSERT_GT(ReceiverProbe::statusSocket(), 0);

    sut->removeReceiveChannel(&unlisted);

    EXPECT_EQ(nullptr, ReceiverProbe::current());
    EXPECT_EQ(0, ReceiverProbe::statusSocket());
    EXPECT_EQ(0, ReceiverProbe::statusPort());
}

TEST_F(CommsChannelReceiverTest, LastRemovalClearsTheInstanceAndTheNextChannelBuildsAFreshReceiver)
{
    CommsChannel* first = new CommsChannel("");
    const int oldStatusPort = ntohs(static_cast<uint16_t>(ReceiverProbe::statusPort()));

    delete first;

    EXPECT_EQ(nullptr, ReceiverProbe::current());
    EXPECT_EQ(0, ReceiverProbe::statusSocket());
    EXPECT_EQ(0, ReceiverProbe::statusPort());
    // The old status socket is closed: its port can be taken over, which
    // also keeps the next receiver off it.
    cctest::UdpSocket oldStatusPortHolder(oldStatusPort);
    EXPECT_TRUE(oldStatusPortHolder.ok());

    CommsChannel second("");

    ASSERT_NE(nullptr, ReceiverProbe::current());
    EXPECT_GT(ReceiverProbe::statusSocket(), 0);
    EXPECT_NE(0, ReceiverProbe::statusPort());
    EXPECT_NE(oldStatusPort, ntohs(static_cast<uint16_t>(ReceiverProbe::statusPort())));
    EXPECT_FALSE(ReceiverProbe::stopRequested());
    EXPECT_EQ(std::vector<CommsChannel*>{&second}, ReceiverProbe::channels());
    EXPECT_EQ("fresh thread", roundTrip(second, "fresh thread"));
}

TEST_F(CommsChannelReceiverTest, PointerFromInstanceOutlivingItsReceiverStillReachesTheCurrentOne)
{
    // Another thread's view: it read instance() just before the last channel
    // went, and calls through the pointer afterwards.
    CommsChannel* first = new CommsChannel("");
    CommsChannelReceiver* late = CommsChannelReceiver::instance();
    delete first;
    ASSERT_EQ(nullptr, ReceiverProbe::current());

    EXPECT_EQ(0, late->numReceiveChannels());

    CommsChannel second("");
    EXPECT_EQ(1, late->addReceiveChannel(&second));
    EXPECT_EQ((std::vector<CommsChannel*>{&second, &second}), ReceiverProbe::channels());
    EXPECT_EQ(2, late->numReceiveChannels());
    late->removeReceiveChannel(&second);
    EXPECT_EQ(std::vector<CommsChannel*>{&second}, ReceiverProbe::channels());
    EXPECT_EQ("through the late pointer", roundTrip(second, "through the late pointer"));
}

TEST_F(CommsChannelReceiverTest, DormantReceiverLeavesTheCurrentReceiversSocketsAndViewAlone)
{
    CommsChannel channel("");
    ASSERT_NE(nullptr, ReceiverProbe::current());
    // What a deleted receiver's block holds: a block given back through
    // the class's own delete, while the current receiver lives elsewhere.
    void* block = CommsChannelReceiver::operator new(sizeof(CommsChannelReceiver));
    CommsChannelReceiver::operator delete(block);
    // The class keeps its blocks: using one after its delete is the point.
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuse-after-free"
#endif
    CommsChannelReceiver* dormant = static_cast<CommsChannelReceiver*>(block);
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12
#pragma GCC diagnostic pop
#endif
    ASSERT_NE(ReceiverProbe::current(), dormant);
    const int statusSocket = ReceiverProbe::statusSocket();
    const int statusPort = ReceiverProbe::statusPort();

    receiver_state::channelListLock().take(-1);
    dormant->updateSocketMonitorList();
    receiver_state::channelListLock().give();
    EXPECT_EQ(0, dormant->createStatusUpdateSocketConnection());
    EXPECT_EQ(1, dormant->numReceiveChannels());

    EXPECT_TRUE(ReceiverProbe::isMonitored(channel.socketHandle()));
    EXPECT_TRUE(ReceiverProbe::isMonitored(statusSocket));
    EXPECT_EQ(statusSocket, ReceiverProbe::statusSocket());
    EXPECT_EQ(statusPort, ReceiverProbe::statusPort());
    EXPECT_EQ("current receiver untouched", roundTrip(channel, "current receiver untouched"));
}

TEST_F(CommsChannelReceiverTest, ReceiversComingAndGoingReuseTheirStorage)
{
    for (int round = 0; round < 50; ++round) {
        CommsChannel channel("");
        ASSERT_NE(nullptr, ReceiverProbe::current());
    }
    const std::size_t blocks = receiver_state::receiverStorageBlocks();
    EXPECT_GE(blocks, 1u);
    for (int round = 0; round < 50; ++round) {
        CommsChannel channel("");
    }
    EXPECT_EQ(blocks, receiver_state::receiverStorageBlocks());
}

TEST_F(CommsChannelReceiverTest, NullChannelChangesNothingAndSendsNothing)
{
    CommsChannel channel("");
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();
    const int maxBefore = ReceiverProbe::maxSocketPlusOne();
    cctest::UdpSocket spy;
    ASSERT_TRUE(spy.ok());
    std::string first;
    {
        cctest::StatusUpdateDiversion diversion(spy.port());

        sut->addReceiveChannel(nullptr);
        sut->removeReceiveChannel(nullptr);

        // Loopback datagrams arrive in order: the marker must come first.
        ASSERT_EQ(6, peer.sendTo(spy.port(), "marker", 6));
        EXPECT_TRUE(spy.receive(first, 10000));
    }
    EXPECT_EQ("marker", first);
    EXPECT_EQ(std::vector<CommsChannel*>{&channel}, ReceiverProbe::channels());
    EXPECT_EQ(maxBefore, ReceiverProbe::maxSocketPlusOne());
    EXPECT_EQ(sut, ReceiverProbe::current());
}

TEST_F(CommsChannelReceiverTest, HighestDescriptorRaisesMaxSocketPlusOneAndItsRemovalLowersIt)
{
    CommsChannel low("");
    const int before = ReceiverProbe::maxSocketPlusOne();
    EXPECT_EQ(std::max(ReceiverProbe::statusSocket(), low.socketHandle()) + 1, before);
    // Fill every free number below the current maximum, so that the next
    // socket is the highest descriptor.
    std::vector<int> fillers;
    while (cctest::nextFreeDescriptor() < before) {
        fillers.push_back(dup(2));
    }
    CommsChannel* high = new CommsChannel("");
    const int highFd = high->socketHandle();
    ASSERT_GE(highFd, before);

    EXPECT_EQ(highFd + 1, ReceiverProbe::maxSocketPlusOne());
    EXPECT_TRUE(ReceiverProbe::isMonitored(highFd));

    delete high;

    EXPECT_EQ(before, ReceiverProbe::maxSocketPlusOne());
    EXPECT_FALSE(ReceiverProbe::isMonitored(highFd));
    for (int fd : fillers) {
        close(fd);
    }
}

TEST_F(CommsChannelReceiverTest, StatusUpdateIsFourBytesHoldingTheIdInHostByteOrderFromTheStatusSocket)
{
    CommsChannel channel("");
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();
    const int statusPort = ntohs(static_cast<uint16_t>(ReceiverProbe::statusPort()));
    cctest::UdpSocket spy;
    ASSERT_TRUE(spy.ok());
    std::string added;
    std::string removed;
    int sourcePort = 0;
    {
        cctest::StatusUpdateDiversion diversion(spy.port());

        EXPECT_EQ(1, sut->statusUpdate(CHANNEL_ADDED));
        EXPECT_EQ(1, sut->statusUpdate(CHANNEL_REMOVED));

        EXPECT_TRUE(spy.receive(added, 10000, &sourcePort));
        EXPECT_TRUE(spy.receive(removed, 10000));
    }
    EXPECT_EQ(statusBytes(CHANNEL_ADDED), added);
    EXPECT_EQ(statusBytes(CHANNEL_REMOVED), removed);
    EXPECT_EQ(statusPort, sourcePort);
}

TEST_F(CommsChannelReceiverTest, AddingAChannelSendsAnAddedUpdateAndReturnsOne)
{
    CommsChannel listed("");
    CommsChannel other("");
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();
    sut->removeReceiveChannel(&other);
    cctest::UdpSocket spy;
    ASSERT_TRUE(spy.ok());
    std::string update;
    int result = 0;
    {
        cctest::StatusUpdateDiversion diversion(spy.port());

        result = sut->addReceiveChannel(&other);

        EXPECT_TRUE(spy.receive(update, 10000));
    }
    EXPECT_EQ(1, result);
    EXPECT_EQ(statusBytes(CHANNEL_ADDED), update);
    EXPECT_EQ((std::vector<CommsChannel*>{&listed, &other}), ReceiverProbe::channels());
}

TEST_F(CommsChannelReceiverTest, StatusPortIsKeptInNetworkByteOrderAsGetsocknameGivesIt)
{
    CommsChannel channel("");

    sockaddr_in address;
    socklen_t length = sizeof address;
    ASSERT_EQ(0, getsockname(ReceiverProbe::statusSocket(), reinterpret_cast<sockaddr*>(&address), &length));

    EXPECT_EQ(static_cast<int>(address.sin_port), ReceiverProbe::statusPort());
    EXPECT_EQ(htonl(INADDR_LOOPBACK), address.sin_addr.s_addr);
}

TEST_F(CommsChannelReceiverTest, StatusUpdatesAreDrainedByTheThread)
{
    CommsChannel channel("");
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();

    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(1, sut->statusUpdate(CHANNEL_ADDED));
    }

    EXPECT_TRUE(cctest::waitUntil([] { return ReceiverProbe::pendingBytes(ReceiverProbe::statusSocket()) == 0; },
                                  20000));
    EXPECT_EQ(sut, ReceiverProbe::current());
    EXPECT_EQ("awake", roundTrip(channel, "awake"));
}

}  // namespace

namespace {

TEST_F(CommsChannelReceiverTest, BurstOfDatagramsLeavesExactlyOneQueueTokenPerMessage)
{
    // The receiver thread queues a burst before it gives the burst's
    // tokens; every message must still end up with its token.
    CommsChannel sut("");
    const int burst = 40;
    for (int i = 0; i < burst; ++i) {
        peer.sendTo(sut.port(), cctest::dataEncoding("", "burst " + std::to_string(i)));
    }
    ASSERT_TRUE(cctest::waitUntil([&] { return CommsChannelInspector::queueSemaphoreCount(sut) == burst; }, 20000))
        << CommsChannelInspector::queueSemaphoreCount(sut) << " tokens";
    EXPECT_EQ(static_cast<std::size_t>(burst), CommsChannelInspector::queueLengthLocked(sut));
    for (int i = 0; i < burst; ++i) {
        std::string received;
        ASSERT_EQ(1, sut.receiveMsg(received));
        EXPECT_EQ("burst " + std::to_string(i), received);
    }
    EXPECT_EQ(0, CommsChannelInspector::queueSemaphoreCount(sut));
}

TEST_F(CommsChannelReceiverTest, ChannelWhoseDescriptorIsAbove1024ReceivesLikeAnyOther)
{
    if (!cctest::allowDescriptors(1200)) {
        GTEST_SKIP() << "cannot open 1200 descriptors here";
    }
    CommsChannel low("");
    // Fill the descriptor table until the next socket lands above 1024.
    const std::vector<int> fillers = cctest::occupyDescriptorsUpTo(1030);
    CommsChannel* high = new CommsChannel("");
    ASSERT_GT(high->socketHandle(), 1024);
    for (int fd : fillers) {
        close(fd);
    }

    EXPECT_EQ("above", roundTrip(*high, "above"));
    EXPECT_EQ("below", roundTrip(low, "below"));
    EXPECT_EQ("above again", roundTrip(*high, "above again"));
    EXPECT_TRUE(cctest::destroyWithin(high));
    EXPECT_EQ("still", roundTrip(low, "still"));
}

TEST_F(CommsChannelReceiverTest, ChannelsComingAndGoingWhileTrafficFlowsLoseNothing)
{
    CommsChannel steady("");
    std::atomic<bool> done(false);
    std::thread churn([&done] {
        std::vector<CommsChannel*> open;
        for (int i = 0; i < 300 && !done; ++i) {
            open.push_back(new CommsChannel(""));
            if (open.size() > 20) {
                delete open.front();
                open.erase(open.begin());
            }
        }
        for (CommsChannel* channel : open) {
            delete channel;
        }
    });
    const int count = 2000;
    std::vector<std::string> received;
    for (int i = 0; i < count; ++i) {
        peer.sendTo(steady.port(), cctest::dataEncoding("", "message " + std::to_string(i)));
        // Never more than a few in flight, so that the socket buffer cannot
        // overflow whatever the scheduling.
        if (i % 8 == 7 || i == count - 1) {
            ASSERT_TRUE(cctest::waitForQueued(steady, 8)) << "after " << i;
            while (!steady.isQEmpty()) {
                std::string data;
                steady.receiveMsg(data);
                received.push_back(data);
            }
        }
    }
    done = true;
    churn.join();
    ASSERT_EQ(static_cast<std::size_t>(count), received.size());
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ("message " + std::to_string(i), received[static_cast<std::size_t>(i)]);
    }
}

TEST_F(CommsChannelReceiverTest, ReceiverComingAndGoingThousandsOfTimesJoinsEachThreadOnce)
{
    const unsigned long startedBefore = receiver_state::threadsStarted;
    const unsigned long joinedBefore = receiver_state::threadsJoined;
    const int threads = 8;
    const int cyclesPerThread = 10000 / threads;
    std::atomic<int> failures(0);
    cctest::RoundBarrier barrier(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([t, cyclesPerThread, &failures, &barrier] {
            cctest::UdpSocket sender;
            for (int cycle = 0; cycle < cyclesPerThread; ++cycle) {
                {
                    CommsChannel channel("");
                    const std::string data = std::to_string(t) + "/" + std::to_string(cycle);
                    sender.sendTo(channel.port(), cctest::dataEncoding("", data));
                    CommsChannelDataContainerMessage message;
                    try {
                        if (channel.receiveMsg_ByID_Timed(message, 0, 20000) != 1 || message.getData() != data) {
                            ++failures;
                        }
                    } catch (const std::exception&) {
                        ++failures;
                    }
                }
                // Every second round all channels are gone before the next
                // one is made, so the receiver ends and comes back; in the
                // others the last channel of one receiver races with the
                // first channel of the next.
                if (cycle % 2 == 0) {
                    barrier.arriveAndWait();
                }
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(nullptr, ReceiverProbe::current());
    const unsigned long started = receiver_state::threadsStarted - startedBefore;
    EXPECT_GE(started, static_cast<unsigned long>(cyclesPerThread / 2));
    RecordProperty("receiversStarted", static_cast<int>(started));
    EXPECT_EQ(started, receiver_state::threadsJoined - joinedBefore);
}

}  // namespace
