// Faults around the resolver and between processes: no resolver at all, a
// resolver killed and started again, a peer killed while others send to it,
// and stray datagrams from a foreign socket. None of them may crash a
// process or hang a send or a destructor.
#include "ChildProcess.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelMessage.h"
#include "CommsChannelMessageCreator.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsException.h"
#include "LocatorProbe.h"
#include "WhiteBoxAccess.h"
#include "ResolverProcess.h"
#include "SystemPeer.h"
#include "TestUtil.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using systest::LINE_TIMEOUT_MS;
using systest::within;

std::unique_ptr<cctest::ChildProcess> startPeer(const std::vector<std::string>& names, int* port = nullptr)
{
    std::unique_ptr<cctest::ChildProcess> peer(new cctest::ChildProcess("peer", names));
    std::string ready;
    EXPECT_TRUE(peer->waitForPrefix("READY ", &ready, LINE_TIMEOUT_MS)) << "peer did not start";
    if (port != nullptr) {
        *port = std::atoi(ready.c_str());
    }
    return peer;
}

std::string command(cctest::ChildProcess& peer, const std::string& line)
{
    peer.writeLine(line);
    std::string answer;
    EXPECT_TRUE(peer.readLine(answer, LINE_TIMEOUT_MS)) << "no answer to " << line;
    return answer;
}

// The peer is told to quit and must end cleanly, destructors included.
void quitCleanly(cctest::ChildProcess& peer)
{
    peer.writeLine("QUIT");
    EXPECT_TRUE(peer.waitForLine("BYE", LINE_TIMEOUT_MS)) << "the peer's channels did not go";
    EXPECT_EQ(0, peer.wait(LINE_TIMEOUT_MS));
}

// Receives one message on channel within the line deadline.
bool receivesOne(CommsChannel& channel, CommsChannelDataContainerMessage& message)
{
    try {
        return channel.receiveMsg_ByID_Timed(message, 0, LINE_TIMEOUT_MS) == 1;
    } catch (const CommsException&) {
        return false;
    }
}

// Standard output taken over for a while; whatever was captured is given
// to the test, or shown on standard error if the test ends early.
class StdoutCapture {
public:
    StdoutCapture() : m_taken(false) { testing::internal::CaptureStdout(); }
    ~StdoutCapture()
    {
        if (!m_taken) {
            std::fprintf(stderr, "captured standard output:\n%s", take().c_str());
        }
    }
    std::string take()
    {
        m_taken = true;
        return testing::internal::GetCapturedStdout();
    }

private:
    bool m_taken;
};

// --- No resolver ---------------------------------------------------------
//
// Without a resolver a process still builds its channels: the locator's
// registration goes into the void (UDP does not mind). Every resolution of a
// name, even of a channel of the same process, first waits for the
// resolver's first locator update, for at most 100 s; a name that is then
// still unknown is asked for with a port request whose answer is awaited
// without limit. A resolver started later does not know the process (its
// registration was lost), so it does not end the wait by itself. The tests
// therefore play the first update from a foreign socket, exactly as the
// resolver sends it in answer to a registration (an update with no rows),
// instead of sitting out the 100 s.

class NoResolverTest : public ::testing::Test {
protected:
    // Sends the update a resolver answers a registration with when it
    // knows no channels.
    static void playFirstUpdate()
    {
        const int locatorPort = cctest::LocatorProbe::port();
        ASSERT_NE(0, locatorPort);
        CommsChannelLocatorUpdateMessage update;
        int length = 0;
        const char* encoding = update.encode(&length);
        ASSERT_NE(nullptr, encoding);
        cctest::UdpSocket foreign;
        ASSERT_EQ(length, foreign.sendTo(locatorPort, encoding,
                                         static_cast<std::size_t>(length)));
    }

    static bool finished(const std::atomic<int>& result) { return result.load() != -1; }
};

TEST_F(NoResolverTest, ChannelIsBuiltAndSendToItsOwnProcessWaitsForTheFirstUpdate)
{
    ASSERT_EQ(-1, cctest::ResolverProcess::queryPort("anything", 200)) << "a resolver answers";
    CommsChannel alpha("alpha");
    EXPECT_GT(alpha.port(), 0);

    std::atomic<int> result{-1};
    std::thread sender([&] { result = alpha.sendMsg("alpha", std::string("to myself")); });
    EXPECT_FALSE(cctest::waitUntil([&] { return finished(result); }, 500)) << "the send did not wait";
    EXPECT_EQ(0U, CommsChannelInspector::queueLengthLocked(alpha));

    playFirstUpdate();
    EXPECT_TRUE(cctest::waitUntil([&] { return finished(result); }, LINE_TIMEOUT_MS));
    sender.join();
    EXPECT_EQ(1, result.load());
    std::string data;
    ASSERT_EQ(1U, CommsChannelInspector::queueLengthLocked(alpha));
    ASSERT_EQ(1, alpha.receiveMsg(data));
    EXPECT_EQ("to myself", data);
}

