// The receiver thread: reading each encoding from the socket it arrived on,
// joining encodings split over several datagrams, the status socket, and
// what happens to datagrams that cannot be read. A cctest::UdpSocket plays
// the other process; unnamed channels keep the locator out of the way.
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelDispatcher.h"
#include "CommsChannelReceiver.h"
#include "ReceiverProbe.h"
#include "TestUtil.h"
#include "WireCodec.h"

#include <sys/socket.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using cctest::ReceiverProbe;

const std::string RECEIVE_FAILURE =
    "CommsChannelReceiver - monitorChannels(), Failed to receive a message correctly";

std::string dataOf(std::size_t length, char first = 'a')
{
    std::string data(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        data[i] = static_cast<char>(first + i % 26);
    }
    return data;
}

class ReceiverThreadTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(peer.ok());
        baseThreads = ReceiverProbe::threadCount();
    }

    // The receiver thread has ended: the process is back to the threads it
    // had before the test made its first channel.
    bool waitForThreadEnd() { return ReceiverProbe::waitForThreadCount(baseThreads); }

    // Takes the next queued message's data; the message must be queued.
    std::string take(CommsChannel& channel)
    {
        if (!cctest::waitForQueued(channel)) {
            return "(nothing arrived)";
        }
        std::string data;
        channel.receiveMsg(data);
        return data;
    }

    // Nothing reaches the channel's queue for a while.
    bool staysEmpty(CommsChannel& channel, int holdMs = 300)
    {
        return !cctest::waitForQueued(channel, 1, holdMs);
    }

    void send(CommsChannel& channel, const std::string& bytes)
    {
        ASSERT_EQ(static_cast<int>(bytes.size()), peer.sendTo(channel.port(), bytes));
    }

    // The thread has read (not just peeked) whatever waited on the channel.
    bool waitDrained(CommsChannel& channel)
    {
        return cctest::waitUntil([&channel] { return ReceiverProbe::pendingBytes(channel.socketHandle()) == 0; },
                                 20000);
    }

    cctest::UdpSocket peer;
    int baseThreads = 0;
};

TEST_F(ReceiverThreadTest, MessageGoesToTheChannelWhoseSocketItArrivedOnWhateverItNames)
{
    CommsChannel first("");
    CommsChannel second("");

    send(second, cctest::dataEncoding("first", "for whoever listens"));

    EXPECT_EQ("for whoever listens", take(second));
    EXPECT_TRUE(first.isQEmpty());
}

TEST_F(ReceiverThreadTest, EveryFieldOfAMessageSurvivesTheTrip)
{
    CommsChannel sut("");
    CommsChannelDataContainerMessage sent;
    sent.setChannel("dest");
    sent.setSourceChannel("src");
    sent.setCallbackChannel("cb");
    sent.setProtocol("proto");
    sent.setInterface("if0");
    sent.setRemoteContext("ctx");
    sent.setRequestId(0);
    sent.setMsgType(3);
    sent.setData("\x00\x01\x02", 3);

    send(sut, cctest::encodingOf(sent));

    ASSERT_TRUE(cctest::waitForQueued(sut));
    CommsChannelDataContainerMessage received;
    ASSERT_EQ(1, sut.receiveMsg(received));
    EXPECT_EQ("dest", received.channel());
    EXPECT_EQ("src", received.sourceChannel());
    EXPECT_EQ("cb", received.callbackChannel());
    EXPECT_EQ("proto", received.protocol());
    EXPECT_EQ("if0", received.interface());
    EXPECT_EQ("ctx", received.remoteContext());
    EXPECT_EQ(3, received.msgType());
    EXPECT_EQ(std::string("\x00\x01\x02", 3), received.getData());
}

