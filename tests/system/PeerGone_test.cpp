// receiveReply: a by-id receive that ends with CommsPeerGoneException once
// the replier is gone, and otherwise behaves like receiveMsg_ByID_Timed.
#include "ChildProcess.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsException.h"
#include "CommsPeerGoneException.h"
#include "ResolverProcess.h"
#include "SystemPeer.h"
#include "TestUtil.h"
#include "WhiteBoxAccess.h"

#include <signal.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace {

using systest::LINE_TIMEOUT_MS;
using systest::within;

class PeerGoneTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(resolver.started());
        replier.reset(new cctest::ChildProcess("peer", {"replier"}));
        std::string ready;
        ASSERT_TRUE(replier->waitForPrefix("READY ", &ready, LINE_TIMEOUT_MS)) << "peer did not start";
        caller.reset(new CommsChannel("caller"));
    }
    void TearDown() override
    {
        caller.reset();
        if (replier) {
            replier->sendSignal(SIGKILL);
            replier->wait(LINE_TIMEOUT_MS);
        }
    }
    // Sends a request with requestId to the replier, with the caller as
    // callback channel.
    void sendRequest(long requestId)
    {
        CommsChannelDataContainerMessage request;
        request.setChannel("replier");
        request.setCallbackChannel("caller");
        request.setRequestId(requestId);
        request.setData("question", 8);
        ASSERT_EQ(1, caller->sendMsg(request));
    }
    // Runs receiveReply on a thread of its own and answers what it ended
    // with and how long it took, in ms.
    struct Outcome {
        std::string ended;  // "reply:<data>", "gone:<text>", "timeout:<text>"
        long long tookMs = -1;
    };
    std::thread waitFor(long requestId, int timeout, Outcome& outcome)
    {
        return std::thread([this, requestId, timeout, &outcome] {
            const long long start = cctest::nowMs();
            CommsChannelDataContainerMessage reply;
            try {
                caller->receiveReply(reply, requestId, "replier", timeout);
                outcome.ended = "reply:" + reply.getData();
            } catch (const CommsPeerGoneException& gone) {
                outcome.ended = std::string("gone:") + gone.what();
            } catch (const CommsException& timedOut) {
                outcome.ended = std::string("timeout:") + timedOut.what();
            }
            outcome.tookMs = cctest::nowMs() - start;
        });
    }

    cctest::ResolverProcess resolver;
    std::unique_ptr<cctest::ChildProcess> replier;
    std::unique_ptr<CommsChannel> caller;
};

TEST_F(PeerGoneTest, ReplierKilledWhileTheCallerWaitsWithoutLimitEndsTheWaitWithPeerGone)
{
    sendRequest(41);
    replier->writeLine("COLLECT replier 1");
    ASSERT_TRUE(replier->waitForLine("COLLECTED", LINE_TIMEOUT_MS));
    Outcome outcome;
    std::thread waiting = waitFor(41, -1, outcome);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const long long killedAt = cctest::nowMs();
    replier->sendSignal(SIGKILL);
    EXPECT_EQ(128 + SIGKILL, replier->wait(LINE_TIMEOUT_MS));
    replier.reset();
    // The watchdog of this wait is the test's own time-out: without the
    // check, receiveReply would wait for ever.
    waiting.join();
    EXPECT_EQ(0u, outcome.ended.find("gone:")) << outcome.ended;
    EXPECT_NE(std::string::npos, outcome.ended.find("\"replier\"")) << outcome.ended;
    EXPECT_NE(std::string::npos, outcome.ended.find("request id = 41")) << outcome.ended;
    EXPECT_LT(cctest::nowMs() - killedAt, within(2000));
}

TEST_F(PeerGoneTest, ReplierKilledWhileTheCallerWaitsWithATimeOutEndsBeforeTheTimeOut)
{
    sendRequest(42);
    replier->writeLine("COLLECT replier 1");
    ASSERT_TRUE(replier->waitForLine("COLLECTED", LINE_TIMEOUT_MS));
    Outcome outcome;
    std::thread waiting = waitFor(42, 60000, outcome);
    const long long killedAt = cctest::nowMs();
    replier->sendSignal(SIGKILL);
    EXPECT_EQ(128 + SIGKILL, replier->wait(LINE_TIMEOUT_MS));
    replier.reset();
    waiting.join();
    EXPECT_EQ(0u, outcome.ended.find("gone:")) << outcome.ended;
    EXPECT_LT(cctest::nowMs() - killedAt, within(2000));
}

TEST_F(PeerGoneTest, LiveReplierAnswersLikeAByIdReceive)
{
    sendRequest(43);
    replier->writeLine("ECHO replier 1");
    Outcome outcome;
    std::thread waiting = waitFor(43, LINE_TIMEOUT_MS, outcome);
    waiting.join();
    EXPECT_EQ("reply:question", outcome.ended);
    EXPECT_TRUE(replier->waitForLine("ECHOED 43", LINE_TIMEOUT_MS));
}

TEST_F(PeerGoneTest, LiveButSilentReplierTimesOutWithTheUsualText)
{
    sendRequest(44);
    Outcome outcome;
    std::thread waiting = waitFor(44, 400, outcome);
    waiting.join();
    EXPECT_EQ("timeout:CommsChannel 'receive' timed out, timeout duration = 400", outcome.ended);
    // Nothing of the wait is left behind.
    EXPECT_FALSE(CommsChannelInspector::hasRequestIdEntry(*caller, 44));
}

TEST_F(PeerGoneTest, ReplierInThisProcessDestroyedWhileTheCallerWaitsCountsAsGone)
{
    std::unique_ptr<CommsChannel> local(new CommsChannel("local-replier"));
    Outcome outcome;
    std::thread waiting([this, &outcome] {
        const long long start = cctest::nowMs();
        CommsChannelDataContainerMessage reply;
        try {
            caller->receiveReply(reply, 45, "local-replier", -1);
            outcome.ended = "reply";
        } catch (const CommsPeerGoneException& gone) {
            outcome.ended = std::string("gone:") + gone.what();
        }
        outcome.tookMs = cctest::nowMs() - start;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const long long destroyedAt = cctest::nowMs();
    local.reset();
    waiting.join();
    EXPECT_EQ(0u, outcome.ended.find("gone:")) << outcome.ended;
    EXPECT_LT(cctest::nowMs() - destroyedAt, within(2000));
}

TEST_F(PeerGoneTest, ReplyAlreadyQueuedIsReturnedEvenIfTheReplierIsGoneBy)
{
    sendRequest(46);
    replier->writeLine("ECHO replier 1");
    ASSERT_TRUE(replier->waitForLine("ECHOED 46", LINE_TIMEOUT_MS));
    ASSERT_TRUE(cctest::waitUntil([this] { return !caller->isQEmpty(); }, LINE_TIMEOUT_MS));
    replier->sendSignal(SIGKILL);
    replier->wait(LINE_TIMEOUT_MS);
    replier.reset();
    CommsChannelDataContainerMessage reply;
    EXPECT_EQ(1, caller->receiveReply(reply, 46, "replier", 1000));
    EXPECT_EQ("question", reply.getData());
}

}  // namespace
