// The receive queue: insertion by priority, the interceptor, the queue-length
// notice in the system log, and the two consumers with their token rules.
#include "CommsChannel.h"
#include "ChannelTestHelpers.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsException.h"
#include "WhiteBoxAccess.h"
#include "StderrRecorder.h"
#include "SyslogCapture.h"
#include "TestUtil.h"

#include <unistd.h>

#include <atomic>
#include <limits>
#include <stdexcept>
#include <thread>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using channeltest::AsyncCall;
using channeltest::RecordingInterceptor;

class CommsChannelQueueTest : public testing::Test {
protected:
    CommsChannelQueueTest() : sut("") {}

    int add(const std::string& data, int msgType = 0, long requestId = 0)
    {
        CommsChannelDataContainerMessage queued = channeltest::message(data, msgType, requestId);
        return sut.addToMsgQ(queued);
    }
    // Takes the front message, failing the test instead of waiting when
    // there is none.
    std::string takeFront()
    {
        CommsChannelDataContainerMessage out;
        try {
            if (CommsChannelInspector::getMsgFromQ(sut, out, 0) != 1) {
                return "<nothing>";
            }
        } catch (const CommsException&) {
            return "<timed out>";
        }
        return out.getData();
    }
    std::vector<std::string> queuedData()
    {
        std::vector<std::string> data;
        for (const CommsChannelDataContainerMessage& queued : CommsChannelInspector::queue(sut)) {
            data.push_back(queued.getData());
        }
        return data;
    }
    VireoThreadPriority priorityOfQueued(std::size_t index)
    {
        std::size_t position = 0;
        for (const CommsChannelDataContainerMessage& queued : CommsChannelInspector::queue(sut)) {
            if (position++ == index) {
                return queued.priority();
            }
        }
        ADD_FAILURE() << "no message at " << index;
        return VIREO_PRIORITY_LOW;
    }

    channeltest::Watchdog watchdog;
    CommsChannel sut;
};

TEST_F(CommsChannelQueueTest, PriorityTableHoldsTheSevenFixedValues)
{
    const std::vector<VireoThreadPriority> expected = {
        VIREO_PRIORITY_NORMAL, VIREO_PRIORITY_LOW,  VIREO_PRIORITY_HIGH, VIREO_PRIORITY_NORMAL,
        VIREO_PRIORITY_LOW,    VIREO_PRIORITY_HIGH, VIREO_PRIORITY_HIGH};
    // One message of each type, each taken out before the next goes in, so
    // that the priority read is the one the queue gave that type.
    std::vector<VireoThreadPriority> given;
    for (int type = 0; type < 7; ++type) {
        add("t" + std::to_string(type), type);
        given.push_back(priorityOfQueued(0));
        EXPECT_EQ("t" + std::to_string(type), takeFront());
    }
    EXPECT_EQ(expected, given);
    EXPECT_EQ(0, VIREO_PRIORITY_LOW);
    EXPECT_EQ(1, VIREO_PRIORITY_NORMAL);
    EXPECT_EQ(2, VIREO_PRIORITY_HIGH);
}

// Each message type and the queue priority that the table gives it.
class QueuePriorityByTypeTest : public CommsChannelQueueTest,
                                public testing::WithParamInterface<std::pair<int, int>> {};

TEST_P(QueuePriorityByTypeTest, QueuedCopyGetsTheTablePriorityNotTheSendersOne)
{
    CommsChannelDataContainerMessage queued = channeltest::message("x", GetParam().first);
    // Whatever the sender set is replaced by the table value.
    queued.setPriority(GetParam().second == VIREO_PRIORITY_HIGH ? VIREO_PRIORITY_LOW : VIREO_PRIORITY_HIGH);
    const VireoThreadPriority sendersPriority = queued.priority();

    EXPECT_EQ(1, sut.addToMsgQ(queued));

    EXPECT_EQ(GetParam().second, priorityOfQueued(0));
    EXPECT_EQ(sendersPriority, queued.priority()) << "the caller's message must stay as it was";
}

INSTANTIATE_TEST_SUITE_P(KnownTypes, QueuePriorityByTypeTest,
                         testing::Values(std::make_pair(0, 1), std::make_pair(1, 0), std::make_pair(2, 2),
                                         std::make_pair(3, 1), std::make_pair(4, 0), std::make_pair(5, 2),
                                         std::make_pair(6, 2)));
// Types beyond the table get the lowest priority; nothing outside the table
// is read (AddressSanitizer would see it).
INSTANTIATE_TEST_SUITE_P(UnknownTypes, QueuePriorityByTypeTest,
                         testing::Values(std::make_pair(7, 0), std::make_pair(100, 0), std::make_pair(-1, 0)));

class UnknownTypeOrderTest : public CommsChannelQueueTest, public testing::WithParamInterface<int> {};

TEST_P(UnknownTypeOrderTest, UnknownTypeQueuesLikeTheLowestPriority)
{
    add("low", 1);
    add("unknown", GetParam());
    add("normal", 0);
    add("low again", 4);
    EXPECT_EQ((std::vector<std::string>{"normal", "low", "unknown", "low again"}), queuedData());
}

INSTANTIATE_TEST_SUITE_P(UnknownTypes, UnknownTypeOrderTest, testing::Values(7, 100, -1));

TEST_F(CommsChannelQueueTest, TypesOneZeroTwoAreReceivedAsTwoThenZeroThenOne)
{
    add("type 1", 1);
    add("type 0", 0);
    add("type 2", 2);
    EXPECT_EQ("type 2", takeFront());
    EXPECT_EQ("type 0", takeFront());
    EXPECT_EQ("type 1", takeFront());
}

TEST_F(CommsChannelQueueTest, FiveOfTypeThreeThenOneOfTypeFiveReceivesTypeFiveFirstThenArrivalOrder)
{
    for (int i = 1; i <= 5; ++i) {
        add("type 3 #" + std::to_string(i), 3);
    }
    add("type 5", 5);
    EXPECT_EQ("type 5", takeFront());
    for (int i = 1; i <= 5; ++i) {
        EXPECT_EQ("type 3 #" + std::to_string(i), takeFront());
    }
}