TEST_F(ReceiverThreadTest, DatagramShorterThanEightBytesEndsTheThreadWithTheFailureStringAndStaysUnread)
{
    CommsChannel* sut = new CommsChannel("");
    CommsChannel* bystander = new CommsChannel("");
    cctest::StderrRecorder errors;

    send(*sut, std::string("abc"));

    ASSERT_TRUE(waitForThreadEnd());
    EXPECT_TRUE(errors.waitFor(RECEIVE_FAILURE));
    errors.restore();
    EXPECT_EQ(3, ReceiverProbe::pendingBytes(sut->socketHandle()));
    EXPECT_TRUE(sut->isQEmpty());
    // With the thread gone nothing wakes it any more.
    EXPECT_EQ(0, CommsChannelReceiver::instance()->statusUpdate(CHANNEL_ADDED));

    // The process goes on, and every channel can still be destroyed.
    CommsChannelReceiver* failed = CommsChannelReceiver::instance();
    EXPECT_TRUE(cctest::destroyWithin(sut));
    EXPECT_TRUE(cctest::destroyWithin(bystander));
    EXPECT_TRUE(failed->hasEnded());
    EXPECT_EQ(baseThreads, ReceiverProbe::threadCount());
}

TEST_F(ReceiverThreadTest, NewChannelsAfterAFailedThreadGetAWorkingReceiverOnceTheOldOneIsGone)
{
    CommsChannel* broken = new CommsChannel("");
    {
        cctest::StderrRecorder errors;
        send(*broken, std::string("12345"));
        ASSERT_TRUE(waitForThreadEnd());
        EXPECT_TRUE(errors.waitFor(RECEIVE_FAILURE));
    }
    CommsChannelReceiver* failed = CommsChannelReceiver::instance();
    ASSERT_TRUE(cctest::destroyWithin(broken));
    ASSERT_TRUE(failed->hasEnded());

    CommsChannel sut("");

    EXPECT_EQ(baseThreads + 1, ReceiverProbe::threadCount());
    send(sut, cctest::dataEncoding("", "back to work"));
    EXPECT_EQ("back to work", take(sut));
}

TEST_F(ReceiverThreadTest, HeaderLengthBelowTheHeaderSizeIsUnreadable)
{
    CommsChannel* sut = new CommsChannel("");
    std::string lying = cctest::dataEncoding("", "short claim");
    wire::writeHostOrderLength(&lying[0], 4);
    cctest::StderrRecorder errors;

    send(*sut, lying);

    ASSERT_TRUE(waitForThreadEnd());
    EXPECT_TRUE(errors.waitFor(RECEIVE_FAILURE));
    errors.restore();
    EXPECT_TRUE(sut->isQEmpty());
    EXPECT_TRUE(cctest::destroyWithin(sut));
}

TEST_F(ReceiverThreadTest, HeaderLengthSmallerThanTheDatagramReadsOnlyThatManyBytes)
{
    CommsChannel sut("");

    send(sut, cctest::dataEncoding("", "first") + "TRAILING GARBAGE");
    send(sut, cctest::dataEncoding("", "second"));

    EXPECT_EQ("first", take(sut));
    EXPECT_EQ("second", take(sut));
    EXPECT_TRUE(staysEmpty(sut));
    EXPECT_EQ(0, ReceiverProbe::pendingBytes(sut.socketHandle()));
}

TEST_F(ReceiverThreadTest, HeaderLengthLargerThanTheDatagramJoinsTheFollowingDatagrams)
{
    CommsChannel sut("");
    const std::string data = dataOf(1000);
    const std::string encoding = cctest::dataEncoding("", data);

    send(sut, encoding.substr(0, 300));
    ASSERT_TRUE(waitDrained(sut));
    EXPECT_TRUE(staysEmpty(sut));
    send(sut, encoding.substr(300, 400));
    ASSERT_TRUE(waitDrained(sut));
    EXPECT_TRUE(staysEmpty(sut));
    send(sut, encoding.substr(700));

    EXPECT_EQ(data, take(sut));
    EXPECT_TRUE(staysEmpty(sut));
}

