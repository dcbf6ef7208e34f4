// The receive operations applications call: into a message, a buffer or a
// string, by request id with and without a time-out, and isQEmpty.
#include "CommsChannel.h"
#include "ChannelTestHelpers.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsException.h"
#include "WhiteBoxAccess.h"
#include "ChildProcess.h"
#include "TestUtil.h"

#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using channeltest::AsyncCall;

class CommsChannelReceiveTest : public testing::Test {
protected:
    CommsChannelReceiveTest() : sut("") {}

    void add(const std::string& data, int msgType = 0, long requestId = 0)
    {
        CommsChannelDataContainerMessage queued = channeltest::message(data, msgType, requestId);
        sut.addToMsgQ(queued);
    }
    void waitUntilRegistered(int requestId)
    {
        ASSERT_TRUE(cctest::waitUntil(
            [&] { return CommsChannelInspector::hasRequestIdEntry(sut, requestId); },
            channeltest::DEADLINE_MS));
    }
    std::vector<std::string> queuedData()
    {
        std::vector<std::string> data;
        for (const CommsChannelDataContainerMessage& queued : CommsChannelInspector::queue(sut)) {
            data.push_back(queued.getData());
        }
        return data;
    }

    channeltest::Watchdog watchdog;
    CommsChannel sut;
};

TEST_F(CommsChannelReceiveTest, BufferOfCapacityFourGetsFourBytesOfATenByteMessageAndTheRestIsLost)
{
    add("0123456789");
    char buffer[16];
    std::memset(buffer, '#', sizeof buffer);
    int length = 4;

    EXPECT_EQ(1, sut.receiveMsg(buffer, &length));

    EXPECT_EQ(4, length);
    EXPECT_EQ("0123####", std::string(buffer, 8));
    EXPECT_TRUE(sut.isQEmpty());
}

TEST_F(CommsChannelReceiveTest, BufferOfCapacityHundredGetsAllTenBytesAndNoTerminator)
{
    add("0123456789");
    char buffer[100];
    std::memset(buffer, '#', sizeof buffer);
    int length = 100;

    EXPECT_EQ(1, sut.receiveMsg(buffer, &length));

    EXPECT_EQ(10, length);
    EXPECT_EQ("0123456789##", std::string(buffer, 12));
}

TEST_F(CommsChannelReceiveTest, BufferReceiveCopiesBinaryDataByteForByte)
{
    const std::string binary("\0\x01\xff\n\0z", 6);
    add(binary);
    char buffer[6];
    int length = sizeof buffer;
    EXPECT_EQ(1, sut.receiveMsg(buffer, &length));
    EXPECT_EQ(6, length);
    EXPECT_EQ(binary, std::string(buffer, 6));
}

TEST_F(CommsChannelReceiveTest, StringReceiveGetsTheWholeData)
{
    const std::string binary("text\0with\nzero", 14);
    add(binary);
    std::string data = "previous";
    EXPECT_EQ(1, sut.receiveMsg(data));
    EXPECT_EQ(binary, data);
    EXPECT_TRUE(sut.isQEmpty());
}

TEST_F(CommsChannelReceiveTest, MessageReceiveCopiesEveryField)
{
    CommsChannelDataContainerMessage sent = channeltest::message("data", 5, 0);
    sent.setChannel("destination");
    sent.setSourceChannel("source");
    sent.setCallbackChannel("callback");
    sent.setProtocol("protocol");
    sent.setInterface("eth0");
    sent.setRemoteContext("context");
    sut.addToMsgQ(sent);

    CommsChannelDataContainerMessage received;
    EXPECT_EQ(1, sut.receiveMsg(received));

    EXPECT_EQ("destination", received.channel());
    EXPECT_EQ("source", received.sourceChannel());
    EXPECT_EQ("callback", received.callbackChannel());
    EXPECT_EQ("protocol", received.protocol());
    EXPECT_EQ("eth0", received.interface());
    EXPECT_EQ("context", received.remoteContext());
    EXPECT_EQ(0, received.requestId());
    EXPECT_EQ(5, received.msgType());
    EXPECT_EQ(VIREO_PRIORITY_HIGH, received.priority());
    EXPECT_EQ("data", received.getData());
}