TEST_F(NoResolverTest, SendToUnknownNameWaitsUntilFirstUpdateAndThenAsksTheResolver)
{
    CommsChannel alpha("alpha");
    std::atomic<int> result{-1};
    std::thread sender([&] { result = alpha.sendMsg("nobody", std::string("hello?")); });
    EXPECT_FALSE(cctest::waitUntil([&] { return finished(result); }, 500)) << "the send did not wait";

    // A resolver started now has never heard of this process.
    cctest::ResolverProcess resolver;
    ASSERT_TRUE(resolver.started());
    EXPECT_EQ(0, cctest::ResolverProcess::queryPort("alpha"));
    EXPECT_FALSE(finished(result));

    // Once the first update is in, the port request goes to the resolver,
    // which does not know the name: the null dispatcher takes the message.
    StdoutCapture printed;
    playFirstUpdate();
    // (Should the update not release it, the initial wait ends by itself
    // after 100 s and the join below returns then.)
    const bool done = cctest::waitUntil([&] { return finished(result); }, LINE_TIMEOUT_MS);
    sender.join();
    const std::string output = printed.take();
    ASSERT_TRUE(done);
    EXPECT_EQ(0, result.load());
    EXPECT_EQ(systest::nullDispatcherLine("alpha", "nobody", "", "hello?"), output);
}

TEST_F(NoResolverTest, PortRequestThatNobodyAnswersWaitsUntilTheLocatorGoes)
{
    std::unique_ptr<CommsChannel> alpha(new CommsChannel("alpha"));
    CommsChannel* sending = alpha.get();
    CommsChannelLocator* locator = CommsChannelLocator::instance();
    std::atomic<int> result{-1};
    std::thread sender([&result, sending] { result = sending->sendMsg("nobody", std::string("hello?")); });
    EXPECT_FALSE(cctest::waitUntil([&] { return finished(result); }, 500)) << "the send did not wait";

    // Something now listens on the resolver's port but never answers.
    cctest::UdpSocket silentResolver(5000);
    ASSERT_TRUE(silentResolver.ok());
    playFirstUpdate();
    std::string request;
    ASSERT_TRUE(silentResolver.receive(request, LINE_TIMEOUT_MS)) << "no port request was sent";
    CommsChannelMessageCreator creator;
    std::unique_ptr<CommsChannelMessage> decoded(
        creator.decodeMessage(request.data(), static_cast<unsigned int>(request.size())));
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(COMMS_MSG_PORT_REQUEST, decoded->type());
    EXPECT_EQ("nobody", decoded->channel());
    EXPECT_FALSE(cctest::waitUntil([&] { return finished(result); }, 300)) << "the port request did not wait";

    // Destroying the process's last named channel destroys the locator,
    // which releases every waiting request: the send returns 0 silently.
    StdoutCapture printed;
    alpha.reset();
    const bool done = cctest::waitUntil([&] { return finished(result); }, LINE_TIMEOUT_MS);
    sender.join();
    EXPECT_EQ("", printed.take());
    EXPECT_TRUE(done);
    EXPECT_EQ(0, result.load());
    EXPECT_TRUE(locator->hasEnded());
}

// --- Resolver killed and restarted -----------------------------------------

class ResolverRestartTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(resolver.started()) << "commschannel-resolver did not start"; }

    // Kills the resolver as a crash would and starts it again.
    void crashAndRestart()
    {
        resolver.sendSignal(SIGKILL);
        ASSERT_EQ(128 + SIGKILL, resolver.wait(LINE_TIMEOUT_MS));
        ASSERT_EQ(-1, cctest::ResolverProcess::queryPort("alpha", 200)) << "the resolver still answers";
        ASSERT_TRUE(resolver.restart());
    }

    cctest::ResolverProcess resolver;
};