TEST_F(ReceiverThreadTest, EncodingSplitByTheSenderIntoDatagramsOf60000BytesIsJoined)
{
    CommsChannel sender("");
    CommsChannel sut("");
    CommsChannelDataContainerMessage message;
    const std::string data = dataOf(59750, 'A');
    message.setData(data.data(), static_cast<int>(data.size()));
    message.setProtocol(std::string(30000, 'p'));
    message.setRemoteContext(std::string(30251, 'r'));
    CCInterProcDispatcher dispatcher(sut.port());

    ASSERT_EQ(1, dispatcher.sendMsg(&sender, message));

    ASSERT_TRUE(cctest::waitForQueued(sut));
    CommsChannelDataContainerMessage received;
    ASSERT_EQ(1, sut.receiveMsg(received));
    EXPECT_EQ(data, received.getData());
    EXPECT_EQ(message.protocol(), received.protocol());
    EXPECT_EQ(message.remoteContext(), received.remoteContext());
}

// Holds the receiver thread inside a pass (in the inbox of a channel of its
// own, with the list lock held), so that the thread cannot start another
// pass: whatever is sent meanwhile waits in the sockets and is read as a
// burst once the hold ends.
class PassHeldBack {
public:
    explicit PassHeldBack(cctest::UdpSocket& peer) : m_holder(new CommsChannel("", &m_gate))
    {
        peer.sendTo(m_holder->port(), cctest::dataEncoding("", "hold"));
        m_entered = m_gate.waitEntered(1);
    }
    ~PassHeldBack()
    {
        release();
        delete m_holder;
    }
    PassHeldBack(const PassHeldBack&) = delete;
    PassHeldBack& operator=(const PassHeldBack&) = delete;

    bool holding() const { return m_entered; }
    void release() { m_gate.open(); }

private:
    cctest::GateInterceptor m_gate;
    CommsChannel* m_holder;
    bool m_entered = false;
};

TEST_F(ReceiverThreadTest, BurstWaitingInTheSocketArrivesWholeAndInOrder)
{
    CommsChannel sut("");
    const std::string big = dataOf(2000, 'K');
    const std::string bigEncoding = cctest::dataEncoding("", big);
    std::vector<std::string> expected;
    {
        PassHeldBack held(peer);
        ASSERT_TRUE(held.holding());
        auto small = [&](const std::string& data) {
            send(sut, cctest::dataEncoding("", data));
            expected.push_back(data);
        };
        small("first");
        for (int i = 0; i < 7; ++i) {
            small("a" + std::to_string(i));
        }
        // A long encoding in three pieces, starting at the end of a burst.
        send(sut, bigEncoding.substr(0, 700));
        send(sut, bigEncoding.substr(700, 700));
        send(sut, bigEncoding.substr(1400));
        expected.push_back(big);
        for (int i = 0; i < 10; ++i) {
            small("b" + std::to_string(i));
        }
    }
    const int total = static_cast<int>(expected.size());
    ASSERT_TRUE(cctest::waitUntil([&] { return CommsChannelInspector::queueSemaphoreCount(sut) == total; }, 20000))
        << CommsChannelInspector::queueSemaphoreCount(sut) << " of " << total;
    for (const std::string& data : expected) {
        EXPECT_EQ(data, take(sut));
    }
    EXPECT_TRUE(staysEmpty(sut));
}

TEST_F(ReceiverThreadTest, UnreadableDatagramInABurstEndsTheThreadAfterTheMessagesBeforeIt)
{
    CommsChannel* sut = new CommsChannel("");
    cctest::StderrRecorder errors;
    {
        PassHeldBack held(peer);
        ASSERT_TRUE(held.holding());
        send(*sut, cctest::dataEncoding("", "good 1"));
        send(*sut, cctest::dataEncoding("", "good 2"));
        send(*sut, cctest::dataEncoding("", "good 3"));
        send(*sut, std::string("abc"));
        send(*sut, cctest::dataEncoding("", "never"));
    }
    ASSERT_TRUE(waitForThreadEnd());
    EXPECT_TRUE(errors.waitFor(RECEIVE_FAILURE));
    errors.restore();
    EXPECT_EQ(3U, CommsChannelInspector::queueLengthLocked(*sut));
    EXPECT_EQ(3, CommsChannelInspector::queueSemaphoreCount(*sut));
    for (const char* data : {"good 1", "good 2", "good 3"}) {
        std::string received;
        ASSERT_EQ(1, sut->receiveMsg(received));
        EXPECT_EQ(data, received);
    }
    EXPECT_TRUE(cctest::destroyWithin(sut));
}

