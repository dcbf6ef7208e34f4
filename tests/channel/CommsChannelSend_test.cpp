// The send operations: refusals, the message they build, and delivery to a
// channel of this process, to another process's port and to an unknown name.
// A scripted resolver answers the locator, so resolution never waits long.
#include "CCInterceptorDispatcher.h"
#include "CommsChannel.h"
#include "ChannelTestHelpers.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelMessageCreator.h"
#include "FakeResolver.h"
#include "WhiteBoxAccess.h"
#include "TestUtil.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using channeltest::AsyncCall;
using channeltest::RecordingInterceptor;

std::vector<std::string> portRequestNames(cctest::FakeResolver& resolver)
{
    std::vector<std::string> names;
    for (const cctest::FakeResolver::Received& request : resolver.receivedOfType(COMMS_MSG_PORT_REQUEST)) {
        names.push_back(request.channel);
    }
    return names;
}

// Decodes one datagram as a data message (null when it is not one).
std::unique_ptr<CommsChannelDataContainerMessage> decodeData(const std::string& datagram)
{
    CommsChannelMessageCreator creator;
    std::unique_ptr<CommsChannelMessage> decoded(
        creator.decodeMessage(datagram.data(), static_cast<unsigned int>(datagram.size())));
    if (!decoded || decoded->type() != COMMS_MSG_DATA_CONTAINER) {
        return nullptr;
    }
    return std::unique_ptr<CommsChannelDataContainerMessage>(
        static_cast<CommsChannelDataContainerMessage*>(decoded.release()));
}

class CommsChannelSendTest : public testing::Test {
protected:
    CommsChannelSendTest() : sut("sender") {}
    void SetUp() override { ASSERT_TRUE(fakeResolver.ok()); }

    // Runs a send on a thread of its own so that a send that blocks fails
    // the test instead of hanging it.
    int sendWithDeadline(const std::function<int()>& send)
    {
        AsyncCall call(send);
        if (!call.finishedWithin(60000)) {
            ADD_FAILURE() << "send did not return";
            std::abort();
        }
        return call.result();
    }
    std::string receiveNow(CommsChannel& channel)
    {
        CommsChannelDataContainerMessage out;
        try {
            if (channel.receiveMsg_ByID_Timed(out, 0, 0) != 1) {
                return "<nothing>";
            }
        } catch (const CommsException&) {
            return "<nothing queued>";
        }
        return out.getData();
    }

    channeltest::Watchdog watchdog;
    cctest::FakeResolver fakeResolver;
    CommsChannel sut;
};

TEST(CommsChannelAnonymousSend, AnonymousChannelCannotSendAndNeverCreatesTheLocator)
{
    channeltest::Watchdog watchdog;
    cctest::FakeResolver fakeResolver;
    ASSERT_TRUE(fakeResolver.ok());
    CommsChannel sut("");
    char buffer[] = "abc";
    CommsChannelDataContainerMessage prepared = channeltest::message("prepared");
    prepared.setChannel("anywhere");
    prepared.setSourceChannel("original");

    EXPECT_EQ(0, sut.sendMsg("anywhere", std::string("text")));
    EXPECT_EQ(0, sut.sendMsg("anywhere", buffer, 3));
    EXPECT_EQ(0, sut.sendMsg(prepared));

    EXPECT_EQ("original", prepared.sourceChannel());
    EXPECT_EQ("anywhere", prepared.channel());
    // No locator was made: a new one would register at the resolver.
    EXPECT_FALSE(cctest::waitUntil([&] { return !fakeResolver.received().empty(); }, channeltest::STILL_BLOCKED_MS));
}

// The refusals of the two overloads that take data.
struct RefusedSend {
    const char* name;
    std::function<int(CommsChannel&)> call;
};

std::ostream& operator<<(std::ostream& out, const RefusedSend& send) { return out << send.name; }

char someBytes[] = "bytes";

