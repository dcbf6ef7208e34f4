// How receives behave while the receiver thread is busy elsewhere, and what a
// throwing interceptor leaves behind. Everything is observed through the
// public interface: other processes are played by raw datagrams sent from a
// plain UDP socket, and each scenario in which a call might never return
// runs in a child process that reports what it saw (see OutsideView.h).
#include "CCInterceptorContext.h"
#include "CCInterceptorDispatcher.h"
#include "ChildProcess.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsException.h"
#include "FakeResolver.h"
#include "OutsideView.h"
#include "StderrRecorder.h"
#include "TestUtil.h"

#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Messages in a burst: few enough that one pass of the receiver thread reads
// them all, many enough that they are read as a burst.
const int BURST = 20;
// Position of the reply (request id 7) inside the burst.
const int REPLY_POSITION = 10;
const long REPLY_ID = 7;
// Announced length of a long encoding whose rest never comes, and the length
// of the first piece of every long encoding.
const std::uint32_t LONG_TOTAL = 200;
const std::size_t FIRST_PIECE = 64;

std::string burstData(int index) { return "burst-" + std::to_string(index); }

// The burst of datagrams for one channel, the reply among them.
std::vector<std::string> burstWithReply()
{
    std::vector<std::string> datagrams;
    for (int i = 0; i < BURST; ++i) {
        datagrams.push_back(cctest::encodeData("", burstData(i), i == REPLY_POSITION ? REPLY_ID : 0));
    }
    return datagrams;
}

// Waits until the receiver thread has taken every datagram off the socket
// and something sits in the queue, then gives it a moment to settle in
// whatever it does next.
bool burstTakenIn(CommsChannel& channel)
{
    const bool taken = cctest::waitUntil(
        [&channel] { return !channel.isQEmpty() && !cctest::datagramWaiting(channel.socketHandle()); }, 10000);
    usleep(100 * 1000);
    return taken;
}

// The data of the front message, taken on a thread with a deadline;
// "(nothing)" when none came.
std::string nextDataWithin(CommsChannel& channel, int timeoutMs)
{
    std::shared_ptr<std::string> data = std::make_shared<std::string>("(nothing)");
    cctest::TimedCall receive([&channel, data, timeoutMs] {
        CommsChannelDataContainerMessage message;
        const int result = channel.receiveMsg_ByID_Timed(message, 0, timeoutMs);
        if (result == 1) {
            *data = message.getData();
        }
        return result;
    });
    return receive.finishedWithin(timeoutMs + 1000) && receive.result() == 1 ? *data : std::string("(nothing)");
}

// Receives the reply by its id with a 200 ms time-out; checks that the call
// comes back with it within a second.
void expectReplyWithinASecond(cctest::ChildChecks& checks, CommsChannel& channel)
{
    std::shared_ptr<std::string> data = std::make_shared<std::string>();
    const long long start = cctest::nowMs();
    cctest::TimedCall receive([&channel, data] {
        CommsChannelDataContainerMessage reply;
        const int result = channel.receiveMsg_ByID_Timed(reply, REPLY_ID, 200);
        *data = reply.getData();
        return result;
    });
    const bool finished = receive.finishedWithin(1000);
    checks.expect(finished, "the by-id receive of a queued reply had not returned after 1000 ms");
    if (finished) {
        checks.expect(!receive.threw(), "the by-id receive of a queued reply threw: " + receive.what());
        checks.expect(receive.result() == 1, "the by-id receive answered " + std::to_string(receive.result()));
        checks.expect(*data == burstData(REPLY_POSITION), "the by-id receive returned data '" + *data + "'");
        checks.note("the by-id receive took " + std::to_string(cctest::nowMs() - start) + " ms");
    }
}