TEST_F(CommsChannelQueueTest, EqualPrioritiesKeepArrivalOrderAcrossTypes)
{
    add("type 2", 2);
    add("type 5", 5);
    add("type 6", 6);
    add("type 0", 0);
    add("type 3", 3);
    add("type 1", 1);
    add("type 4", 4);
    EXPECT_EQ((std::vector<std::string>{"type 2", "type 5", "type 6", "type 0", "type 3", "type 1", "type 4"}),
              queuedData());
}

TEST_F(CommsChannelQueueTest, AddQueuesAHeapCopyAndGivesOneTokenToTheQueue)
{
    CommsChannelDataContainerMessage original = channeltest::message("payload", 2, 0);
    original.setInterface("eth0");

    EXPECT_EQ(1, sut.addToMsgQ(original));

    ASSERT_EQ(1u, CommsChannelInspector::queueLength(sut));
    EXPECT_NE(&original, CommsChannelInspector::queuedObjects(sut).front());
    CommsChannelDataContainerMessage copy = CommsChannelInspector::queue(sut).front();
    EXPECT_EQ("payload", copy.getData());
    EXPECT_EQ("eth0", copy.interface());
    EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(sut));
    EXPECT_FALSE(sut.isQEmpty());
}

TEST_F(CommsChannelQueueTest, ReceivedMessageIsTheQueuedOneAndLeavesTheQueue)
{
    add("only");
    CommsChannelDataContainerMessage out;
    ASSERT_EQ(1, CommsChannelInspector::getMsgFromQ(sut, out, -1));
    EXPECT_EQ("only", out.getData());
    EXPECT_TRUE(sut.isQEmpty());
    EXPECT_EQ(0, CommsChannelInspector::queueSemaphoreCount(sut));
}

TEST_F(CommsChannelQueueTest, RequestIdZeroGivesItsTokenToTheQueueDespiteTheZeroEntry)
{
    add("no request", 0, 0);
    EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(sut));
}

// The request-id map is keyed by int. A request id whose lower 32 bits are
// zero (only possible where long is wider than int) must not land on the
// map's null entry for id 0 and lose its token: found by fuzz/ChannelFuzzer.
TEST_F(CommsChannelQueueTest, RequestIdWithZeroLowBitsGivesItsTokenToTheQueue)
{
    if (sizeof(long) <= sizeof(int)) {
        GTEST_SKIP() << "every long fits an int here";
    }
    const long highBitsOnly = static_cast<long>(std::numeric_limits<unsigned int>::max()) + 1;

    add("high bits only", 0, highBitsOnly);

    EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(sut));
    EXPECT_EQ("high bits only", takeFront());
}

// --- the queue-length notice -------------------------------------------

class CommsChannelQueueWarningTest : public CommsChannelQueueTest {
protected:
    void SetUp() override { ASSERT_TRUE(syslog.ok()) << syslog.errorText(); }

    void addWithInterface(const std::string& interfaceName)
    {
        CommsChannelDataContainerMessage queued = channeltest::message("m");
        queued.setInterface(interfaceName);
        sut.addToMsgQ(queued);
    }
    std::string expectedNotice(const std::string& interfaceName)
    {
        return "CommsChannel :: Warning m_preceiveQueue->size() = 50 at interface " + interfaceName +
               " in process " + std::to_string(getpid()) + " with parent process = " + std::to_string(getppid()) +
               " \n";
    }
    std::vector<std::string> notices() { return syslog.recordsContaining("CommsChannel :: Warning"); }
    // Every notice is exactly the expected text as a LOG_USER | LOG_NOTICE
    // record ("<13>" then the C library's time stamp and tag).
    void expectNotices(std::size_t count, const std::string& interfaceName)
    {
        const std::vector<std::string> written = notices();
        ASSERT_EQ(count, written.size());
        const std::string text = expectedNotice(interfaceName);
        for (const std::string& record : written) {
            EXPECT_EQ(0u, record.compare(0, 4, "<13>")) << record;
            ASSERT_GE(record.size(), text.size() + 2) << record;
            EXPECT_EQ(": " + text, record.substr(record.size() - text.size() - 2)) << record;
        }
    }

    cctest::SyslogCapture syslog;
};

TEST_F(CommsChannelQueueWarningTest, ReachingFiftyWritesTheNoticeOnceAndFiftyOneWritesNothing)
{
    for (int i = 0; i < 49; ++i) {
        addWithInterface("eth0");
    }
    expectNotices(0, "eth0");
    addWithInterface("eth0");
    expectNotices(1, "eth0");
    addWithInterface("eth0");
    expectNotices(1, "eth0");
    EXPECT_EQ(51u, CommsChannelInspector::queueLength(sut));
}

TEST_F(CommsChannelQueueWarningTest, NoticeComesAgainAfterTheQueueFellBelowFiftyAndReachedItAnew)
{
    for (int i = 0; i < 51; ++i) {
        addWithInterface("eth0");
    }
    expectNotices(1, "eth0");
    EXPECT_NE("<timed out>", takeFront());
    EXPECT_NE("<timed out>", takeFront());
    expectNotices(1, "eth0");
    addWithInterface("eth0");
    expectNotices(2, "eth0");
    addWithInterface("eth0");
    expectNotices(2, "eth0");
}

TEST_F(CommsChannelQueueWarningTest, NoticeNamesTheInterfaceOfTheCallersMessageNotOfTheCopy)
{
    RecordingInterceptor interceptor;
    interceptor.rewriteInterface();
    CommsChannel intercepted("", &interceptor);
    for (int i = 0; i < 50; ++i) {
        CommsChannelDataContainerMessage queued = channeltest::message("m");
        queued.setInterface("wlan1");
        intercepted.addToMsgQ(queued);
    }
    ASSERT_EQ("rewritten", CommsChannelInspector::queue(intercepted).back().interface());
    expectNotices(1, "wlan1");
}