TEST_F(ResolverRestartTest, NamesOfRunningProcessesResolveAgainWithinTwoSeconds)
{
    int alphaPort = 0;
    std::unique_ptr<cctest::ChildProcess> peer = startPeer({"alpha"}, &alphaPort);
    CommsChannel beta("beta");
    ASSERT_EQ(alphaPort, cctest::ResolverProcess::queryPort("alpha"));
    ASSERT_EQ(beta.port(), cctest::ResolverProcess::queryPort("beta"));

    crashAndRestart();
    EXPECT_TRUE(cctest::waitUntil(
        [&] {
            return cctest::ResolverProcess::queryPort("alpha", 200) == alphaPort &&
                   cctest::ResolverProcess::queryPort("beta", 200) == beta.port();
        },
        within(2000)))
        << "alpha answers " << cctest::ResolverProcess::queryPort("alpha") << ", beta answers "
        << cctest::ResolverProcess::queryPort("beta");

    // A process started after the restart reaches both by name.
    std::unique_ptr<cctest::ChildProcess> newcomer = startPeer({"newcomer"});
    EXPECT_EQ("SENT 1", command(*newcomer, "SEND newcomer alpha 10 1"));
    EXPECT_EQ(0U, command(*peer, "RECV alpha 1").find("MSG src=newcomer dst=alpha "));
    EXPECT_EQ("SENT 1", command(*newcomer, "SEND newcomer beta 10 2"));
    CommsChannelDataContainerMessage message;
    ASSERT_TRUE(receivesOne(beta, message));
    EXPECT_EQ("newcomer", message.sourceChannel());
    EXPECT_EQ(systest::patternData(10, 2), message.getData());

    quitCleanly(*newcomer);
    quitCleanly(*peer);
}

TEST_F(ResolverRestartTest, KnownNamesStillWorkWhileNoResolverRuns)
{
    std::unique_ptr<cctest::ChildProcess> peer = startPeer({"alpha"});
    CommsChannel beta("beta");
    ASSERT_EQ(1, beta.sendMsg("alpha", std::string("before")));
    EXPECT_EQ(0U, command(*peer, "RECV alpha 1").find("MSG src=beta dst=alpha "));

    resolver.sendSignal(SIGKILL);
    ASSERT_EQ(128 + SIGKILL, resolver.wait(LINE_TIMEOUT_MS));

    // The name was learnt already: no resolver is needed to use it.
    ASSERT_EQ(1, beta.sendMsg("alpha", std::string("during")));
    const std::string received = command(*peer, "RECV alpha 1");
    EXPECT_NE(std::string::npos, received.find("data=6/" + systest::checksum("during"))) << received;
    quitCleanly(*peer);
}

TEST_F(ResolverRestartTest, RemovalsStillReachSurvivingProcessesAfterRestart)
{
    std::unique_ptr<cctest::ChildProcess> peer = startPeer({"keeper", "alpha"});
    CommsChannel beta("beta");
    ASSERT_EQ(1, beta.sendMsg("alpha", std::string("learn")));
    EXPECT_EQ(0U, command(*peer, "RECV alpha 1").find("MSG src=beta dst=alpha "));
    ASSERT_TRUE(systest::locatorKnowsRemote("alpha"));

    crashAndRestart();
    ASSERT_TRUE(cctest::waitUntil([&] { return cctest::ResolverProcess::queryPort("alpha", 200) > 0; },
                                  within(2000)));

    // Neither process registered again; the restarted resolver still
    // relays the removal to this one.
    EXPECT_EQ("CLOSED alpha", command(*peer, "CLOSE alpha"));
    EXPECT_TRUE(cctest::waitUntil([] { return !systest::locatorKnowsRemote("alpha"); }, LINE_TIMEOUT_MS))
        << "this process never heard that alpha went";
    EXPECT_TRUE(cctest::waitUntil([] { return cctest::ResolverProcess::queryPort("alpha", 200) == 0; },
                                  LINE_TIMEOUT_MS));
    quitCleanly(*peer);
}

// --- Peer killed while others send to it -----------------------------------