// Receives with a short time-out until every message of the burst has come
// or the deadline passes. A time-out is a failure when a message was queued
// when the receive began.
void expectEveryMessageWithoutATimeOutWhileQueued(cctest::ChildChecks& checks, CommsChannel& channel,
                                                  int expected, int timeoutMs)
{
    int received = 0;
    int timeOutsWhileQueued = 0;
    const long long deadline = cctest::nowMs() + 5000;
    while (received < expected && cctest::nowMs() < deadline) {
        const bool queuedBefore = !channel.isQEmpty();
        try {
            CommsChannelDataContainerMessage message;
            if (channel.receiveMsg_ByID_Timed(message, 0, timeoutMs) == 1) {
                ++received;
            }
        } catch (const CommsException&) {
            if (queuedBefore) {
                ++timeOutsWhileQueued;
            }
        }
    }
    checks.expect(timeOutsWhileQueued == 0, "a timed receive threw " + std::to_string(timeOutsWhileQueued) +
                                                " time(s) while a message was queued");
    checks.expect(received == expected,
                  "received " + std::to_string(received) + " of the " + std::to_string(expected) + " messages");
}

}  // namespace

// --- A reply already queued comes back within the time-out ---------------

CC_CHILD_MAIN(replyWhileJoiningOnAnotherChannel)
{
    (void)args;
    cctest::ChildChecks checks;
    CommsChannel replies("");
    CommsChannel other("");
    cctest::UdpSocket peer;
    checks.expect(peer.ok(), "no peer socket");

    checks.expect(cctest::sendBurst(peer.fd(), replies.port(), burstWithReply()) == BURST, "burst not sent");
    checks.expect(burstTakenIn(replies), "the burst was not taken in");
    // The receiver thread now waits for the rest of an encoding on the
    // other channel, which never comes.
    checks.expect(peer.sendTo(other.port(), cctest::firstPieceOfLongEncoding(LONG_TOTAL, FIRST_PIECE)) > 0,
                  "first piece not sent");
    checks.expect(cctest::waitUntil([&other] { return !cctest::datagramWaiting(other.socketHandle()); }, 5000),
                  "the first piece was not taken in");
    usleep(100 * 1000);
    checks.expect(nextDataWithin(replies, 1000) == burstData(0), "the front message did not come first");

    expectReplyWithinASecond(checks, replies);
    return checks.finish();
}

TEST(ChannelBehaviourTest, ByIdReceiveReturnsAQueuedReplyWhileTheReceiverJoinsAnEncodingOnAnotherChannel)
{
    cctest::expectChildPasses("replyWhileJoiningOnAnotherChannel", {}, 30000);
}

CC_CHILD_MAIN(replyAheadOfAnEncodingBeingJoined)
{
    (void)args;
    cctest::ChildChecks checks;
    CommsChannel parking("");
    CommsChannel replies("");
    cctest::UdpSocket peer;
    checks.expect(peer.ok(), "no peer socket");

    // The burst, then the first piece of a long encoding on the same
    // socket, all waiting before the receiver thread looks: it queues the
    // burst in one pass and then waits for the rest of that encoding.
    const std::pair<std::string, std::string> pieces = cctest::splitEncoding("", std::string(400, 'l'), FIRST_PIECE);
    {
        cctest::ReceiverHold hold(peer, parking.port(), parking.socketHandle());
        checks.expect(hold.held(), "the receiver thread could not be held");
        std::vector<std::string> datagrams = burstWithReply();
        datagrams.push_back(pieces.first);
        checks.expect(cctest::sendBurst(peer.fd(), replies.port(), datagrams) == BURST + 1, "burst not sent");
    }
    checks.expect(burstTakenIn(replies), "the burst was not taken in");
    // A general receive takes the front message first, as an application
    // draining its queue would.
    checks.expect(nextDataWithin(replies, 1000) == burstData(0), "the front message did not come first");

    expectReplyWithinASecond(checks, replies);
    return checks.finish();
}

TEST(ChannelBehaviourTest, ByIdReceiveReturnsAQueuedReplyWhileTheReceiverJoinsAnEncodingThatFollowsIt)
{
    cctest::expectChildPasses("replyAheadOfAnEncodingBeingJoined", {}, 30000);
}

// --- A timed receive does not time out while a message is queued ----------

CC_CHILD_MAIN(timedReceiveOfABurst)
{
    (void)args;
    cctest::ChildChecks checks;
    CommsChannel channel("");
    cctest::UdpSocket peer;
    checks.expect(peer.ok(), "no peer socket");

    checks.expect(cctest::sendBurst(peer.fd(), channel.port(), burstWithReply()) == BURST, "burst not sent");
    expectEveryMessageWithoutATimeOutWhileQueued(checks, channel, BURST, 100);
    return checks.finish();
}