TEST_F(ReceiverThreadTest, UnfinishedEncodingHoldsUpOtherChannelsUntilItsChannelIsDestroyed)
{
    CommsChannel* stalled = new CommsChannel("");
    CommsChannel other("");
    const std::string encoding = cctest::dataEncoding("", dataOf(1000));
    send(*stalled, encoding.substr(0, 300));
    ASSERT_TRUE(waitDrained(*stalled));
    const std::string waiting = cctest::dataEncoding("", "waits its turn");

    send(other, waiting);

    EXPECT_TRUE(staysEmpty(other));
    EXPECT_EQ(static_cast<int>(waiting.size()), ReceiverProbe::pendingBytes(other.socketHandle()));

    // The partial encoding is abandoned for the channel being removed.
    EXPECT_TRUE(cctest::destroyWithin(stalled));
    EXPECT_EQ("waits its turn", take(other));
}

TEST_F(ReceiverThreadTest, UnfinishedEncodingKeepsTheChannelListLockedUntilItsChannelIsDestroyed)
{
    CommsChannel* stalled = new CommsChannel("");
    CommsChannel other("");
    send(*stalled, cctest::dataEncoding("", dataOf(1000)).substr(0, 300));
    ASSERT_TRUE(waitDrained(*stalled));
    std::shared_ptr<std::atomic<int>> count = std::make_shared<std::atomic<int>>(-1);

    std::thread counter([count] { *count = CommsChannelReceiver::instance()->numReceiveChannels(); });

    EXPECT_FALSE(cctest::waitUntil([count] { return count->load() != -1; }, 300));
    EXPECT_TRUE(cctest::destroyWithin(stalled));
    const bool counted = cctest::waitUntil([count] { return count->load() != -1; }, 20000);
    if (counted) {
        counter.join();
    } else {
        counter.detach();  // left blocked rather than hanging the test
    }
    ASSERT_TRUE(counted);
    EXPECT_GE(count->load(), 1);  // the removal may or may not have come first
    EXPECT_EQ(1, CommsChannelReceiver::instance()->numReceiveChannels());
    EXPECT_TRUE(ReceiverProbe::isMonitored(other.socketHandle()));
}

TEST_F(ReceiverThreadTest, StatusUpdateAndChannelMessageReadyTogetherTheStatusIsHandledFirst)
{
    cctest::GateInterceptor holdFirst;
    cctest::GateInterceptor holdSecond;
    CommsChannel first("", &holdFirst);
    CommsChannel second("", &holdSecond);
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();
    // Hold the thread inside a pass, so that both datagrams below are
    // waiting when it next calls select.
    send(first, cctest::dataEncoding("", "one"));
    ASSERT_TRUE(holdFirst.waitEntered(1));
    send(second, cctest::dataEncoding("", "two"));
    const int statusSocket = ReceiverProbe::statusSocket({&first, &second});
    ASSERT_GT(statusSocket, 0);
    ASSERT_EQ(1, sut->statusUpdate(CHANNEL_ADDED));
    ASSERT_EQ(4, ReceiverProbe::pendingBytes(statusSocket));

    holdFirst.open();

    // The thread reads the second channel's message only after it drained
    // the status update.
    ASSERT_TRUE(holdSecond.waitEntered(1));
    EXPECT_EQ(0, ReceiverProbe::pendingBytes(statusSocket));
    holdSecond.open();
    EXPECT_EQ("one", take(first));
    EXPECT_EQ("two", take(second));
}

TEST_F(ReceiverThreadTest, InstanceDoesNotWaitForThePassInProgress)
{
    cctest::GateInterceptor hold;
    CommsChannel held("", &hold);
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();
    send(held, cctest::dataEncoding("", "held"));
    ASSERT_TRUE(hold.waitEntered(1));
    std::shared_ptr<std::atomic<CommsChannelReceiver*>> seen =
        std::make_shared<std::atomic<CommsChannelReceiver*>>(nullptr);

    // The thread is inside the held channel's inbox for as long as the
    // gate stays shut.
    std::thread viewer([seen] { *seen = CommsChannelReceiver::instance(); });

    const bool returned = cctest::waitUntil([seen] { return seen->load() != nullptr; }, 5000);
    hold.open();
    if (returned) {
        viewer.join();
    } else {
        ASSERT_TRUE(cctest::waitUntil([seen] { return seen->load() != nullptr; }, 20000));
        viewer.join();
    }
    EXPECT_TRUE(returned) << "instance() waited for the receiver thread's pass";
    EXPECT_EQ(sut, seen->load());
    EXPECT_EQ("held", take(held));
}

