// The factory's choice of dispatcher for a locator entry: none, a channel of
// this process, a port on this host, or an address of another host.
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelDispatcher.h"
#include "CommsChannelLocatorEntry.h"
#include "DispatcherDeleters.h"
#include "TestUtil.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace {

// Dispatchers have no virtual destructor: the caller that owns one deletes
// it through the class it was created as.
struct DeleteThroughOwnClass {
    void operator()(CommsChannelDispatcher* dispatcher) const
    {
        EXPECT_TRUE(dispatcher_deleters::destroy(dispatcher));
    }
};
typedef std::unique_ptr<CommsChannelDispatcher, DeleteThroughOwnClass> OwnedDispatcher;

class CommsChannelDispatcherFactoryTest : public testing::Test {
protected:
    OwnedDispatcher create(CommsChannelLocatorEntry* entry) { return OwnedDispatcher(sut.createDispatcher(entry)); }

    CommsChannelDispatcherFactory sut;
};

TEST_F(CommsChannelDispatcherFactoryTest, NoEntryGetsTheNullDispatcher)
{
    OwnedDispatcher dispatcher = create(nullptr);

    ASSERT_NE(nullptr, dispatcher);
    EXPECT_NE(nullptr, dynamic_cast<CCNullDispatcher*>(dispatcher.get()));
}

TEST_F(CommsChannelDispatcherFactoryTest, EntryWithChannelHandleGetsIntraProcessDispatcherForIt)
{
    CommsChannel destination("");
    CommsChannelLocatorEntry entry;
    entry.setChannelHandle(&destination);

    OwnedDispatcher dispatcher = create(&entry);

    CCIntraProcDispatcher* intra = dynamic_cast<CCIntraProcDispatcher*>(dispatcher.get());
    ASSERT_NE(nullptr, intra);
    EXPECT_EQ(&destination, intra->destination());
    CommsChannelDataContainerMessage message;
    message.setData("in", 2);
    EXPECT_EQ(1, dispatcher->sendMsg(nullptr, message));
    EXPECT_FALSE(destination.isQEmpty());
}

TEST_F(CommsChannelDispatcherFactoryTest, EntryWithEmptyAddressGetsInterProcessDispatcherOnItsPort)
{
    CommsChannelLocatorEntry entry("remote", 4321, "");

    OwnedDispatcher dispatcher = create(&entry);

    CCInterProcDispatcher* inter = dynamic_cast<CCInterProcDispatcher*>(dispatcher.get());
    ASSERT_NE(nullptr, inter);
    EXPECT_EQ(4321, inter->port());
}

TEST_F(CommsChannelDispatcherFactoryTest, InterProcessDispatcherFromFactorySendsToTheEntrysPort)
{
    cctest::UdpSocket peer;
    ASSERT_TRUE(peer.ok());
    CommsChannel sender("");
    CommsChannelLocatorEntry entry("remote", peer.port(), "");
    OwnedDispatcher dispatcher = create(&entry);
    CommsChannelDataContainerMessage message;
    message.setData("over udp", 8);

    EXPECT_EQ(1, dispatcher->sendMsg(&sender, message));

    std::string datagram;
    EXPECT_TRUE(peer.receive(datagram, 10000));
    EXPECT_NE(std::string::npos, datagram.find("over udp"));
}

TEST_F(CommsChannelDispatcherFactoryTest, DefaultEntryGetsInterProcessDispatcherOnPortZero)
{
    CommsChannelLocatorEntry entry;

    OwnedDispatcher dispatcher = create(&entry);

    CCInterProcDispatcher* inter = dynamic_cast<CCInterProcDispatcher*>(dispatcher.get());
    ASSERT_NE(nullptr, inter);
    EXPECT_EQ(0, inter->port());
}

TEST_F(CommsChannelDispatcherFactoryTest, LoopbackAddressGetsDistributedDispatcherThatAlwaysFails)
{
    cctest::UdpSocket peer;
    ASSERT_TRUE(peer.ok());
    CommsChannel sender("");
    CommsChannelLocatorEntry entry("remote", peer.port(), "127.0.0.1");

    OwnedDispatcher dispatcher = create(&entry);

    ASSERT_NE(nullptr, dynamic_cast<CCDistribProcDispatcher*>(dispatcher.get()));
    CommsChannelDataContainerMessage message;
    message.setData("elsewhere", 9);
    EXPECT_EQ(0, dispatcher->sendMsg(&sender, message));
    std::string datagram;
    EXPECT_FALSE(peer.receive(datagram, 300));
}

TEST_F(CommsChannelDispatcherFactoryTest, AnyNonEmptyAddressGetsDistributedDispatcher)
{
    for (const char* address : {"10.0.0.7", "localhost", " ", "::1"}) {
        CommsChannelLocatorEntry entry("remote", 4321, address);

        OwnedDispatcher dispatcher = create(&entry);

        EXPECT_NE(nullptr, dynamic_cast<CCDistribProcDispatcher*>(dispatcher.get())) << address;
    }
}

TEST_F(CommsChannelDispatcherFactoryTest, ChannelHandleWinsOverAnAddress)
{
    CommsChannel destination("");
    CommsChannelLocatorEntry entry("local", destination.port(), "127.0.0.1");
    entry.setChannelHandle(&destination);

    OwnedDispatcher dispatcher = create(&entry);

    CCIntraProcDispatcher* intra = dynamic_cast<CCIntraProcDispatcher*>(dispatcher.get());
    ASSERT_NE(nullptr, intra);
    EXPECT_EQ(&destination, intra->destination());
}

TEST_F(CommsChannelDispatcherFactoryTest, EveryCallMakesANewDispatcherOwnedByTheCaller)
{
    CommsChannelLocatorEntry entry("remote", 4321, "");

    OwnedDispatcher first = create(&entry);
    OwnedDispatcher second = create(&entry);

    EXPECT_NE(first.get(), second.get());
    EXPECT_EQ(nullptr, entry.dispatcher());
}

}  // namespace
