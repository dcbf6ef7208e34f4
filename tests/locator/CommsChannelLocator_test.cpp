// The process's locator, its socket towards the resolver and the thread that
// reads it. A cctest::FakeResolver plays the resolver on port 5000; foreign
// sockets play strangers that write to the locator's port. The locator's
// socket is found among the process's descriptors (LocatorProbe::socket).
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelLocator.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "FakeResolver.h"
#include "LocatorProbe.h"
#include "ReceiverProbe.h"
#include "StderrRecorder.h"
#include "TestUtil.h"
#include "WireCodec.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace {

using cctest::FakeResolver;
using cctest::LocatorProbe;
using cctest::PendingResolution;

typedef std::vector<std::tuple<int, std::string, int>> Rows;

std::string encodingOf(CommsChannelMessage& message)
{
    int length = 0;
    const char* encoding = message.encode(&length);
    return encoding != nullptr ? std::string(encoding, static_cast<std::size_t>(length)) : std::string();
}

std::string updateEncoding(const Rows& rows)
{
    CommsChannelLocatorUpdateMessage update;
    for (const auto& row : rows) {
        update.addChannelEntry(static_cast<CommsChannelLocatorUpdateMessage::eUpdateType>(std::get<0>(row)),
                               std::get<1>(row), std::get<2>(row));
    }
    return encodingOf(update);
}

// The encoding with bytes 4 to 7 claiming another total length.
std::string withClaimedLength(std::string encoding, std::uint32_t claimed)
{
    wire::writeHostOrderLength(&encoding[0], claimed);
    return encoding;
}

class CommsChannelLocatorTest : public testing::Test {
protected:
    // The current locator's port; others are sockets the test opened.
    int locatorPort(const std::vector<int>& others = std::vector<int>()) { return LocatorProbe::port(others); }

    // Sends an update with one row naming marker and waits until the
    // locator thread applied it: everything sent before has been handled.
    void sendMarkerAndWait(FakeResolver& resolver, const std::string& marker = "marker")
    {
        ASSERT_GT(resolver.sendUpdate(locatorPort(), Rows{std::make_tuple(0, marker, 40999)}), 0);
        ASSERT_TRUE(cctest::waitUntil([&] { return LocatorProbe::knows(marker); }, 20000));
    }

    // Resolves name on a thread of its own, with a deadline.
    CommsChannelDispatcher* resolve(const std::string& name)
    {
        PendingResolution resolution(name);
        EXPECT_TRUE(resolution.waitDone(20000)) << "getDispatcher(" << name << ") did not return";
        return resolution.result();
    }
};

TEST_F(CommsChannelLocatorTest, InstanceReturnsTheSameLocatorEveryTime)
{
    FakeResolver fakeResolver;
    ASSERT_TRUE(fakeResolver.ok());
    CommsChannel anchor("anchor");

    CommsChannelLocator* sut = CommsChannelLocator::instance();

    EXPECT_NE(nullptr, sut);
    EXPECT_EQ(sut, CommsChannelLocator::instance());
    EXPECT_EQ(sut, LocatorProbe::current());
}

TEST_F(CommsChannelLocatorTest, TwoThreadsCallingInstanceAtOnceGetOneLocatorBuiltOnce)
{
    FakeResolver fakeResolver(false, false);
    ASSERT_TRUE(fakeResolver.ok());
    CommsChannel unnamed("");
    const int rounds = 20;

    for (int round = 0; round < rounds; ++round) {
        std::atomic<bool> go(false);
        CommsChannelLocator* seen[2] = {nullptr, nullptr};
        std::thread first([&] {
            while (!go) {
            }
            seen[0] = CommsChannelLocator::instance();
        });
        std::thread second([&] {
            while (!go) {
            }
            seen[1] = CommsChannelLocator::instance();
        });
        go = true;
        first.join();
        second.join();

        ASSERT_NE(nullptr, seen[0]);
        EXPECT_EQ(seen[0], seen[1]);
        // An empty locator ends itself on any unregistration.
        seen[0]->unregisterChannel(&unnamed);
        ASSERT_TRUE(seen[0]->hasEnded());
    }

    // Every constructor registers once at the resolver.
    ASSERT_TRUE(fakeResolver.waitForType(COMMS_MSG_UNREGISTER_LOCATOR, rounds, 20000));
    EXPECT_EQ(static_cast<std::size_t>(rounds), fakeResolver.receivedOfType(COMMS_MSG_REGISTER_LOCATOR).size());
}