TEST_F(CommsChannelReceiveTest, PlainReceiveWaitsForAMessageFromAnotherThread)
{
    std::string data;
    AsyncCall receive([&] { return sut.receiveMsg(data); });
    ASSERT_TRUE(receive.stillBlocked());
    add("late");
    ASSERT_TRUE(receive.finishedWithin());
    EXPECT_EQ(1, receive.result());
    EXPECT_EQ("late", data);
}

TEST_F(CommsChannelReceiveTest, ByIdTimedWithRequestIdZeroTakesTheFrontMessageWhateverItsId)
{
    add("for 5", 0, 5);
    add("plain");
    CommsChannelDataContainerMessage out;
    EXPECT_EQ(1, sut.receiveMsg_ByID_Timed(out, 0, 200));
    EXPECT_EQ("for 5", out.getData());
    EXPECT_FALSE(CommsChannelInspector::hasRequestIdEntry(sut, 0));
    EXPECT_FALSE(CommsChannelInspector::hasRequestIdEntry(sut, 5));
}

TEST_F(CommsChannelReceiveTest, ByIdTimedWithRequestIdZeroTimesOutAsAPlainReceive)
{
    CommsChannelDataContainerMessage out;
    try {
        sut.receiveMsg_ByID_Timed(out, 0, 200);
        FAIL() << "no exception";
    } catch (const CommsException& e) {
        EXPECT_STREQ("CommsChannel 'receive' timed out, timeout duration = 200", e.what());
    }
    // No by-id registration was made for id 0.
    EXPECT_FALSE(CommsChannelInspector::hasRequestIdEntry(sut, 0));
}

TEST_F(CommsChannelReceiveTest, ByIdTimedWithRequestIdZeroReturnsZeroAfterShutdown)
{
    add("queued");
    sut.shutdown();
    CommsChannelDataContainerMessage out;
    EXPECT_EQ(0, sut.receiveMsg_ByID_Timed(out, 0, 200));
    EXPECT_EQ(1u, CommsChannelInspector::queueLength(sut));
}

TEST_F(CommsChannelReceiveTest, ByIdTimedThatTimesOutThrowsTheTimeOutTextAndLeavesTheQueueAsItWas)
{
    add("plain");
    add("for 8", 0, 8);
    CommsChannelDataContainerMessage out;
    out.setData("untouched", 9);
    try {
        sut.receiveMsg_ByID_Timed(out, 9, 200);
        FAIL() << "no exception";
    } catch (const CommsException& e) {
        EXPECT_STREQ("CommsChannel 'receive' timed out, timeout duration = 200", e.what());
    }
    EXPECT_EQ("untouched", out.getData());
    EXPECT_EQ((std::vector<std::string>{"plain", "for 8"}), queuedData());
    EXPECT_EQ(2, CommsChannelInspector::queueSemaphoreCount(sut));
}

TEST_F(CommsChannelReceiveTest, ByIdTimedThatTimesOutRemovesItsRegistrationSoALaterAnswerGoesToTheQueue)
{
    CommsChannelDataContainerMessage out;
    EXPECT_THROW(sut.receiveMsg_ByID_Timed(out, 9, 200), CommsException);
    EXPECT_FALSE(CommsChannelInspector::hasRequestIdEntry(sut, 9));

    add("late answer", 0, 9);

    EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(sut));
    std::string data;
    EXPECT_EQ(1, sut.receiveMsg(data));
    EXPECT_EQ("late answer", data);
}

