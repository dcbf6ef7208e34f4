// A channel's attachment to the process's locator (by name) and receiver,
// and what the first and last channels of a process start and stop.
#include "CommsChannel.h"
#include "ChannelTestHelpers.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelLocator.h"
#include "CommsChannelLocatorEntry.h"
#include "FakeResolver.h"
#include "WhiteBoxAccess.h"
#include "ProcessRuntime.h"
#include "TestUtil.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Channels the process's receiver watches (a receiver is made if there is
// none).
int installedChannels() { return CommsChannelReceiverInspector::channelCount(); }

// The channel registered under name in this process's locator, or null.
// Makes a locator if there is none: call it while a named channel exists.
CommsChannel* registeredChannel(const std::string& name) { return CommsChannelLocatorInspector::localChannel(name); }

// Threads of this process.
int threadCount() { return cctest::threadCount(); }

// Open socket descriptors of the process.
int socketCount()
{
    int count = 0;
    DIR* listing = opendir("/proc/self/fd");
    if (listing == nullptr) {
        return -1;
    }
    while (dirent* entry = readdir(listing)) {
        char target[256];
        const std::string path = std::string("/proc/self/fd/") + entry->d_name;
        const ssize_t length = readlink(path.c_str(), target, sizeof target - 1);
        if (length > 0 && std::string(target, static_cast<std::size_t>(length)).compare(0, 7, "socket:") == 0) {
            ++count;
        }
    }
    closedir(listing);
    return count;
}

bool descriptorIsClosed(int fd) { return fcntl(fd, F_GETFD) == -1 && errno == EBADF; }

// Sends a channel's own encoding of data from a foreign socket to its port.
bool deliverFromOutside(CommsChannel& channel, const std::string& data)
{
    CommsChannelDataContainerMessage message = channeltest::message(data);
    int length = 0;
    const char* encoding = message.encode(&length);
    return encoding != nullptr &&
           cctest::sendRawDatagram(channel.port(), encoding, static_cast<std::size_t>(length)) == length;
}

std::string receiveWithin(CommsChannel& channel, int timeoutMs)
{
    CommsChannelDataContainerMessage out;
    try {
        if (channel.receiveMsg_ByID_Timed(out, 0, timeoutMs) != 1) {
            return "<nothing>";
        }
    } catch (const CommsException&) {
        return "<timed out>";
    }
    return out.getData();
}

// Sends to a name nobody registered; the null dispatcher's line is kept
// off the test's output and returned in *printed.
int sendToUnknown(CommsChannel& sender, const std::string& name, std::string* printed = nullptr)
{
    testing::internal::CaptureStdout();
    const int result = sender.sendMsg(name, std::string("hello"));
    const std::string line = testing::internal::GetCapturedStdout();
    if (printed != nullptr) {
        *printed = line;
    }
    return result;
}

class CommsChannelRegistrationTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(fakeResolver.ok()); }

    channeltest::Watchdog watchdog;
    cctest::FakeResolver fakeResolver;
};

TEST_F(CommsChannelRegistrationTest, AnonymousChannelIsInstalledButNeverRegisteredAndCreatesNoLocator)
{
    std::unique_ptr<CommsChannel> sut(new CommsChannel(""));
    EXPECT_EQ(1, installedChannels());
    sut.reset();
    sut.reset(new CommsChannel(""));
    // No locator was made: a new one would register at the resolver.
    EXPECT_FALSE(cctest::waitUntil([&] { return !fakeResolver.received().empty(); }, channeltest::STILL_BLOCKED_MS));
    ASSERT_TRUE(deliverFromOutside(*sut, "reached"));
    EXPECT_EQ("reached", receiveWithin(*sut, channeltest::DEADLINE_MS));
}

TEST_F(CommsChannelRegistrationTest, NamedChannelIsRegisteredUnderItsNameAndInstalled)
{
    CommsChannel sut("named");
    ASSERT_TRUE(fakeResolver.waitForType(COMMS_MSG_REGISTER_LOCATOR, 1, channeltest::DEADLINE_MS));
    EXPECT_EQ(&sut, registeredChannel("named"));
    EXPECT_EQ(1, installedChannels());
}

