// Channel names come and go across processes: channels destroyed in any
// order and created again are reached again; a name that one process gives
// up becomes unknown to the others once the resolver has relayed the
// removal, and resolves again when it is registered anew.
#include "ChildProcess.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsException.h"
#include "ReceiverProbe.h"
#include "WhiteBoxAccess.h"
#include "ResolverProcess.h"
#include "SystemPeer.h"
#include "TestUtil.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using systest::LINE_TIMEOUT_MS;

class NamesComeAndGoTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(resolver.started()) << "commschannel-resolver did not start"; }

    std::unique_ptr<cctest::ChildProcess> startPeer(const std::vector<std::string>& names)
    {
        std::unique_ptr<cctest::ChildProcess> peer(new cctest::ChildProcess("peer", names));
        std::string port;
        EXPECT_TRUE(peer->waitForPrefix("READY ", &port, LINE_TIMEOUT_MS)) << "peer did not start";
        return peer;
    }

    static std::string command(cctest::ChildProcess& peer, const std::string& line)
    {
        peer.writeLine(line);
        std::string answer;
        EXPECT_TRUE(peer.readLine(answer, LINE_TIMEOUT_MS)) << "no answer to " << line;
        return answer;
    }

    // The peer sends pattern data to name, and name receives it here.
    static void peerReaches(cctest::ChildProcess& peer, const std::string& peerChannel, CommsChannel& channel,
                            unsigned int seed)
    {
        const std::string data = systest::patternData(100, seed);
        ASSERT_EQ("SENT 1", command(peer, "SEND " + peerChannel + " " + channel.channelName() + " 100 " +
                                              std::to_string(seed)));
        CommsChannelDataContainerMessage message;
        try {
            ASSERT_EQ(1, channel.receiveMsg_ByID_Timed(message, 0, LINE_TIMEOUT_MS));
        } catch (const CommsException&) {
            FAIL() << channel.channelName() << " received nothing";
        }
        EXPECT_EQ(data, message.getData());
        EXPECT_EQ(peerChannel, message.sourceChannel());
    }

    static void quit(cctest::ChildProcess& peer)
    {
        peer.writeLine("QUIT");
        EXPECT_TRUE(peer.waitForLine("BYE", LINE_TIMEOUT_MS));
        EXPECT_EQ(0, peer.wait(LINE_TIMEOUT_MS));
    }

    cctest::ResolverProcess resolver;
};

TEST_F(NamesComeAndGoTest, ChannelsDestroyedInAnyOrderAndCreatedAgainAreReachedAgain)
{
    std::unique_ptr<cctest::ChildProcess> peer = startPeer({"messenger"});
    const std::vector<std::string> names = {"alpha", "beta", "gamma"};
    const std::vector<std::vector<int>> destructionOrders = {{0, 1, 2}, {2, 0, 1}, {1, 2, 0}};
    unsigned int seed = 1;
    for (const std::vector<int>& order : destructionOrders) {
        const int threadsBefore = cctest::ReceiverProbe::threadCount();
        std::vector<std::unique_ptr<CommsChannel>> channels;
        for (const std::string& name : names) {
            channels.emplace_back(new CommsChannel(name));
        }
        CommsChannelLocator* locator = CommsChannelLocator::instance();
        CommsChannelReceiver* receiver = CommsChannelReceiver::instance();
        for (std::unique_ptr<CommsChannel>& channel : channels) {
            EXPECT_EQ(channel->port(), cctest::ResolverProcess::queryPort(channel->channelName()));
            peerReaches(*peer, "messenger", *channel, seed++);
        }
        for (int index : order) {
            const std::string name = names[static_cast<std::size_t>(index)];
            channels[static_cast<std::size_t>(index)].reset();
            EXPECT_TRUE(cctest::waitUntil([&] { return cctest::ResolverProcess::queryPort(name) == 0; },
                                          LINE_TIMEOUT_MS))
                << name << " is still known to the resolver";
        }
        // The last channel took the locator and the receiver with it.
        EXPECT_TRUE(locator->hasEnded());
        EXPECT_TRUE(receiver->hasEnded());
        EXPECT_EQ(threadsBefore, cctest::ReceiverProbe::threadCount());
        // The peer has heard of every removal before the names come back.
        for (const std::string& name : names) {
            EXPECT_EQ("FORGOTTEN " + name, command(*peer, "FORGET " + name));
        }
    }
    quit(*peer);
}

