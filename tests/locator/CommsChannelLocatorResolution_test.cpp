// Registration of this process's channels and resolution of destination
// names: from the local map, from the remote map, or by a port request to
// the resolver (a cctest::FakeResolver here) answered on the locator thread.
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelDispatcher.h"
#include "CommsChannelLocator.h"
#include "FakeResolver.h"
#include "LocatorProbe.h"
#include "TestUtil.h"

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace {

using cctest::FakeResolver;
using cctest::LocatorProbe;
using cctest::PendingResolution;

typedef std::vector<std::tuple<int, std::string, int>> Rows;

const int ADDED = 0;
const int REMOVED = 1;

class CommsChannelLocatorResolutionTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(fakeResolver.ok()); }

    // The current locator's port, as its latest registration gave it.
    int locatorPort()
    {
        fakeResolver.waitForType(COMMS_MSG_REGISTER_LOCATOR, 1, 20000);
        const std::vector<FakeResolver::Received> registrations =
            fakeResolver.receivedOfType(COMMS_MSG_REGISTER_LOCATOR);
        return registrations.empty() ? 0 : registrations.back().port;
    }

    // Pushes an update and waits until the locator thread has applied it,
    // shown by a marker row after the given rows.
    void pushUpdate(Rows rows, const std::string& marker = "marker")
    {
        rows.push_back(std::make_tuple(ADDED, marker, 40999));
        ASSERT_GT(fakeResolver.sendUpdate(locatorPort(), rows), 0);
        ASSERT_TRUE(cctest::waitUntil([&] { return LocatorProbe::knows(marker); }, 20000));
    }

    CommsChannelDispatcher* resolve(const std::string& name)
    {
        PendingResolution resolution(name);
        EXPECT_TRUE(resolution.waitDone(20000)) << "getDispatcher(" << name << ") did not return";
        return resolution.result();
    }

    // Update rows the resolver received for name, in order.
    std::vector<int> rowTypesFor(const std::string& name)
    {
        std::vector<int> types;
        for (const FakeResolver::Received& update : fakeResolver.receivedOfType(COMMS_MSG_LOCATOR_UPDATE)) {
            for (const auto& row : update.rows) {
                if (std::get<1>(row) == name) {
                    types.push_back(std::get<0>(row));
                }
            }
        }
        return types;
    }

    // Waits until the resolver got the registration row of a channel named
    // marker: everything the locator sent before it has arrived too.
    void waitForRowsFor(const std::string& name, std::size_t count)
    {
        ASSERT_TRUE(cctest::waitUntil([&] { return rowTypesFor(name).size() >= count; }, 20000));
    }

    FakeResolver fakeResolver;
};

TEST_F(CommsChannelLocatorResolutionTest, RegistrationAnnouncesNameAndPortInOneAddedRow)
{
    CommsChannel sut("alpha");

    waitForRowsFor("alpha", 1);
    const std::vector<FakeResolver::Received> updates = fakeResolver.receivedOfType(COMMS_MSG_LOCATOR_UPDATE);
    ASSERT_EQ(1u, updates.size());
    ASSERT_EQ(1u, updates[0].rows.size());
    EXPECT_EQ(std::make_tuple(ADDED, std::string("alpha"), sut.port()), updates[0].rows[0]);
    EXPECT_EQ(locatorPort(), updates[0].sourcePort);
    CCIntraProcDispatcher* intra = dynamic_cast<CCIntraProcDispatcher*>(resolve("alpha"));
    ASSERT_NE(nullptr, intra);
    EXPECT_EQ(&sut, intra->destination());
}

TEST_F(CommsChannelLocatorResolutionTest, DuplicateNameIsRefusedKeepsTheFirstEntryAndSendsNothing)
{
    CommsChannel first("dup");
    CommsChannel second("dup");  // its own registration is the first refusal

    EXPECT_EQ(0, CommsChannelLocator::instance()->registerChannel(&second));

    EXPECT_EQ(&first, LocatorProbe::localHandle("dup"));
    EXPECT_EQ(1u, LocatorProbe::localCount());
    // The locator's datagrams arrive in order: once the next channel's row
    // is in, a row for the duplicate would have been seen.
    CommsChannel marker("marker");
    waitForRowsFor("marker", 1);
    EXPECT_EQ(std::vector<int>{ADDED}, rowTypesFor("dup"));
}