TEST_F(CommsChannelQueueWarningTest, DroppedMessagesDoNotCountTowardsFifty)
{
    RecordingInterceptor interceptor;
    CommsChannel intercepted("", &interceptor);
    for (int i = 0; i < 49; ++i) {
        CommsChannelDataContainerMessage queued = channeltest::message("keep");
        intercepted.addToMsgQ(queued);
    }
    CommsChannelDataContainerMessage dropped = channeltest::message("drop");
    intercepted.addToMsgQ(dropped);
    expectNotices(0, "");
    CommsChannelDataContainerMessage fiftieth = channeltest::message("keep");
    intercepted.addToMsgQ(fiftieth);
    expectNotices(1, "");
}

// --- the interceptor ----------------------------------------------------

class CommsChannelInterceptorTest : public testing::Test {
protected:
    CommsChannelInterceptorTest() : sut("", &interceptor) {}
    int add(const std::string& data, int msgType = 0, long requestId = 0)
    {
        CommsChannelDataContainerMessage queued = channeltest::message(data, msgType, requestId);
        return sut.addToMsgQ(queued);
    }

    channeltest::Watchdog watchdog;
    RecordingInterceptor interceptor;
    CommsChannel sut;
};

TEST_F(CommsChannelInterceptorTest, InterceptorSeesTheCopyAlreadyCarryingItsTablePriority)
{
    CommsChannelDataContainerMessage original = channeltest::message("keep", 2);
    sut.addToMsgQ(original);
    ASSERT_EQ(1u, interceptor.seen().size());
    EXPECT_NE(&original, interceptor.seen().front());
    EXPECT_EQ(CommsChannelInspector::queuedObjects(sut).front(), interceptor.seen().front());
    EXPECT_EQ(VIREO_PRIORITY_HIGH, interceptor.seenPriorities().front());
}

TEST_F(CommsChannelInterceptorTest, MessageTheInterceptorKeepsIsQueued)
{
    EXPECT_EQ(1, add("keep"));
    EXPECT_EQ(1u, CommsChannelInspector::queueLength(sut));
    EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(sut));
}

TEST_F(CommsChannelInterceptorTest, DroppedMessageIsNotQueuedButAddReturnsOneAndStillGivesItsToken)
{
    EXPECT_EQ(1, add("drop me"));
    EXPECT_EQ(0u, CommsChannelInspector::queueLength(sut));
    EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(sut));
    EXPECT_EQ(std::vector<std::string>{"drop me"}, interceptor.seenData());
}

// A message that records its own destruction.
class TrackedMessage : public CommsChannelDataContainerMessage {
public:
    explicit TrackedMessage(bool* destroyed) : m_destroyed(destroyed)
    {
        setData("drop me", 7);
    }
    ~TrackedMessage() override { *m_destroyed = true; }

private:
    bool* m_destroyed;
};

TEST_F(CommsChannelInterceptorTest, DroppedAdoptedMessageIsDeletedNotQueuedAndStillGivesItsToken)
{
    bool destroyed = false;
    EXPECT_EQ(1, sut.inbox().deliver(new TrackedMessage(&destroyed)));
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(0u, CommsChannelInspector::queueLength(sut));
    EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(sut));
}

TEST_F(CommsChannelInterceptorTest, DroppedMessageWakesABlockedReceiverWhichReturnsZero)
{
    CommsChannelDataContainerMessage out;
    out.setData("untouched", 9);
    AsyncCall receive([&] { return CommsChannelInspector::getMsgFromQ(sut, out, -1); });
    ASSERT_TRUE(receive.stillBlocked());

    add("drop me");

    ASSERT_TRUE(receive.finishedWithin());
    EXPECT_EQ(0, receive.result());
    EXPECT_EQ("untouched", out.getData());
}

TEST_F(CommsChannelInterceptorTest, DroppedMessageGivesItsTokenToTheWaiterRegisteredForItsId)
{
    CommsChannelDataContainerMessage out;
    AsyncCall receive([&] { return sut.receiveMsg_ByID_Timed(out, 7, -1); });
    ASSERT_TRUE(cctest::waitUntil([&] { return CommsChannelInspector::hasRequestIdEntry(sut, 7); },
                                  channeltest::DEADLINE_MS));
    EXPECT_EQ(1, add("drop me", 0, 7));
    // The token went to the waiter, not to the general receivers.
    EXPECT_EQ(0, CommsChannelInspector::queueSemaphoreCount(sut));
    EXPECT_EQ(0u, CommsChannelInspector::queueLength(sut));
    EXPECT_TRUE(receive.stillBlocked());
    add("the answer", 0, 7);
    ASSERT_TRUE(receive.finishedWithin());
    EXPECT_EQ(1, receive.result());
    EXPECT_EQ(0, CommsChannelInspector::queueSemaphoreCount(sut));
}

TEST_F(CommsChannelInterceptorTest, DroppedMessageWakesItsByIdWaiterWhichScansAndWaitsAgain)
{
    CommsChannelDataContainerMessage out;
    AsyncCall receive([&] { return sut.receiveMsg_ByID_Timed(out, 7, -1); });
    ASSERT_TRUE(cctest::waitUntil([&] { return CommsChannelInspector::hasRequestIdEntry(sut, 7); },
                                  channeltest::DEADLINE_MS));

    add("drop me", 0, 7);
    ASSERT_TRUE(receive.stillBlocked());
    EXPECT_EQ(0, CommsChannelInspector::queueSemaphoreCount(sut));

    add("the answer", 0, 7);
    ASSERT_TRUE(receive.finishedWithin());
    EXPECT_EQ(1, receive.result());
    EXPECT_EQ("the answer", out.getData());
}

// --- the consumers ------------------------------------------------------

TEST_F(CommsChannelQueueTest, TimedReceiveOnEmptyQueueThrowsWithTheTimeOutText)
{
    CommsChannelDataContainerMessage out;
    try {
        CommsChannelInspector::getMsgFromQ(sut, out, 200);
        FAIL() << "no exception";
    } catch (const CommsException& e) {
        EXPECT_STREQ("CommsChannel 'receive' timed out, timeout duration = 200", e.what());
    }
    EXPECT_TRUE(sut.isQEmpty());
}

