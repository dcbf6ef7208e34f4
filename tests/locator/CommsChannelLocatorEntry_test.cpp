// One row of the locator: name, port, channel, address, and the dispatcher
// it owns under the keep-the-first-dispatcher rule.
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelDispatcher.h"
#include "CommsChannelLocatorEntry.h"
#include "DispatcherDeleters.h"

#include <string>

#include <gtest/gtest.h>

namespace {

// A dispatcher that counts its own deletion. Dispatchers have no virtual
// destructor; the entry deletes this one through its class, which the
// fixture adds to the library's deleters.
class TrackedDispatcher final : public CommsChannelDispatcher {
public:
    explicit TrackedDispatcher(int* deletions) : m_deletions(deletions) {}
    ~TrackedDispatcher() { ++*m_deletions; }
    int sendMsg(CommsChannel* /*sender*/, CommsChannelDataContainerMessage& /*message*/) override { return 0; }

private:
    int* m_deletions;
};

class CommsChannelLocatorEntryTest : public testing::Test {
protected:
    CommsChannelLocatorEntryTest() { dispatcher_deleters::add<TrackedDispatcher>(); }

    int deletionsOfA = 0;
    int deletionsOfB = 0;
};

TEST_F(CommsChannelLocatorEntryTest, DefaultEntryKnowsNothing)
{
    CommsChannelLocatorEntry sut;

    EXPECT_EQ("", sut.channelName());
    EXPECT_EQ(0, sut.port());
    EXPECT_EQ(nullptr, sut.channelHandle());
    EXPECT_EQ("", sut.ipAddress());
    EXPECT_EQ(nullptr, sut.dispatcher());
}

TEST_F(CommsChannelLocatorEntryTest, NamePortAddressEntryHasNoChannelAndNoDispatcher)
{
    CommsChannelLocatorEntry sut("remote", 40123, "10.1.2.3");

    EXPECT_EQ("remote", sut.channelName());
    EXPECT_EQ(40123, sut.port());
    EXPECT_EQ(nullptr, sut.channelHandle());
    EXPECT_EQ("10.1.2.3", sut.ipAddress());
    EXPECT_EQ(nullptr, sut.dispatcher());
}

TEST_F(CommsChannelLocatorEntryTest, EntryFromChannelTakesItsNameAndPortAndHasEmptyAddress)
{
    CommsChannel channel("alpha");

    CommsChannelLocatorEntry sut(&channel);

    EXPECT_EQ("alpha", sut.channelName());
    EXPECT_EQ(channel.port(), sut.port());
    EXPECT_NE(0, sut.port());
    EXPECT_EQ(&channel, sut.channelHandle());
    EXPECT_EQ("", sut.ipAddress());
    EXPECT_EQ(nullptr, sut.dispatcher());
}

TEST_F(CommsChannelLocatorEntryTest, EntryFromChannelGetsIntraProcessDispatcherFromTheFactory)
{
    CommsChannel channel("alpha");
    CommsChannelLocatorEntry sut(&channel);
    CommsChannelDispatcherFactory factory;

    sut.setDispatcher(factory.createDispatcher(&sut));

    CCIntraProcDispatcher* intra = dynamic_cast<CCIntraProcDispatcher*>(sut.dispatcher());
    ASSERT_NE(nullptr, intra);
    EXPECT_EQ(&channel, intra->destination());
}

TEST_F(CommsChannelLocatorEntryTest, SettersOverwriteTheirFields)
{
    CommsChannel channel("");
    CommsChannelLocatorEntry sut("old", 1, "10.0.0.1");

    sut.setChannelName("new");
    sut.setPort(2);
    sut.setChannelHandle(&channel);
    sut.setIpAddress("");

    EXPECT_EQ("new", sut.channelName());
    EXPECT_EQ(2, sut.port());
    EXPECT_EQ(&channel, sut.channelHandle());
    EXPECT_EQ("", sut.ipAddress());
    sut.setChannelHandle(nullptr);
    EXPECT_EQ(nullptr, sut.channelHandle());
}

TEST_F(CommsChannelLocatorEntryTest, EntryWithoutDispatcherTakesTheOfferedOne)
{
    CommsChannelLocatorEntry sut;
    TrackedDispatcher* a = new TrackedDispatcher(&deletionsOfA);

    sut.setDispatcher(a);

    EXPECT_EQ(a, sut.dispatcher());
    EXPECT_EQ(0, deletionsOfA);
}

TEST_F(CommsChannelLocatorEntryTest, OfferingTheHeldDispatcherAgainChangesAndDeletesNothing)
{
    CommsChannelLocatorEntry sut;
    TrackedDispatcher* a = new TrackedDispatcher(&deletionsOfA);
    sut.setDispatcher(a);

    sut.setDispatcher(a);

    EXPECT_EQ(a, sut.dispatcher());
    EXPECT_EQ(0, deletionsOfA);
}

TEST_F(CommsChannelLocatorEntryTest, OfferingADifferentDispatcherKeepsTheFirstAndDeletesTheOffered)
{
    CommsChannelLocatorEntry sut;
    TrackedDispatcher* a = new TrackedDispatcher(&deletionsOfA);
    sut.setDispatcher(a);

    sut.setDispatcher(new TrackedDispatcher(&deletionsOfB));

    EXPECT_EQ(a, sut.dispatcher());
    EXPECT_EQ(0, deletionsOfA);
    EXPECT_EQ(1, deletionsOfB);
}

TEST_F(CommsChannelLocatorEntryTest, OfferingNullDeletesTheHeldDispatcher)
{
    CommsChannelLocatorEntry sut;
    sut.setDispatcher(new TrackedDispatcher(&deletionsOfA));
    sut.setDispatcher(new TrackedDispatcher(&deletionsOfB));

    sut.setDispatcher(nullptr);

    EXPECT_EQ(nullptr, sut.dispatcher());
    EXPECT_EQ(1, deletionsOfA);
    EXPECT_EQ(1, deletionsOfB);
}

TEST_F(CommsChannelLocatorEntryTest, AfterNullTheNextOfferedDispatcherIsTaken)
{
    CommsChannelLocatorEntry sut;
    sut.setDispatcher(new TrackedDispatcher(&deletionsOfA));
    sut.setDispatcher(nullptr);
    TrackedDispatcher* b = new TrackedDispatcher(&deletionsOfB);

    sut.setDispatcher(b);

    EXPECT_EQ(b, sut.dispatcher());
    EXPECT_EQ(0, deletionsOfB);
}

TEST_F(CommsChannelLocatorEntryTest, OfferingNullToAnEntryWithoutDispatcherChangesNothing)
{
    CommsChannelLocatorEntry sut;

    sut.setDispatcher(nullptr);

    EXPECT_EQ(nullptr, sut.dispatcher());
}

TEST_F(CommsChannelLocatorEntryTest, DeletingTheEntryDeletesItsDispatcher)
{
    CommsChannelLocatorEntry* sut = new CommsChannelLocatorEntry("remote", 40000, "");
    sut->setDispatcher(new TrackedDispatcher(&deletionsOfA));

    delete sut;

    EXPECT_EQ(1, deletionsOfA);
}

TEST_F(CommsChannelLocatorEntryTest, DeletingAnEntryWhoseDispatcherIsNullDeletesNoDispatcher)
{
    CommsChannelLocatorEntry* sut = new CommsChannelLocatorEntry("remote", 40000, "");
    sut->setDispatcher(new TrackedDispatcher(&deletionsOfA));
    sut->setDispatcher(nullptr);
    ASSERT_EQ(1, deletionsOfA);

    delete sut;

    EXPECT_EQ(1, deletionsOfA);
}

TEST_F(CommsChannelLocatorEntryTest, DeletingTheEntryLeavesTheChannelAlive)
{
    CommsChannel channel("");
    CommsChannelLocatorEntry* sut = new CommsChannelLocatorEntry(&channel);
    CommsChannelDispatcherFactory factory;
    sut->setDispatcher(factory.createDispatcher(sut));

    delete sut;

    CommsChannelDataContainerMessage message;
    message.setData("still here", 10);
    EXPECT_EQ(1, channel.addToMsgQ(message));
    std::string data;
    ASSERT_EQ(1, channel.receiveMsg(data));
    EXPECT_EQ("still here", data);
}

}  // namespace
