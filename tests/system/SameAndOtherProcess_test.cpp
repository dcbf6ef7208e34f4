// Sending to a channel of this process and to a channel of another process
// follow one contract: the same calls, the same results, the same message at
// the destination. Every test here runs twice, once with the destination in
// this process and once with it in a child.
#include "ChildProcess.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelLocator.h"
#include "WhiteBoxAccess.h"
#include "ResolverProcess.h"
#include "SystemPeer.h"
#include "TestUtil.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using systest::LINE_TIMEOUT_MS;

// The destination channel "sink", wherever it lives.
class Destination {
public:
    virtual ~Destination() {}
    // describe() lines of the next n messages ("TIMEOUT" for a missing one).
    virtual std::vector<std::string> receive(int n) = 0;
    virtual bool waitQueued(int n) = 0;
    // Answers the next n requests (reply to the callback channel, same id
    // and data) in the background.
    virtual void startEcho(int n) = 0;
    virtual bool echoFinished() = 0;
    // Destroys the channel.
    virtual void close() = 0;
};

class InThisProcess : public Destination {
public:
    InThisProcess() : m_channel(new CommsChannel("sink")), m_echoed(false) {}
    ~InThisProcess() override
    {
        if (m_echo.joinable()) {
            m_echo.join();
        }
    }
    std::vector<std::string> receive(int n) override
    {
        return systest::receiveDescribed(*m_channel, n, systest::PEER_RECEIVE_TIMEOUT_MS);
    }
    bool waitQueued(int n) override
    {
        return systest::waitQueued(*m_channel, static_cast<std::size_t>(n), LINE_TIMEOUT_MS);
    }
    void startEcho(int n) override
    {
        m_echo = std::thread([this, n] {
            for (int i = 0; i < n; ++i) {
                CommsChannelDataContainerMessage request;
                try {
                    if (m_channel->receiveMsg_ByID_Timed(request, 0, systest::PEER_RECEIVE_TIMEOUT_MS) != 1) {
                        return;
                    }
                } catch (...) {
                    return;
                }
                CommsChannelDataContainerMessage reply;
                reply.setChannel(request.callbackChannel());
                reply.setRequestId(request.requestId());
                const std::string data = request.getData();
                reply.setData(data.data(), static_cast<int>(data.size()));
                m_channel->sendMsg(reply);
            }
            m_echoed = true;
        });
    }
    bool echoFinished() override
    {
        if (m_echo.joinable()) {
            m_echo.join();
        }
        return m_echoed;
    }
    void close() override { m_channel.reset(); }

private:
    std::unique_ptr<CommsChannel> m_channel;
    std::thread m_echo;
    std::atomic<bool> m_echoed;
};

class InAnotherProcess : public Destination {
public:
    InAnotherProcess() : m_peer("peer", {"sink"}), m_echoCount(0)
    {
        std::string port;
        EXPECT_TRUE(m_peer.waitForPrefix("READY ", &port, LINE_TIMEOUT_MS));
    }
    ~InAnotherProcess() override
    {
        m_peer.writeLine("QUIT");
        EXPECT_TRUE(m_peer.waitForLine("BYE", LINE_TIMEOUT_MS));
        EXPECT_EQ(0, m_peer.wait(LINE_TIMEOUT_MS));
    }
    std::vector<std::string> receive(int n) override
    {
        m_peer.writeLine("RECV sink " + std::to_string(n));
        std::vector<std::string> lines;
        std::string line;
        for (int i = 0; i < n && m_peer.readLine(line, LINE_TIMEOUT_MS); ++i) {
            lines.push_back(line);
            if (line == "TIMEOUT") {
                break;
            }
        }
        return lines;
    }
    bool waitQueued(int n) override
    {
        m_peer.writeLine("WAITQ sink " + std::to_string(n));
        return m_peer.waitForLine("QUEUED " + std::to_string(n), LINE_TIMEOUT_MS);
    }
    void startEcho(int n) override
    {
        m_echoCount = n;
        m_peer.writeLine("ECHO sink " + std::to_string(n));
    }
    bool echoFinished() override
    {
        std::string id;
        for (int i = 0; i < m_echoCount; ++i) {
            if (!m_peer.waitForPrefix("ECHOED ", &id, LINE_TIMEOUT_MS)) {
                return false;
            }
        }
        return true;
    }
    void close() override
    {
        m_peer.writeLine("CLOSE sink");
        EXPECT_TRUE(m_peer.waitForLine("CLOSED sink", LINE_TIMEOUT_MS));
    }

private:
    cctest::ChildProcess m_peer;
    int m_echoCount;
};

enum class Where { ThisProcess, AnotherProcess };

class SameAndOtherProcessTest : public ::testing::TestWithParam<Where> {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(resolver.started()) << "commschannel-resolver did not start";
        if (GetParam() == Where::ThisProcess) {
            sink.reset(new InThisProcess());
        } else {
            sink.reset(new InAnotherProcess());
        }
        source.reset(new CommsChannel("source"));
    }
    void TearDown() override
    {
        source.reset();
        sink.reset();
    }

    // The describe() line of a message as "sink" receives it from "source".
    static std::string arriving(const CommsChannelDataContainerMessage& sent, VireoThreadPriority priority)
    {
        CommsChannelDataContainerMessage expected(sent);
        expected.setChannel("sink");
        expected.setSourceChannel("source");
        expected.setPriority(priority);
        return systest::describe(expected);
    }
    static std::string arrivingData(const std::string& data)
    {
        CommsChannelDataContainerMessage sent;
        sent.setData(data.data(), static_cast<int>(data.size()));
        return arriving(sent, VIREO_PRIORITY_NORMAL);
    }

    cctest::ResolverProcess resolver;
    std::unique_ptr<Destination> sink;
    std::unique_ptr<CommsChannel> source;
};