// Whether the peer keeps another channel (and so its locator) while the
// name goes.
class NameGivenUpTest : public NamesComeAndGoTest, public ::testing::WithParamInterface<bool> {};

TEST_P(NameGivenUpTest, BecomesUnknownElsewhereAndResolvesAgainWhenRecreated)
{
    const bool keepsAnotherChannel = GetParam();
    std::unique_ptr<cctest::ChildProcess> peer =
        keepsAnotherChannel ? startPeer({"keeper", "wanderer"}) : startPeer({"wanderer"});
    CommsChannel here("here");

    ASSERT_EQ(1, here.sendMsg("wanderer", std::string("first")));
    ASSERT_EQ("MSG src=here dst=wanderer cb= proto= iface= ctx=0/" + systest::checksum("") +
                  " id=0 type=0 prio=1 data=5/" + systest::checksum("first"),
              command(*peer, "RECV wanderer 1"));
    ASSERT_TRUE(systest::locatorKnowsRemote("wanderer"));

    ASSERT_EQ("CLOSED wanderer", command(*peer, "CLOSE wanderer"));
    ASSERT_TRUE(cctest::waitUntil([] { return !systest::locatorKnowsRemote("wanderer"); }, LINE_TIMEOUT_MS))
        << "the removal was not relayed to this process";

    testing::internal::CaptureStdout();
    const int whileGone = here.sendMsg("wanderer", std::string("lost"));
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(0, whileGone);
    EXPECT_EQ(systest::nullDispatcherLine("here", "wanderer", "", "lost"), printed);

    std::string opened = command(*peer, "OPEN wanderer");
    ASSERT_EQ(0U, opened.find("OPENED wanderer "));
    ASSERT_EQ(1, here.sendMsg("wanderer", std::string("again")));
    EXPECT_EQ("MSG src=here dst=wanderer cb= proto= iface= ctx=0/" + systest::checksum("") +
                  " id=0 type=0 prio=1 data=5/" + systest::checksum("again"),
              command(*peer, "RECV wanderer 1"));
    EXPECT_EQ(std::stoi(opened.substr(std::string("OPENED wanderer ").size())),
              cctest::ResolverProcess::queryPort("wanderer"));
    quit(*peer);
}

INSTANTIATE_TEST_SUITE_P(Names, NameGivenUpTest, ::testing::Bool(), [](const ::testing::TestParamInfo<bool>& info) {
    return std::string(info.param ? "WhileItsProcessKeepsAnotherChannel" : "WithTheLastChannelOfItsProcess");
});

TEST_F(NamesComeAndGoTest, NameMovesToAnotherProcessAndIsReachedThere)
{
    std::unique_ptr<cctest::ChildProcess> first = startPeer({"nomad"});
    CommsChannel here("here");
    ASSERT_EQ(1, here.sendMsg("nomad", std::string("to first")));
    EXPECT_EQ(0U, command(*first, "RECV nomad 1").find("MSG src=here dst=nomad "));
    quit(*first);
    ASSERT_TRUE(cctest::waitUntil([] { return !systest::locatorKnowsRemote("nomad"); }, LINE_TIMEOUT_MS));

    std::unique_ptr<cctest::ChildProcess> second = startPeer({"nomad"});
    ASSERT_EQ(1, here.sendMsg("nomad", std::string("to second")));
    const std::string received = command(*second, "RECV nomad 1");
    EXPECT_EQ(0U, received.find("MSG src=here dst=nomad ")) << received;
    EXPECT_NE(std::string::npos, received.find("data=9/" + systest::checksum("to second"))) << received;
    quit(*second);
}

TEST_F(NamesComeAndGoTest, EmptyDestinationNameIsAskedForLikeAnyOtherAndEndsUnknown)
{
    std::unique_ptr<cctest::ChildProcess> peer = startPeer({"bystander"});
    CommsChannel here("here");
    // No process can register "", so the resolver answers port 0.
    EXPECT_EQ(0, cctest::ResolverProcess::queryPort(""));

    testing::internal::CaptureStdout();
    const int result = here.sendMsg("", std::string("to nobody"));
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(0, result);
    EXPECT_EQ(systest::nullDispatcherLine("here", "", "", "to nobody"), printed);
    quit(*peer);
}

}  // namespace