const RefusedSend REFUSED_SENDS[] = {
    {"EmptyString", [](CommsChannel& channel) { return channel.sendMsg("sender", std::string()); }},
    {"EmptyStringLiteral", [](CommsChannel& channel) { return channel.sendMsg("sender", std::string("")); }},
    {"ZeroLength", [](CommsChannel& channel) { return channel.sendMsg("sender", someBytes, 0); }},
    {"NegativeLength", [](CommsChannel& channel) { return channel.sendMsg("sender", someBytes, -5); }},
    {"NullBuffer", [](CommsChannel& channel) { return channel.sendMsg("sender", nullptr, 5); }},
};

class RefusedSendTest : public CommsChannelSendTest, public testing::WithParamInterface<RefusedSend> {};

TEST_P(RefusedSendTest, ReturnsZeroAndSendsNothing)
{
    EXPECT_EQ(0, sendWithDeadline([&] { return GetParam().call(sut); }));
    EXPECT_TRUE(sut.isQEmpty());
    EXPECT_TRUE(portRequestNames(fakeResolver).empty());
}

INSTANTIATE_TEST_SUITE_P(EmptyData, RefusedSendTest, testing::ValuesIn(REFUSED_SENDS),
                         [](const testing::TestParamInfo<RefusedSend>& info) { return info.param.name; });

TEST_F(CommsChannelSendTest, PreparedMessageIsSentWithTheSendersNameAsSourceAndKeepsIt)
{
    CommsChannel receiver("receiver");
    CommsChannelDataContainerMessage prepared = channeltest::message("hello");
    prepared.setChannel("receiver");
    prepared.setSourceChannel("someone else");

    EXPECT_EQ(1, sendWithDeadline([&] { return sut.sendMsg(prepared); }));

    EXPECT_EQ("sender", prepared.sourceChannel());
    CommsChannelDataContainerMessage received;
    ASSERT_EQ(1, receiver.receiveMsg_ByID_Timed(received, 0, 0));
    EXPECT_EQ("sender", received.sourceChannel());
    EXPECT_EQ("hello", received.getData());
}

TEST_F(CommsChannelSendTest, PreparedMessageWithoutDataIsSentAllTheSame)
{
    CommsChannel receiver("receiver");
    CommsChannelDataContainerMessage prepared;
    prepared.setChannel("receiver");

    EXPECT_EQ(1, sendWithDeadline([&] { return sut.sendMsg(prepared); }));

    CommsChannelDataContainerMessage received;
    ASSERT_EQ(1, receiver.receiveMsg_ByID_Timed(received, 0, 0));
    EXPECT_EQ(0, received.getDataLength());
}

TEST_F(CommsChannelSendTest, PreparedMessageKeepsEveryFieldTheCallerSet)
{
    CommsChannel receiver("receiver");
    CommsChannelDataContainerMessage prepared = channeltest::message("data", 2, 0);
    prepared.setChannel("receiver");
    prepared.setCallbackChannel("callback");
    prepared.setProtocol("protocol");
    prepared.setInterface("eth0");
    prepared.setRemoteContext("context");

    EXPECT_EQ(1, sendWithDeadline([&] { return sut.sendMsg(prepared); }));

    CommsChannelDataContainerMessage received;
    ASSERT_EQ(1, receiver.receiveMsg_ByID_Timed(received, 0, 0));
    EXPECT_EQ("receiver", received.channel());
    EXPECT_EQ("callback", received.callbackChannel());
    EXPECT_EQ("protocol", received.protocol());
    EXPECT_EQ("eth0", received.interface());
    EXPECT_EQ("context", received.remoteContext());
    EXPECT_EQ(2, received.msgType());
}

TEST_F(CommsChannelSendTest, ChannelCanSendToItsOwnName)
{
    EXPECT_EQ(1, sendWithDeadline([&] { return sut.sendMsg("sender", std::string("to myself")); }));
    CommsChannelDataContainerMessage received;
    ASSERT_EQ(1, sut.receiveMsg_ByID_Timed(received, 0, 0));
    EXPECT_EQ("to myself", received.getData());
    EXPECT_EQ("sender", received.sourceChannel());
    EXPECT_EQ("sender", received.channel());
}