TEST_F(CommsChannelQueueTest, AfterShutdownGetMsgFromQReturnsZeroAlthoughMessagesAreQueued)
{
    add("first");
    add("second");
    sut.shutdown();
    CommsChannelDataContainerMessage out;
    out.setData("untouched", 9);
    EXPECT_EQ(0, CommsChannelInspector::getMsgFromQ(sut, out, 0));
    EXPECT_EQ(0, CommsChannelInspector::getMsgFromQ(sut, out, -1));
    EXPECT_EQ("untouched", out.getData());
    EXPECT_EQ((std::vector<std::string>{"first", "second"}), queuedData());
}

TEST_F(CommsChannelQueueTest, ShutdownTokenIsNotGivenBackByTheReceiveThatTookIt)
{
    sut.shutdown();
    CommsChannelDataContainerMessage out;
    EXPECT_EQ(0, CommsChannelInspector::getMsgFromQ(sut, out, 0));
    EXPECT_EQ(0, CommsChannelInspector::queueSemaphoreCount(sut));
    EXPECT_THROW(CommsChannelInspector::getMsgFromQ(sut, out, 50), CommsException);
}

TEST_F(CommsChannelQueueTest, PlainReceiveTakesTheFrontWhateverItsRequestId)
{
    add("answer to 7", 0, 7);
    add("plain");
    EXPECT_EQ("answer to 7", takeFront());
    EXPECT_EQ("plain", takeFront());
}

TEST_F(CommsChannelQueueTest, ByIdReceiveOfAQueuedMessageReturnsAtOnceLeavingTheOthersInOrder)
{
    add("a");
    add("for 7", 0, 7);
    add("b");
    add("c", 0, 9);
    ASSERT_EQ(4, CommsChannelInspector::queueSemaphoreCount(sut));

    CommsChannelDataContainerMessage out;
    AsyncCall receive([&] { return sut.receiveMsg_ByID_Timed(out, 7, 5000); });
    ASSERT_TRUE(receive.finishedWithin());

    EXPECT_EQ(1, receive.result());
    EXPECT_EQ("for 7", out.getData());
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), queuedData());
    // The message arrived before the id was registered, so its token stood
    // on the queue: the receive took it from there.
    EXPECT_EQ(3, CommsChannelInspector::queueSemaphoreCount(sut));
}

TEST_F(CommsChannelQueueTest, ByIdReceiveOfAQueuedMessageWaitsBrieflyForItsOwnTokenThenTakesAGeneralOne)
{
    add("for 7", 0, 7);
    add("plain");
    ASSERT_EQ(2, CommsChannelInspector::queueSemaphoreCount(sut));

    // The message was there before the receive: it waits 10 ms for a token
    // of its own, which does not come, and then takes the general one that
    // the message gave.
    CommsChannelDataContainerMessage out;
    const long long start = cctest::nowMs();
    EXPECT_EQ(1, CommsChannelInspector::getMsgFromQ_ByID(sut, out, 7, 0));
    const long long elapsed = cctest::nowMs() - start;

    EXPECT_EQ("for 7", out.getData());
    EXPECT_GE(elapsed, 10);
    EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(sut));
    EXPECT_EQ(std::vector<std::string>{"plain"}, queuedData());
    EXPECT_FALSE(CommsChannelInspector::hasRequestIdEntry(sut, 7));
}

TEST_F(CommsChannelQueueTest, ByIdReceiveTakesItsOwnTokenWhenTheMessageCameAfterRegistration)
{
    CommsChannelDataContainerMessage out;
    AsyncCall receive([&] { return CommsChannelInspector::getMsgFromQ_ByID(sut, out, 7, 5000); });
    ASSERT_TRUE(cctest::waitUntil([&] { return CommsChannelInspector::hasRequestIdEntry(sut, 7); },
                                  channeltest::DEADLINE_MS));
    add("for 7", 0, 7);
    add("plain");

    ASSERT_TRUE(receive.finishedWithin());
    EXPECT_EQ(1, receive.result());
    EXPECT_EQ("for 7", out.getData());
    // Only the plain message's token stands for the general receivers.
    EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(sut));
    EXPECT_EQ(std::vector<std::string>{"plain"}, queuedData());
    EXPECT_FALSE(CommsChannelInspector::hasRequestIdEntry(sut, 7));
}

TEST_F(CommsChannelQueueTest, ByIdWaiterIsNotWokenByOtherIdsWhichAPlainReceiveTakes)
{
    CommsChannelDataContainerMessage out;
    AsyncCall receive([&] { return sut.receiveMsg_ByID_Timed(out, 7, -1); });
    ASSERT_TRUE(cctest::waitUntil([&] { return CommsChannelInspector::hasRequestIdEntry(sut, 7); },
                                  channeltest::DEADLINE_MS));

    add("for 3", 0, 3);
    add("plain");
    EXPECT_TRUE(receive.stillBlocked());
    EXPECT_EQ(2, CommsChannelInspector::queueSemaphoreCount(sut));
    EXPECT_EQ("for 3", takeFront());
    EXPECT_EQ("plain", takeFront());

    add("for 7", 0, 7);
    ASSERT_TRUE(receive.finishedWithin());
    EXPECT_EQ(1, receive.result());
    EXPECT_EQ("for 7", out.getData());
    EXPECT_TRUE(sut.isQEmpty());
    EXPECT_EQ(0, CommsChannelInspector::queueSemaphoreCount(sut));
}

TEST_F(CommsChannelQueueTest, ByIdReceiveTakesTheFirstOfTwoMessagesWithItsId)
{
    add("first for 7", 1, 7);
    add("second for 7", 2, 7);
    CommsChannelDataContainerMessage out;
    AsyncCall receive([&] { return sut.receiveMsg_ByID_Timed(out, 7, 5000); });
    ASSERT_TRUE(receive.finishedWithin());
    // The higher-priority one stands first in the queue.
    EXPECT_EQ("second for 7", out.getData());
    EXPECT_EQ(std::vector<std::string>{"first for 7"}, queuedData());
}