TEST_F(CommsChannelLocatorResolutionTest, NullChannelIsNeitherRegisteredNorUnregistered)
{
    CommsChannel anchor("anchor");
    CommsChannelLocator* sut = CommsChannelLocator::instance();

    EXPECT_EQ(0, sut->registerChannel(nullptr));
    EXPECT_EQ(0, sut->unregisterChannel(nullptr));

    EXPECT_EQ(sut, LocatorProbe::current());
    EXPECT_EQ(1u, LocatorProbe::localCount());
}

TEST_F(CommsChannelLocatorResolutionTest, UnregisteringTheLastLocalChannelDestroysTheLocator)
{
    CommsChannel* channel = new CommsChannel("only");
    CommsChannelLocator* sut = LocatorProbe::current();

    delete channel;

    EXPECT_TRUE(sut->hasEnded());
    ASSERT_TRUE(fakeResolver.waitForType(COMMS_MSG_UNREGISTER_LOCATOR, 1, 20000));
    EXPECT_EQ((std::vector<int>{ADDED, REMOVED}), rowTypesFor("only"));

    // The next registration builds a new locator, registered anew.
    CommsChannel next("next");
    EXPECT_FALSE(LocatorProbe::current()->hasEnded());
    EXPECT_EQ(&next, LocatorProbe::localHandle("next"));
    EXPECT_TRUE(fakeResolver.waitForType(COMMS_MSG_REGISTER_LOCATOR, 2, 20000));
}

TEST_F(CommsChannelLocatorResolutionTest, UnregisteringOneOfTwoChannelsKeepsTheLocator)
{
    CommsChannel stays("stays");
    CommsChannel* leaves = new CommsChannel("leaves");
    CommsChannelLocator* sut = LocatorProbe::current();

    delete leaves;

    EXPECT_FALSE(sut->hasEnded());
    EXPECT_EQ(sut, LocatorProbe::current());
    EXPECT_EQ(1u, LocatorProbe::localCount());
    EXPECT_EQ(&stays, LocatorProbe::localHandle("stays"));
}

TEST_F(CommsChannelLocatorResolutionTest, UnregisteringAnUnnamedChannelFromAnEmptyLocatorDestroysItAndFails)
{
    CommsChannel unnamed("");  // unnamed channels never register
    CommsChannelLocator* sut = CommsChannelLocator::instance();

    EXPECT_EQ(0, sut->unregisterChannel(&unnamed));

    EXPECT_TRUE(sut->hasEnded());
    EXPECT_TRUE(fakeResolver.waitForType(COMMS_MSG_UNREGISTER_LOCATOR, 1, 20000));
}

TEST_F(CommsChannelLocatorResolutionTest, UnregisteringANeverRegisteredChannelWhileNoOtherExistsDestroysItAndFails)
{
    CommsChannel ghost("ghost");
    CommsChannelLocator* first = CommsChannelLocator::instance();
    ASSERT_EQ(1, first->unregisterChannel(&ghost));
    ASSERT_TRUE(first->hasEnded());
    // A new locator that never had ghost registered.
    CommsChannelLocator* sut = CommsChannelLocator::instance();
    ASSERT_EQ(0u, LocatorProbe::localCount());

    EXPECT_EQ(0, sut->unregisterChannel(&ghost));

    EXPECT_TRUE(sut->hasEnded());
    ASSERT_TRUE(fakeResolver.waitForType(COMMS_MSG_UNREGISTER_LOCATOR, 2, 20000));
    // Only the real unregistration was announced.
    EXPECT_EQ((std::vector<int>{ADDED, REMOVED}), rowTypesFor("ghost"));
}

TEST_F(CommsChannelLocatorResolutionTest, LocalNameResolvesToItsIntraProcessDispatcher)
{
    CommsChannel sut("local");

    CCIntraProcDispatcher* intra = dynamic_cast<CCIntraProcDispatcher*>(resolve("local"));

    ASSERT_NE(nullptr, intra);
    EXPECT_EQ(&sut, intra->destination());
    EXPECT_TRUE(fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST).empty());
}