TEST(ChannelBehaviourTest, TimedReceiveNeverThrowsWhileAMessageOfABurstIsQueued)
{
    cctest::expectChildPasses("timedReceiveOfABurst", {}, 30000);
}

CC_CHILD_MAIN(timedReceiveWhileJoiningOnAnotherChannel)
{
    (void)args;
    cctest::ChildChecks checks;
    CommsChannel channel("");
    CommsChannel other("");
    cctest::UdpSocket peer;
    checks.expect(peer.ok(), "no peer socket");

    checks.expect(cctest::sendBurst(peer.fd(), channel.port(), burstWithReply()) == BURST, "burst not sent");
    checks.expect(peer.sendTo(other.port(), cctest::firstPieceOfLongEncoding(LONG_TOTAL, FIRST_PIECE)) > 0,
                  "first piece not sent");
    expectEveryMessageWithoutATimeOutWhileQueued(checks, channel, BURST, 100);
    return checks.finish();
}

TEST(ChannelBehaviourTest, TimedReceiveNeverThrowsWhileQueuedAndTheReceiverJoinsAnEncodingOnAnotherChannel)
{
    cctest::expectChildPasses("timedReceiveWhileJoiningOnAnotherChannel", {}, 30000);
}

CC_CHILD_MAIN(timedReceiveAheadOfAnEncodingBeingJoined)
{
    (void)args;
    cctest::ChildChecks checks;
    CommsChannel parking("");
    CommsChannel channel("");
    cctest::UdpSocket peer;
    checks.expect(peer.ok(), "no peer socket");

    const std::pair<std::string, std::string> pieces = cctest::splitEncoding("", std::string(400, 'l'), FIRST_PIECE);
    {
        cctest::ReceiverHold hold(peer, parking.port(), parking.socketHandle());
        checks.expect(hold.held(), "the receiver thread could not be held");
        std::vector<std::string> datagrams = burstWithReply();
        datagrams.push_back(pieces.first);
        checks.expect(cctest::sendBurst(peer.fd(), channel.port(), datagrams) == BURST + 1, "burst not sent");
    }
    expectEveryMessageWithoutATimeOutWhileQueued(checks, channel, BURST, 100);

    // The rest of the long encoding lets the thread finish its join.
    peer.sendTo(channel.port(), pieces.second);
    return checks.finish();
}

TEST(ChannelBehaviourTest, TimedReceiveNeverThrowsWhileQueuedAndTheReceiverJoinsAnEncodingThatFollows)
{
    cctest::expectChildPasses("timedReceiveAheadOfAnEncodingBeingJoined", {}, 30000);
}

// --- An interceptor that throws -------------------------------------------

namespace {

const char INTERCEPTOR_FAILURE[] = "interceptor gave up on its first message";

// Throws for the first message it sees and lets every later one through.
class ThrowOnceInterceptor : public CCInterceptorDispatcher {
public:
    int intercept(CCInterceptorContext* context) override
    {
        if (m_seen++ == 0) {
            throw std::runtime_error(INTERCEPTOR_FAILURE);
        }
        return CCInterceptorDispatcher::intercept(context);
    }

private:
    std::atomic<int> m_seen{0};
};

std::vector<std::string> nonEmptyLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::string::size_type start = 0;
    while (start < text.size()) {
        std::string::size_type end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        if (end > start) {
            lines.push_back(text.substr(start, end - start));
        }
        start = end + 1;
    }
    return lines;
}

}  // namespace