TEST_F(CommsChannelQueueTest, ByIdWaitThatExpiresThrowsTheTimeOutText)
{
    add("plain");
    CommsChannelDataContainerMessage out;
    try {
        CommsChannelInspector::getMsgFromQ_ByID(sut, out, 7, 150);
        FAIL() << "no exception";
    } catch (const CommsException& e) {
        EXPECT_STREQ("CommsChannel 'receive' timed out, timeout duration = 150", e.what());
    }
    // The expired wait takes its registration with it and leaves the
    // general token alone.
    EXPECT_FALSE(CommsChannelInspector::hasRequestIdEntry(sut, 7));
    EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(sut));
    EXPECT_EQ(std::vector<std::string>{"plain"}, queuedData());
}

}  // namespace

// --- the queue at length -------------------------------------------------

// The expected order of a queue: by non-increasing table priority, arrival
// order within one priority.
std::vector<std::string> expectedOrder(const std::vector<std::pair<std::string, int>>& added)
{
    std::vector<std::string> order;
    for (int band = VIREO_PRIORITY_HIGH; band >= VIREO_PRIORITY_LOW; --band) {
        for (const std::pair<std::string, int>& message : added) {
            const int type = message.second;
            const int priority = type == 2 || type == 5 || type == 6 ? 2 : type == 0 || type == 3 ? 1 : 0;
            if (priority == band) {
                order.push_back(message.first);
            }
        }
    }
    return order;
}

TEST_F(CommsChannelQueueTest, TenThousandMessagesOfMixedTypesComeOutByPriorityThenArrival)
{
    std::vector<std::pair<std::string, int>> added;
    unsigned int state = 12345;
    for (int i = 0; i < 10000; ++i) {
        state = state * 1103515245u + 12345u;
        // Types 0 to 8: the seven of the table and two unknown ones.
        const int type = static_cast<int>((state >> 16) % 9);
        added.emplace_back(std::to_string(i), type);
        ASSERT_EQ(1, add(std::to_string(i), type));
    }
    const std::vector<std::string> expected = expectedOrder(added);
    EXPECT_EQ(expected, queuedData());
    std::vector<std::string> received;
    for (int i = 0; i < 10000; ++i) {
        received.push_back(takeFront());
    }
    EXPECT_EQ(expected, received);
    EXPECT_EQ(0u, CommsChannelInspector::queueLength(sut));
}

TEST_F(CommsChannelQueueTest, ProducersFarAheadOfTheConsumerKeepEachOnesPriorityThenArrivalOrder)
{
    // Three producers run thousands of messages ahead of the consumer, so
    // the queue's kept messages run out and most copies are new ones, made
    // while the queue is free for the others. Each message arrives once,
    // and one producer's messages of one priority arrive in the order sent.
    const int producers = 3;
    const int perProducer = 4000;
    const int total = producers * perProducer;
    std::atomic<int> added{0};
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([this, p, &added] {
            unsigned int state = 7u + static_cast<unsigned int>(p);
            for (int i = 0; i < perProducer; ++i) {
                state = state * 1103515245u + 12345u;
                // Types 0, 1 and 2: priorities 1, 0 and 2.
                const int type = static_cast<int>((state >> 16) % 3);
                CommsChannelDataContainerMessage queued =
                    channeltest::message(std::to_string(p) + ":" + std::to_string(i), type);
                sut.addToMsgQ(queued);
                ++added;
            }
        });
    }
    ASSERT_TRUE(cctest::waitUntil([&] { return added.load() >= total / 4; }, 60000));
    // last[p][priority]: the index of producer p's last message of that
    // priority received so far.
    std::vector<std::vector<int>> last(producers, std::vector<int>(3, -1));
    std::vector<int> receivedOf(producers, 0);
    for (int n = 0; n < total; ++n) {
        CommsChannelDataContainerMessage out;
        ASSERT_EQ(1, CommsChannelInspector::getMsgFromQ(sut, out, 60000)) << "after " << n << " messages";
        const std::string data = out.getData();
        const std::size_t colon = data.find(':');
        ASSERT_NE(std::string::npos, colon) << data;
        const int p = std::stoi(data.substr(0, colon));
        const int i = std::stoi(data.substr(colon + 1));
        const int priority = out.priority();
        ASSERT_TRUE(p >= 0 && p < producers && priority >= 0 && priority < 3) << data;
        EXPECT_LT(last[p][priority], i) << data << " came after " << last[p][priority];
        last[p][priority] = i;
        ++receivedOf[p];
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(std::vector<int>(producers, perProducer), receivedOf);
    EXPECT_EQ(0u, CommsChannelInspector::queueLength(sut));
    EXPECT_EQ(0, CommsChannelInspector::queueSemaphoreCount(sut));
}

TEST_F(CommsChannelQueueTest, OrderHoldsWhileMessagesAreTakenFromTheFrontAndTheMiddle)
{
    // Interleaves additions with plain receives and by-id receives that
    // take messages out of the middle of a priority band, and checks the
    // queue against the ordering rule after every step.
    std::vector<std::pair<std::string, int>> model;
    unsigned int state = 99;
    for (int step = 0; step < 800; ++step) {
        state = state * 1103515245u + 12345u;
        const unsigned int choice = (state >> 16) % 10;
        if (choice < 6 || model.empty()) {
            const int type = static_cast<int>((state >> 8) % 8);
            const std::string data = "m" + std::to_string(step);
            model.emplace_back(data, type);
            add(data, type, step + 1);
        } else if (choice < 8) {
            const std::string front = expectedOrder(model).front();
            EXPECT_EQ(front, takeFront());
            for (std::size_t i = 0; i < model.size(); ++i) {
                if (model[i].first == front) {
                    model.erase(model.begin() + static_cast<long>(i));
                    break;
                }
            }
        } else {
            const std::size_t index = (state >> 4) % model.size();
            const std::string data = model[index].first;
            const long requestId = std::stol(data.substr(1)) + 1;
            CommsChannelDataContainerMessage out;
            EXPECT_EQ(1, CommsChannelInspector::getMsgFromQ_ByID(sut, out, requestId, 0));
            EXPECT_EQ(data, out.getData());
            model.erase(model.begin() + static_cast<long>(index));
        }
        ASSERT_EQ(expectedOrder(model), queuedData()) << "after step " << step;
    }
}

