// The resolver's logic, driven one datagram at a time without sockets: what
// each message from a locator does to the table and what goes back.
#include "Resolver.h"
#include "ResolverLog.h"
#include "ResolverTestMessages.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>

using resolver::Outgoing;
using namespace resolvertest;

namespace {

const int LOCATOR_A = 40001;
const int LOCATOR_B = 40002;
const int LOCATOR_C = 40003;
const int STRANGER = 40099;
const int PORT_1 = 41001;
const int PORT_2 = 41002;
const int PORT_3 = 41003;
const std::size_t LARGEST_UDP_PAYLOAD = 65507;

long long fakeNowMs = 0;
long long fakeClock() { return fakeNowMs; }

class CapturingSink : public resolver::log::Sink {
public:
    void write(resolver::log::Level level, const std::string& line) override
    {
        if (level == resolver::log::LEVEL_WARNING) {
            warnings.push_back(line);
        } else if (level == resolver::log::LEVEL_NOTICE) {
            notices.push_back(line);
        } else {
            others.push_back(line);
        }
    }
    std::vector<std::string> warnings;
    std::vector<std::string> notices;
    std::vector<std::string> others;
};

// Locators A and B belong to processes 101 and 102; nothing else is known.
resolver::ProcessIdentity fakeLookup(int port)
{
    if (port == LOCATOR_A) {
        return resolver::ProcessIdentity{101, "server"};
    }
    if (port == LOCATOR_B) {
        return resolver::ProcessIdentity{102, "client"};
    }
    return resolver::ProcessIdentity{0, ""};
}

class ResolverTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fakeNowMs = 1000000;
        resolver::log::setSink(&logSink);
        resolver::log::setLevel(resolver::log::LEVEL_DEBUG);
    }
    void TearDown() override
    {
        resolver::log::setSink(nullptr);
        resolver::log::setLevel(resolver::log::LEVEL_NOTICE);
    }

    // Hands the bytes to the resolver as if they came from fromPort, and
    // checks what every reply must be: not empty, one datagram.
    std::vector<Outgoing> deliver(const std::string& bytes, int fromPort)
    {
        std::vector<Outgoing> out = sut.handleDatagram(bytes.data(), bytes.size(), fromPort);
        // As the server loop does once the answers have gone out.
        sut.identifyPending();
        for (const Outgoing& datagram : out) {
            EXPECT_FALSE(datagram.bytes.empty());
            EXPECT_LE(datagram.bytes.size(), LARGEST_UDP_PAYLOAD);
        }
        return out;
    }

    std::vector<Outgoing> registerAt(int port) { return deliver(registerLocator(port), port); }

    // Every update row sent to port, in order; fails on anything else sent there.
    static std::vector<Row> rowsTo(const std::vector<Outgoing>& out, int port)
    {
        std::vector<Row> all;
        for (const Outgoing& datagram : out) {
            if (datagram.port != port) {
                continue;
            }
            std::vector<Row> rows;
            EXPECT_TRUE(decodeUpdate(std::string(datagram.bytes.begin(), datagram.bytes.end()), &rows));
            all.insert(all.end(), rows.begin(), rows.end());
        }
        return all;
    }

    static std::set<int> destinations(const std::vector<Outgoing>& out)
    {
        std::set<int> ports;
        for (const Outgoing& datagram : out) {
            ports.insert(datagram.port);
        }
        return ports;
    }

    // Asks for a name's port from fromPort; the answer must be exactly one
    // port response to fromPort.
    PortAnswer ask(const std::string& name, long requestId, int fromPort)
    {
        const std::vector<Outgoing> out = deliver(portRequest(name, requestId), fromPort);
        PortAnswer answer{"", -1, -1};
        EXPECT_EQ(1u, out.size());
        if (out.size() == 1) {
            EXPECT_EQ(fromPort, out[0].port);
            EXPECT_TRUE(decodePortAnswer(std::string(out[0].bytes.begin(), out[0].bytes.end()), &answer));
        }
        return answer;
    }

    // Locator A registers "alpha" at PORT_1; locator B takes it over at PORT_2.
    void takeOverAlpha()
    {
        registerAt(LOCATOR_A);
        registerAt(LOCATOR_B);
        deliver(added("alpha", PORT_1), LOCATOR_A);
        takeOverAlphaAgain();
    }
    void takeOverAlphaAgain()
    {
        registerAt(LOCATOR_B);
        deliver(added("alpha", PORT_2), LOCATOR_B);
    }

    CapturingSink logSink;
    resolver::Resolver sut{fakeClock, fakeLookup};
};

