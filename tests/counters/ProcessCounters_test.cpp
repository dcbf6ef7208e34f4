// The counter file of this process, read back through the tool's reader:
// made with the first channel, gone with the last, and each counter moving
// as messages are queued, taken, refused and received.
#include "CCInterceptorContext.h"
#include "CCInterceptorDispatcher.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "ChildProcess.h"
#include "OutsideView.h"
#include "PublishedCounters.h"
#include "TestUtil.h"

#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace {

std::string counterFile() { return "/dev/shm/commschannel-" + std::to_string(getpid()); }

bool fileExists(const std::string& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0;
}

cli::ChannelCounters countersOf(CommsChannel& channel) { return cli::readChannelCounters(getpid(), channel.port()); }

void queue(CommsChannel& channel, const std::string& data)
{
    CommsChannelDataContainerMessage message;
    message.setData(data.data(), static_cast<int>(data.size()));
    channel.addToMsgQ(message);
}

std::string take(CommsChannel& channel)
{
    CommsChannelDataContainerMessage message;
    return channel.receiveMsg_ByID_Timed(message, 0, 2000) == 1 ? message.getData() : std::string("(nothing)");
}

// Refuses every message.
class RefuseAll : public CCInterceptorDispatcher {
public:
    int intercept(CCInterceptorContext* context) override
    {
        context->setSendFlag(0);
        return 1;
    }
};

// Exits with a channel still alive, as programs with channels that live as
// long as they do.
CC_CHILD_MAIN(exitWithALiveChannel)
{
    new CommsChannel("");
    cctest::childSay(args.empty() ? "READY" : args[0]);
    std::string line;
    cctest::childHear(line);
    return cctest::CHILD_OK;
}

}  // namespace

TEST(ProcessCountersTest, FileGoesWhenTheProcessExitsWithALiveChannel)
{
    cctest::ChildProcess child("exitWithALiveChannel", {});
    ASSERT_TRUE(child.waitForLine("READY", 10000));
    const std::string file = "/dev/shm/commschannel-" + std::to_string(child.pid());
    EXPECT_TRUE(fileExists(file));
    child.writeLine("exit");
    EXPECT_EQ(cctest::CHILD_OK, child.wait(10000));
    EXPECT_FALSE(fileExists(file));
}

TEST(ProcessCountersTest, FileComesWithTheFirstChannelReadableByAllAndGoesWithTheLast)
{
    ASSERT_FALSE(fileExists(counterFile()));
    std::unique_ptr<CommsChannel> first(new CommsChannel(""));
    std::unique_ptr<CommsChannel> second(new CommsChannel(""));
    struct stat status;
    ASSERT_EQ(0, stat(counterFile().c_str(), &status));
    EXPECT_EQ(0644u, status.st_mode & 0777u);

    first.reset();
    EXPECT_TRUE(fileExists(counterFile()));
    EXPECT_EQ(0, countersOf(*second).queued);
    second.reset();
    EXPECT_FALSE(fileExists(counterFile()));

    CommsChannel again("");
    EXPECT_TRUE(fileExists(counterFile()));
    EXPECT_TRUE(countersOf(again).receiving);
}

TEST(ProcessCountersTest, QueuedFollowsTheQueueAndMaxQueuedKeepsItsPeak)
{
    CommsChannel sut("");
    for (int i = 0; i < 3; ++i) {
        queue(sut, "m" + std::to_string(i));
    }
    cli::ChannelCounters counters = countersOf(sut);
    EXPECT_EQ(3, counters.queued);
    EXPECT_EQ(3, counters.maxQueued);
    EXPECT_EQ(0, counters.taken);

    EXPECT_EQ("m0", take(sut));
    EXPECT_EQ("m1", take(sut));
    counters = countersOf(sut);
    EXPECT_EQ(1, counters.queued);
    EXPECT_EQ(3, counters.maxQueued);
    EXPECT_EQ(2, counters.taken);
    EXPECT_EQ(0, counters.received);
    EXPECT_EQ(0, counters.refused);
    EXPECT_EQ(0, counters.badDatagrams);
    EXPECT_TRUE(counters.receivingKnown);
    EXPECT_TRUE(counters.receiving);
}

TEST(ProcessCountersTest, RefusedMessagesAreCountedAndNeverQueued)
{
    RefuseAll refuser;
    CommsChannel sut("", &refuser);
    queue(sut, "no");
    queue(sut, "never");
    const cli::ChannelCounters counters = countersOf(sut);
    EXPECT_EQ(2, counters.refused);
    EXPECT_EQ(0, counters.queued);
    EXPECT_EQ(0, counters.maxQueued);
}

TEST(ProcessCountersTest, DatagramsFromOtherProcessesCountAsReceived)
{
    CommsChannel sut("");
    cctest::UdpSocket peer;
    ASSERT_TRUE(peer.ok());
    ASSERT_GT(peer.sendTo(sut.port(), cctest::encodeData("", "one")), 0);
    ASSERT_GT(peer.sendTo(sut.port(), cctest::encodeData("", "two")), 0);
    ASSERT_TRUE(cctest::waitUntil([&sut] { return countersOf(sut).received == 2; }, 5000))
        << countersOf(sut).received;
    EXPECT_EQ(2, countersOf(sut).queued);
    EXPECT_EQ("one", take(sut));
    EXPECT_EQ(1, countersOf(sut).taken);
}

TEST(ProcessCountersTest, EachChannelHasItsOwnSlot)
{
    CommsChannel busy("");
    CommsChannel idle("");
    queue(busy, "x");
    EXPECT_EQ(1, countersOf(busy).queued);
    EXPECT_EQ(0, countersOf(idle).queued);
    EXPECT_EQ(-1, cli::readChannelCounters(getpid(), 1).queued);
}

TEST(ProcessCountersTest, FileOfAProcessThatIsGoneIsSwept)
{
    // A process killed outright leaves its file; the pid of a child that has
    // ended and been reaped names no process.
    const pid_t gone = cctest::spawnProgram({"/bin/true"});
    ASSERT_NE(-1, cctest::waitForPid(gone, 5000));
    const std::string stale = "/dev/shm/commschannel-" + std::to_string(gone);
    FILE* file = std::fopen(stale.c_str(), "w");
    ASSERT_NE(nullptr, file);
    std::fclose(file);
    CommsChannel alive("");

    cli::sweepDeadCounterFiles();
    EXPECT_FALSE(fileExists(stale));
    EXPECT_TRUE(fileExists(counterFile()));
}
