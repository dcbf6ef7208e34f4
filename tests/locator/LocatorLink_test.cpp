// The locator's link to the resolver when a send fails: the link stays
// broken, later sends fail without touching the socket, the socket is
// closed, and resolutions waiting for the resolver's first update are let
// go. The failure is made by the process's own sendto, which this test
// program provides: while armed, it fails every send from the chosen socket
// to the resolver's port (and counts the attempts); otherwise it sends with
// the system call.
#include "CommsChannel.h"
#include "CommsChannelLocator.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "FakeResolver.h"
#include "LocatorProbe.h"
#include "StderrRecorder.h"
#include "TestUtil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include <typeinfo>

#include <gtest/gtest.h>

namespace {

std::atomic<int> failingSocket(-1);
std::atomic<int> failedAttempts(0);

// While it lives, sends from fd to the resolver's port fail with EPERM.
class SendFailure {
public:
    explicit SendFailure(int fd)
    {
        failedAttempts = 0;
        failingSocket = fd;
    }
    ~SendFailure() { failingSocket = -1; }
    SendFailure(const SendFailure&) = delete;
    SendFailure& operator=(const SendFailure&) = delete;
};

int count(const std::string& text, const std::string& needle)
{
    int found = 0;
    for (std::string::size_type at = text.find(needle); at != std::string::npos;
         at = text.find(needle, at + needle.size())) {
        ++found;
    }
    return found;
}

const std::string SEND_FAILURE = "CommsChannelLocator::send(CommsChannelMessage& message) sendto";

}  // namespace

extern "C" ssize_t sendto(int fd, const void* data, size_t length, int flags, const struct sockaddr* destination,
                          socklen_t destinationLength)
{
    if (fd == failingSocket && destination != nullptr && destination->sa_family == AF_INET &&
        ntohs(reinterpret_cast<const sockaddr_in*>(destination)->sin_port) == CommsChannelLocator::RESOLVER_PORT) {
        ++failedAttempts;
        errno = EPERM;
        return -1;
    }
    return syscall(SYS_sendto, fd, data, length, flags, destination, destinationLength);
}

namespace {

using cctest::FakeResolver;
using cctest::LocatorProbe;
using cctest::PendingResolution;

TEST(LocatorLinkTest, FailedSendBreaksTheLinkForGoodAndLaterSendsLeaveTheSocketAlone)
{
    FakeResolver fakeResolver(false, false);
    ASSERT_TRUE(fakeResolver.ok());
    CommsChannel anchor("anchor");
    const int port = fakeResolver.waitForLocator(20000);
    ASSERT_NE(0, port);
    // The anchor's row has arrived too: nothing more is on its way.
    ASSERT_TRUE(fakeResolver.waitForType(COMMS_MSG_LOCATOR_UPDATE, 1, 20000));
    const int socket = LocatorProbe::socket();
    ASSERT_GT(socket, 0);
    ASSERT_EQ(port, cctest::ReceiverProbe::boundPort(socket));
    CommsChannelLocator* sut = CommsChannelLocator::instance();
    CommsChannelRegisterLocatorMessage message;
    message.setPort(port);
    const std::size_t receivedBefore = fakeResolver.received().size();
    cctest::StderrRecorder errors;
    int first = -1;
    int second = -1;
    int attempts = 0;
    {
        SendFailure failure(socket);

        first = sut->send(message);
        second = sut->send(message);
        attempts = failedAttempts;
    }
    // The failure is over, but the link stays broken.
    const int third = sut->send(message);
    errors.restore();

    EXPECT_EQ(0, first);
    EXPECT_EQ(0, second);
    EXPECT_EQ(0, third);
    EXPECT_EQ(1, attempts);
    EXPECT_EQ(3, count(errors.text(), SEND_FAILURE + ": ")) << errors.text();
    EXPECT_NE(std::string::npos, errors.text().find(SEND_FAILURE + ": " + std::strerror(EPERM))) << errors.text();
    // The locator's thread closes the socket.
    EXPECT_TRUE(cctest::waitUntil([] { return LocatorProbe::unwatchedSockets().empty(); }, 20000));
    EXPECT_FALSE(fakeResolver.waitForType(COMMS_MSG_REGISTER_LOCATOR, 2, 300));
    EXPECT_EQ(receivedBefore, fakeResolver.received().size());
}

TEST(LocatorLinkTest, BrokenLinkLetsGoEveryResolutionWaitingForTheFirstUpdate)
{
    FakeResolver fakeResolver(false, true);
    ASSERT_TRUE(fakeResolver.ok());
    CommsChannel* anchor = new CommsChannel("anchor");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));
    const int socket = LocatorProbe::socket();
    ASSERT_GT(socket, 0);
    CommsChannelLocator* sut = CommsChannelLocator::instance();
    PendingResolution one("one");
    PendingResolution two("two");
    ASSERT_TRUE(one.staysBlocked());
    ASSERT_TRUE(two.staysBlocked());
    cctest::StderrRecorder errors;
    SendFailure failure(socket);
    CommsChannelRegisterLocatorMessage message;

    EXPECT_EQ(0, sut->send(message));

    // Far below the 100 s that the wait would otherwise last, each goes on
    // to ask the resolver, which fails on the broken link as well: one
    // line for the send above, one for each port request.
    EXPECT_TRUE(errors.waitFor(SEND_FAILURE, 20000));
    EXPECT_TRUE(cctest::waitUntil([&errors] { return count(errors.text(), SEND_FAILURE + ": ") == 3; }, 20000))
        << errors.text();
    EXPECT_EQ(1, failedAttempts.load());
    // A request that could not be sent waits for the locator's end.
    EXPECT_TRUE(one.staysBlocked());
    delete anchor;
    EXPECT_TRUE(one.waitDone(20000));
    EXPECT_TRUE(two.waitDone(20000));
    errors.restore();
    // A request that could not be sent resolves to the shared null
    // dispatcher, also when the locator's end released it.
    ASSERT_NE(nullptr, one.result());
    ASSERT_NE(nullptr, two.result());
    EXPECT_TRUE(typeid(*one.result()) == typeid(CCNullDispatcher));
    EXPECT_EQ(one.result(), two.result());
    EXPECT_TRUE(sut->hasEnded());
    EXPECT_TRUE(fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST).empty());
}

}  // namespace