// An interceptor that raises the priority of every message it sees after
// the queue has chosen its place.
class ReprioritisingInterceptor : public CCInterceptorDispatcher {
public:
    int intercept(CCInterceptorContext* context) override
    {
        CommsChannelDataContainerMessage* seen = context->getParams();
        if (seen != nullptr && seen->getData() == "raise") {
            seen->setPriority(VIREO_PRIORITY_HIGH);
        }
        return 1;
    }
};

TEST(CommsChannelQueueReprioritisedTest, MessageReprioritisedByTheInterceptorKeepsTheWalkingOrder)
{
    channeltest::Watchdog watchdog;
    ReprioritisingInterceptor interceptor;
    CommsChannel sut("", &interceptor);
    const char* sequence[][2] = {{"n1", "0"}, {"raise", "1"}, {"n2", "0"}, {"h1", "2"}, {"l1", "1"}, {"n3", "3"}};
    for (const auto& entry : sequence) {
        CommsChannelDataContainerMessage queued = channeltest::message(entry[0], std::atoi(entry[1]));
        sut.addToMsgQ(queued);
    }
    // "raise" is placed as a low-priority message (at the back) but carries
    // priority 2 in the queue. Every later newcomer still goes before the
    // first message whose priority is lower than its own, walking from the
    // front: n2 and n3 behind "raise" (2 is not lower than 1), h1 before n1,
    // and n3 before l1.
    std::vector<std::string> data;
    for (const CommsChannelDataContainerMessage& queued : CommsChannelInspector::queue(sut)) {
        data.push_back(queued.getData());
    }
    EXPECT_EQ((std::vector<std::string>{"h1", "n1", "raise", "n2", "n3", "l1"}), data);
}

TEST_F(CommsChannelQueueTest, ReceivedLargeMessageCarriesItsWholeDataAndEveryField)
{
    std::string large(3 * 1024 * 1024, '\0');
    for (std::size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<char>(i * 7 + i / 4096);
    }
    CommsChannelDataContainerMessage queued = channeltest::message(large, 3, 0);
    queued.setSourceChannel("source");
    queued.setCallbackChannel("callback");
    queued.setProtocol("protocol");
    queued.setInterface("interface");
    queued.setRemoteContext("context");
    queued.setChannel("destination");
    sut.addToMsgQ(queued);
    // The caller's message is untouched by the queue.
    EXPECT_EQ(large, queued.getData());

    CommsChannelDataContainerMessage out;
    out.setData("old", 3);
    ASSERT_EQ(1, CommsChannelInspector::getMsgFromQ(sut, out, 0));
    EXPECT_EQ(large, out.getData());
    EXPECT_EQ("source", out.sourceChannel());
    EXPECT_EQ("callback", out.callbackChannel());
    EXPECT_EQ("protocol", out.protocol());
    EXPECT_EQ("interface", out.interface());
    EXPECT_EQ("context", out.remoteContext());
    EXPECT_EQ("destination", out.channel());
    EXPECT_EQ(3, out.msgType());
    EXPECT_EQ(VIREO_PRIORITY_NORMAL, out.priority());
}

TEST_F(CommsChannelQueueTest, QueueMessageQueuesTheGivenObjectItselfWithTheTokenRule)
{
    CommsChannelDataContainerMessage* adopted = new CommsChannelDataContainerMessage(channeltest::message("a", 1));
    ASSERT_EQ(1, sut.inbox().deliver(adopted));
    add("b", 2);
    ASSERT_EQ(2u, CommsChannelInspector::queueLength(sut));
    EXPECT_EQ(adopted, CommsChannelInspector::queuedObjects(sut).back());
    EXPECT_EQ(VIREO_PRIORITY_LOW, adopted->priority());
    EXPECT_EQ(2, CommsChannelInspector::queueSemaphoreCount(sut));
    EXPECT_EQ("b", takeFront());
    EXPECT_EQ("a", takeFront());
}

namespace {

TEST(CommsChannelQueueReuseTest, NothingOfAnEarlierMessageShowsInALaterOne)
{
    channeltest::Watchdog watchdog;
    CommsChannel sut("");
    for (int round = 0; round < 40; ++round) {
        // A full message, then a bare one, each taken out before the next
        // goes in, so that the second is copied into what held the first.
        CommsChannelDataContainerMessage full = channeltest::message(std::string(100 + round, 'f'), 2, 9);
        full.setSourceChannel("source");
        full.setCallbackChannel("callback");
        full.setProtocol("protocol");
        full.setInterface("interface");
        full.setRemoteContext("context");
        full.setChannel("destination");
        sut.addToMsgQ(full);
        CommsChannelDataContainerMessage out;
        ASSERT_EQ(1, CommsChannelInspector::getMsgFromQ(sut, out, 0));
        EXPECT_EQ("callback", out.callbackChannel());

        CommsChannelDataContainerMessage bare = channeltest::message("b", 1);
        sut.addToMsgQ(bare);
        CommsChannelDataContainerMessage second;
        ASSERT_EQ(1, CommsChannelInspector::getMsgFromQ(sut, second, 0));
        EXPECT_EQ("b", second.getData());
        EXPECT_EQ("", second.sourceChannel());
        EXPECT_EQ("", second.callbackChannel());
        EXPECT_EQ("", second.protocol());
        EXPECT_EQ("", second.interface());
        EXPECT_EQ("", second.remoteContext());
        EXPECT_EQ("", second.channel());
        EXPECT_EQ(0, second.requestId());
        EXPECT_EQ(1, second.msgType());
        EXPECT_EQ(VIREO_PRIORITY_LOW, second.priority());
    }
}

TEST(CommsChannelQueueReuseTest, ReceiveIntoAStringGivesTheWholeDataOfEachMessage)
{
    channeltest::Watchdog watchdog;
    CommsChannel sut("");
    for (int size : {1, 70000, 3, 5 * 1024 * 1024, 64}) {
        const std::string data(static_cast<std::size_t>(size), static_cast<char>('a' + size % 26));
        CommsChannelDataContainerMessage queued = channeltest::message(data);
        sut.addToMsgQ(queued);
        std::string received = "previous contents";
        ASSERT_EQ(1, sut.receiveMsg(received));
        EXPECT_EQ(data, received);
    }
}

}  // namespace

