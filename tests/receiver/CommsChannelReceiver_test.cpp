// The receiver registry: the process's current receiver, its list of
// watched channels, its thread and the status socket through which list
// changes wake the thread. Unnamed channels keep the locator out of the way.
// What the receiver sends is seen through the process's own sendto, which
// this test program provides (it records, then passes the call on).
#include "CommsChannel.h"
#include "CommsChannelReceiver.h"
#include "ReceiverProbe.h"
#include "RoundBarrier.h"
#include "TestUtil.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <set>
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

// One datagram sent by this process while a SendLog was recording.
struct SentDatagram {
    int fd;
    int sourcePort;
    int destinationPort;
    std::string bytes;
};

std::mutex& sendLogLock()
{
    static std::mutex* lock = new std::mutex();
    return *lock;
}
std::vector<SentDatagram>& sendLog()
{
    static std::vector<SentDatagram>* log = new std::vector<SentDatagram>();
    return *log;
}
std::atomic<bool> sendLogRecording(false);

// Records every datagram that the process sends while it lives.
class SendLog {
public:
    SendLog()
    {
        std::lock_guard<std::mutex> hold(sendLogLock());
        sendLog().clear();
        sendLogRecording = true;
    }
    ~SendLog() { sendLogRecording = false; }
    SendLog(const SendLog&) = delete;
    SendLog& operator=(const SendLog&) = delete;

    // The datagrams sent from fd so far.
    std::vector<SentDatagram> from(int fd)
    {
        std::vector<SentDatagram> found;
        std::lock_guard<std::mutex> hold(sendLogLock());
        for (const SentDatagram& sent : sendLog()) {
            if (sent.fd == fd) {
                found.push_back(sent);
            }
        }
        return found;
    }
};

}  // namespace

// The process's sendto: records the datagram while a SendLog lives, then
// sends it with the system call.
extern "C" ssize_t sendto(int fd, const void* data, size_t length, int flags, const struct sockaddr* destination,
                          socklen_t destinationLength)
{
    if (sendLogRecording) {
        SentDatagram sent;
        sent.fd = fd;
        sent.sourcePort = cctest::ReceiverProbe::boundPort(fd);
        sent.destinationPort = 0;
        if (destination != nullptr && destination->sa_family == AF_INET) {
            sent.destinationPort = ntohs(reinterpret_cast<const sockaddr_in*>(destination)->sin_port);
        }
        sent.bytes.assign(static_cast<const char*>(data), length);
        std::lock_guard<std::mutex> hold(sendLogLock());
        sendLog().push_back(sent);
    }
    return syscall(SYS_sendto, fd, data, length, flags, destination, destinationLength);
}

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

// Descriptors open in this process.
int openDescriptors()
{
    int count = 0;
    DIR* fds = opendir("/proc/self/fd");
    if (fds == nullptr) {
        return -1;
    }
    while (dirent* entry = readdir(fds)) {
        if (entry->d_name[0] != '.') {
            ++count;
        }
    }
    closedir(fds);
    return count - 1;  // the directory's own descriptor
}

class CommsChannelReceiverTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(peer.ok());
        baseThreads = ReceiverProbe::threadCount();
    }

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

    // The receiver thread runs (one thread more than before the test).
    bool receiverRuns() { return ReceiverProbe::waitForThreadCount(baseThreads + 1); }
    // No receiver thread runs.
    bool receiverGone() { return ReceiverProbe::waitForThreadCount(baseThreads); }

    cctest::UdpSocket peer;
    int baseThreads = 0;
};

TEST_F(CommsChannelReceiverTest, FirstChannelCreatesTheReceiverWithItsThreadAndStatusSocket)
{
    ASSERT_TRUE(ReceiverProbe::epollDescriptors().empty());

    CommsChannel channel("");

    EXPECT_EQ(baseThreads + 1, ReceiverProbe::threadCount());
    CommsChannelReceiver* sut = ReceiverProbe::current();
    ASSERT_NE(nullptr, sut);
    EXPECT_EQ(sut, CommsChannelReceiver::instance());
    EXPECT_FALSE(sut->hasEnded());
    EXPECT_EQ(1, sut->numReceiveChannels());
    EXPECT_EQ(1u, ReceiverProbe::epollDescriptors().size());
    EXPECT_EQ(2u, ReceiverProbe::watched().size());
    const int statusSocket = ReceiverProbe::statusSocket({&channel});
    EXPECT_GT(statusSocket, 0);
    EXPECT_NE(0, ReceiverProbe::boundPort(statusSocket));
    EXPECT_TRUE(ReceiverProbe::isMonitored(channel.socketHandle()));
    EXPECT_EQ("hello", roundTrip(channel, "hello"));
}