TEST_F(CommsChannelSendTest, BuiltMessageCarriesOnlyDestinationDataAndSource)
{
    CommsChannel receiver("receiver");
    ASSERT_EQ(1, sendWithDeadline([&] { return sut.sendMsg("receiver", std::string("payload")); }));
    CommsChannelDataContainerMessage received;
    ASSERT_EQ(1, receiver.receiveMsg_ByID_Timed(received, 0, 0));

    CommsChannelDataContainerMessage defaults;
    EXPECT_EQ("receiver", received.channel());
    EXPECT_EQ("sender", received.sourceChannel());
    EXPECT_EQ("payload", received.getData());
    EXPECT_EQ(defaults.callbackChannel(), received.callbackChannel());
    EXPECT_EQ(defaults.protocol(), received.protocol());
    EXPECT_EQ(defaults.interface(), received.interface());
    EXPECT_EQ(defaults.remoteContext(), received.remoteContext());
    EXPECT_EQ(defaults.requestId(), received.requestId());
    EXPECT_EQ(defaults.msgType(), received.msgType());
}

// Each overload, sending "payload" to the channel named "receiver".
struct SendOverload {
    const char* name;
    std::function<int(CommsChannel&)> call;
};

std::ostream& operator<<(std::ostream& out, const SendOverload& overload) { return out << overload.name; }

char payloadBytes[] = "payload";

const SendOverload SEND_OVERLOADS[] = {
    {"String", [](CommsChannel& channel) { return channel.sendMsg("receiver", std::string("payload")); }},
    {"Buffer", [](CommsChannel& channel) { return channel.sendMsg("receiver", payloadBytes, 7); }},
    {"Message",
     [](CommsChannel& channel) {
         CommsChannelDataContainerMessage prepared = channeltest::message("payload");
         prepared.setChannel("receiver");
         return channel.sendMsg(prepared);
     }},
};

class SendOverloadTest : public CommsChannelSendTest, public testing::WithParamInterface<SendOverload> {};

TEST_P(SendOverloadTest, SendToAChannelOfThisProcessIsQueuedBeforeSendMsgReturns)
{
    CommsChannel receiver("receiver");
    EXPECT_EQ(1, sendWithDeadline([&] { return GetParam().call(sut); }));
    // No other thread is needed: the message and its token are there.
    EXPECT_EQ("payload", receiveNow(receiver));
    EXPECT_TRUE(portRequestNames(fakeResolver).empty());
}

TEST_P(SendOverloadTest, SendToAnotherProcessLeavesFromTheSendersOwnPort)
{
    cctest::UdpSocket otherProcess;
    ASSERT_TRUE(otherProcess.ok());
    fakeResolver.setPort("receiver", otherProcess.port());

    EXPECT_EQ(1, sendWithDeadline([&] { return GetParam().call(sut); }));

    std::string datagram;
    int sourcePort = 0;
    ASSERT_TRUE(otherProcess.receive(datagram, channeltest::DEADLINE_MS, &sourcePort));
    EXPECT_EQ(sut.port(), sourcePort);
    std::unique_ptr<CommsChannelDataContainerMessage> received = decodeData(datagram);
    ASSERT_NE(nullptr, received);
    EXPECT_EQ("receiver", received->channel());
    EXPECT_EQ("sender", received->sourceChannel());
    EXPECT_EQ("payload", received->getData());
}

TEST_P(SendOverloadTest, SendToAnUnknownNameReturnsZeroAfterTheNullDispatchersLine)
{
    testing::internal::CaptureStdout();
    const int result = sendWithDeadline([&] { return GetParam().call(sut); });
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(0, result);
    EXPECT_EQ("CCNullDispatcher::sendMsg(), src_channel=sender, dst_channel=receiver, callback_channel=, "
              "data=payload\n",
              printed);
    EXPECT_EQ(std::vector<std::string>{"receiver"}, portRequestNames(fakeResolver));
}

