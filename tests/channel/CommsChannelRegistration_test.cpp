// A channel's attachment to the process's locator (by name) and receiver,
// and what the first and last channels of a process start and stop.
#include "CommsChannel.h"
#include "ChannelTestHelpers.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelLocator.h"
#include "CommsChannelLocatorEntry.h"
#include "FakeResolver.h"
#include "WhiteBoxAccess.h"
#include "ReceiverState.h"
#include "Semaphore.h"
#include "TestUtil.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

bool installedInReceiver(CommsChannel* channel)
{
    receiver_state::channelListLock().take(-1);
    const bool found = receiver_state::receiveChannels != nullptr &&
                       std::find(receiver_state::receiveChannels->begin(), receiver_state::receiveChannels->end(),
                                 channel) != receiver_state::receiveChannels->end();
    receiver_state::channelListLock().give();
    return found;
}

// The channel registered under name in this process's locator, or null
// (also when there is no locator).
CommsChannel* registeredChannel(const std::string& name)
{
    CommsChannelLocator* locator = CommsChannelLocatorInspector::current();
    if (locator == nullptr) {
        return nullptr;
    }
    Semaphore& lock = CommsChannelLocatorInspector::mapLock(*locator);
    lock.take(-1);
    std::map<std::string, CommsChannelLocatorEntry*>& local = CommsChannelLocatorInspector::localMap(*locator);
    std::map<std::string, CommsChannelLocatorEntry*>::iterator it = local.find(name);
    CommsChannel* channel = it != local.end() ? it->second->channelHandle() : nullptr;
    lock.give();
    return channel;
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
    CommsChannel sut("");
    EXPECT_EQ(nullptr, CommsChannelLocatorInspector::current());
    EXPECT_TRUE(installedInReceiver(&sut));
    EXPECT_EQ(0, CommsChannelInspector::registerChannel(sut));
    EXPECT_EQ(0, CommsChannelInspector::unregisterChannel(sut));
    EXPECT_EQ(nullptr, CommsChannelLocatorInspector::current());
    EXPECT_TRUE(fakeResolver.received().empty());
    ASSERT_TRUE(deliverFromOutside(sut, "reached"));
    EXPECT_EQ("reached", receiveWithin(sut, channeltest::DEADLINE_MS));
}

TEST_F(CommsChannelRegistrationTest, NamedChannelIsRegisteredUnderItsNameAndInstalled)
{
    CommsChannel sut("named");
    ASSERT_NE(nullptr, CommsChannelLocatorInspector::current());
    EXPECT_EQ(&sut, registeredChannel("named"));
    EXPECT_TRUE(installedInReceiver(&sut));
}

TEST_F(CommsChannelRegistrationTest, AnonymousChannelDoesNotKeepTheLocatorAlive)
{
    CommsChannel anonymous("");
    std::unique_ptr<CommsChannel> named(new CommsChannel("named"));
    ASSERT_NE(nullptr, CommsChannelLocatorInspector::current());
    named.reset();
    EXPECT_EQ(nullptr, CommsChannelLocatorInspector::current());
    EXPECT_TRUE(installedInReceiver(&anonymous));
}

TEST_F(CommsChannelRegistrationTest, DestroyingOneOfTwoNamedChannelsKeepsTheLocator)
{
    CommsChannel kept("kept");
    std::unique_ptr<CommsChannel> gone(new CommsChannel("gone"));
    CommsChannelLocator* locator = CommsChannelLocatorInspector::current();
    gone.reset();
    EXPECT_EQ(locator, CommsChannelLocatorInspector::current());
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
    EXPECT_EQ(0, CommsChannelInspector::registerChannel(*second));
    // Not reachable by name, but open and installed all the same.
    EXPECT_TRUE(installedInReceiver(second.get()));
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
    CommsChannel* sut = new CommsChannel("");
    ASSERT_NE(nullptr, CommsChannelReceiverInspector::current());
    const int statusSocket = receiver_state::statusSocket;
    ASSERT_GT(statusSocket, 0);
    ASSERT_NE(0ul, receiver_state::receiverThreadId);

    delete sut;

    // The thread closes the status socket as its very last act.
    EXPECT_EQ(nullptr, CommsChannelReceiverInspector::current());
    EXPECT_EQ(0, receiver_state::statusSocket.load());
    EXPECT_TRUE(descriptorIsClosed(statusSocket));
}