TEST_F(CommsChannelReceiverTest, SameChannelAddedTwiceIsListedTwiceAndEachRemovalTakesOneEntry)
{
    CommsChannel first("");
    CommsChannel second("");
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();

    EXPECT_EQ(1, sut->addReceiveChannel(&first));
    EXPECT_EQ(3, sut->numReceiveChannels());

    sut->removeReceiveChannel(&first);

    EXPECT_EQ(2, sut->numReceiveChannels());
    EXPECT_EQ(sut, ReceiverProbe::current());
    EXPECT_TRUE(ReceiverProbe::isMonitored(first.socketHandle()));
    EXPECT_EQ("still served", roundTrip(first, "still served"));

    sut->removeReceiveChannel(&first);

    EXPECT_EQ(1, sut->numReceiveChannels());
    EXPECT_FALSE(ReceiverProbe::isMonitored(first.socketHandle()));
    EXPECT_TRUE(ReceiverProbe::isMonitored(second.socketHandle()));
    EXPECT_EQ("second served", roundTrip(second, "second served"));
    // Listed again, so that its destruction finds it.
    EXPECT_EQ(1, sut->addReceiveChannel(&first));
}

TEST_F(CommsChannelReceiverTest, RemovingAChannelNotInTheListStillSendsAStatusUpdate)
{
    CommsChannel listed("");
    CommsChannel unlisted("");
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();
    sut->removeReceiveChannel(&unlisted);
    ASSERT_EQ(1, sut->numReceiveChannels());
    const int statusSocket = ReceiverProbe::statusSocket({&listed});
    ASSERT_GT(statusSocket, 0);
    std::vector<SentDatagram> updates;
    {
        SendLog log;

        sut->removeReceiveChannel(&unlisted);

        updates = log.from(statusSocket);
    }
    ASSERT_EQ(1u, updates.size());
    EXPECT_EQ(statusBytes(CHANNEL_REMOVED), updates[0].bytes);
    EXPECT_EQ(1, sut->numReceiveChannels());
    EXPECT_FALSE(sut->hasEnded());
    EXPECT_EQ(sut, ReceiverProbe::current());
    EXPECT_EQ("served", roundTrip(listed, "served"));
    EXPECT_EQ(1, sut->addReceiveChannel(&unlisted));
}

TEST_F(CommsChannelReceiverTest, RemovingAChannelNotInAnEmptyListShutsTheReceiverDown)
{
    CommsChannel unlisted("");
    CommsChannelReceiver* first = CommsChannelReceiver::instance();
    first->removeReceiveChannel(&unlisted);
    ASSERT_TRUE(first->hasEnded());
    ASSERT_TRUE(receiverGone());
    // A receiver with an empty list.
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();
    ASSERT_FALSE(sut->hasEnded());
    ASSERT_EQ(0, sut->numReceiveChannels());
    ASSERT_TRUE(receiverRuns());
    const int statusSocket = ReceiverProbe::statusSocket({});
    ASSERT_GT(statusSocket, 0);

    sut->removeReceiveChannel(&unlisted);

    EXPECT_TRUE(sut->hasEnded());
    EXPECT_EQ(baseThreads, ReceiverProbe::threadCount());
    EXPECT_FALSE(ReceiverProbe::isMonitored(statusSocket));
    EXPECT_EQ(0, sut->statusUpdate(CHANNEL_ADDED));
}

