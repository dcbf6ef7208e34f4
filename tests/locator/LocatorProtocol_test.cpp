// The locator's handling of the resolver's datagrams, as plain functions on
// a name map: decoding a datagram, learning a name, applying an update's
// rows in order, and emptying a map.
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelDispatcher.h"
#include "CommsChannelLocatorEntry.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "LocatorProtocol.h"
#include "WireCodec.h"

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace {

using locator_protocol::EntryMap;

typedef std::vector<std::tuple<int, std::string, int>> Rows;

const int ADDED = 0;
const int REMOVED = 1;

std::string encodingOf(CommsChannelMessage& message)
{
    int length = 0;
    const char* encoding = message.encode(&length);
    return encoding != nullptr ? std::string(encoding, static_cast<std::size_t>(length)) : std::string();
}

CommsChannelLocatorUpdateMessage updateOf(const Rows& rows)
{
    CommsChannelLocatorUpdateMessage update;
    for (const auto& row : rows) {
        update.addChannelEntry(static_cast<CommsChannelLocatorUpdateMessage::eUpdateType>(std::get<0>(row)),
                               std::get<1>(row), std::get<2>(row));
    }
    return update;
}

// The port a map's entry for name sends to through its dispatcher.
int dispatcherPort(EntryMap& map, const std::string& name)
{
    EntryMap::iterator entry = map.find(name);
    if (entry == map.end()) {
        return -1;
    }
    CCInterProcDispatcher* inter = dynamic_cast<CCInterProcDispatcher*>(entry->second->dispatcher());
    return inter != nullptr ? inter->port() : 0;
}

// Owns a map for a test and empties it at the end.
class LocatorProtocolTest : public testing::Test {
protected:
    void TearDown() override { locator_protocol::clear(remote); }

    EntryMap remote;
};

TEST_F(LocatorProtocolTest, DecodesAnUpdateDatagramIntoItsRows)
{
    CommsChannelLocatorUpdateMessage sent = updateOf(Rows{std::make_tuple(ADDED, "a", 41000),
                                                          std::make_tuple(REMOVED, "b", 41001)});
    const std::string bytes = encodingOf(sent);

    std::unique_ptr<CommsChannelMessage> decoded = locator_protocol::decodeDatagram(bytes.data(), bytes.size());

    ASSERT_NE(nullptr, decoded);
    CommsChannelLocatorUpdateMessage* update = dynamic_cast<CommsChannelLocatorUpdateMessage*>(decoded.get());
    ASSERT_NE(nullptr, update);
    ASSERT_EQ(2, update->numChannelEntries());
    CommsChannelLocatorUpdateMessage::eUpdateType type = CommsChannelLocatorUpdateMessage::CHANNEL_ADDED;
    std::string name;
    int port = 0;
    update->getChannelEntry(1, &type, &name, &port);
    EXPECT_EQ(REMOVED, static_cast<int>(type));
    EXPECT_EQ("b", name);
    EXPECT_EQ(41001, port);
}

TEST_F(LocatorProtocolTest, DecodesAPortAnswer)
{
    CommsChannelPortResponseMessage sent;
    sent.setChannel("far");
    sent.setRequestId(7);
    sent.setPort(42000);
    const std::string bytes = encodingOf(sent);

    std::unique_ptr<CommsChannelMessage> decoded = locator_protocol::decodeDatagram(bytes.data(), bytes.size());

    CommsChannelPortResponseMessage* answer = dynamic_cast<CommsChannelPortResponseMessage*>(decoded.get());
    ASSERT_NE(nullptr, answer);
    EXPECT_EQ("far", answer->channel());
    EXPECT_EQ(7, answer->requestId());
    EXPECT_EQ(42000, answer->port());
}

TEST_F(LocatorProtocolTest, DatagramShorterThanTheHeaderOrThanItsAnnouncedLengthIsDropped)
{
    CommsChannelLocatorUpdateMessage sent = updateOf(Rows{std::make_tuple(ADDED, "a", 41000)});
    const std::string bytes = encodingOf(sent);
    std::string announcesMore = bytes;
    wire::writeHostOrderLength(&announcesMore[0], static_cast<std::uint32_t>(bytes.size() + 1));
    std::string announcesLessThanAHeader = bytes;
    wire::writeHostOrderLength(&announcesLessThanAHeader[0], 7);

    EXPECT_EQ(nullptr, locator_protocol::decodeDatagram(nullptr, 0));
    EXPECT_EQ(nullptr, locator_protocol::decodeDatagram(bytes.data(), 0));
    EXPECT_EQ(nullptr, locator_protocol::decodeDatagram(bytes.data(), 7));
    EXPECT_EQ(nullptr, locator_protocol::decodeDatagram(bytes.data(), bytes.size() - 1));
    EXPECT_EQ(nullptr, locator_protocol::decodeDatagram(announcesMore.data(), announcesMore.size()));
    EXPECT_EQ(nullptr,
              locator_protocol::decodeDatagram(announcesLessThanAHeader.data(), announcesLessThanAHeader.size()));
}

TEST_F(LocatorProtocolTest, BytesBeyondTheAnnouncedLengthAreIgnored)
{
    CommsChannelLocatorUpdateMessage sent = updateOf(Rows{std::make_tuple(ADDED, "a", 41000)});
    const std::string bytes = encodingOf(sent) + "TRAILING";

    std::unique_ptr<CommsChannelMessage> decoded = locator_protocol::decodeDatagram(bytes.data(), bytes.size());

    CommsChannelLocatorUpdateMessage* update = dynamic_cast<CommsChannelLocatorUpdateMessage*>(decoded.get());
    ASSERT_NE(nullptr, update);
    EXPECT_EQ(1, update->numChannelEntries());
}

TEST_F(LocatorProtocolTest, GarbageWithAPlausibleLengthIsDropped)
{
    std::string garbage(32, '\xEE');
    wire::writeHostOrderLength(&garbage[0], 32);

    EXPECT_EQ(nullptr, locator_protocol::decodeDatagram(garbage.data(), garbage.size()));
}

TEST_F(LocatorProtocolTest, LearningANewNameAddsAnEntryThatSendsToItsPort)
{
    locator_protocol::learn(remote, "far", 43000);

    ASSERT_EQ(1u, remote.size());
    CommsChannelLocatorEntry* entry = remote["far"];
    EXPECT_EQ("far", entry->channelName());
    EXPECT_EQ(43000, entry->port());
    EXPECT_EQ(nullptr, entry->channelHandle());
    EXPECT_EQ(43000, dispatcherPort(remote, "far"));
}

TEST_F(LocatorProtocolTest, LearningAKnownNameAgainChangesItsPortButKeepsItsFirstDispatcher)
{
    locator_protocol::learn(remote, "mover", 43000);
    CommsChannelDispatcher* first = remote["mover"]->dispatcher();
    CommsChannelLocatorEntry* entry = remote["mover"];

    locator_protocol::learn(remote, "mover", 43001);

    ASSERT_EQ(1u, remote.size());
    EXPECT_EQ(entry, remote["mover"]);
    EXPECT_EQ(43001, entry->port());
    EXPECT_EQ(first, entry->dispatcher());
    EXPECT_EQ(43000, dispatcherPort(remote, "mover"));
}

TEST_F(LocatorProtocolTest, UpdateRowsAreAppliedInOrder)
{
    const CommsChannelLocatorUpdateMessage update =
        updateOf(Rows{std::make_tuple(ADDED, "a", 45000), std::make_tuple(REMOVED, "a", 0),
                      std::make_tuple(ADDED, "b", 45001), std::make_tuple(ADDED, "b", 45002)});

    locator_protocol::applyUpdate(remote, update);

    EXPECT_EQ(0u, remote.count("a"));
    ASSERT_EQ(1u, remote.count("b"));
    EXPECT_EQ(45002, remote["b"]->port());
    EXPECT_EQ(45001, dispatcherPort(remote, "b"));
}

TEST_F(LocatorProtocolTest, EveryRowTypeOtherThanAddedRemovesTheName)
{
    locator_protocol::learn(remote, "one", 46000);
    locator_protocol::learn(remote, "two", 46001);
    locator_protocol::learn(remote, "stays", 46002);

    locator_protocol::applyUpdate(remote, updateOf(Rows{std::make_tuple(REMOVED, "one", 46000),
                                                        std::make_tuple(7, "two", 99)}));

    EXPECT_EQ(0u, remote.count("one"));
    EXPECT_EQ(0u, remote.count("two"));
    ASSERT_EQ(1u, remote.size());
    EXPECT_EQ(46002, remote["stays"]->port());
}

TEST_F(LocatorProtocolTest, RemovalOfAnUnknownNameChangesNothing)
{
    locator_protocol::learn(remote, "known", 47000);

    locator_protocol::applyUpdate(remote, updateOf(Rows{std::make_tuple(REMOVED, "unknown", 47001)}));

    ASSERT_EQ(1u, remote.size());
    EXPECT_EQ(47000, remote["known"]->port());
}

TEST_F(LocatorProtocolTest, UpdateWithoutRowsChangesNothing)
{
    locator_protocol::learn(remote, "known", 47000);

    locator_protocol::applyUpdate(remote, updateOf(Rows{}));

    ASSERT_EQ(1u, remote.size());
    EXPECT_EQ(47000, remote["known"]->port());
}

TEST_F(LocatorProtocolTest, ClearEmptiesTheMap)
{
    locator_protocol::learn(remote, "a", 48000);
    locator_protocol::learn(remote, "b", 48001);

    locator_protocol::clear(remote);

    EXPECT_TRUE(remote.empty());
    locator_protocol::clear(remote);
    EXPECT_TRUE(remote.empty());
}

}  // namespace