TEST_P(SameAndOtherProcessTest, StringSendReturnsOneAndArrivesWithSenderAsSource)
{
    const std::string data = "same contract";
    ASSERT_EQ(1, source->sendMsg("sink", data));
    EXPECT_EQ(std::vector<std::string>{arrivingData(data)}, sink->receive(1));
}

TEST_P(SameAndOtherProcessTest, BufferSendArrivesByteForByte)
{
    std::string data = systest::patternData(70000, 21);
    ASSERT_EQ(1, source->sendMsg("sink", &data[0], static_cast<int>(data.size())));
    EXPECT_EQ(std::vector<std::string>{arrivingData(data)}, sink->receive(1));
}

TEST_P(SameAndOtherProcessTest, MessageSendKeepsFieldsAndGetsSendersNameAsSource)
{
    CommsChannelDataContainerMessage message;
    message.setChannel("sink");
    message.setSourceChannel("someone else");
    message.setCallbackChannel("source");
    message.setProtocol("p");
    message.setInterface("i");
    message.setRemoteContext("rc");
    message.setRequestId(12345);
    message.setMsgType(1);
    message.setPriority(VIREO_PRIORITY_HIGH);
    message.setData("abc", 3);

    ASSERT_EQ(1, source->sendMsg(message));
    EXPECT_EQ("source", message.sourceChannel());
    EXPECT_EQ(std::vector<std::string>{arriving(message, VIREO_PRIORITY_LOW)}, sink->receive(1));
}

TEST_P(SameAndOtherProcessTest, MessagesOfOneTypeArriveOnceInSendingOrder)
{
    std::vector<std::string> expected;
    for (int i = 0; i < 20; ++i) {
        const std::string data = "message " + std::to_string(i);
        ASSERT_EQ(1, source->sendMsg("sink", data));
        expected.push_back(arrivingData(data));
    }
    ASSERT_TRUE(sink->waitQueued(20));
    EXPECT_EQ(expected, sink->receive(20));
}

TEST_P(SameAndOtherProcessTest, QueuedMessagesAreReceivedByPriorityOfTheirType)
{
    std::vector<std::string> high;
    std::vector<std::string> normal;
    std::vector<std::string> low;
    for (int round = 0; round < 2; ++round) {
        for (int type : {1, 0, 2}) {
            CommsChannelDataContainerMessage message;
            message.setChannel("sink");
            message.setMsgType(type);
            const std::string data = std::to_string(round) + ":" + std::to_string(type);
            message.setData(data.data(), static_cast<int>(data.size()));
            ASSERT_EQ(1, source->sendMsg(message));
            if (type == 2) {
                high.push_back(arriving(message, VIREO_PRIORITY_HIGH));
            } else if (type == 0) {
                normal.push_back(arriving(message, VIREO_PRIORITY_NORMAL));
            } else {
                low.push_back(arriving(message, VIREO_PRIORITY_LOW));
            }
        }
    }
    std::vector<std::string> expected(high);
    expected.insert(expected.end(), normal.begin(), normal.end());
    expected.insert(expected.end(), low.begin(), low.end());

    ASSERT_TRUE(sink->waitQueued(6));
    EXPECT_EQ(expected, sink->receive(6));
}

TEST_P(SameAndOtherProcessTest, ReplyFindsTheWaitingRequesterByItsId)
{
    sink->startEcho(2);
    for (long id : {41L, 42L}) {
        CommsChannelDataContainerMessage request;
        request.setChannel("sink");
        request.setCallbackChannel("source");
        request.setRequestId(id);
        const std::string data = "question " + std::to_string(id);
        request.setData(data.data(), static_cast<int>(data.size()));
        ASSERT_EQ(1, source->sendMsg(request));

        CommsChannelDataContainerMessage reply;
        ASSERT_EQ(1, source->receiveMsg_ByID_Timed(reply, id, LINE_TIMEOUT_MS));
        EXPECT_EQ(id, reply.requestId());
        EXPECT_EQ(data, reply.getData());
        EXPECT_EQ("sink", reply.sourceChannel());
    }
    EXPECT_TRUE(sink->echoFinished());
}

TEST_P(SameAndOtherProcessTest, DestroyedDestinationIsUnknownAndSendReturnsZero)
{
    ASSERT_EQ(1, source->sendMsg("sink", std::string("before")));
    ASSERT_EQ(1U, sink->receive(1).size());

    sink->close();
    // The removal reaches this process's locator through the resolver (also
    // for a channel of this process: the resolver's relay of its
    // registration put it in the remote map, hidden by the local entry
    // until now). A round trip to the resolver comes back only after
    // everything it relayed before.
    CommsChannelLocator::instance()->getDispatcher("no-such-channel");
    ASSERT_FALSE(systest::locatorKnowsRemote("sink"));

    testing::internal::CaptureStdout();
    const int result = source->sendMsg("sink", std::string("after"));
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(0, result);
    EXPECT_EQ(systest::nullDispatcherLine("source", "sink", "", "after"), printed);
}

INSTANTIATE_TEST_SUITE_P(Delivery, SameAndOtherProcessTest,
                         ::testing::Values(Where::ThisProcess, Where::AnotherProcess),
                         [](const ::testing::TestParamInfo<Where>& info) {
                             return std::string(info.param == Where::ThisProcess ? "ToThisProcess"
                                                                                 : "ToAnotherProcess");
                         });

}  // namespace