TEST_F(CommsChannelRegistrationTest, AnonymousChannelDoesNotKeepTheLocatorAlive)
{
    CommsChannel anonymous("");
    std::unique_ptr<CommsChannel> named(new CommsChannel("named"));
    std::shared_ptr<CommsChannelLocator> locator = CommsChannelLocatorInspector::shared();
    ASSERT_FALSE(locator->hasEnded());
    named.reset();
    EXPECT_TRUE(locator->hasEnded());
    locator.reset();
    EXPECT_TRUE(fakeResolver.waitForType(COMMS_MSG_UNREGISTER_LOCATOR, 1, channeltest::DEADLINE_MS));
    EXPECT_EQ(1, installedChannels());
    ASSERT_TRUE(deliverFromOutside(anonymous, "reached"));
    EXPECT_EQ("reached", receiveWithin(anonymous, channeltest::DEADLINE_MS));
}

TEST_F(CommsChannelRegistrationTest, DestroyingOneOfTwoNamedChannelsKeepsTheLocator)
{
    CommsChannel kept("kept");
    std::unique_ptr<CommsChannel> gone(new CommsChannel("gone"));
    const std::shared_ptr<CommsChannelLocator> locator = CommsChannelLocatorInspector::shared();
    gone.reset();
    EXPECT_FALSE(locator->hasEnded());
    EXPECT_EQ(locator, CommsChannelLocatorInspector::shared());
    EXPECT_EQ(&kept, registeredChannel("kept"));
    EXPECT_EQ(nullptr, registeredChannel("gone"));
}

TEST_F(CommsChannelRegistrationTest, SecondChannelWithARegisteredNameIsConstructedWithoutAnyReport)
{
    CommsChannel first("duplicate");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    std::unique_ptr<CommsChannel> second(new CommsChannel("duplicate"));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());

    EXPECT_EQ(&first, registeredChannel("duplicate"));
    // A second registration of the name is refused.
    EXPECT_EQ(0, ProcessRuntime::process().registerChannel(second.get()));
    EXPECT_EQ(&first, registeredChannel("duplicate"));
    // Not reachable by name, but open and installed all the same.
    EXPECT_EQ(2, installedChannels());
    ASSERT_TRUE(deliverFromOutside(*second, "reached"));
    EXPECT_EQ("reached", receiveWithin(*second, channeltest::DEADLINE_MS));
}

TEST_F(CommsChannelRegistrationTest, MessagesToADuplicatedNameGoToTheFirstChannel)
{
    CommsChannel sender("sender");
    CommsChannel first("duplicate");
    CommsChannel second("duplicate");
    EXPECT_EQ(1, sender.sendMsg("duplicate", std::string("hello")));
    EXPECT_EQ("hello", receiveWithin(first, 0));
    EXPECT_TRUE(second.isQEmpty());
}

TEST_F(CommsChannelRegistrationTest, DestroyingTheSecondDuplicateUnregistersTheNameOfTheFirst)
{
    CommsChannel sender("sender");
    CommsChannel first("duplicate");
    std::unique_ptr<CommsChannel> second(new CommsChannel("duplicate"));

    second.reset();

    EXPECT_EQ(nullptr, registeredChannel("duplicate"));
    std::string printed;
    EXPECT_EQ(0, sendToUnknown(sender, "duplicate", &printed));
    EXPECT_EQ("CCNullDispatcher::sendMsg(), src_channel=sender, dst_channel=duplicate, callback_channel=, "
              "data=hello\n",
              printed);
    EXPECT_TRUE(first.isQEmpty());
}

TEST_F(CommsChannelRegistrationTest, DestroyingTheOnlyChannelReturnsAfterTheReceiverThreadEnded)
{
    const int threadsBefore = threadCount();
    const int socketsBefore = socketCount();
    CommsChannel* sut = new CommsChannel("");
    CommsChannelReceiver* receiver = CommsChannelReceiverInspector::current();
    ASSERT_FALSE(receiver->hasEnded());
    EXPECT_EQ(threadsBefore + 1, threadCount());
    const int socket = sut->socketHandle();

    delete sut;

    // The receiver thread is gone when the destructor returns, and so are
    // the channel's socket and the receiver's status socket.
    EXPECT_TRUE(receiver->hasEnded());
    EXPECT_EQ(threadsBefore, threadCount());
    EXPECT_TRUE(descriptorIsClosed(socket));
    EXPECT_EQ(socketsBefore, socketCount());
}