TEST_F(CommsChannelLocatorResolutionTest, NameBothLocalAndRemoteResolvesToTheLocalIntraProcessDispatcher)
{
    fakeResolver.setPort("both", 45678);
    CommsChannel sut("both");
    pushUpdate(Rows{});
    ASSERT_EQ(45678, LocatorProbe::remotePort("both"));

    CommsChannelDispatcher* dispatcher = resolve("both");

    CCIntraProcDispatcher* intra = dynamic_cast<CCIntraProcDispatcher*>(dispatcher);
    ASSERT_NE(nullptr, intra);
    EXPECT_EQ(&sut, intra->destination());
    EXPECT_EQ(dispatcher, resolve("both"));
    EXPECT_TRUE(fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST).empty());
}

TEST_F(CommsChannelLocatorResolutionTest, UpdateAboutALocalNameLandsInTheRemoteMapOnly)
{
    CommsChannel sut("mine");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));

    pushUpdate(Rows{std::make_tuple(ADDED, "mine", 41000)});
    EXPECT_EQ(41000, LocatorProbe::remotePort("mine"));
    EXPECT_EQ(&sut, LocatorProbe::localHandle("mine"));

    pushUpdate(Rows{std::make_tuple(REMOVED, "mine", 0)}, "marker2");
    EXPECT_FALSE(LocatorProbe::remoteHas("mine"));
    EXPECT_EQ(&sut, LocatorProbe::localHandle("mine"));
}

TEST_F(CommsChannelLocatorResolutionTest, RemoteNameResolvesWithoutAPortRequest)
{
    cctest::UdpSocket peer;
    ASSERT_TRUE(peer.ok());
    fakeResolver.setPort("remote", peer.port());
    CommsChannel anchor("anchor");
    ASSERT_TRUE(cctest::waitUntil([] { return LocatorProbe::knows("remote"); }, 20000));

    CCInterProcDispatcher* inter = dynamic_cast<CCInterProcDispatcher*>(resolve("remote"));

    ASSERT_NE(nullptr, inter);
    EXPECT_EQ(peer.port(), inter->port());
    EXPECT_TRUE(fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST).empty());
}

TEST_F(CommsChannelLocatorResolutionTest, UnknownNameIsRequestedAndTheAnswerIsLearnt)
{
    CommsChannel anchor("anchor");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));
    fakeResolver.setPort("late", 42000);

    CCInterProcDispatcher* inter = dynamic_cast<CCInterProcDispatcher*>(resolve("late"));

    ASSERT_NE(nullptr, inter);
    EXPECT_EQ(42000, inter->port());
    EXPECT_EQ(42000, LocatorProbe::remotePort("late"));
    // Learnt: the next resolution asks nobody and gets the same dispatcher.
    EXPECT_EQ(inter, resolve("late"));
    const std::vector<FakeResolver::Received> requests = fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST);
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ("late", requests[0].channel);
    EXPECT_EQ(locatorPort(), requests[0].sourcePort);
}

TEST_F(CommsChannelLocatorResolutionTest, PortChangeOfAKnownNameUpdatesThePortButSendsGoOnToTheFirstPort)
{
    cctest::UdpSocket firstHome;
    cctest::UdpSocket secondHome;
    ASSERT_TRUE(firstHome.ok());
    ASSERT_TRUE(secondHome.ok());
    fakeResolver.setPort("mover", firstHome.port());
    CommsChannel sender("sender");
    ASSERT_TRUE(cctest::waitUntil([] { return LocatorProbe::knows("mover"); }, 20000));

    pushUpdate(Rows{std::make_tuple(ADDED, "mover", secondHome.port())});
    ASSERT_EQ(secondHome.port(), LocatorProbe::remotePort("mover"));

    CCInterProcDispatcher* inter = dynamic_cast<CCInterProcDispatcher*>(resolve("mover"));
    ASSERT_NE(nullptr, inter);
    EXPECT_EQ(firstHome.port(), inter->port());
    CommsChannelDataContainerMessage message;
    message.setChannel("mover");
    message.setData("where to?", 9);
    EXPECT_EQ(1, inter->sendMsg(&sender, message));
    std::string datagram;
    EXPECT_TRUE(firstHome.receive(datagram, 10000));
    EXPECT_NE(std::string::npos, datagram.find("where to?"));
    EXPECT_FALSE(secondHome.receive(datagram, 300));
}

