// The receiver thread under unusual conditions, seen from outside: a channel
// listed twice, a datagram too short to carry a header in the middle of a
// burst, and a channel descriptor that cannot be peeked at. Other processes
// are played by raw datagrams from a plain UDP socket; unnamed channels keep
// the locator out of the way. Every wait has a deadline.
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelReceiver.h"
#include "CommsException.h"
#include "OutsideView.h"
#include "StderrRecorder.h"
#include "TestUtil.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// The data of the next message of the channel, or "(nothing)" when none
// came within timeoutMs.
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

std::string good(int index) { return "good-" + std::to_string(index); }

}  // namespace

TEST(ReceiverRobustnessTest, ChannelListedTwiceGetsEveryPendingMessageAndLaterOnesToo)
{
    CommsChannel parking("");
    CommsChannel channel("");
    cctest::UdpSocket peer;
    ASSERT_TRUE(peer.ok());
    ASSERT_EQ(1, CommsChannelReceiver::instance()->addReceiveChannel(&channel));
    ASSERT_EQ(3, CommsChannelReceiver::instance()->numReceiveChannels());
    // The thread has taken the wake-up of the addition in.
    usleep(100 * 1000);

    // Several datagrams are waiting at once when the thread looks.
    {
        cctest::ReceiverHold hold(peer, parking.port(), parking.socketHandle());
        ASSERT_TRUE(hold.held());
        ASSERT_EQ(3, cctest::sendBurst(peer.fd(), channel.port(),
                                       {cctest::encodeData("", good(1)), cctest::encodeData("", good(2)),
                                        cctest::encodeData("", good(3))}));
    }
    EXPECT_EQ(good(1), nextData(channel));
    EXPECT_EQ(good(2), nextData(channel));
    EXPECT_EQ(good(3), nextData(channel));

    // The thread is still there for what comes later, as long as each look
    // finds two or more datagrams waiting (a lone one would leave the second
    // look empty, which ends the thread: that rule is pinned elsewhere).
    usleep(200 * 1000);
    {
        cctest::ReceiverHold hold(peer, parking.port(), parking.socketHandle());
        ASSERT_TRUE(hold.held());
        ASSERT_EQ(2, cctest::sendBurst(peer.fd(), channel.port(),
                                       {cctest::encodeData("", good(4)), cctest::encodeData("", good(5))}));
    }
    EXPECT_EQ(good(4), nextData(channel));
    EXPECT_EQ(good(5), nextData(channel));

    CommsChannelReceiver::instance()->removeReceiveChannel(&channel);
}

TEST(ReceiverRobustnessTest, ShortDatagramInABurstStopsTheReaderAndLeavesItAndWhatFollowsUnread)
{
    CommsChannel parking("");
    CommsChannel channel("");
    cctest::UdpSocket peer;
    ASSERT_TRUE(peer.ok());
    cctest::StderrRecorder errors;

    std::vector<std::string> datagrams;
    for (int i = 1; i <= 3; ++i) {
        datagrams.push_back(cctest::encodeData("", good(i)));
    }
    datagrams.push_back("abc");
    for (int i = 4; i <= 8; ++i) {
        datagrams.push_back(cctest::encodeData("", good(i)));
    }
    {
        // All nine are waiting when the thread looks.
        cctest::ReceiverHold hold(peer, parking.port(), parking.socketHandle());
        ASSERT_TRUE(hold.held());
        ASSERT_EQ(9, cctest::sendBurst(peer.fd(), channel.port(), datagrams));
    }

    // The three before the short datagram are delivered, nothing after it.
    EXPECT_EQ(good(1), nextData(channel));
    EXPECT_EQ(good(2), nextData(channel));
    EXPECT_EQ(good(3), nextData(channel));
    EXPECT_EQ("(nothing)", nextData(channel, 300));
    errors.restore();

    // The short datagram is the next one on the socket, and every datagram
    // after it is still there, in order.
    std::string datagram;
    ASSERT_TRUE(cctest::takeWaitingDatagram(channel.socketHandle(), datagram))
        << "nothing is left on the socket";
    EXPECT_EQ("abc", datagram);
    for (int i = 4; i <= 8; ++i) {
        ASSERT_TRUE(cctest::takeWaitingDatagram(channel.socketHandle(), datagram))
            << "the datagram carrying " << good(i) << " is gone";
        EXPECT_EQ(good(i), cctest::dataOfEncoding(datagram));
    }
    EXPECT_FALSE(cctest::takeWaitingDatagram(channel.socketHandle(), datagram));
}

TEST(ReceiverRobustnessTest, FailedHeaderPeekClosesTheChannelDescriptorWithoutAWord)
{
    CommsChannel channel("");
    const int fd = channel.socketHandle();
    ASSERT_GT(fd, 0);
    int pipeEnds[2];
    ASSERT_EQ(0, pipe(pipeEnds));
    cctest::StderrRecorder errors;

    // The channel's descriptor number now names the reading end of a pipe:
    // readable, but no socket, so a peek at a header fails. The receiver is
    // told to watch the number again.
    ASSERT_EQ(fd, dup2(pipeEnds[0], fd));
    CommsChannelReceiver::instance()->addReceiveChannel(&channel);
    usleep(100 * 1000);
    ASSERT_EQ(1, write(pipeEnds[1], "x", 1));

    const bool closed = cctest::waitUntil([fd] { return fcntl(fd, F_GETFD) == -1 && errno == EBADF; }, 5000);
    // Whatever happened, the pipe stops being readable through any number.
    close(pipeEnds[0]);
    usleep(300 * 1000);
    errors.restore();

    EXPECT_TRUE(closed) << "descriptor " << fd << " is still open";
    // The look itself says nothing; only the end of the thread that could
    // not read the channel is reported.
    EXPECT_EQ(std::string::npos, errors.text().find("ioctl")) << errors.text();
    EXPECT_EQ(std::string::npos, errors.text().find("Socket operation")) << errors.text();
    EXPECT_EQ(std::string::npos, errors.text().find("receiveChannelMessage")) << errors.text();

    CommsChannelReceiver::instance()->removeReceiveChannel(&channel);
    close(pipeEnds[1]);
}
