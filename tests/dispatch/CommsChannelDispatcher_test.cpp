// The four dispatch strategies: straight into a channel of this process, UDP
// datagrams to a loopback port, the other-host placeholder and the null
// strategy for unknown names.
//
// The sender is an unnamed channel, so no locator (and no resolver) is
// involved: the dispatchers are driven directly, and a cctest::UdpSocket
// plays the destination process.
#include "CCInterceptorContext.h"
#include "CCInterceptorDispatcher.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelDispatcher.h"
#include "CommsChannelMessageCreator.h"
#include "WhiteBoxAccess.h"
#include "TestUtil.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

const std::string SENDTO_FAILURE = "CCInterProcDispatcher::sendMsg(CommsChannelMessage& message) sendto";

// Counts how often it is encoded; otherwise an ordinary data message.
class CountingMessage : public CommsChannelDataContainerMessage {
public:
    char* encode(int* length) override
    {
        ++encodeCalls;
        return CommsChannelDataContainerMessage::encode(length);
    }
    int encodeCalls = 0;
};

// Encodes to a valid buffer holding no bytes at all (or a negative count).
class EmptyEncodingMessage : public CommsChannelDataContainerMessage {
public:
    explicit EmptyEncodingMessage(int reportedLength) : m_reportedLength(reportedLength) {}
    char* encode(int* length) override
    {
        ++encodeCalls;
        *length = m_reportedLength;
        return m_buffer;
    }
    int encodeCalls = 0;

private:
    int m_reportedLength;
    char m_buffer[1] = {'x'};
};

// Cannot be encoded.
class UnencodableMessage : public CommsChannelDataContainerMessage {
public:
    char* encode(int* length) override
    {
        *length = 0;
        return nullptr;
    }
};

// Drops every message it sees.
class DroppingInterceptor : public CCInterceptorDispatcher {
public:
    int intercept(CCInterceptorContext* context) override
    {
        ++calls;
        context->setSendFlag(0);
        return 1;
    }
    std::atomic<int> calls{0};
};

std::string dataOf(std::size_t length)
{
    std::string data(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        data[i] = static_cast<char>('a' + i % 26);
    }
    return data;
}

std::string encodingOf(CommsChannelDataContainerMessage& message)
{
    int length = 0;
    const char* encoding = message.encode(&length);
    return encoding != nullptr ? std::string(encoding, static_cast<std::size_t>(length)) : std::string();
}

class CommsChannelDispatcherTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(peer.ok());
        // Room for a whole long encoding before the test reads it.
        const int size = 1 << 20;
        setsockopt(peer.fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }

    void fill(CommsChannelDataContainerMessage& message, const std::string& data)
    {
        message.setChannel("destination");
        message.setSourceChannel("source");
        message.setData(data.data(), static_cast<int>(data.size()));
    }

    // The next datagram at the peer, "" when none comes in time.
    std::string nextDatagram(int timeoutMs = 10000, int* sourcePort = nullptr)
    {
        std::string datagram;
        if (!peer.receive(datagram, timeoutMs, sourcePort)) {
            return std::string();
        }
        return datagram;
    }

    // Decodes a datagram as a data message; null when it is not one.
    std::unique_ptr<CommsChannelDataContainerMessage> decode(const std::string& encoding)
    {
        CommsChannelMessageCreator creator;
        CommsChannelMessage* message =
            creator.decodeMessage(encoding.data(), static_cast<unsigned int>(encoding.size()));
        if (message == nullptr || message->type() != COMMS_MSG_DATA_CONTAINER) {
            delete message;
            return nullptr;
        }
        return std::unique_ptr<CommsChannelDataContainerMessage>(
            static_cast<CommsChannelDataContainerMessage*>(message));
    }

    // Sends a small marker message: the first datagram after it proves
    // what went (or did not go) on the wire before it.
    void sendMarker(CCInterProcDispatcher& sut)
    {
        CommsChannelDataContainerMessage marker;
        fill(marker, "marker");
        ASSERT_EQ(1, sut.sendMsg(&sender, marker));
    }

    CommsChannel sender{""};
    cctest::UdpSocket peer;
};