TEST_F(CommsChannelLocatorTest, RegistrationAtConstructionCarriesTheLocatorsOwnPort)
{
    FakeResolver fakeResolver(false, false);
    ASSERT_TRUE(fakeResolver.ok());
    CommsChannel anchor("anchor");
    CommsChannelLocator* sut = LocatorProbe::current();
    ASSERT_NE(nullptr, sut);

    ASSERT_NE(0, fakeResolver.waitForLocator(20000));

    const std::vector<FakeResolver::Received> registrations =
        fakeResolver.receivedOfType(COMMS_MSG_REGISTER_LOCATOR);
    ASSERT_EQ(1u, registrations.size());
    ASSERT_NE(0, locatorPort());
    EXPECT_EQ(locatorPort(), registrations[0].port);
    EXPECT_EQ(locatorPort(), registrations[0].sourcePort);
}

TEST_F(CommsChannelLocatorTest, LocatorPortIsThePortItsSocketIsBoundTo)
{
    CommsChannel anchor("anchor");
    CommsChannelLocator* sut = LocatorProbe::current();
    ASSERT_NE(nullptr, sut);

    // The resolver that answers later learns the port from the
    // registration that the locator sends itself.
    FakeResolver fakeResolver(false, false);
    ASSERT_TRUE(fakeResolver.ok());
    CommsChannelRegisterLocatorMessage registration;
    registration.setPort(locatorPort());
    ASSERT_EQ(1, sut->send(registration));
    ASSERT_TRUE(fakeResolver.waitForType(COMMS_MSG_REGISTER_LOCATOR, 1, 20000));
    const FakeResolver::Received received = fakeResolver.receivedOfType(COMMS_MSG_REGISTER_LOCATOR)[0];

    sockaddr_in address;
    socklen_t length = sizeof address;
    ASSERT_EQ(0, getsockname(LocatorProbe::socket(), reinterpret_cast<sockaddr*>(&address), &length));
    EXPECT_EQ(ntohs(address.sin_port), received.sourcePort);
    EXPECT_EQ(ntohs(address.sin_port), received.port);
    EXPECT_EQ(htonl(INADDR_LOOPBACK), address.sin_addr.s_addr);
}

TEST_F(CommsChannelLocatorTest, ConstructionWithASilentResolverSucceeds)
{
    FakeResolver fakeResolver(false, false);
    ASSERT_TRUE(fakeResolver.ok());

    CommsChannel anchor("anchor");

    CommsChannelLocator* sut = LocatorProbe::current();
    ASSERT_NE(nullptr, sut);
    EXPECT_GT(LocatorProbe::socket(), 0);
    EXPECT_NE(0, locatorPort());
    EXPECT_EQ(&anchor, LocatorProbe::localHandle("anchor"));
    EXPECT_EQ(locatorPort(), fakeResolver.waitForLocator(20000));
}

TEST_F(CommsChannelLocatorTest, ConstructionWithNothingOnTheResolverPortSucceedsAndSendsStillSucceed)
{
    CommsChannel anchor("anchor");
    CommsChannelLocator* sut = LocatorProbe::current();
    ASSERT_NE(nullptr, sut);

    CommsChannelRegisterLocatorMessage registration;
    registration.setPort(locatorPort());
    EXPECT_EQ(1, sut->send(registration));

    // The thread is listening all the same: a resolver that starts later
    // reaches it.
    FakeResolver lateResolver(false, false);
    ASSERT_TRUE(lateResolver.ok());
    sendMarkerAndWait(lateResolver);
}

TEST_F(CommsChannelLocatorTest, DatagramOfAnotherTypeIsIgnored)
{
    FakeResolver fakeResolver;
    ASSERT_TRUE(fakeResolver.ok());
    CommsChannel anchor("anchor");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));

    CommsChannelDataContainerMessage data;
    data.setChannel("ghostData");
    CommsChannelPortRequestMessage request;
    request.setChannel("ghostRequest");
    request.setRequestId(1);
    CommsChannelRegisterLocatorMessage registration;
    registration.setPort(40100);
    for (CommsChannelMessage* message :
         std::vector<CommsChannelMessage*>{&data, &request, &registration}) {
        ASSERT_GT(fakeResolver.sendRaw(locatorPort(), encodingOf(*message)), 0);
    }

    sendMarkerAndWait(fakeResolver);
    EXPECT_EQ(1u, LocatorProbe::remoteCount());
    EXPECT_EQ(1u, LocatorProbe::localCount());
    EXPECT_EQ(&anchor, LocatorProbe::localHandle("anchor"));
}