TEST_F(CommsChannelRegistrationTest, ChannelCreatedAfterTheLastOneWentStartsANewReceiverThread)
{
    const int threadsBefore = threadCount();
    CommsChannel* first = new CommsChannel("");
    CommsChannelReceiver* ended = CommsChannelReceiverInspector::current();
    delete first;
    ASSERT_TRUE(ended->hasEnded());
    ASSERT_EQ(threadsBefore, threadCount());

    CommsChannel sut("");

    CommsChannelReceiver* fresh = CommsChannelReceiverInspector::current();
    EXPECT_FALSE(fresh->hasEnded());
    EXPECT_EQ(1, fresh->numReceiveChannels());
    EXPECT_EQ(threadsBefore + 1, threadCount());
    // Only a running receiver thread can move a datagram into the queue.
    ASSERT_TRUE(deliverFromOutside(sut, "reached"));
    EXPECT_EQ("reached", receiveWithin(sut, channeltest::DEADLINE_MS));
}

TEST_F(CommsChannelRegistrationTest, LastNamedChannelDeletesTheLocatorAndTheNextCreatesANewOneCountingFromOne)
{
    std::unique_ptr<CommsChannel> first(new CommsChannel("first"));
    EXPECT_EQ(0, sendToUnknown(*first, "unknown 1"));
    EXPECT_EQ(0, sendToUnknown(*first, "unknown 2"));
    std::shared_ptr<CommsChannelLocator> firstLocator = CommsChannelLocatorInspector::shared();

    first.reset();
    EXPECT_TRUE(firstLocator->hasEnded());
    firstLocator.reset();
    EXPECT_TRUE(fakeResolver.waitForType(COMMS_MSG_UNREGISTER_LOCATOR, 1, channeltest::DEADLINE_MS));

    CommsChannel second("second");
    const std::shared_ptr<CommsChannelLocator> secondLocator = CommsChannelLocatorInspector::shared();
    EXPECT_FALSE(secondLocator->hasEnded());
    ASSERT_TRUE(fakeResolver.waitForType(COMMS_MSG_REGISTER_LOCATOR, 2, channeltest::DEADLINE_MS));
    EXPECT_EQ(0, sendToUnknown(second, "unknown 3"));

    const std::vector<cctest::FakeResolver::Received> requests = fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST);
    ASSERT_EQ(3u, requests.size());
    EXPECT_EQ(1, requests[0].requestId);
    EXPECT_EQ(2, requests[1].requestId);
    EXPECT_EQ("unknown 3", requests[2].channel);
    EXPECT_EQ(1, requests[2].requestId);
    // The second registration and the third request come from one socket,
    // the new locator's.
    EXPECT_EQ(requests[2].sourcePort, fakeResolver.receivedOfType(COMMS_MSG_REGISTER_LOCATOR).back().sourcePort);
    EXPECT_NE(requests[0].sourcePort, 0);
}

TEST_F(CommsChannelRegistrationTest, ChannelWhoseSocketFailedIsStillRegisteredAndInstalled)
{
    CommsChannel keeper("keeper");  // the locator and the receiver need descriptors
    // Let the fake resolver and the locator thread finish their first round
    // before descriptors run out: sanitizer runtimes that check a first
    // virtual call may need a descriptor themselves.
    ASSERT_TRUE(fakeResolver.waitForType(COMMS_MSG_LOCATOR_UPDATE, 1, channeltest::DEADLINE_MS));
    // A look-up waits for the first update to have been taken in.
    ASSERT_EQ(&keeper, registeredChannel("keeper"));
    const int installedBefore = installedChannels();
    std::string reported;
    std::unique_ptr<CommsChannel> sut = channeltest::constructWithoutDescriptors("broken", &reported);

    ASSERT_NE(nullptr, sut);
    EXPECT_EQ(std::string("Error creating socket: ") + std::strerror(EMFILE) + "\n", reported);
    EXPECT_EQ(-1, sut->socketHandle());
    EXPECT_EQ(sut.get(), registeredChannel("broken"));
    EXPECT_EQ(installedBefore + 1, installedChannels());
}

}  // namespace