namespace {

// Ids that a long can hold but an int cannot tell apart from others. They
// are written as 64-bit values, so that where long has 32 bits the ones it
// cannot hold are skipped rather than wrapped onto ordinary ids.
class RequestIdBeyondIntTest : public testing::TestWithParam<long long> {
protected:
    RequestIdBeyondIntTest() : sut("") {}
    void SetUp() override
    {
        if (static_cast<long long>(static_cast<long>(GetParam())) != GetParam()) {
            GTEST_SKIP() << "this id does not exist where long is 32 bits";
        }
    }
    long id() const { return static_cast<long>(GetParam()); }
    void add(long requestId)
    {
        CommsChannelDataContainerMessage queued = channeltest::message("odd id", 0, requestId);
        sut.addToMsgQ(queued);
    }

    channeltest::Watchdog watchdog;
    CommsChannel sut;
};

TEST_P(RequestIdBeyondIntTest, WithNoWaiterTheTokenGoesToTheQueueAndAPlainReceiveGetsIt)
{
    add(id());
    EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(sut));
    std::string data;
    ASSERT_EQ(1, sut.receiveMsg(data));
    EXPECT_EQ("odd id", data);
}

TEST_P(RequestIdBeyondIntTest, AWaiterForFiveNeverTakesItsToken)
{
    CommsChannelDataContainerMessage out;
    AsyncCall waiterForFive([&] { return sut.receiveMsg_ByID_Timed(out, 5L, -1); });
    ASSERT_TRUE(cctest::waitUntil([&] { return CommsChannelInspector::hasRequestIdEntry(sut, 5L); },
                                  channeltest::DEADLINE_MS));
    add(id());
    EXPECT_TRUE(waiterForFive.stillBlocked());
    EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(sut));
    add(5L);
    ASSERT_TRUE(waiterForFive.finishedWithin());
    EXPECT_EQ(5L, out.requestId());
}

TEST_P(RequestIdBeyondIntTest, AByIdReceiveForFiveTimesOutAndTheMessageStaysForAPlainReceive)
{
    add(id());
    CommsChannelDataContainerMessage out;
    EXPECT_THROW(sut.receiveMsg_ByID_Timed(out, 5L, 100), CommsException);
    std::string data;
    ASSERT_EQ(1, sut.receiveMsg(data));
    EXPECT_EQ("odd id", data);
}

TEST_P(RequestIdBeyondIntTest, AByIdReceiveForThatVeryIdGetsIt)
{
    // Whether the message comes before or after the registration, the
    // receive gets it and balances its token.
    std::thread late([this] { add(id()); });
    CommsChannelDataContainerMessage out;
    EXPECT_EQ(1, sut.receiveMsg_ByID_Timed(out, id(), 20000));
    EXPECT_EQ(id(), out.requestId());
    late.join();
    // Its token went to the waiter; the queue semaphore holds none.
    EXPECT_EQ(0, CommsChannelInspector::queueSemaphoreCount(sut));
}

INSTANTIATE_TEST_SUITE_P(Ids, RequestIdBeyondIntTest,
                         testing::Values(1LL << 32, (1LL << 32) + 5, -1LL,
                                         static_cast<long long>(std::numeric_limits<long>::max())));

}  // namespace

// --- the inbox's failure paths ------------------------------------------

namespace {

std::vector<std::string> queuedDataOf(CommsChannel& channel)
{
    std::vector<std::string> data;
    for (const CommsChannelDataContainerMessage& queued : CommsChannelInspector::queue(channel)) {
        data.push_back(queued.getData());
    }
    return data;
}

// Throws for every message whose data starts with "throw", lets the rest
// through, and counts its calls.
class ThrowingInterceptor : public CCInterceptorDispatcher {
public:
    int intercept(CCInterceptorContext* context) override
    {
        ++calls;
        CommsChannelDataContainerMessage* seen = context->getParams();
        if (seen != nullptr && seen->getData().compare(0, 5, "throw") == 0) {
            if (seen->getData() == "throw int") {
                throw 42;
            }
            throw std::runtime_error("interceptor failure");
        }
        return 1;
    }
    std::atomic<int> calls{0};
};

const char* const INTERCEPTOR_REPORT = "CommsChannel: the interceptor threw (interceptor failure); the message is dropped\n";

std::size_t occurrences(const std::string& text, const std::string& needle)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++count;
    }
    return count;
}

TEST(ChannelInboxFailureTest, InterceptorThatThrowsDropsTheMessageReportsOnceAndTheInboxGoesOn)
{
    channeltest::Watchdog watchdog;
    ThrowingInterceptor interceptor;
    CommsChannel sut("", &interceptor);
    cctest::StderrRecorder errors;
    CommsChannelDataContainerMessage failing = channeltest::message("throw");
    EXPECT_EQ(1, sut.addToMsgQ(failing));
    errors.restore();

    EXPECT_EQ(1u, occurrences(errors.text(), INTERCEPTOR_REPORT)) << errors.text();
    EXPECT_EQ(0u, CommsChannelInspector::queueLength(sut));
    // Refused, so its token still counts.
    EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(sut));

    CommsChannelDataContainerMessage next = channeltest::message("next");
    EXPECT_EQ(1, sut.addToMsgQ(next));
    // The refused message's token is taken first and finds the next one.
    std::string data;
    ASSERT_EQ(1, sut.receiveMsg(data));
    EXPECT_EQ("next", data);
    EXPECT_EQ(2, interceptor.calls.load());
}

TEST(ChannelInboxFailureTest, InterceptorThrowingSomethingElseThanAnExceptionIsReportedToo)
{
    channeltest::Watchdog watchdog;
    ThrowingInterceptor interceptor;
    CommsChannel sut("", &interceptor);
    cctest::StderrRecorder errors;
    CommsChannelDataContainerMessage failing = channeltest::message("throw int");
    EXPECT_EQ(1, sut.addToMsgQ(failing));
    errors.restore();
    EXPECT_EQ(1u, occurrences(errors.text(),
                              "CommsChannel: the interceptor threw (an exception of unknown type); the message is "
                              "dropped\n"))
        << errors.text();
    EXPECT_EQ(0u, CommsChannelInspector::queueLength(sut));
    EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(sut));
}