TEST_F(CommsChannelReceiverTest, LastRemovalEndsTheReceiverAndTheNextChannelBuildsAFreshOne)
{
    CommsChannel* first = new CommsChannel("");
    CommsChannelReceiver* old = CommsChannelReceiver::instance();
    const int oldStatusPort = ReceiverProbe::boundPort(ReceiverProbe::statusSocket({first}));
    ASSERT_NE(0, oldStatusPort);

    delete first;

    // The thread has been joined before the removal returned.
    EXPECT_EQ(baseThreads, ReceiverProbe::threadCount());
    EXPECT_TRUE(old->hasEnded());
    EXPECT_EQ(0, old->numReceiveChannels());
    EXPECT_TRUE(ReceiverProbe::watched().empty());
    // The old status socket is closed: its port can be taken over, which
    // also keeps the next receiver off it.
    cctest::UdpSocket oldStatusPortHolder(oldStatusPort);
    EXPECT_TRUE(oldStatusPortHolder.ok());

    CommsChannel second("");

    CommsChannelReceiver* fresh = CommsChannelReceiver::instance();
    EXPECT_FALSE(fresh->hasEnded());
    EXPECT_EQ(baseThreads + 1, ReceiverProbe::threadCount());
    const int statusSocket = ReceiverProbe::statusSocket({&second});
    ASSERT_GT(statusSocket, 0);
    EXPECT_NE(oldStatusPort, ReceiverProbe::boundPort(statusSocket));
    EXPECT_EQ(1, fresh->numReceiveChannels());
    EXPECT_EQ("fresh thread", roundTrip(second, "fresh thread"));
}

TEST_F(CommsChannelReceiverTest, EndedReceiverRefusesChannelsAndTheNextOneTakesThem)
{
    CommsChannel second("");
    CommsChannel* first = new CommsChannel("");
    CommsChannelReceiver* ended = CommsChannelReceiver::instance();
    ended->removeReceiveChannel(&second);
    delete first;
    ASSERT_TRUE(ended->hasEnded());

    // Another thread's view: it read instance() before the last channel
    // went, and calls through the pointer before anyone asks for a new one.
    EXPECT_EQ(0, ended->numReceiveChannels());
    EXPECT_EQ(0, ended->addReceiveChannel(&second));
    EXPECT_EQ(0, ended->numReceiveChannels());
    EXPECT_EQ(0, ended->statusUpdate(CHANNEL_ADDED));
    EXPECT_EQ(baseThreads, ReceiverProbe::threadCount());

    CommsChannelReceiver* fresh = CommsChannelReceiver::instance();
    EXPECT_EQ(1, fresh->addReceiveChannel(&second));
    EXPECT_EQ(1, fresh->numReceiveChannels());
    EXPECT_EQ("through the fresh receiver", roundTrip(second, "through the fresh receiver"));
}

TEST_F(CommsChannelReceiverTest, ReceiversComingAndGoingLeaveNoThreadsOrDescriptorsBehind)
{
    {
        CommsChannel warmUp("");
    }
    const int descriptors = openDescriptors();
    for (int round = 0; round < 100; ++round) {
        CommsChannel channel("");
        ASSERT_EQ(baseThreads + 1, ReceiverProbe::threadCount()) << round;
    }
    EXPECT_EQ(baseThreads, ReceiverProbe::threadCount());
    EXPECT_EQ(descriptors, openDescriptors());
    EXPECT_TRUE(ReceiverProbe::watched().empty());
}

TEST_F(CommsChannelReceiverTest, NullChannelChangesNothingAndSendsNothing)
{
    CommsChannel channel("");
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();
    const std::set<int> watchedBefore = ReceiverProbe::watched();
    const int statusSocket = ReceiverProbe::statusSocket({&channel});
    ASSERT_GT(statusSocket, 0);
    std::vector<SentDatagram> updates;
    int added = -1;
    {
        SendLog log;

        added = sut->addReceiveChannel(nullptr);
        sut->removeReceiveChannel(nullptr);

        updates = log.from(statusSocket);
    }
    EXPECT_EQ(0, added);
    EXPECT_TRUE(updates.empty());
    EXPECT_EQ(1, sut->numReceiveChannels());
    EXPECT_EQ(watchedBefore, ReceiverProbe::watched());
    EXPECT_FALSE(sut->hasEnded());
    EXPECT_EQ(sut, ReceiverProbe::current());
}

TEST_F(CommsChannelReceiverTest, ChannelSocketIsWatchedWhileListedAndForgottenWhenItsChannelGoes)
{
    CommsChannel low("");
    const std::set<int> before = ReceiverProbe::watched();
    CommsChannel* high = new CommsChannel("");
    const int highFd = high->socketHandle();

    EXPECT_TRUE(ReceiverProbe::isMonitored(highFd));
    EXPECT_EQ(before.size() + 1, ReceiverProbe::watched().size());

    delete high;

    EXPECT_FALSE(ReceiverProbe::isMonitored(highFd));
    EXPECT_EQ(before, ReceiverProbe::watched());
    EXPECT_EQ("low still served", roundTrip(low, "low still served"));
}