TEST(PeerKilledTest, SendersNeitherCrashNorHangAndTheResolverWithdrawsItsNames)
{
    cctest::ResolverProcess resolver;
    ASSERT_TRUE(resolver.started());
    std::unique_ptr<cctest::ChildProcess> victim = startPeer({"victim", "victim-2"});
    std::unique_ptr<cctest::ChildProcess> bystander = startPeer({"bystander"});
    ASSERT_GT(cctest::ResolverProcess::queryPort("victim"), 0);

    // Stdout collects the null dispatcher's lines once the name is gone.
    std::unique_ptr<StdoutCapture> printed(new StdoutCapture());
    CommsChannel first("sender-1");
    CommsChannel second("sender-2");
    std::atomic<bool> stop{false};
    std::atomic<int> sent[2] = {{0}, {0}};
    std::atomic<int> zeros[2] = {{0}, {0}};
    std::atomic<int> odd{0};
    auto sendLoop = [&](CommsChannel& channel, int index) {
        while (!stop) {
            const int result = channel.sendMsg("victim", std::string("are you there?"));
            if (result == 0) {
                ++zeros[index];
            } else if (result != 1) {
                ++odd;
            }
            ++sent[index];
            usleep(2000);  // pacing only: keeps the victim's buffer and stdout small
        }
    };
    // The threads start once the resolver's first update is in: its answer
    // to this process's registration lists the victim.
    ASSERT_TRUE(cctest::waitUntil([] { return CommsChannelLocator::instanceKnowsName("victim"); }, LINE_TIMEOUT_MS));
    std::thread one(sendLoop, std::ref(first), 0);
    std::thread two(sendLoop, std::ref(second), 1);
    EXPECT_TRUE(cctest::waitUntil([&] { return sent[0] >= 10 && sent[1] >= 10; }, LINE_TIMEOUT_MS));

    const long long killedAt = cctest::nowMs();
    victim->sendSignal(SIGKILL);
    EXPECT_EQ(128 + SIGKILL, victim->wait(LINE_TIMEOUT_MS));
    const int sentAtKill[2] = {sent[0], sent[1]};

    // The resolver notices the dead process and withdraws all its names.
    EXPECT_TRUE(cctest::waitUntil(
        [] {
            return cctest::ResolverProcess::queryPort("victim", 200) == 0 &&
                   cctest::ResolverProcess::queryPort("victim-2", 200) == 0;
        },
        within(2000)))
        << "names still known " << cctest::nowMs() - killedAt << " ms after the kill";
    // The removal reaches the senders, whose sends then return 0.
    EXPECT_TRUE(cctest::waitUntil([&] { return zeros[0] > 0 && zeros[1] > 0; }, LINE_TIMEOUT_MS));
    // Both kept going all along.
    EXPECT_TRUE(cctest::waitUntil([&] { return sent[0] > sentAtKill[0] + 10 && sent[1] > sentAtKill[1] + 10; },
                                  LINE_TIMEOUT_MS));
    stop = true;
    one.join();
    two.join();
    EXPECT_EQ(0, odd.load());

    // Another process that sends to the dead name gets 0 or 1, never stuck.
    // (Its null dispatcher's lines come before the answer.)
    bystander->writeLine("BLAST bystander victim 50");
    std::string blasted;
    ASSERT_TRUE(bystander->waitForPrefix("BLASTED ", &blasted, LINE_TIMEOUT_MS));
    const std::vector<std::string> counts = systest::words(blasted);
    ASSERT_EQ(2U, counts.size()) << blasted;
    EXPECT_EQ(50, std::atoi(counts[0].c_str()) + std::atoi(counts[1].c_str())) << blasted;
    quitCleanly(*bystander);

    std::istringstream output(printed->take());
    printed.reset();
    std::string line;
    int lines = 0;
    while (std::getline(output, line)) {
        ++lines;
        EXPECT_EQ(0U, line.find("CCNullDispatcher::sendMsg(), src_channel=sender-")) << line;
        EXPECT_NE(std::string::npos, line.find(", dst_channel=victim, callback_channel=, data=are you there?"))
            << line;
    }
    EXPECT_EQ(zeros[0] + zeros[1], lines);
}

TEST(PeerKilledTest, NamesAreWithdrawnWhileAProgramStartedByTheKilledProcessRuns)
{
    cctest::ResolverProcess resolver;
    ASSERT_TRUE(resolver.started());
    std::unique_ptr<cctest::ChildProcess> victim = startPeer({"elder"});
    std::string helper;
    victim->writeLine("SPAWN");
    ASSERT_TRUE(victim->waitForPrefix("SPAWNED ", &helper, LINE_TIMEOUT_MS));
    const pid_t helperPid = std::atoi(helper.c_str());
    ASSERT_GT(helperPid, 0);

    victim->sendSignal(SIGKILL);
    EXPECT_EQ(128 + SIGKILL, victim->wait(LINE_TIMEOUT_MS));
    EXPECT_TRUE(cctest::waitUntil([] { return cctest::ResolverProcess::queryPort("elder", 200) == 0; },
                                  within(2000)));
    kill(helperPid, SIGKILL);
}

// --- Stray datagrams -------------------------------------------------------

enum class Target { ChannelPort, LocatorPort, StatusPort };
enum class Stray { ThreeBytes, LyingLength };