TEST(ChannelInboxFailureTest, InterceptorThatThrowsWakesABlockedReceiverWhichReturnsZero)
{
    channeltest::Watchdog watchdog;
    ThrowingInterceptor interceptor;
    CommsChannel sut("", &interceptor);
    CommsChannelDataContainerMessage out;
    out.setData("untouched", 9);
    AsyncCall receive([&] { return sut.receiveMsg(out); });
    ASSERT_TRUE(receive.stillBlocked());

    cctest::StderrRecorder errors;
    CommsChannelDataContainerMessage failing = channeltest::message("throw");
    sut.addToMsgQ(failing);
    ASSERT_TRUE(receive.finishedWithin());
    errors.restore();
    EXPECT_FALSE(receive.threw()) << receive.exceptionText();
    EXPECT_EQ(0, receive.result());
    EXPECT_EQ("untouched", out.getData());
    EXPECT_EQ(1u, occurrences(errors.text(), INTERCEPTOR_REPORT)) << errors.text();

    // The channel goes on working.
    CommsChannelDataContainerMessage next = channeltest::message("next");
    sut.addToMsgQ(next);
    ASSERT_EQ(1, sut.receiveMsg(out));
    EXPECT_EQ("next", out.getData());
}

TEST(ChannelInboxFailureTest, InterceptorThatThrowsWakesTheByIdWaiterWhichWaitsOn)
{
    channeltest::Watchdog watchdog;
    ThrowingInterceptor interceptor;
    CommsChannel sut("", &interceptor);
    CommsChannelDataContainerMessage out;
    AsyncCall receive([&] { return sut.receiveMsg_ByID_Timed(out, 7, -1); });
    ASSERT_TRUE(cctest::waitUntil([&] { return CommsChannelInspector::hasRequestIdEntry(sut, 7); },
                                  channeltest::DEADLINE_MS));
    cctest::StderrRecorder errors;
    CommsChannelDataContainerMessage failing = channeltest::message("throw", 0, 7);
    sut.addToMsgQ(failing);
    EXPECT_TRUE(receive.stillBlocked());
    errors.restore();
    EXPECT_EQ(0, CommsChannelInspector::queueSemaphoreCount(sut));

    CommsChannelDataContainerMessage answer = channeltest::message("the answer", 0, 7);
    sut.addToMsgQ(answer);
    ASSERT_TRUE(receive.finishedWithin());
    EXPECT_EQ(1, receive.result());
    EXPECT_EQ("the answer", out.getData());
}

TEST(ChannelInboxFailureTest, DeliveriesIntoAClosedInboxAreDroppedWithoutTheInterceptor)
{
    channeltest::Watchdog watchdog;
    RecordingInterceptor interceptor;
    CommsChannel sut("", &interceptor);
    CommsChannelDataContainerMessage before = channeltest::message("before");
    sut.addToMsgQ(before);
    ASSERT_EQ(1u, interceptor.seenData().size());

    sut.inbox().close();

    CommsChannelDataContainerMessage copied = channeltest::message("copied");
    EXPECT_EQ(1, sut.inbox().deliver(copied));
    bool destroyed = false;
    EXPECT_EQ(1, sut.inbox().deliver(new TrackedMessage(&destroyed)));
    EXPECT_TRUE(destroyed) << "an adopted message dropped by a closed inbox is freed";
    CommsChannelDataContainerMessage viaChannel = channeltest::message("via channel");
    EXPECT_EQ(1, sut.addToMsgQ(viaChannel));

    EXPECT_EQ(std::vector<std::string>{"before"}, interceptor.seenData());
    EXPECT_EQ(std::vector<std::string>{"before"}, queuedDataOf(sut));
    // No token for what was dropped: only the message queued before.
    EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(sut));
    EXPECT_EQ("copied", copied.getData());
}

TEST(ChannelInboxFailureTest, CheckThatThrowsEndsATakeFrontAndLeavesTheInboxUsable)
{
    channeltest::Watchdog watchdog;
    CommsChannel sut("");
    std::atomic<int> checks{0};
    const ChannelInbox::Check check = [&checks] {
        if (++checks == 2) {
            throw std::runtime_error("check says stop");
        }
    };
    CommsChannelDataContainerMessage out;
    const long long start = cctest::nowMs();
    try {
        sut.inbox().takeFront(-1, &out, nullptr, &check);
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ("check says stop", e.what());
    }
    EXPECT_EQ(2, checks.load());
    EXPECT_LT(cctest::nowMs() - start, 10000);
    EXPECT_EQ(0, CommsChannelInspector::queueSemaphoreCount(sut));

    CommsChannelDataContainerMessage queued = channeltest::message("after");
    sut.addToMsgQ(queued);
    // A check that passes: the token is there, the message is taken.
    std::string data;
    const ChannelInbox::Check quiet = [] {};
    EXPECT_EQ(1, sut.inbox().takeFront(1000, nullptr, &data, &quiet));
    EXPECT_EQ("after", data);
}

TEST(ChannelInboxFailureTest, CheckThatThrowsEndsATakeByIdAndTakesItsRegistrationAway)
{
    channeltest::Watchdog watchdog;
    CommsChannel sut("");
    const ChannelInbox::Check check = [] { throw std::runtime_error("peer gone"); };
    CommsChannelDataContainerMessage out;
    EXPECT_THROW(sut.inbox().takeById(out, 7, -1, &check), std::runtime_error);
    EXPECT_FALSE(CommsChannelInspector::hasRequestIdEntry(sut, 7));
    // A later answer for 7 goes to the general receivers.
    CommsChannelDataContainerMessage answer = channeltest::message("late", 0, 7);
    sut.addToMsgQ(answer);
    EXPECT_EQ(1, CommsChannelInspector::queueSemaphoreCount(sut));
}

}  // namespace