TEST_F(ResolverTest, RegisterWithEmptyTableAnswersOneUpdateWithoutRows)
{
    const std::vector<Outgoing> out = registerAt(LOCATOR_A);
    ASSERT_EQ(1u, out.size());
    EXPECT_EQ(LOCATOR_A, out[0].port);
    std::vector<Row> rows;
    ASSERT_TRUE(decodeUpdate(std::string(out[0].bytes.begin(), out[0].bytes.end()), &rows));
    EXPECT_TRUE(rows.empty());
}

TEST_F(ResolverTest, RegisterAnswersEveryKnownChannelAsAdded)
{
    deliver(added("alpha", PORT_1), LOCATOR_A);
    deliver(added("beta", PORT_2), LOCATOR_B);
    const std::vector<Outgoing> out = registerAt(LOCATOR_C);
    EXPECT_EQ(std::set<int>{LOCATOR_C}, destinations(out));
    EXPECT_EQ((std::vector<Row>{Row(0, "alpha", PORT_1), Row(0, "beta", PORT_2)}), rowsTo(out, LOCATOR_C));
}

TEST_F(ResolverTest, RegisterAnswersTheSourcePortNotTheAnnouncedOne)
{
    const std::vector<Outgoing> out = deliver(registerLocator(LOCATOR_B), LOCATOR_A);
    EXPECT_EQ(std::set<int>{LOCATOR_A}, destinations(out));
    EXPECT_TRUE(sut.table().hasLocator(LOCATOR_A));
    EXPECT_FALSE(sut.table().hasLocator(LOCATOR_B));
}

TEST_F(ResolverTest, RegisterWithLargeTableSplitsRowsOverUpdatesWithinTheLimit)
{
    std::vector<Row> expected;
    for (int i = 0; i < 3000; ++i) {
        const std::string name = "a-rather-long-channel-name-number-" + std::to_string(10000 + i);
        deliver(added(name, 20000 + i), LOCATOR_A);
        expected.push_back(Row(0, name, 20000 + i));
    }
    const std::vector<Outgoing> out = registerAt(LOCATOR_B);
    EXPECT_GE(out.size(), 2u);
    for (const Outgoing& datagram : out) {
        EXPECT_LE(datagram.bytes.size(), resolver::MAX_UPDATE_BYTES);
    }
    EXPECT_EQ(expected, rowsTo(out, LOCATOR_B));
}

TEST_F(ResolverTest, AddedChannelIsPassedOnToEveryLocatorIncludingTheSender)
{
    registerAt(LOCATOR_A);
    registerAt(LOCATOR_B);
    const std::vector<Outgoing> out = deliver(added("alpha", PORT_1), LOCATOR_A);
    EXPECT_EQ((std::set<int>{LOCATOR_A, LOCATOR_B}), destinations(out));
    EXPECT_EQ(std::vector<Row>{Row(0, "alpha", PORT_1)}, rowsTo(out, LOCATOR_A));
    EXPECT_EQ(std::vector<Row>{Row(0, "alpha", PORT_1)}, rowsTo(out, LOCATOR_B));
    EXPECT_EQ(PORT_1, sut.table().portOf("alpha"));
    EXPECT_EQ(LOCATOR_A, sut.table().find("alpha")->ownerPort);
}