TEST_F(ReceiverThreadTest, StatusUpdateFindingTheListEmptyStopsTheThread)
{
    CommsChannelReceiver* sut = CommsChannelReceiver::instance();
    ASSERT_EQ(0, sut->numReceiveChannels());
    ASSERT_EQ(baseThreads + 1, ReceiverProbe::threadCount());

    ASSERT_EQ(1, sut->statusUpdate(CHANNEL_ADDED));

    EXPECT_TRUE(waitForThreadEnd());
    EXPECT_EQ(sut, ReceiverProbe::current());
    // A channel added later ends the stopped receiver on its way out.
    CommsChannel* last = new CommsChannel("");
    EXPECT_TRUE(cctest::destroyWithin(last));
    EXPECT_TRUE(sut->hasEnded());
    // The next channel gets a receiver whose thread runs.
    CommsChannel next("");
    EXPECT_EQ(baseThreads + 1, ReceiverProbe::threadCount());
    send(next, cctest::dataEncoding("", "served again"));
    EXPECT_EQ("served again", take(next));
}

TEST_F(ReceiverThreadTest, ForeignDatagramsOnTheStatusPortAreDrainedHarmlessly)
{
    CommsChannel sut("");
    const int statusSocket = ReceiverProbe::statusSocket({&sut});
    ASSERT_GT(statusSocket, 0);
    const int statusPort = ReceiverProbe::boundPort(statusSocket);

    peer.sendTo(statusPort, "abc", 3);
    peer.sendTo(statusPort, std::string(1000, '\xFF'));
    peer.sendTo(statusPort, cctest::dataEncoding("", "not for the status socket"));
    peer.sendTo(statusPort, "", 0);

    EXPECT_TRUE(cctest::waitUntil([statusSocket] { return ReceiverProbe::pendingBytes(statusSocket) == 0; },
                                  20000));
    send(sut, cctest::dataEncoding("", "still working"));
    EXPECT_EQ("still working", take(sut));
    EXPECT_EQ(statusSocket, ReceiverProbe::statusSocket({&sut}));
    EXPECT_EQ(baseThreads + 1, ReceiverProbe::threadCount());
}

TEST_F(ReceiverThreadTest, UndecodableEncodingIsQueuedAsAnEmptyMessage)
{
    CommsChannel sut("");
    std::string garbage(32, '\xEE');
    wire::writeHostOrderLength(&garbage[0], 32);

    send(sut, garbage);

    ASSERT_TRUE(cctest::waitForQueued(sut));
    CommsChannelDataContainerMessage received;
    ASSERT_EQ(1, sut.receiveMsg(received));
    EXPECT_EQ("", received.getData());
    EXPECT_EQ("", received.sourceChannel());
    send(sut, cctest::dataEncoding("", "next"));
    EXPECT_EQ("next", take(sut));
}

TEST_F(ReceiverThreadTest, ChannelListedTwiceIsExaminedTwiceAndTheEmptySecondLookEndsTheThread)
{
    CommsChannel* sut = new CommsChannel("");
    CommsChannelReceiver::instance()->addReceiveChannel(sut);
    cctest::StderrRecorder errors;

    send(*sut, cctest::dataEncoding("", "once"));

    ASSERT_TRUE(waitForThreadEnd());
    EXPECT_TRUE(errors.waitFor(RECEIVE_FAILURE));
    errors.restore();
    EXPECT_EQ(1u, CommsChannelInspector::queueLengthLocked(*sut));
    EXPECT_EQ("once", take(*sut));
    CommsChannelReceiver::instance()->removeReceiveChannel(sut);
    EXPECT_TRUE(cctest::destroyWithin(sut));
}

}  // namespace