TEST_F(CommsChannelReceiverTest, StatusUpdateIsFourBytesHoldingTheIdInHostByteOrderFromAndToTheStatusSocket)
{
    CommsChannel channel("");
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();
    const int statusSocket = ReceiverProbe::statusSocket({&channel});
    ASSERT_GT(statusSocket, 0);
    const int statusPort = ReceiverProbe::boundPort(statusSocket);
    std::vector<SentDatagram> updates;
    {
        SendLog log;

        EXPECT_EQ(1, sut->statusUpdate(CHANNEL_ADDED));
        EXPECT_EQ(1, sut->statusUpdate(CHANNEL_REMOVED));

        updates = log.from(statusSocket);
    }
    ASSERT_EQ(2u, updates.size());
    EXPECT_EQ(statusBytes(CHANNEL_ADDED), updates[0].bytes);
    EXPECT_EQ(statusBytes(CHANNEL_REMOVED), updates[1].bytes);
    for (const SentDatagram& update : updates) {
        EXPECT_EQ(statusPort, update.sourcePort);
        EXPECT_EQ(statusPort, update.destinationPort);
    }
    EXPECT_EQ("awake", roundTrip(channel, "awake"));
}

TEST_F(CommsChannelReceiverTest, AddingAChannelSendsAnAddedUpdateAndReturnsOne)
{
    CommsChannel listed("");
    CommsChannel other("");
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();
    sut->removeReceiveChannel(&other);
    const int statusSocket = ReceiverProbe::statusSocket({&listed});
    ASSERT_GT(statusSocket, 0);
    std::vector<SentDatagram> updates;
    int result = 0;
    {
        SendLog log;

        result = sut->addReceiveChannel(&other);

        updates = log.from(statusSocket);
    }
    EXPECT_EQ(1, result);
    ASSERT_EQ(1u, updates.size());
    EXPECT_EQ(statusBytes(CHANNEL_ADDED), updates[0].bytes);
    EXPECT_EQ(2, sut->numReceiveChannels());
    EXPECT_TRUE(ReceiverProbe::isMonitored(other.socketHandle()));
    EXPECT_EQ("other served", roundTrip(other, "other served"));
}

TEST_F(CommsChannelReceiverTest, StatusSocketIsBoundToTheLoopbackAddress)
{
    CommsChannel channel("");

    sockaddr_in address;
    socklen_t length = sizeof address;
    const int statusSocket = ReceiverProbe::statusSocket({&channel});
    ASSERT_GT(statusSocket, 0);
    ASSERT_EQ(0, getsockname(statusSocket, reinterpret_cast<sockaddr*>(&address), &length));

    EXPECT_EQ(AF_INET, address.sin_family);
    EXPECT_NE(0, address.sin_port);
    EXPECT_EQ(htonl(INADDR_LOOPBACK), address.sin_addr.s_addr);
    EXPECT_EQ(1, CommsChannelReceiver::instance()->createStatusUpdateSocketConnection());
    EXPECT_EQ(statusSocket, ReceiverProbe::statusSocket({&channel}));
}

TEST_F(CommsChannelReceiverTest, StatusUpdatesAreDrainedByTheThread)
{
    CommsChannel channel("");
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();
    const int statusSocket = ReceiverProbe::statusSocket({&channel});
    ASSERT_GT(statusSocket, 0);

    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(1, sut->statusUpdate(CHANNEL_ADDED));
    }

    EXPECT_TRUE(cctest::waitUntil([statusSocket] { return ReceiverProbe::pendingBytes(statusSocket) == 0; },
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

TEST_F(CommsChannelReceiverTest, ReceiverComingAndGoingThousandsOfTimesJoinsEveryThread)
{
    const int threads = 8;
    const int cyclesPerThread = 10000 / threads;
    std::atomic<int> failures(0);
    std::atomic<int> workersDone(0);
    cctest::RoundBarrier barrier(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([t, cyclesPerThread, &failures, &barrier, &workersDone] {
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
            ++workersDone;
        });
    }
    // At most one receiver thread runs at any time.
    int most = 0;
    while (workersDone < threads) {
        most = std::max(most, ReceiverProbe::threadCount());
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    EXPECT_EQ(0, failures.load());
    EXPECT_LE(most, baseThreads + threads + 1);
    // Every receiver's thread has been joined and its sockets closed.
    EXPECT_EQ(baseThreads, ReceiverProbe::threadCount());
    EXPECT_TRUE(ReceiverProbe::watched().empty());
}

}  // namespace