TEST_F(ResolverTest, UpdateWithSeveralRowsIsAppliedAndPassedOnInOrder)
{
    registerAt(LOCATOR_A);
    const std::vector<Outgoing> out = deliver(
        update({Row(0, "alpha", PORT_1), Row(0, "beta", PORT_2), Row(1, "alpha", PORT_1)}), LOCATOR_A);
    EXPECT_EQ((std::vector<Row>{Row(0, "alpha", PORT_1), Row(0, "beta", PORT_2), Row(1, "alpha", PORT_1)}),
              rowsTo(out, LOCATOR_A));
    EXPECT_EQ(0, sut.table().portOf("alpha"));
    EXPECT_EQ(PORT_2, sut.table().portOf("beta"));
}

TEST_F(ResolverTest, UpdateFromUnregisteredSenderIsAppliedButSentOnlyToLocators)
{
    registerAt(LOCATOR_A);
    const std::vector<Outgoing> out = deliver(added("alpha", PORT_1), STRANGER);
    EXPECT_EQ(std::set<int>{LOCATOR_A}, destinations(out));
    EXPECT_EQ(PORT_1, sut.table().portOf("alpha"));
}

TEST_F(ResolverTest, LatestRegistrationOfANameWins)
{
    deliver(added("alpha", PORT_1), LOCATOR_A);
    deliver(added("alpha", PORT_2), LOCATOR_B);
    EXPECT_EQ(PORT_2, ask("alpha", 1, STRANGER).port);
    EXPECT_EQ(LOCATOR_B, sut.table().find("alpha")->ownerPort);
}

TEST_F(ResolverTest, RemovalByTheOwnerIsAppliedAndPassedOn)
{
    registerAt(LOCATOR_A);
    registerAt(LOCATOR_B);
    deliver(added("alpha", PORT_1), LOCATOR_A);
    const std::vector<Outgoing> out = deliver(removed("alpha", PORT_1), LOCATOR_A);
    EXPECT_EQ(std::vector<Row>{Row(1, "alpha", PORT_1)}, rowsTo(out, LOCATOR_B));
    EXPECT_EQ(std::vector<Row>{Row(1, "alpha", PORT_1)}, rowsTo(out, LOCATOR_A));
    EXPECT_EQ(0, ask("alpha", 1, STRANGER).port);
}

TEST_F(ResolverTest, RemovalByAnotherLocatorIsIgnoredAndNotPassedOn)
{
    registerAt(LOCATOR_A);
    registerAt(LOCATOR_B);
    deliver(added("alpha", PORT_1), LOCATOR_A);
    deliver(added("alpha", PORT_2), LOCATOR_B);
    const std::vector<Outgoing> out = deliver(removed("alpha", PORT_1), LOCATOR_A);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(PORT_2, sut.table().portOf("alpha"));
}

TEST_F(ResolverTest, RemovalOfUnknownNameSendsNothing)
{
    registerAt(LOCATOR_A);
    sut.takeChanged();
    EXPECT_TRUE(deliver(removed("nobody", PORT_1), LOCATOR_A).empty());
    EXPECT_FALSE(sut.takeChanged());
}

TEST_F(ResolverTest, AnyRowTypeOtherThanAddedRemovesTheName)
{
    registerAt(LOCATOR_A);
    deliver(added("alpha", PORT_1), LOCATOR_A);
    const std::vector<Outgoing> out = deliver(update({Row(7, "alpha", PORT_1)}), LOCATOR_A);
    EXPECT_EQ(std::vector<Row>{Row(1, "alpha", PORT_1)}, rowsTo(out, LOCATOR_A));
    EXPECT_EQ(0, sut.table().portOf("alpha"));
}

TEST_F(ResolverTest, RowsWithEmptyNameOrInvalidPortAreIgnored)
{
    registerAt(LOCATOR_A);
    const std::vector<Outgoing> out = deliver(
        update({Row(0, "", PORT_1), Row(0, "zero", 0), Row(0, "negative", -5), Row(0, "huge", 65536),
                Row(0, "good", PORT_2)}),
        LOCATOR_A);
    EXPECT_EQ(std::vector<Row>{Row(0, "good", PORT_2)}, rowsTo(out, LOCATOR_A));
    EXPECT_EQ(1u, sut.table().channels().size());
}