TEST_F(CommsChannelLocatorResolutionTest, PortChangeByAResponseAlsoKeepsTheFirstDispatcher)
{
    CommsChannel anchor("anchor");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));
    pushUpdate(Rows{std::make_tuple(ADDED, "mover", 43000)});
    CommsChannelDispatcher* first = resolve("mover");

    // An unsolicited answer naming a known name with a new port; the
    // marker behind it shows that it has been applied.
    ASSERT_GT(fakeResolver.sendPortResponse(locatorPort(), "mover", 77, 43001), 0);
    pushUpdate(Rows{}, "marker2");
    ASSERT_EQ(43001, LocatorProbe::remotePort("mover"));

    EXPECT_EQ(first, resolve("mover"));
    ASSERT_NE(nullptr, dynamic_cast<CCInterProcDispatcher*>(first));
    EXPECT_EQ(43000, dynamic_cast<CCInterProcDispatcher*>(first)->port());
    EXPECT_TRUE(fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST).empty());
}

TEST_F(CommsChannelLocatorResolutionTest, PortZeroAnswerReleasesTheRequesterWithTheSharedNullDispatcher)
{
    CommsChannel anchor("anchor");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));

    CommsChannelDispatcher* first = resolve("nobody");
    CommsChannelDispatcher* again = resolve("nobody");
    CommsChannelDispatcher* other = resolve("nobodyElse");

    ASSERT_NE(nullptr, dynamic_cast<CCNullDispatcher*>(first));
    EXPECT_EQ(first, again);
    EXPECT_EQ(first, other);
    EXPECT_FALSE(LocatorProbe::remoteHas("nobody"));
    EXPECT_EQ(0u, LocatorProbe::remoteCount());
    EXPECT_EQ(3u, fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST).size());
}

TEST_F(CommsChannelLocatorResolutionTest, SharedNullDispatcherOutlivesTheLocator)
{
    CommsChannelDispatcher* first = nullptr;
    {
        CommsChannel anchor("anchor");
        first = resolve("nobody");
    }
    ASSERT_TRUE(fakeResolver.waitForType(COMMS_MSG_UNREGISTER_LOCATOR, 1, 20000));

    CommsChannel anchor("anchor");
    EXPECT_EQ(first, resolve("nobody"));
    ASSERT_NE(nullptr, dynamic_cast<CCNullDispatcher*>(first));
}

// A resolver that stays silent on registration, so that the first
// resolution waits for the first update.
TEST(CommsChannelLocatorInitialWait, UpdateWithZeroRowsEndsTheInitialWait)
{
    FakeResolver fakeResolver(false, true);
    ASSERT_TRUE(fakeResolver.ok());
    CommsChannel anchor("anchor");
    const int port = fakeResolver.waitForLocator(20000);
    ASSERT_NE(0, port);
    PendingResolution resolution("anyone");
    ASSERT_TRUE(resolution.staysBlocked());
    EXPECT_TRUE(fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST).empty());

    ASSERT_GT(fakeResolver.sendUpdate(port, Rows{}), 0);

    // Far below the 100 s that the wait would otherwise last.
    ASSERT_TRUE(resolution.waitDone(30000));
    EXPECT_EQ(1u, fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST).size());
    EXPECT_NE(nullptr, dynamic_cast<CCNullDispatcher*>(resolution.result()));
    EXPECT_EQ(0u, LocatorProbe::remoteCount());
}