CC_CHILD_MAIN(interceptorThrows)
{
    (void)args;
    cctest::ChildChecks checks;
    cctest::FakeResolver resolver;
    checks.expect(resolver.ok(), "the fake resolver could not take port 5000");
    cctest::StderrRecorder errors;
    ThrowOnceInterceptor interceptor;
    CommsChannel target("ib-target", &interceptor);
    CommsChannel sender("ib-sender");
    checks.expect(resolver.waitForLocator() != 0, "the locator did not register");

    // A general receive is waiting when the refused message comes.
    cctest::TimedCall waiter([&target] {
        CommsChannelDataContainerMessage message;
        return target.receiveMsg(message);
    });
    usleep(200 * 1000);
    checks.expect(!waiter.done(), "the waiting receive returned before anything was sent");

    cctest::TimedCall refused([&sender] { return sender.sendMsg("ib-target", std::string("refused")); });
    checks.expect(refused.finishedWithin(5000), "the send that met the throwing interceptor did not return");
    if (refused.done()) {
        checks.note("the send that met the throwing interceptor " +
                    (refused.threw() ? "threw: " + refused.what() : "returned " + std::to_string(refused.result())));
    }

    checks.expect(waiter.finishedWithin(5000), "the waiting receive was not woken by the refused message");
    if (waiter.done()) {
        checks.expect(!waiter.threw() && waiter.result() == 0,
                      "the waiting receive answered " + std::to_string(waiter.result()) +
                          (waiter.threw() ? " and threw " + waiter.what() : ""));
    }

    cctest::TimedCall next([&sender] { return sender.sendMsg("ib-target", std::string("accepted")); });
    checks.expect(next.finishedWithin(5000), "the next send into the channel did not return: the channel is locked");
    if (next.done()) {
        checks.expect(!next.threw() && next.result() == 1, "the next send answered " + std::to_string(next.result()) +
                                                               (next.threw() ? " and threw " + next.what() : ""));
    }

    std::shared_ptr<std::string> data = std::make_shared<std::string>();
    cctest::TimedCall receive([&target, data] {
        CommsChannelDataContainerMessage message;
        const int result = target.receiveMsg_ByID_Timed(message, 0, 2000);
        *data = message.getData();
        return result;
    });
    checks.expect(receive.finishedWithin(5000), "a receive on the channel did not return: the channel is locked");
    if (receive.done()) {
        checks.expect(!receive.threw() && receive.result() == 1 && *data == "accepted",
                      "the receive after the refusal answered " + std::to_string(receive.result()) + " with '" +
                          *data + "'" + (receive.threw() ? ", threw " + receive.what() : ""));
    }
    checks.expect(target.isQEmpty(), "the refused message was queued");

    usleep(200 * 1000);
    errors.restore();
    const std::vector<std::string> lines = nonEmptyLines(errors.text());
    checks.expect(lines.size() == 1, "standard error got " + std::to_string(lines.size()) +
                                         " line(s) instead of one about the exception: '" + errors.text() + "'");
    return checks.finish();
}

TEST(ChannelBehaviourTest, ThrowingInterceptorRefusesItsMessageAndLeavesTheChannelUsable)
{
    cctest::expectChildPasses("interceptorThrows", {}, 60000);
}

// A by-id receive that finds its message already queued balances the token
// that message made. If another receive has spent that token meanwhile, the
// by-id receive still returns with its message, within its own time-out
// plus the fixed 10 ms wait, instead of waiting for a token that may never
// come. Run in a child: a receive that never returns ends only with it.
CC_CHILD_MAIN(byIdReceiveWhoseTokenWasSpent)
{
    (void)args;
    cctest::ChildChecks checks;
    CommsChannel channel("");
    CommsChannelDataContainerMessage request;
    request.setRequestId(7);
    request.setData("seven", 5);
    checks.expect(channel.addToMsgQ(request) == 1, "the message was not queued");
    // The message's token and the shutdown's are spent by general receives,
    // which return 0 after a shutdown and leave the message queued.
    channel.shutdown();
    CommsChannelDataContainerMessage ignored;
    checks.expect(channel.receiveMsg_ByID_Timed(ignored, 0, 100) == 0, "a general receive took a message");
    checks.expect(channel.receiveMsg_ByID_Timed(ignored, 0, 100) == 0, "a general receive took a message");
    checks.expect(!channel.isQEmpty(), "the message is gone");

    const long long start = cctest::nowMs();
    CommsChannelDataContainerMessage reply;
    const int received = channel.receiveMsg_ByID_Timed(reply, 7, 200);
    const long long took = cctest::nowMs() - start;
    checks.expect(received == 1 && reply.getData() == "seven", "the by-id receive did not return the message");
    checks.expect(took < 1000, "the by-id receive took " + std::to_string(took) + " ms");
    return checks.finish();
}

TEST(ChannelBehaviourTest, ByIdReceiveWhoseTokenWasSpentReturnsWithinItsTimeOut)
{
    cctest::expectChildPasses("byIdReceiveWhoseTokenWasSpent", {}, 30000);
}