TEST_F(ResolverTest, NameTooLongForAnUpdateOfItsOwnIsIgnored)
{
    registerAt(LOCATOR_A);
    const std::string longName(resolver::MAX_UPDATE_BYTES, 'n');
    EXPECT_TRUE(deliver(added(longName, PORT_1), LOCATOR_A).empty());
    EXPECT_TRUE(sut.table().channels().empty());
}

TEST_F(ResolverTest, PortRequestForKnownNameAnswersItsPortWithTheSameNameAndId)
{
    deliver(added("alpha", PORT_1), LOCATOR_A);
    const PortAnswer answer = ask("alpha", 77, LOCATOR_B);
    EXPECT_EQ("alpha", answer.name);
    EXPECT_EQ(77, answer.requestId);
    EXPECT_EQ(PORT_1, answer.port);
}

TEST_F(ResolverTest, PortRequestForUnknownNameAnswersZero)
{
    const PortAnswer answer = ask("nobody", 5, STRANGER);
    EXPECT_EQ("nobody", answer.name);
    EXPECT_EQ(5, answer.requestId);
    EXPECT_EQ(0, answer.port);
}

TEST_F(ResolverTest, PortRequestKeepsExtremeRequestIds)
{
    EXPECT_EQ(2147483647L, ask("x", 2147483647L, STRANGER).requestId);
    EXPECT_EQ(-2147483647L - 1, ask("x", -2147483647L - 1, STRANGER).requestId);
    EXPECT_EQ(0, ask("x", 0, STRANGER).requestId);
}

TEST_F(ResolverTest, PortRequestChangesNothing)
{
    deliver(added("alpha", PORT_1), LOCATOR_A);
    sut.takeChanged();
    ask("alpha", 1, STRANGER);
    EXPECT_FALSE(sut.takeChanged());
}

TEST_F(ResolverTest, UnregisterForgetsTheLocatorAndAnnouncesItsChannelsToTheOthers)
{
    registerAt(LOCATOR_A);
    registerAt(LOCATOR_B);
    deliver(added("alpha", PORT_1), LOCATOR_A);
    deliver(added("beta", PORT_2), LOCATOR_A);
    deliver(added("gamma", PORT_3), LOCATOR_B);
    const std::vector<Outgoing> out = deliver(unregisterLocator(LOCATOR_A), LOCATOR_A);
    EXPECT_EQ(std::set<int>{LOCATOR_B}, destinations(out));
    EXPECT_EQ((std::vector<Row>{Row(1, "alpha", PORT_1), Row(1, "beta", PORT_2)}), rowsTo(out, LOCATOR_B));
    EXPECT_FALSE(sut.table().hasLocator(LOCATOR_A));
    EXPECT_EQ(PORT_3, sut.table().portOf("gamma"));
}

TEST_F(ResolverTest, UnregisteredLocatorGetsNoFurtherUpdates)
{
    registerAt(LOCATOR_A);
    registerAt(LOCATOR_B);
    deliver(unregisterLocator(LOCATOR_A), LOCATOR_A);
    const std::vector<Outgoing> out = deliver(added("alpha", PORT_1), LOCATOR_B);
    EXPECT_EQ(std::set<int>{LOCATOR_B}, destinations(out));
}

TEST_F(ResolverTest, LateRemovalsAfterUnregisterAreIgnored)
{
    registerAt(LOCATOR_A);
    registerAt(LOCATOR_B);
    deliver(added("alpha", PORT_1), LOCATOR_A);
    deliver(unregisterLocator(LOCATOR_A), LOCATOR_A);
    EXPECT_TRUE(deliver(removed("alpha", PORT_1), LOCATOR_A).empty());
}

TEST_F(ResolverTest, WithdrawDeadRemovesChannelWhosePortIsNotBound)
{
    registerAt(LOCATOR_A);
    deliver(added("alpha", PORT_1), LOCATOR_A);
    deliver(added("beta", PORT_2), LOCATOR_A);
    const std::vector<Outgoing> out = sut.withdrawDead({LOCATOR_A, PORT_2});
    EXPECT_EQ(std::vector<Row>{Row(1, "alpha", PORT_1)}, rowsTo(out, LOCATOR_A));
    EXPECT_EQ(0, sut.table().portOf("alpha"));
    EXPECT_EQ(PORT_2, sut.table().portOf("beta"));
}