TEST_F(CommsChannelLocatorTest, UndecodableDatagramIsDroppedSilently)
{
    FakeResolver fakeResolver;
    ASSERT_TRUE(fakeResolver.ok());
    CommsChannel anchor("anchor");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));
    const std::string valid = updateEncoding(Rows{std::make_tuple(0, "ghost", 40200)});
    std::string badMagic = valid;
    badMagic[0] = 0x00;
    std::string badType = valid;
    badType[3] = 0x7F;

    testing::internal::CaptureStderr();
    fakeResolver.sendRaw(locatorPort(), std::string(20, '\xFF'));
    fakeResolver.sendRaw(locatorPort(), badMagic);
    fakeResolver.sendRaw(locatorPort(), badType);
    fakeResolver.sendRaw(locatorPort(), valid.substr(0, valid.size() / 2));
    sendMarkerAndWait(fakeResolver);
    const std::string errors = testing::internal::GetCapturedStderr();

    EXPECT_EQ("", errors);
    EXPECT_FALSE(LocatorProbe::remoteHas("ghost"));
    EXPECT_EQ(1u, LocatorProbe::remoteCount());
}

TEST_F(CommsChannelLocatorTest, ShortAndLyingDatagramsFromAForeignSocketLeaveTheLocatorWorking)
{
    FakeResolver fakeResolver;
    ASSERT_TRUE(fakeResolver.ok());
    fakeResolver.setPort("far", 40300);
    CommsChannel anchor("anchor");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));
    const std::string valid = updateEncoding(Rows{std::make_tuple(0, "ghost", 40301)});
    cctest::UdpSocket stranger;
    ASSERT_TRUE(stranger.ok());
    const int port = locatorPort({stranger.fd()});
    ASSERT_NE(0, port);

    stranger.sendTo(port, "abc", 3);
    stranger.sendTo(port, withClaimedLength(valid, static_cast<std::uint32_t>(valid.size() + 100)));
    stranger.sendTo(port, withClaimedLength(valid, static_cast<std::uint32_t>(valid.size() - 5)));
    stranger.sendTo(port, withClaimedLength(valid, 0xFFFFFFF0u));
    stranger.sendTo(port, withClaimedLength(valid, 0));
    stranger.sendTo(port, withClaimedLength(valid, 3));

    ASSERT_GT(fakeResolver.sendUpdate(port, Rows{std::make_tuple(0, "marker", 40999)}), 0);
    ASSERT_TRUE(cctest::waitUntil([&] { return LocatorProbe::knows("marker"); }, 20000));
    EXPECT_FALSE(LocatorProbe::knows("ghost"));
    CCInterProcDispatcher* far = dynamic_cast<CCInterProcDispatcher*>(resolve("far"));
    ASSERT_NE(nullptr, far);
    EXPECT_EQ(40300, far->port());
}

TEST_F(CommsChannelLocatorTest, NextLocatorAfterDestructionStartsRequestIdsAgainAtOne)
{
    FakeResolver fakeResolver;
    ASSERT_TRUE(fakeResolver.ok());
    int firstPort = 0;
    CommsChannelLocator* first = nullptr;
    {
        CommsChannel anchor("anchor");
        first = LocatorProbe::current();
        firstPort = locatorPort();
        resolve("x");
        resolve("y");
    }
    ASSERT_TRUE(first->hasEnded());

    CommsChannel anchor("anchor");
    const int secondPort = locatorPort();
    EXPECT_NE(firstPort, secondPort);
    resolve("z");

    const std::vector<FakeResolver::Received> requests = fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST);
    ASSERT_EQ(3u, requests.size());
    EXPECT_EQ(1, requests[0].requestId);
    EXPECT_EQ(firstPort, requests[0].sourcePort);
    EXPECT_EQ(2, requests[1].requestId);
    EXPECT_EQ("z", requests[2].channel);
    EXPECT_EQ(1, requests[2].requestId);
    EXPECT_EQ(secondPort, requests[2].sourcePort);
}