TEST_F(CommsChannelRegistrationTest, ChannelCreatedAfterTheLastOneWentStartsANewReceiverThread)
{
    delete new CommsChannel("");
    ASSERT_EQ(nullptr, CommsChannelReceiverInspector::current());
    ASSERT_EQ(0, receiver_state::statusSocket.load());

    CommsChannel sut("");

    EXPECT_NE(nullptr, CommsChannelReceiverInspector::current());
    EXPECT_GT(receiver_state::statusSocket.load(), 0);
    EXPECT_NE(0ul, receiver_state::receiverThreadId);
    // Only a running receiver thread can move a datagram into the queue.
    ASSERT_TRUE(deliverFromOutside(sut, "reached"));
    EXPECT_EQ("reached", receiveWithin(sut, channeltest::DEADLINE_MS));
}

TEST_F(CommsChannelRegistrationTest, LastNamedChannelDeletesTheLocatorAndTheNextCreatesANewOneCountingFromOne)
{
    std::unique_ptr<CommsChannel> first(new CommsChannel("first"));
    EXPECT_EQ(0, sendToUnknown(*first, "unknown 1"));
    EXPECT_EQ(0, sendToUnknown(*first, "unknown 2"));
    CommsChannelLocator* firstLocator = CommsChannelLocatorInspector::current();
    ASSERT_NE(nullptr, firstLocator);
    EXPECT_EQ(2, CommsChannelLocatorInspector::requestId(*firstLocator));

    first.reset();
    EXPECT_EQ(nullptr, CommsChannelLocatorInspector::current());
    EXPECT_TRUE(fakeResolver.waitForType(COMMS_MSG_UNREGISTER_LOCATOR, 1, channeltest::DEADLINE_MS));

    CommsChannel second("second");
    CommsChannelLocator* secondLocator = CommsChannelLocatorInspector::current();
    ASSERT_NE(nullptr, secondLocator);
    ASSERT_TRUE(fakeResolver.waitForType(COMMS_MSG_REGISTER_LOCATOR, 2, channeltest::DEADLINE_MS));
    EXPECT_EQ(CommsChannelLocatorInspector::port(*secondLocator),
              fakeResolver.receivedOfType(COMMS_MSG_REGISTER_LOCATOR).back().sourcePort);
    EXPECT_EQ(0, sendToUnknown(second, "unknown 3"));

    const std::vector<cctest::FakeResolver::Received> requests = fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST);
    ASSERT_EQ(3u, requests.size());
    EXPECT_EQ(1, requests[0].requestId);
    EXPECT_EQ(2, requests[1].requestId);
    EXPECT_EQ("unknown 3", requests[2].channel);
    EXPECT_EQ(1, requests[2].requestId);
    EXPECT_EQ(1, CommsChannelLocatorInspector::requestId(*secondLocator));
}

TEST_F(CommsChannelRegistrationTest, ChannelWhoseSocketFailedIsStillRegisteredAndInstalled)
{
    CommsChannel keeper("keeper");  // the locator and the receiver need descriptors
    // Let the fake resolver and the locator thread finish their first round
    // before descriptors run out: sanitizer runtimes that check a first
    // virtual call may need a descriptor themselves.
    ASSERT_TRUE(fakeResolver.waitForType(COMMS_MSG_LOCATOR_UPDATE, 1, channeltest::DEADLINE_MS));
    ASSERT_TRUE(cctest::waitUntil([] {
        CommsChannelLocator* locator = CommsChannelLocatorInspector::current();
        return locator != nullptr && CommsChannelLocatorInspector::initialUpdateReceived(*locator);
    }, channeltest::DEADLINE_MS));
    std::string reported;
    std::unique_ptr<CommsChannel> sut = channeltest::constructWithoutDescriptors("broken", &reported);

    ASSERT_NE(nullptr, sut);
    EXPECT_EQ(std::string("Error creating socket: ") + std::strerror(EMFILE) + "\n", reported);
    EXPECT_EQ(-1, sut->socketHandle());
    EXPECT_EQ(sut.get(), registeredChannel("broken"));
    EXPECT_TRUE(installedInReceiver(sut.get()));
}

}  // namespace