TEST_F(ResolverTest, WithdrawDeadRemovesLocatorWithEveryChannelItOwns)
{
    registerAt(LOCATOR_A);
    registerAt(LOCATOR_B);
    deliver(added("alpha", PORT_1), LOCATOR_A);
    deliver(added("beta", PORT_2), LOCATOR_B);
    const std::vector<Outgoing> out = sut.withdrawDead({LOCATOR_B, PORT_1, PORT_2});
    EXPECT_EQ(std::set<int>{LOCATOR_B}, destinations(out));
    EXPECT_EQ(std::vector<Row>{Row(1, "alpha", PORT_1)}, rowsTo(out, LOCATOR_B));
    EXPECT_FALSE(sut.table().hasLocator(LOCATOR_A));
    EXPECT_EQ(PORT_2, sut.table().portOf("beta"));
}

TEST_F(ResolverTest, WithdrawDeadWithEverythingBoundChangesNothing)
{
    registerAt(LOCATOR_A);
    deliver(added("alpha", PORT_1), LOCATOR_A);
    sut.takeChanged();
    EXPECT_TRUE(sut.withdrawDead({LOCATOR_A, PORT_1}).empty());
    EXPECT_FALSE(sut.takeChanged());
    EXPECT_EQ(PORT_1, sut.table().portOf("alpha"));
}

TEST_F(ResolverTest, RestoreKeepsBoundRowsAndTellsSurvivorsAboutTheRest)
{
    resolver::ResolverTable saved;
    saved.addLocator(LOCATOR_A);
    saved.addLocator(LOCATOR_B);
    saved.addChannel("alive", PORT_1, LOCATOR_A);
    saved.addChannel("dead", PORT_2, LOCATOR_A);
    saved.addChannel("orphan", PORT_3, LOCATOR_B);
    const std::vector<Outgoing> out = sut.restore(saved, {LOCATOR_A, PORT_1, PORT_3});
    EXPECT_EQ(std::set<int>{LOCATOR_A}, destinations(out));
    EXPECT_EQ((std::vector<Row>{Row(1, "orphan", PORT_3), Row(1, "dead", PORT_2)}), rowsTo(out, LOCATOR_A));
    EXPECT_EQ(PORT_1, ask("alive", 1, STRANGER).port);
    EXPECT_EQ(std::set<int>{LOCATOR_A}, sut.table().locators());
    EXPECT_TRUE(sut.takeChanged());
}

TEST_F(ResolverTest, TakeoverIsANoticeNamingTheOldAndNewOwnerByPid)
{
    registerAt(LOCATOR_A);
    registerAt(LOCATOR_B);
    deliver(added("alpha", PORT_1), LOCATOR_A);
    deliver(added("alpha", PORT_2), LOCATOR_B);
    ASSERT_EQ(1u, logSink.notices.size());
    EXPECT_EQ("\"alpha\" taken over by pid 102 (client) at port 41002 from pid 101 (server) at port 41001",
              logSink.notices[0]);
}

TEST_F(ResolverTest, TakenOverNameGoesBackToItsOwnerWhenTheTakerWithdrawsIt)
{
    takeOverAlpha();
    const std::vector<Outgoing> out = deliver(removed("alpha", PORT_2), LOCATOR_B);
    EXPECT_EQ((std::vector<Row>{Row(1, "alpha", PORT_2), Row(0, "alpha", PORT_1)}), rowsTo(out, LOCATOR_A));
    EXPECT_EQ(PORT_1, ask("alpha", 1, STRANGER).port);
    ASSERT_EQ(2u, logSink.notices.size());
    EXPECT_EQ("\"alpha\" given back to pid 101 (server) at port 41001, which pid 102 (client) had taken it from",
              logSink.notices[1]);
}