TEST(CommsChannelLocatorInitialWait, FirstUpdateLetsEveryWaitingResolutionGoOn)
{
    FakeResolver fakeResolver(false, true);
    ASSERT_TRUE(fakeResolver.ok());
    fakeResolver.setPort("two", 41002);
    CommsChannel anchor("anchor");
    const int port = fakeResolver.waitForLocator(20000);
    ASSERT_NE(0, port);
    PendingResolution one("one");
    PendingResolution two("two");
    PendingResolution three("three");
    ASSERT_TRUE(one.staysBlocked());
    ASSERT_TRUE(two.staysBlocked());
    ASSERT_TRUE(three.staysBlocked());
    EXPECT_TRUE(fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST).empty());

    ASSERT_GT(fakeResolver.sendUpdate(port, Rows{}), 0);

    // Far below the 100 s that the wait would otherwise last.
    ASSERT_TRUE(one.waitDone(30000));
    ASSERT_TRUE(two.waitDone(30000));
    ASSERT_TRUE(three.waitDone(30000));
    EXPECT_EQ(3u, fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST).size());
    EXPECT_NE(nullptr, dynamic_cast<CCNullDispatcher*>(one.result()));
    CCInterProcDispatcher* found = dynamic_cast<CCInterProcDispatcher*>(two.result());
    ASSERT_NE(nullptr, found);
    EXPECT_EQ(41002, found->port());
    EXPECT_NE(nullptr, dynamic_cast<CCNullDispatcher*>(three.result()));
}

TEST(CommsChannelLocatorInitialWait, LaterResolutionsDoNotWaitAgain)
{
    FakeResolver fakeResolver(false, true);
    ASSERT_TRUE(fakeResolver.ok());
    CommsChannel anchor("anchor");
    const int port = fakeResolver.waitForLocator(20000);
    ASSERT_NE(0, port);
    ASSERT_GT(fakeResolver.sendUpdate(port, Rows{std::make_tuple(ADDED, "marker", 40999)}), 0);
    ASSERT_TRUE(cctest::waitUntil([] { return LocatorProbe::knows("marker"); }, 20000));

    // Each is answered at once; neither waits for another update.
    PendingResolution first("one");
    ASSERT_TRUE(first.waitDone(5000));
    PendingResolution second("two");
    ASSERT_TRUE(second.waitDone(5000));

    EXPECT_EQ(2u, fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST).size());
}

TEST_F(CommsChannelLocatorResolutionTest, RemovalRowForAnUnknownNameChangesNothing)
{
    CommsChannel anchor("anchor");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));
    pushUpdate(Rows{std::make_tuple(ADDED, "known", 44000)});

    pushUpdate(Rows{std::make_tuple(REMOVED, "unknown", 44001)}, "marker2");

    EXPECT_EQ(44000, LocatorProbe::remotePort("known"));
    EXPECT_FALSE(LocatorProbe::remoteHas("unknown"));
    EXPECT_EQ(3u, LocatorProbe::remoteCount());
    EXPECT_EQ(&anchor, LocatorProbe::localHandle("anchor"));
}

TEST_F(CommsChannelLocatorResolutionTest, RemovalRowRemovesAKnownName)
{
    CommsChannel anchor("anchor");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));
    pushUpdate(Rows{std::make_tuple(ADDED, "known", 44000)});

    pushUpdate(Rows{std::make_tuple(REMOVED, "known", 0)}, "marker2");

    EXPECT_FALSE(LocatorProbe::remoteHas("known"));
}

TEST_F(CommsChannelLocatorResolutionTest, AnyNonZeroUpdateTypeIsARemoval)
{
    CommsChannel anchor("anchor");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));
    pushUpdate(Rows{std::make_tuple(ADDED, "known", 44000)});

    pushUpdate(Rows{std::make_tuple(7, "known", 44002)}, "marker2");

    EXPECT_FALSE(LocatorProbe::remoteHas("known"));
}

TEST_F(CommsChannelLocatorResolutionTest, RowsOfOneUpdateAreAppliedInOrder)
{
    CommsChannel anchor("anchor");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));

    pushUpdate(Rows{std::make_tuple(ADDED, "a", 45000), std::make_tuple(REMOVED, "a", 0),
                    std::make_tuple(ADDED, "b", 45001), std::make_tuple(ADDED, "b", 45002)});

    EXPECT_FALSE(LocatorProbe::remoteHas("a"));
    EXPECT_EQ(45002, LocatorProbe::remotePort("b"));
    CCInterProcDispatcher* b = dynamic_cast<CCInterProcDispatcher*>(resolve("b"));
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(45001, b->port());
}