TEST_F(CommsChannelReceiveTest, ByIdTimedRegistersWhileWaitingAndUnregistersAfterItsAnswer)
{
    CommsChannelDataContainerMessage out;
    AsyncCall receive([&] { return sut.receiveMsg_ByID_Timed(out, 12, 20000); });
    waitUntilRegistered(12);
    add("answer", 0, 12);
    ASSERT_TRUE(receive.finishedWithin());
    EXPECT_EQ(1, receive.result());
    EXPECT_EQ("answer", out.getData());
    EXPECT_FALSE(CommsChannelInspector::hasRequestIdEntry(sut, 12));
    EXPECT_EQ(0, CommsChannelInspector::queueSemaphoreCount(sut));
}

TEST_F(CommsChannelReceiveTest, ReceiveByRequestIdWaitsWithoutLimitAndNeverTimesOut)
{
    CommsChannelDataContainerMessage out;
    AsyncCall receive([&] { return sut.receiveMsg(out, 21L); });
    waitUntilRegistered(21);
    add("not for it", 0, 22);
    ASSERT_TRUE(receive.stillBlocked(600));
    EXPECT_FALSE(receive.threw());

    add("answer", 0, 21);
    ASSERT_TRUE(receive.finishedWithin());
    EXPECT_FALSE(receive.threw());
    EXPECT_EQ(1, receive.result());
    EXPECT_EQ("answer", out.getData());
    EXPECT_FALSE(CommsChannelInspector::hasRequestIdEntry(sut, 21));
}

// A channel class of an application that watches its timed receives.
class WatchedChannel : public CommsChannel {
public:
    WatchedChannel() : CommsChannel("") {}
    int receiveMsg_ByID_Timed(CommsChannelDataContainerMessage& message, long requestId, int timeout) override
    {
        seenRequestId = requestId;
        seenTimeout = timeout;
        return CommsChannel::receiveMsg_ByID_Timed(message, requestId, timeout);
    }
    long seenRequestId = -100;
    int seenTimeout = -100;
};

TEST(CommsChannelReceiveOverride, ReceiveByRequestIdGoesThroughTheOverridableTimedReceiveWithoutLimit)
{
    channeltest::Watchdog watchdog;
    WatchedChannel sut;
    CommsChannelDataContainerMessage answer = channeltest::message("answer", 0, 5);
    sut.addToMsgQ(answer);
    CommsChannelDataContainerMessage out;
    CommsChannelIfc& asInterface = sut;
    EXPECT_EQ(1, asInterface.receiveMsg(out, 5L));
    EXPECT_EQ(5, sut.seenRequestId);
    EXPECT_EQ(-1, sut.seenTimeout);
    EXPECT_EQ("answer", out.getData());
}

TEST_F(CommsChannelReceiveTest, ReceiveByRequestIdZeroTakesAnyMessage)
{
    add("any", 0, 4);
    CommsChannelDataContainerMessage out;
    AsyncCall receive([&] { return sut.receiveMsg(out, 0L); });
    ASSERT_TRUE(receive.finishedWithin());
    EXPECT_EQ(1, receive.result());
    EXPECT_EQ("any", out.getData());
}