TEST_F(ResolverTest, TakenOverNameGoesBackWhenTheTakerUnregistersOrDies)
{
    takeOverAlpha();
    deliver(unregisterLocator(LOCATOR_B), LOCATOR_B);
    EXPECT_EQ(PORT_1, ask("alpha", 1, STRANGER).port);

    takeOverAlphaAgain();
    sut.withdrawDead({LOCATOR_A, PORT_1});
    EXPECT_EQ(PORT_1, ask("alpha", 2, STRANGER).port);
}

TEST_F(ResolverTest, TakenOverNameIsNotGivenBackWhenItsOwnerNoLongerHoldsThePort)
{
    takeOverAlpha();
    sut.withdrawDead({LOCATOR_A, LOCATOR_B, PORT_2});
    deliver(removed("alpha", PORT_2), LOCATOR_B);
    EXPECT_EQ(0, ask("alpha", 1, STRANGER).port);
}

TEST_F(ResolverTest, OwnerThatWithdrewItsNameDuringATakeoverDoesNotGetItBack)
{
    takeOverAlpha();
    deliver(removed("alpha", PORT_1), LOCATOR_A);
    EXPECT_EQ(PORT_2, ask("alpha", 1, STRANGER).port);
    deliver(removed("alpha", PORT_2), LOCATOR_B);
    EXPECT_EQ(0, ask("alpha", 2, STRANGER).port);
}

TEST_F(ResolverTest, SecondTakeoverGivesTheNameBackInTurn)
{
    takeOverAlpha();
    registerAt(LOCATOR_C);
    deliver(added("alpha", PORT_3), LOCATOR_C);
    deliver(removed("alpha", PORT_3), LOCATOR_C);
    EXPECT_EQ(PORT_2, ask("alpha", 1, STRANGER).port);
    deliver(removed("alpha", PORT_2), LOCATOR_B);
    EXPECT_EQ(PORT_1, ask("alpha", 2, STRANGER).port);
}

TEST_F(ResolverTest, RegistrationAgainByTheSameOwnerIsNoTakeover)
{
    registerAt(LOCATOR_A);
    deliver(added("alpha", PORT_1), LOCATOR_A);
    deliver(added("alpha", PORT_2), LOCATOR_A);
    EXPECT_TRUE(logSink.notices.empty());
}

TEST_F(ResolverTest, DeathIsANoticeWithThePidAndEveryWithdrawnName)
{
    registerAt(LOCATOR_A);
    deliver(update({Row(0, "alpha", PORT_1), Row(0, "beta", PORT_2)}), LOCATOR_A);
    sut.withdrawDead({});
    ASSERT_EQ(1u, logSink.notices.size());
    EXPECT_EQ("pid 101 (server) is gone; withdrew 2 name(s): \"alpha\", \"beta\"", logSink.notices[0]);
}

TEST_F(ResolverTest, DeathOfAProcessWithoutNamesIsNoNotice)
{
    registerAt(LOCATOR_A);
    sut.withdrawDead({});
    EXPECT_TRUE(logSink.notices.empty());
}

TEST_F(ResolverTest, ClosedChannelOfALivingProcessIsANoticeNamingTheOwner)
{
    registerAt(LOCATOR_B);
    deliver(added("beta", PORT_2), LOCATOR_B);
    sut.withdrawDead({LOCATOR_B});
    ASSERT_EQ(1u, logSink.notices.size());
    EXPECT_EQ("withdrew \"beta\" of pid 102 (client): its socket at port 41002 is closed", logSink.notices[0]);
}

TEST_F(ResolverTest, IgnoredRegistrationRowsAreNoticesWithTheReason)
{
    registerAt(LOCATOR_A);
    deliver(update({Row(0, "zero", 0)}), LOCATOR_A);
    fakeNowMs += 1000;
    deliver(update({Row(0, "", PORT_1)}), LOCATOR_A);
    ASSERT_EQ(2u, logSink.notices.size());
    EXPECT_EQ("ignored a registration of \"zero\" at port 0 (ports are 1 to 65535) from pid 101 (server)",
              logSink.notices[0]);
    EXPECT_NE(std::string::npos, logSink.notices[1].find("registration row with a name of 0 bytes")) << logSink.notices[1];
}