INSTANTIATE_TEST_SUITE_P(EveryOverload, SendOverloadTest, testing::ValuesIn(SEND_OVERLOADS),
                         [](const testing::TestParamInfo<SendOverload>& info) { return info.param.name; });

TEST_F(CommsChannelSendTest, UnknownNameLineNamesTheCallbackChannel)
{
    CommsChannelDataContainerMessage prepared = channeltest::message("question");
    prepared.setChannel("nobody");
    prepared.setCallbackChannel("reply-here");
    testing::internal::CaptureStdout();
    const int result = sendWithDeadline([&] { return sut.sendMsg(prepared); });
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(0, result);
    EXPECT_EQ("CCNullDispatcher::sendMsg(), src_channel=sender, dst_channel=nobody, callback_channel=reply-here, "
              "data=question\n",
              printed);
}

TEST_F(CommsChannelSendTest, EmptyDestinationIsResolvedLikeAnyNameAndEndsAsUnknown)
{
    testing::internal::CaptureStdout();
    const int result = sendWithDeadline([&] { return sut.sendMsg("", std::string("hello")); });
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(0, result);
    EXPECT_EQ("CCNullDispatcher::sendMsg(), src_channel=sender, dst_channel=, callback_channel=, data=hello\n",
              printed);
    EXPECT_EQ(std::vector<std::string>{""}, portRequestNames(fakeResolver));
}

TEST_F(CommsChannelSendTest, EmptyDestinationGoesWhereTheResolverSays)
{
    cctest::UdpSocket otherProcess;
    ASSERT_TRUE(otherProcess.ok());
    fakeResolver.setPort("", otherProcess.port());
    EXPECT_EQ(1, sendWithDeadline([&] { return sut.sendMsg("", std::string("hello")); }));
    std::string datagram;
    ASSERT_TRUE(otherProcess.receive(datagram, channeltest::DEADLINE_MS));
    std::unique_ptr<CommsChannelDataContainerMessage> received = decodeData(datagram);
    ASSERT_NE(nullptr, received);
    EXPECT_EQ("", received->channel());
    EXPECT_EQ("hello", received->getData());
}

TEST_F(CommsChannelSendTest, SendToAnotherProcessFromAChannelWithoutSocketReturnsZero)
{
    cctest::UdpSocket otherProcess;
    fakeResolver.setPort("receiver", otherProcess.port());
    ChannelWithReportedDescriptor withoutSocket("without socket");
    withoutSocket.reportDescriptor(0);
    const int result = sendWithDeadline([&] { return withoutSocket.sendMsg("receiver", std::string("payload")); });
    withoutSocket.reportOwnDescriptor();
    EXPECT_EQ(0, result);
    std::string datagram;
    EXPECT_FALSE(otherProcess.receive(datagram, channeltest::STILL_BLOCKED_MS));
}

TEST_F(CommsChannelSendTest, DestinationsInterceptorActsInsideSendMsgAndADropStillCountsAsSent)
{
    RecordingInterceptor destinationInterceptor;
    CommsChannel receiver("receiver", &destinationInterceptor);
    EXPECT_EQ(1, sendWithDeadline([&] { return sut.sendMsg("receiver", std::string("drop this")); }));
    EXPECT_EQ(std::vector<std::string>{"drop this"}, destinationInterceptor.seenData());
    EXPECT_TRUE(receiver.isQEmpty());
}

TEST_F(CommsChannelSendTest, SendersOwnInterceptorIsNotConsulted)
{
    RecordingInterceptor sendersInterceptor;
    CommsChannel interceptedSender("intercepted sender", &sendersInterceptor);
    CommsChannel receiver("receiver");
    EXPECT_EQ(1, sendWithDeadline([&] { return interceptedSender.sendMsg("receiver", std::string("drop?")); }));
    EXPECT_TRUE(sendersInterceptor.seenData().empty());
    EXPECT_EQ("drop?", receiveNow(receiver));
}