TEST_F(CommsChannelLocatorTest, DestructionUnregistersTheLocatorAfterItsChannels)
{
    FakeResolver fakeResolver;
    ASSERT_TRUE(fakeResolver.ok());
    int port = 0;
    int channelPort = 0;
    {
        CommsChannel anchor("anchor");
        channelPort = anchor.port();
        port = locatorPort();
    }

    ASSERT_TRUE(fakeResolver.waitForType(COMMS_MSG_UNREGISTER_LOCATOR, 1, 20000));
    const std::vector<FakeResolver::Received> all = fakeResolver.received();
    ASSERT_EQ(COMMS_MSG_UNREGISTER_LOCATOR, all.back().type);
    EXPECT_EQ(port, all.back().port);
    EXPECT_EQ(port, all.back().sourcePort);
    // The channel's own removal row went out first.
    ASSERT_GE(all.size(), 2u);
    const FakeResolver::Received& removal = all[all.size() - 2];
    ASSERT_EQ(COMMS_MSG_LOCATOR_UPDATE, removal.type);
    ASSERT_EQ(1u, removal.rows.size());
    EXPECT_EQ(std::make_tuple(1, std::string("anchor"), channelPort), removal.rows[0]);
}

TEST_F(CommsChannelLocatorTest, LocatorEndingRightAfterItStartedStillUnregistersFromItsOwnSocket)
{
    FakeResolver fakeResolver(false, false);
    ASSERT_TRUE(fakeResolver.ok());
    const int rounds = 50;
    cctest::StderrRecorder errors;

    // The locator thread may not have run at all before the destructor
    // starts; the destructor's datagrams must still leave.
    for (int round = 0; round < rounds; ++round) {
        delete new CommsChannel("brief");
    }

    ASSERT_TRUE(fakeResolver.waitForType(COMMS_MSG_UNREGISTER_LOCATOR, rounds, 20000));
    errors.restore();
    EXPECT_EQ("", errors.text());
    const std::vector<FakeResolver::Received> registrations =
        fakeResolver.receivedOfType(COMMS_MSG_REGISTER_LOCATOR);
    const std::vector<FakeResolver::Received> unregistrations =
        fakeResolver.receivedOfType(COMMS_MSG_UNREGISTER_LOCATOR);
    ASSERT_EQ(static_cast<std::size_t>(rounds), registrations.size());
    ASSERT_EQ(static_cast<std::size_t>(rounds), unregistrations.size());
    for (int round = 0; round < rounds; ++round) {
        EXPECT_EQ(registrations[round].sourcePort, unregistrations[round].sourcePort) << round;
        EXPECT_EQ(registrations[round].port, unregistrations[round].port) << round;
    }
}

TEST_F(CommsChannelLocatorTest, LocatorWhoseSocketIsAbove1024AppliesUpdatesAndStops)
{
    if (!cctest::allowDescriptors(1200)) {
        GTEST_SKIP() << "cannot open 1200 descriptors here";
    }
    FakeResolver fakeResolver;
    ASSERT_TRUE(fakeResolver.ok());
    const std::vector<int> fillers = cctest::occupyDescriptorsUpTo(1030);
    CommsChannel* anchor = new CommsChannel("anchor");
    for (int fd : fillers) {
        close(fd);
    }
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));
    ASSERT_GT(LocatorProbe::socket(), 1024);
    sendMarkerAndWait(fakeResolver);
    CommsChannelLocator* sut = LocatorProbe::current();
    EXPECT_TRUE(cctest::destroyWithin(anchor));
    EXPECT_TRUE(sut->hasEnded());
    EXPECT_TRUE(fakeResolver.waitForType(COMMS_MSG_UNREGISTER_LOCATOR, 1, 20000));
}

TEST_F(CommsChannelLocatorTest, DestroyedLocatorHasClosedItsSocket)
{
    int port = 0;
    CommsChannelLocator* sut = nullptr;
    {
        CommsChannel anchor("anchor");
        sut = LocatorProbe::current();
        port = locatorPort();
    }
    ASSERT_NE(0, port);
    ASSERT_TRUE(sut->hasEnded());

    cctest::UdpSocket takesThePortOver(port);
    EXPECT_TRUE(takesThePortOver.ok());
}

}  // namespace