TEST_F(ResolverTest, IgnoredRowNoticesAreRateLimited)
{
    registerAt(LOCATOR_A);
    for (int i = 0; i < 5; ++i) {
        deliver(update({Row(0, "zero", 0)}), LOCATOR_A);
    }
    fakeNowMs += 1000;
    deliver(update({Row(0, "zero", 0)}), LOCATOR_A);
    ASSERT_EQ(2u, logSink.notices.size());
    EXPECT_NE(std::string::npos, logSink.notices[1].find("and 4 more rows")) << logSink.notices[1];
}

TEST_F(ResolverTest, ProcessIsRememberedFromItsRegistration)
{
    int lookups = 0;
    resolver::Resolver counted(fakeClock, [&](int port) {
        ++lookups;
        return fakeLookup(port);
    });
    const std::string registration = registerLocator(LOCATOR_A);
    counted.handleDatagram(registration.data(), registration.size(), LOCATOR_A);
    EXPECT_EQ("pid 101 (server)", counted.describe(LOCATOR_A));
    EXPECT_EQ("pid 101 (server)", counted.describe(LOCATOR_A));
    EXPECT_EQ(1, lookups);
}

TEST_F(ResolverTest, RegistrationIsAnsweredBeforeItsProcessIsLookedUp)
{
    int lookups = 0;
    resolver::Resolver counted(fakeClock, [&](int port) {
        ++lookups;
        return fakeLookup(port);
    });
    const std::string registration = registerLocator(LOCATOR_A);
    const std::vector<resolver::Outgoing> replies =
        counted.handleDatagram(registration.data(), registration.size(), LOCATOR_A);
    EXPECT_FALSE(replies.empty());
    EXPECT_EQ(0, lookups);
    counted.identifyPending();
    EXPECT_EQ(1, lookups);
    EXPECT_EQ("pid 101 (server)", counted.describe(LOCATOR_A));
    counted.identifyPending();
    EXPECT_EQ(1, lookups);
}

TEST_F(ResolverTest, VerboseLinesNameProcessesByPid)
{
    registerAt(LOCATOR_A);
    deliver(added("alpha", PORT_1), LOCATOR_A);
    ask("alpha", 5, LOCATOR_A);
    ask("alpha", 6, STRANGER);
    ASSERT_EQ(4u, logSink.others.size());
    EXPECT_EQ(0u, logSink.others[0].find("pid 101 (server) registered its locator")) << logSink.others[0];
    EXPECT_EQ("pid 101 (server) registered \"alpha\" at port 41001", logSink.others[1]);
    EXPECT_EQ("port request 5 from pid 101 (server) for \"alpha\": port 41001", logSink.others[2]);
    EXPECT_EQ("port request 6 from an unidentified process at port 40099 for \"alpha\": port 41001",
              logSink.others[3]);
}

TEST_F(ResolverTest, TakeChangedReportsEachChangeOnce)
{
    EXPECT_FALSE(sut.takeChanged());
    registerAt(LOCATOR_A);
    EXPECT_TRUE(sut.takeChanged());
    EXPECT_FALSE(sut.takeChanged());
    registerAt(LOCATOR_A);
    EXPECT_FALSE(sut.takeChanged());
    deliver(added("alpha", PORT_1), LOCATOR_A);
    EXPECT_TRUE(sut.takeChanged());
}

// One test for each way the bytes can lie. None may get an answer or change
// the table, and the resolver must still answer afterwards.
class ResolverGarbageTest : public ResolverTest {
protected:
    void expectDropped(const std::string& bytes)
    {
        registerAt(LOCATOR_A);
        sut.takeChanged();
        EXPECT_TRUE(deliver(bytes, STRANGER).empty());
        EXPECT_FALSE(sut.takeChanged());
        EXPECT_EQ(1u, logSink.warnings.size());
        EXPECT_EQ(0, ask("anything", 9, STRANGER).port);
    }
    static std::string withLength(std::string bytes, std::uint32_t length)
    {
        std::memcpy(&bytes[4], &length, sizeof length);
        return bytes;
    }
};

TEST_F(ResolverGarbageTest, ZeroLengthDatagramIsDropped) { expectDropped(std::string()); }