TEST_F(CommsChannelSendTest, ConsecutiveSendsOfOneThreadEachCarryOnlyTheirOwnFields)
{
    // The sends of one thread build their messages in the same buffers:
    // nothing of one send may show in the next.
    CommsChannel receiver("receiver");
    CommsChannel other("other with a longer name");
    const std::string longData(5000, 'x');
    ASSERT_EQ(1, sut.sendMsg("receiver", longData));
    ASSERT_EQ(1, sut.sendMsg("other with a longer name", std::string("ab")));
    char buffer[] = "xyz";
    ASSERT_EQ(1, sut.sendMsg("receiver", buffer, 3));

    CommsChannelDataContainerMessage defaults;
    for (const char* expected : {"long", "xyz"}) {
        CommsChannelDataContainerMessage received;
        ASSERT_EQ(1, receiver.receiveMsg_ByID_Timed(received, 0, 0));
        EXPECT_EQ(std::string(expected) == "long" ? longData : std::string(expected), received.getData());
        EXPECT_EQ("receiver", received.channel());
        EXPECT_EQ("sender", received.sourceChannel());
        EXPECT_EQ(defaults.callbackChannel(), received.callbackChannel());
        EXPECT_EQ(defaults.requestId(), received.requestId());
    }
    CommsChannelDataContainerMessage received;
    ASSERT_EQ(1, other.receiveMsg_ByID_Timed(received, 0, 0));
    EXPECT_EQ("ab", received.getData());
    EXPECT_EQ("other with a longer name", received.channel());
}

// On its first message, sends one message of its own from forwarder to
// "second", on the thread that is queuing into its channel.
class ForwardingInterceptor : public CCInterceptorDispatcher {
public:
    int intercept(CCInterceptorContext* /*context*/) override
    {
        if (forwarder != nullptr && result == -1) {
            result = forwarder->sendMsg("second", std::string("inner, longer than the outer data"));
        }
        return 1;
    }

    CommsChannel* forwarder = nullptr;
    int result = -1;
};

TEST_F(CommsChannelSendTest, SendMadeByAnInterceptorInsideASendLeavesBothMessagesIntact)
{
    ForwardingInterceptor interceptor;
    CommsChannel first("first", &interceptor);
    CommsChannel second("second");
    CommsChannel forwarder("forwarder");
    interceptor.forwarder = &forwarder;
    ASSERT_EQ(1, sut.sendMsg("first", std::string("outer")));
    EXPECT_EQ(1, interceptor.result);
    ASSERT_EQ(1, sut.sendMsg("first", std::string("outer again")));

    CommsChannelDataContainerMessage outer;
    ASSERT_EQ(1, first.receiveMsg_ByID_Timed(outer, 0, 0));
    EXPECT_EQ("outer", outer.getData());
    EXPECT_EQ("first", outer.channel());
    EXPECT_EQ("sender", outer.sourceChannel());
    ASSERT_EQ(1, first.receiveMsg_ByID_Timed(outer, 0, 0));
    EXPECT_EQ("outer again", outer.getData());
    CommsChannelDataContainerMessage inner;
    ASSERT_EQ(1, second.receiveMsg_ByID_Timed(inner, 0, 0));
    EXPECT_EQ("inner, longer than the outer data", inner.getData());
    EXPECT_EQ("second", inner.channel());
    EXPECT_EQ("forwarder", inner.sourceChannel());
}

TEST_F(CommsChannelSendTest, CallersBufferIsNeitherChangedNorKept)
{
    CommsChannel receiver("receiver");
    char buffer[] = "original";
    EXPECT_EQ(1, sendWithDeadline([&] { return sut.sendMsg("receiver", buffer, 8); }));
    std::strcpy(buffer, "changed!");
    EXPECT_EQ("original", receiveNow(receiver));
}

}  // namespace