TEST_F(CommsChannelLocatorResolutionTest, RequestIdsIncreaseByOneFromOne)
{
    CommsChannel anchor("anchor");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));

    resolve("first");
    resolve("second");
    resolve("third");

    const std::vector<FakeResolver::Received> requests = fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST);
    ASSERT_EQ(3u, requests.size());
    EXPECT_EQ("first", requests[0].channel);
    EXPECT_EQ(1, requests[0].requestId);
    EXPECT_EQ("second", requests[1].channel);
    EXPECT_EQ(2, requests[1].requestId);
    EXPECT_EQ("third", requests[2].channel);
    EXPECT_EQ(3, requests[2].requestId);
}

TEST_F(CommsChannelLocatorResolutionTest, AnswerWithAnUnknownRequestIdReleasesNobody)
{
    fakeResolver.setAnswerRequests(false);
    CommsChannel anchor("anchor");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));
    PendingResolution resolution("slow");
    ASSERT_TRUE(fakeResolver.waitForType(COMMS_MSG_PORT_REQUEST, 1, 20000));

    ASSERT_GT(fakeResolver.sendPortResponse(locatorPort(), "slow", 99, 46000), 0);
    ASSERT_TRUE(cctest::waitUntil([] { return LocatorProbe::knows("slow"); }, 20000));
    EXPECT_TRUE(resolution.staysBlocked());

    const long requestId = fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST)[0].requestId;
    ASSERT_GT(fakeResolver.sendPortResponse(locatorPort(), "slow", requestId, 46000), 0);
    ASSERT_TRUE(resolution.waitDone(20000));
    CCInterProcDispatcher* inter = dynamic_cast<CCInterProcDispatcher*>(resolution.result());
    ASSERT_NE(nullptr, inter);
    EXPECT_EQ(46000, inter->port());
}

TEST_F(CommsChannelLocatorResolutionTest, RequesterBlockedOnAnUnansweredRequestIsReleasedByTheLocatorsDestruction)
{
    fakeResolver.setAnswerRequests(false);
    CommsChannel* anchor = new CommsChannel("anchor");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));
    PendingResolution resolution("silent");
    ASSERT_TRUE(fakeResolver.waitForType(COMMS_MSG_PORT_REQUEST, 1, 20000));
    ASSERT_TRUE(resolution.staysBlocked());
    CommsChannelLocator* sut = LocatorProbe::current();

    delete anchor;  // the last local channel: the locator goes

    ASSERT_TRUE(resolution.waitDone(20000));
    EXPECT_TRUE(sut->hasEnded());
    // Released by a locator that is shutting down: no dispatcher.
    EXPECT_EQ(nullptr, resolution.result());
}

TEST_F(CommsChannelLocatorResolutionTest, NameTooLongForTheResolverIsKeptForThisProcessAndNeverSentToIt)
{
    const std::string longName(70000, 'n');
    CommsChannel sut(longName);
    CommsChannel marker("marker-after-long-name");
    waitForRowsFor("marker-after-long-name", 1);
    EXPECT_TRUE(rowTypesFor(longName).empty());

    ASSERT_EQ(1, marker.sendMsg(longName, std::string("same process")));
    CommsChannelDataContainerMessage received;
    ASSERT_EQ(1, sut.receiveMsg_ByID_Timed(received, 0, 5000));
    EXPECT_EQ("same process", received.getData());
}

TEST_F(CommsChannelLocatorResolutionTest, UnknownNameTooLongForTheResolverGetsTheNullDispatcherWithoutAsking)
{
    CommsChannel sut("asker");
    CommsChannelDispatcher* dispatcher = resolve(std::string(70000, 'x'));
    ASSERT_NE(nullptr, dispatcher);
    EXPECT_NE(nullptr, dynamic_cast<CCNullDispatcher*>(dispatcher));
    EXPECT_TRUE(fakeResolver.receivedOfType(COMMS_MSG_PORT_REQUEST).empty());
    EXPECT_NE(nullptr, resolve("asker"));
}

}  // namespace