// The first waiter is stranded for good once its entry is gone: nothing can
// wake it any more, so the scenario runs in a child process of its own that
// ends without joining it.
CC_CHILD_MAIN(secondWaiterForTheSameId)
{
    (void)args;
    CommsChannel sut("");
    CommsChannelDataContainerMessage firstOut;
    std::atomic<bool> firstReturned{false};
    std::thread first([&] {
        sut.receiveMsg(firstOut, 30L);
        firstReturned = true;
    });
    first.detach();
    if (!cctest::waitUntil([&] { return CommsChannelInspector::hasRequestIdEntry(sut, 30); },
                           channeltest::DEADLINE_MS)) {
        cctest::childSay("FIRST NOT REGISTERED");
        _exit(cctest::CHILD_FAILED);
    }
    CommsChannelDataContainerMessage secondOut;
    try {
        sut.receiveMsg_ByID_Timed(secondOut, 30, 200);
        cctest::childSay("SECOND RETURNED");
    } catch (const CommsException& e) {
        cctest::childSay(std::string("SECOND THREW ") + e.what());
    }
    cctest::childSay(CommsChannelInspector::hasRequestIdEntry(sut, 30) ? "ENTRY KEPT" : "ENTRY GONE");
    CommsChannelDataContainerMessage answer = channeltest::message("answer", 0, 30);
    sut.addToMsgQ(answer);
    cctest::childSay("TOKENS " + std::to_string(CommsChannelInspector::queueSemaphoreCount(sut)));
    usleep(static_cast<useconds_t>(channeltest::STILL_BLOCKED_MS) * 1000);
    cctest::childSay(firstReturned ? "FIRST RETURNED" : "FIRST BLOCKED");
    // A plain receive takes the answer whose token stood for it.
    std::string data;
    sut.receiveMsg(data);
    cctest::childSay("PLAIN GOT " + data);
    std::fflush(stdout);
    _exit(cctest::CHILD_OK);
}

TEST(CommsChannelReceiveSecondWaiter, SecondWaiterForTheSameIdIsNotEnteredAndItsTimeOutRemovesTheFirstWaitersEntry)
{
    channeltest::Watchdog watchdog;
    cctest::ChildProcess child("secondWaiterForTheSameId", {});
    std::vector<std::string> lines;
    std::string line;
    while (child.readLine(line, channeltest::DEADLINE_MS)) {
        lines.push_back(line);
    }
    // The erase removed the key whoever made it: the first waiter's answer
    // gives its token to the general receivers, and the first waiter sleeps
    // on.
    EXPECT_EQ((std::vector<std::string>{"SECOND THREW CommsChannel 'receive' timed out, timeout duration = 200",
                                        "ENTRY GONE", "TOKENS 1", "FIRST BLOCKED", "PLAIN GOT answer"}),
              lines);
    EXPECT_EQ(cctest::CHILD_OK, child.wait(channeltest::DEADLINE_MS));
}

TEST_F(CommsChannelReceiveTest, IsQEmptyFollowsTheQueue)
{
    EXPECT_TRUE(sut.isQEmpty());
    add("one");
    EXPECT_FALSE(sut.isQEmpty());
    std::string data;
    sut.receiveMsg(data);
    EXPECT_TRUE(sut.isQEmpty());
}

TEST_F(CommsChannelReceiveTest, ReceivesOnAShutDownChannelReturnZeroAndLeaveTheCallersObjectsUntouched)
{
    add("one");
    add("two");
    add("three");
    sut.shutdown();

    CommsChannelDataContainerMessage out;
    out.setData("untouched", 9);
    EXPECT_EQ(0, sut.receiveMsg(out));
    EXPECT_EQ("untouched", out.getData());

    char buffer[8] = "#######";
    int length = 8;
    EXPECT_EQ(0, sut.receiveMsg(buffer, &length));
    EXPECT_EQ(8, length);
    EXPECT_STREQ("#######", buffer);

    std::string data = "untouched";
    EXPECT_EQ(0, sut.receiveMsg(data));
    EXPECT_EQ("untouched", data);

    EXPECT_EQ((std::vector<std::string>{"one", "two", "three"}), queuedData());
}

// --- a channel whose descriptor is 0 --------------------------------------

// Each receive operation, called on a channel that has a message queued.
struct ReceiveOperation {
    const char* name;
    std::function<int(CommsChannel&)> call;
};

std::ostream& operator<<(std::ostream& out, const ReceiveOperation& operation) { return out << operation.name; }