TEST_F(CommsChannelDispatcherTest, InterProcessMessageArrivesAsOneDatagramFromTheSendersSocket)
{
    CCInterProcDispatcher sut(peer.port());
    CommsChannelDataContainerMessage message;
    fill(message, "hello");
    const std::string expected = encodingOf(message);

    ASSERT_EQ(1, sut.sendMsg(&sender, message));

    int sourcePort = 0;
    EXPECT_EQ(expected, nextDatagram(10000, &sourcePort));
    EXPECT_EQ(sender.port(), sourcePort);
    EXPECT_EQ("hello", message.getData());
}

TEST_F(CommsChannelDispatcherTest, PortIsTakenModulo65536)
{
    CCInterProcDispatcher sut(peer.port() + 65536);
    CommsChannelDataContainerMessage message;
    fill(message, "wrapped");

    ASSERT_EQ(1, sut.sendMsg(&sender, message));

    std::unique_ptr<CommsChannelDataContainerMessage> received = decode(nextDatagram());
    ASSERT_NE(nullptr, received);
    EXPECT_EQ("wrapped", received->getData());
}

TEST_F(CommsChannelDispatcherTest, ZeroEncodedLengthIsReportedAsSentWithNothingOnTheWire)
{
    CCInterProcDispatcher sut(peer.port());
    EmptyEncodingMessage message(0);

    EXPECT_EQ(1, sut.sendMsg(&sender, message));
    EXPECT_EQ(1, message.encodeCalls);

    // UDP carries empty datagrams too: the first one to arrive must be the
    // marker sent afterwards.
    sendMarker(sut);
    std::unique_ptr<CommsChannelDataContainerMessage> first = decode(nextDatagram());
    ASSERT_NE(nullptr, first);
    EXPECT_EQ("marker", first->getData());
}

TEST_F(CommsChannelDispatcherTest, NegativeEncodedLengthIsReportedAsSentWithNothingOnTheWire)
{
    CCInterProcDispatcher sut(peer.port());
    EmptyEncodingMessage message(-5);

    EXPECT_EQ(1, sut.sendMsg(&sender, message));

    sendMarker(sut);
    std::unique_ptr<CommsChannelDataContainerMessage> first = decode(nextDatagram());
    ASSERT_NE(nullptr, first);
    EXPECT_EQ("marker", first->getData());
}

TEST_F(CommsChannelDispatcherTest, UnencodableMessageFailsWithNothingOnTheWire)
{
    CCInterProcDispatcher sut(peer.port());
    UnencodableMessage message;

    EXPECT_EQ(0, sut.sendMsg(&sender, message));

    sendMarker(sut);
    std::unique_ptr<CommsChannelDataContainerMessage> first = decode(nextDatagram());
    ASSERT_NE(nullptr, first);
    EXPECT_EQ("marker", first->getData());
}

TEST_F(CommsChannelDispatcherTest, DataOfExactlyTheFileThresholdStaysInTheEncoding)
{
    CCInterProcDispatcher sut(peer.port());
    const std::string data = dataOf(59750);
    CommsChannelDataContainerMessage message;
    fill(message, data);

    ASSERT_EQ(1, sut.sendMsg(&sender, message));

    EXPECT_FALSE(message.hasDataFile());
    EXPECT_TRUE(cctest::spoolFilesOfThisProcess().empty());
    const std::string datagram = nextDatagram();
    EXPECT_GT(datagram.size(), data.size());
    EXPECT_NE(std::string::npos, datagram.find(data));
    std::unique_ptr<CommsChannelDataContainerMessage> received = decode(datagram);
    ASSERT_NE(nullptr, received);
    EXPECT_EQ(data, received->getData());
}