struct StrayCase {
    Target target;
    Stray stray;
};

std::string strayBytes(Stray stray)
{
    if (stray == Stray::ThreeBytes) {
        return std::string("\xCC\x5E\x01", 3);
    }
    // A data message header that announces 1000 bytes, then 12 bytes more:
    // 20 in all.
    std::string bytes(20, '\0');
    bytes[0] = static_cast<char>(0xCC);
    bytes[1] = static_cast<char>(0x5E);
    bytes[2] = 1;
    bytes[3] = COMMS_MSG_DATA_CONTAINER;
    const uint32_t announced = 1000;
    std::memcpy(&bytes[4], &announced, sizeof announced);
    return bytes;
}

class StrayDatagramTest : public ::testing::TestWithParam<StrayCase> {
protected:
    void SetUp() override { ASSERT_TRUE(resolver.started()) << "commschannel-resolver did not start"; }
    cctest::ResolverProcess resolver;
};

TEST_P(StrayDatagramTest, NeitherCrashesTheProcessNorHangsItsDestruction)
{
    const StrayCase& c = GetParam();
    std::unique_ptr<cctest::ChildProcess> peer = startPeer({"target"});
    CommsChannel prober("prober");
    // The peer's locator exists and is settled before the stray arrives.
    ASSERT_EQ(1, prober.sendMsg("target", std::string("hello")));
    ASSERT_EQ(0U, command(*peer, "RECV target 1").find("MSG src=prober dst=target "));

    const std::vector<std::string> ports = systest::words(command(*peer, "PORTS"));
    ASSERT_EQ(4U, ports.size());
    const int port = std::atoi(ports[c.target == Target::ChannelPort ? 1 : (c.target == Target::LocatorPort ? 2 : 3)]
                                   .c_str());
    ASSERT_GT(port, 0);
    cctest::UdpSocket foreign;
    const std::string bytes = strayBytes(c.stray);
    ASSERT_EQ(static_cast<int>(bytes.size()), foreign.sendTo(port, bytes));

    if (c.target == Target::ChannelPort && c.stray == Stray::ThreeBytes) {
        // Unreadable: the receiver thread ends, deliberately.
        EXPECT_EQ("RECEIVER ENDED", command(*peer, "RECEIVERENDED"));
    } else if (c.target == Target::ChannelPort) {
        // The thread waits for the rest of the announced 1000 bytes.
        EXPECT_EQ("JOINING", command(*peer, "JOINING"));
    } else {
        // The receiver ignores what a status update says: the channel's
        // next message, read after it, arrives.
        ASSERT_EQ(1, prober.sendMsg("target", std::string("still there?")));
        const std::string received = command(*peer, "RECV target 1");
        EXPECT_NE(std::string::npos, received.find("data=12/" + systest::checksum("still there?"))) << received;
        // The locator drops what it cannot decode: the answer to a port
        // request, read after it, still ends the request.
        peer->writeLine("SEND target nobody 10 7");
        std::string sent;
        EXPECT_TRUE(peer->waitForPrefix("SENT ", &sent, LINE_TIMEOUT_MS));
        EXPECT_EQ("0", sent);
        EXPECT_EQ("SENT 1", command(*peer, "SEND target prober 10 7"));
        CommsChannelDataContainerMessage answer;
        ASSERT_TRUE(receivesOne(prober, answer));
        EXPECT_EQ(systest::patternData(10, 7), answer.getData());
    }
    // Either way the process lives on and its channels can be destroyed.
    EXPECT_EQ("PORTS", systest::words(command(*peer, "PORTS"))[0]);
    quitCleanly(*peer);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, StrayDatagramTest,
    ::testing::Values(StrayCase{Target::ChannelPort, Stray::ThreeBytes}, StrayCase{Target::ChannelPort, Stray::LyingLength},
                      StrayCase{Target::LocatorPort, Stray::ThreeBytes}, StrayCase{Target::LocatorPort, Stray::LyingLength},
                      StrayCase{Target::StatusPort, Stray::ThreeBytes}, StrayCase{Target::StatusPort, Stray::LyingLength}),
    [](const ::testing::TestParamInfo<StrayCase>& info) {
        const char* target = info.param.target == Target::ChannelPort
                                 ? "ToChannelPort"
                                 : (info.param.target == Target::LocatorPort ? "ToLocatorPort" : "ToStatusPort");
        return std::string(info.param.stray == Stray::ThreeBytes ? "ThreeBytes" : "LyingLength") + target;
    });

}  // namespace
