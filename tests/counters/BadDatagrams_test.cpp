// Datagrams that cannot start an encoding: by default the first one ends the
// process's receiving, and that is now shown (a line on standard error, the
// published receiving flag); with COMMSCHANNEL_DISCARD_BAD_DATAGRAMS=1 each
// is read, counted and thrown away, and receiving goes on. Each test is a
// process of its own, so the switch is set before the receiver is made.
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsException.h"
#include "OutsideView.h"
#include "PublishedCounters.h"
#include "ResolverProcess.h"
#include "StderrRecorder.h"
#include "TestUtil.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

cli::ChannelCounters countersOf(CommsChannel& channel) { return cli::readChannelCounters(getpid(), channel.port()); }

std::string nextData(CommsChannel& channel, int timeoutMs = 2000)
{
    try {
        CommsChannelDataContainerMessage message;
        if (channel.receiveMsg_ByID_Timed(message, 0, timeoutMs) == 1) {
            return message.getData();
        }
    } catch (const CommsException&) {
    }
    return "(nothing)";
}

// A good encoding whose header announces totalLength bytes instead.
std::string withAnnouncedLength(std::uint32_t totalLength)
{
    std::string encoding = cctest::encodeData("", "payload");
    std::memcpy(&encoding[4], &totalLength, sizeof totalLength);
    return encoding;
}

class BadDatagramsTest : public ::testing::Test {
protected:
    void discardBadDatagrams() { ASSERT_EQ(0, setenv("COMMSCHANNEL_DISCARD_BAD_DATAGRAMS", "1", 1)); }
    // Sends bad, then a good message, and expects the good one to arrive
    // with the bad one counted and receiving going on.
    void expectDiscarded(const std::string& bad)
    {
        discardBadDatagrams();
        CommsChannel sut("");
        cctest::UdpSocket peer;
        cctest::StderrRecorder errors;
        ASSERT_GT(peer.sendTo(sut.port(), bad.data(), bad.size()), -1);
        ASSERT_GT(peer.sendTo(sut.port(), cctest::encodeData("", "after")), 0);
        EXPECT_EQ("after", nextData(sut));
        errors.restore();
        const cli::ChannelCounters counters = countersOf(sut);
        EXPECT_EQ(1, counters.badDatagrams);
        EXPECT_EQ(1, counters.received);
        EXPECT_TRUE(counters.receiving);
        EXPECT_EQ(std::string::npos, errors.text().find("stops receiving")) << errors.text();
    }
};

}  // namespace

TEST_F(BadDatagramsTest, ShortDatagramStopsReceivingWithALineNamingTheChannelAndTheSender)
{
    cctest::ResolverProcess resolver;
    ASSERT_TRUE(resolver.started());
    CommsChannel sut("slowpoke");
    cctest::UdpSocket peer;
    cctest::StderrRecorder errors;
    ASSERT_EQ(3, peer.sendTo(sut.port(), "abc"));
    EXPECT_TRUE(errors.waitFor("CommsChannel: channel 'slowpoke' stops receiving: a datagram from port " +
                               std::to_string(peer.port()) + " cannot start an encoding"));
    ASSERT_GT(peer.sendTo(sut.port(), cctest::encodeData("", "later")), 0);
    EXPECT_EQ("(nothing)", nextData(sut, 300));
    errors.restore();

    const cli::ChannelCounters counters = countersOf(sut);
    EXPECT_TRUE(counters.receivingKnown);
    EXPECT_FALSE(counters.receiving);
    EXPECT_EQ(1, counters.badDatagrams);
    EXPECT_EQ(0, counters.received);
}

TEST_F(BadDatagramsTest, WithTheSwitchAShortDatagramIsCountedAndDiscarded) { expectDiscarded("abc"); }

TEST_F(BadDatagramsTest, WithTheSwitchAnEmptyDatagramIsCountedAndDiscarded) { expectDiscarded(""); }

TEST_F(BadDatagramsTest, WithTheSwitchALengthBelowTheHeaderIsCountedAndDiscarded)
{
    expectDiscarded(withAnnouncedLength(7));
}

TEST_F(BadDatagramsTest, WithTheSwitchALengthAboveOneMebibyteIsCountedAndDiscarded)
{
    expectDiscarded(withAnnouncedLength(1024 * 1024 + 1));
}

TEST_F(BadDatagramsTest, WithTheSwitchManyBadDatagramsLeaveTheChannelReceiving)
{
    discardBadDatagrams();
    CommsChannel sut("");
    cctest::UdpSocket peer;
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(2, peer.sendTo(sut.port(), "xy"));
        ASSERT_GT(peer.sendTo(sut.port(), cctest::encodeData("", "good-" + std::to_string(i))), 0);
    }
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ("good-" + std::to_string(i), nextData(sut));
    }
    EXPECT_EQ(5, countersOf(sut).badDatagrams);
}

TEST_F(BadDatagramsTest, WithoutTheSwitchALengthAboveOneMebibyteIsNotDiscarded)
{
    CommsChannel sut("");
    cctest::UdpSocket peer;
    const std::string bad = withAnnouncedLength(1024 * 1024 + 1);
    ASSERT_GT(peer.sendTo(sut.port(), bad.data(), bad.size()), 0);
    // The thread waits for the rest of that encoding, as it always did.
    ASSERT_GT(peer.sendTo(sut.port(), cctest::encodeData("", "after")), 0);
    EXPECT_NE("after", nextData(sut, 300));
    EXPECT_EQ(0, countersOf(sut).badDatagrams);
}