TEST_F(CommsChannelDispatcherTest, DataOneByteAboveTheFileThresholdTravelsInASpoolFile)
{
    CCInterProcDispatcher sut(peer.port());
    const std::string data = dataOf(59751);
    CommsChannelDataContainerMessage message;
    fill(message, data);

    ASSERT_EQ(1, sut.sendMsg(&sender, message));

    // The file now waits for the reader of the encoding.
    EXPECT_EQ(1u, cctest::spoolFilesOfThisProcess().size());
    const std::string datagram = nextDatagram();
    EXPECT_LT(datagram.size(), 1000u);
    std::unique_ptr<CommsChannelDataContainerMessage> received = decode(datagram);
    ASSERT_NE(nullptr, received);
    EXPECT_EQ(data, received->getData());
    EXPECT_TRUE(cctest::spoolFilesOfThisProcess().empty());
    // The sender's message keeps its data all the same.
    EXPECT_EQ(data, message.getData());
}

TEST_F(CommsChannelDispatcherTest, EncodingOf120001BytesLeavesAsDatagramsOf60000And60000And1)
{
    CCInterProcDispatcher sut(peer.port());
    CommsChannelDataContainerMessage message;
    fill(message, dataOf(1000));
    message.setProtocol(std::string(30000, 'p'));
    message.setInterface(std::string(30000, 'i'));
    const std::size_t withoutContext = encodingOf(message).size();
    ASSERT_LT(withoutContext, 120001u);
    message.setRemoteContext(std::string(120001 - withoutContext, 'r'));
    const std::string expected = encodingOf(message);
    ASSERT_EQ(120001u, expected.size());
    ASSERT_LE(message.getDataLength(), 59750);

    ASSERT_EQ(1, sut.sendMsg(&sender, message));

    std::vector<std::string> pieces;
    for (int i = 0; i < 3; ++i) {
        int sourcePort = 0;
        pieces.push_back(nextDatagram(10000, &sourcePort));
        EXPECT_EQ(sender.port(), sourcePort);
    }
    ASSERT_EQ(60000u, pieces[0].size());
    ASSERT_EQ(60000u, pieces[1].size());
    ASSERT_EQ(1u, pieces[2].size());
    EXPECT_EQ(expected, pieces[0] + pieces[1] + pieces[2]);
    EXPECT_FALSE(peer.receive(pieces[0], 300));
}

TEST_F(CommsChannelDispatcherTest, SenderWithDescriptorZeroFailsWithoutEncodingOrSending)
{
    CCInterProcDispatcher sut(peer.port());
    CountingMessage message;
    fill(message, "never sent");
    ChannelWithReportedDescriptor withoutSocket("");
    withoutSocket.reportDescriptor(0);

    testing::internal::CaptureStderr();
    const int result = sut.sendMsg(&withoutSocket, message);
    const std::string errors = testing::internal::GetCapturedStderr();
    withoutSocket.reportOwnDescriptor();

    EXPECT_EQ(0, result);
    EXPECT_EQ(0, message.encodeCalls);
    EXPECT_EQ("", errors);
    sendMarker(sut);
    std::unique_ptr<CommsChannelDataContainerMessage> first = decode(nextDatagram());
    ASSERT_NE(nullptr, first);
    EXPECT_EQ("marker", first->getData());
}

TEST_F(CommsChannelDispatcherTest, SendtoFailureToPortZeroPrintsItsTextAndFails)
{
    CCInterProcDispatcher sut(0);
    CommsChannelDataContainerMessage message;
    fill(message, "to nowhere");

    testing::internal::CaptureStderr();
    errno = 0;
    const int result = sut.sendMsg(&sender, message);
    const int error = errno;
    const std::string errors = testing::internal::GetCapturedStderr();

    EXPECT_EQ(0, result);
    EXPECT_EQ(SENDTO_FAILURE + ": " + std::strerror(error) + "\n", errors);
    EXPECT_NE(0, error);
}

TEST_F(CommsChannelDispatcherTest, SendtoFailureOnAClosedSocketPrintsItsTextAndFails)
{
    CCInterProcDispatcher sut(peer.port());
    CommsChannelDataContainerMessage message;
    fill(message, "through a closed socket");
    // The channel's own socket is made first; capturing opens a file, so
    // the free number is taken after both.
    ChannelWithReportedDescriptor closedSender("");
    testing::internal::CaptureStderr();
    const int closedDescriptor = cctest::nextFreeDescriptor();
    closedSender.reportDescriptor(closedDescriptor);
    const int result = sut.sendMsg(&closedSender, message);
    const std::string errors = testing::internal::GetCapturedStderr();
    closedSender.reportOwnDescriptor();

    EXPECT_EQ(0, result);
    EXPECT_EQ(SENDTO_FAILURE + ": " + std::strerror(EBADF) + "\n", errors);
}