TEST_F(ResolverGarbageTest, DatagramShorterThanAHeaderIsDropped) { expectDropped(portRequest("x", 1).substr(0, 7)); }

TEST_F(ResolverGarbageTest, TruncatedMessageIsDropped)
{
    const std::string request = portRequest("alpha", 1);
    expectDropped(request.substr(0, request.size() - 1));
}

TEST_F(ResolverGarbageTest, TrailingBytesAfterTheMessageAreDropped) { expectDropped(portRequest("alpha", 1) + "xx"); }

TEST_F(ResolverGarbageTest, LengthFieldLargerThanTheDatagramIsDropped)
{
    const std::string request = portRequest("alpha", 1);
    expectDropped(withLength(request, static_cast<std::uint32_t>(request.size() + 100)));
}

TEST_F(ResolverGarbageTest, UnknownTypeIsDropped)
{
    std::string bytes = portRequest("alpha", 1);
    bytes[3] = 42;
    expectDropped(bytes);
}

TEST_F(ResolverGarbageTest, PortResponseIsDropped)
{
    CommsChannelPortResponseMessage response;
    response.setChannel("alpha");
    expectDropped(encoded(response));
}

TEST_F(ResolverGarbageTest, WrongMagicIsDropped)
{
    std::string bytes = portRequest("alpha", 1);
    bytes[0] = 'X';
    expectDropped(bytes);
}

TEST_F(ResolverGarbageTest, WrongVersionIsDropped)
{
    std::string bytes = portRequest("alpha", 1);
    bytes[2] = 9;
    expectDropped(bytes);
}

TEST_F(ResolverGarbageTest, UpdateWhoseRowCountLiesIsDropped)
{
    std::string bytes = added("alpha", PORT_1);
    // The row count follows the header and the empty channel name.
    const std::uint32_t lie = 1000;
    std::memcpy(&bytes[12], &lie, sizeof lie);
    expectDropped(bytes);
}

TEST_F(ResolverGarbageTest, StringLengthBeyondTheMessageIsDropped)
{
    std::string bytes = portRequest("alpha", 1);
    const std::uint32_t lie = 0x7fffffff;
    std::memcpy(&bytes[8], &lie, sizeof lie);
    expectDropped(bytes);
}

TEST_F(ResolverGarbageTest, RandomAndMutatedDatagramsNeverCrashOrStopAnswers)
{
    std::mt19937 random(20261123);
    const std::vector<std::string> valid = {registerLocator(LOCATOR_B), added("alpha", PORT_1),
                                            update({Row(0, "a", 1), Row(1, "b", 2)}), portRequest("alpha", 3),
                                            unregisterLocator(LOCATOR_B)};
    for (int round = 0; round < 20000; ++round) {
        std::string bytes = valid[random() % valid.size()];
        if (round % 2 == 0) {
            bytes.resize(random() % 64);
            for (char& byte : bytes) {
                byte = static_cast<char>(random());
            }
        } else {
            const int flips = 1 + static_cast<int>(random() % 4);
            for (int i = 0; i < flips; ++i) {
                bytes[random() % bytes.size()] = static_cast<char>(random());
            }
        }
        sut.handleDatagram(bytes.data(), bytes.size(), 30000 + static_cast<int>(random() % 100));
    }
    deliver(added("known", PORT_2), LOCATOR_C);
    EXPECT_EQ(PORT_2, ask("known", 4, STRANGER).port);
}

TEST_F(ResolverGarbageTest, DroppedDatagramsAreLoggedOncePerSecondWithACount)
{
    for (int i = 0; i < 5; ++i) {
        deliver("junk", STRANGER);
    }
    ASSERT_EQ(1u, logSink.warnings.size());
    fakeNowMs += 999;
    deliver("junk", STRANGER);
    EXPECT_EQ(1u, logSink.warnings.size());
    fakeNowMs += 1;
    deliver("junk", STRANGER);
    ASSERT_EQ(2u, logSink.warnings.size());
    EXPECT_NE(std::string::npos, logSink.warnings[1].find("5 more")) << logSink.warnings[1];
}

}  // namespace