const ReceiveOperation RECEIVE_OPERATIONS[] = {
    {"message",
     [](CommsChannel& channel) {
         CommsChannelDataContainerMessage out;
         return channel.receiveMsg(out);
     }},
    {"messageByRequestId",
     [](CommsChannel& channel) {
         CommsChannelDataContainerMessage out;
         return channel.receiveMsg(out, 7L);
     }},
    {"messageByRequestIdZero",
     [](CommsChannel& channel) {
         CommsChannelDataContainerMessage out;
         return channel.receiveMsg(out, 0L);
     }},
    {"buffer",
     [](CommsChannel& channel) {
         char buffer[16];
         int length = sizeof buffer;
         return channel.receiveMsg(buffer, &length);
     }},
    {"string",
     [](CommsChannel& channel) {
         std::string data;
         return channel.receiveMsg(data);
     }},
    {"byIdTimed",
     [](CommsChannel& channel) {
         CommsChannelDataContainerMessage out;
         return channel.receiveMsg_ByID_Timed(out, 7, -1);
     }},
    {"byIdTimedZero",
     [](CommsChannel& channel) {
         CommsChannelDataContainerMessage out;
         return channel.receiveMsg_ByID_Timed(out, 0, 200);
     }},
};

class DescriptorZeroTest : public CommsChannelReceiveTest, public testing::WithParamInterface<ReceiveOperation> {};

TEST_P(DescriptorZeroTest, ReceiveReturnsZeroAtOnceAlthoughAMessageIsQueued)
{
    // With standard input closed, the channel's socket gets descriptor 0.
    const int savedStdin = dup(0);
    ASSERT_GE(savedStdin, 0);
    close(0);
    std::unique_ptr<CommsChannel> zero(new CommsChannel(""));
    const int descriptor = zero->socketHandle();
    bool finished = false;
    if (descriptor == 0) {
        CommsChannelDataContainerMessage queued = channeltest::message("waiting", 0, 7);
        zero->addToMsgQ(queued);
        AsyncCall receive([&] { return GetParam().call(*zero); });
        finished = receive.finishedWithin();
        if (!finished) {
            zero->shutdown();  // let a wrongly blocked receive end
            CommsChannelDataContainerMessage release = channeltest::message("release", 0, 7);
            zero->addToMsgQ(release);
            receive.finishedWithin();
        } else {
            EXPECT_FALSE(receive.threw()) << receive.exceptionText();
            EXPECT_EQ(0, receive.result());
            EXPECT_EQ(1u, CommsChannelInspector::queueLength(*zero));
            EXPECT_EQ("waiting", CommsChannelInspector::queue(*zero).front().getData());
            EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(*zero));
            EXPECT_FALSE(CommsChannelInspector::hasRequestIdEntry(*zero, 7));
        }
    }
    zero.reset();
    dup2(savedStdin, 0);
    close(savedStdin);
    ASSERT_EQ(0, descriptor);
    EXPECT_TRUE(finished);
}

INSTANTIATE_TEST_SUITE_P(EveryReceive, DescriptorZeroTest, testing::ValuesIn(RECEIVE_OPERATIONS),
                         [](const testing::TestParamInfo<ReceiveOperation>& info) { return info.param.name; });

TEST(CommsChannelReceiveStdinClosed, ChannelWhoseSocketGotDescriptorZeroRefusesEveryReceive)
{
    channeltest::Watchdog watchdog;
    close(0);
    CommsChannel sut("");
    ASSERT_EQ(0, sut.socketHandle());
    CommsChannelDataContainerMessage queued = channeltest::message("waiting", 0, 7);
    sut.addToMsgQ(queued);

    for (const ReceiveOperation& operation : RECEIVE_OPERATIONS) {
        AsyncCall receive([&] { return operation.call(sut); });
        const bool finished = receive.finishedWithin();
        if (!finished) {
            sut.shutdown();
            sut.addToMsgQ(queued);
        }
        ASSERT_TRUE(finished) << operation.name;
        EXPECT_EQ(0, receive.result()) << operation.name;
    }
    EXPECT_EQ(1u, CommsChannelInspector::queueLength(sut));
}

}  // namespace