TEST_F(CommsChannelDispatcherTest, IntraProcessDispatcherQueuesACopyInTheDestination)
{
    CommsChannel destination("");
    CCIntraProcDispatcher sut(&destination);
    CommsChannelDataContainerMessage message;
    fill(message, "straight in");

    EXPECT_EQ(1, sut.sendMsg(&sender, message));

    ASSERT_FALSE(destination.isQEmpty());
    std::string data;
    ASSERT_EQ(1, destination.receiveMsg(data));
    EXPECT_EQ("straight in", data);
    EXPECT_EQ("straight in", message.getData());
    EXPECT_EQ(&destination, sut.destination());
}

TEST_F(CommsChannelDispatcherTest, IntraProcessDispatcherIgnoresTheSender)
{
    CommsChannel destination("");
    CCIntraProcDispatcher sut(&destination);
    CommsChannelDataContainerMessage message;
    fill(message, "no sender needed");

    EXPECT_EQ(1, sut.sendMsg(nullptr, message));

    EXPECT_FALSE(destination.isQEmpty());
}

TEST_F(CommsChannelDispatcherTest, IntraProcessDispatcherWithoutChannelFails)
{
    CCIntraProcDispatcher sut(nullptr);
    CommsChannelDataContainerMessage message;
    fill(message, "lost");

    EXPECT_EQ(0, sut.sendMsg(&sender, message));
}

TEST_F(CommsChannelDispatcherTest, IntraProcessDispatcherReportsSuccessWhenTheInterceptorDropsTheMessage)
{
    DroppingInterceptor interceptor;
    CommsChannel destination("", &interceptor);
    CCIntraProcDispatcher sut(&destination);
    CommsChannelDataContainerMessage message;
    fill(message, "vetoed");

    EXPECT_EQ(1, sut.sendMsg(&sender, message));

    EXPECT_EQ(1, interceptor.calls.load());
    EXPECT_TRUE(destination.isQEmpty());
}

TEST_F(CommsChannelDispatcherTest, DistributedDispatcherAlwaysFailsAndSendsNothing)
{
    CCDistribProcDispatcher sut;
    CommsChannelDataContainerMessage message;
    fill(message, "other host");

    EXPECT_EQ(0, sut.sendMsg(&sender, message));
    EXPECT_EQ(0, sut.sendMsg(nullptr, message));

    CCInterProcDispatcher markerDispatcher(peer.port());
    sendMarker(markerDispatcher);
    std::unique_ptr<CommsChannelDataContainerMessage> first = decode(nextDatagram());
    ASSERT_NE(nullptr, first);
    EXPECT_EQ("marker", first->getData());
}

TEST_F(CommsChannelDispatcherTest, NullDispatcherPrintsExactlyOneLineAndFails)
{
    CCNullDispatcher sut;
    CommsChannelDataContainerMessage message;
    message.setChannel("nobody");
    message.setSourceChannel("client");
    message.setCallbackChannel("replies");
    message.setData("payload", 7);

    testing::internal::CaptureStdout();
    const int result = sut.sendMsg(&sender, message);
    const std::string output = testing::internal::GetCapturedStdout();

    EXPECT_EQ(0, result);
    EXPECT_EQ("CCNullDispatcher::sendMsg(), src_channel=client, dst_channel=nobody, "
              "callback_channel=replies, data=payload\n",
              output);
}

TEST_F(CommsChannelDispatcherTest, NullDispatcherPrintsEmptyFieldsAsEmpty)
{
    CCNullDispatcher sut;
    CommsChannelDataContainerMessage message;

    testing::internal::CaptureStdout();
    const int result = sut.sendMsg(nullptr, message);
    const std::string output = testing::internal::GetCapturedStdout();

    EXPECT_EQ(0, result);
    EXPECT_EQ("CCNullDispatcher::sendMsg(), src_channel=, dst_channel=, callback_channel=, data=\n", output);
}

}  // namespace
