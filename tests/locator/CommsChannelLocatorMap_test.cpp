// The locator's read-only views of its two maps: size() and the dump on
// standard output. Names learnt from the resolver come from a scripted
// resolver's answer to the locator's registration.
#include "CommsChannel.h"
#include "CommsChannelLocator.h"
#include "FakeResolver.h"
#include "LocatorProbe.h"
#include "TestUtil.h"

#include <iostream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace {

using cctest::LocatorProbe;

// The five lines printed for one entry.
std::string block(const std::string& name, int port, const void* handle)
{
    std::ostringstream text;
    text << "*************************************\n"
         << "Channel Name = \"" << name << "\"\n"
         << "Channel Port = " << port << "\n"
         << "Channel handle = " << handle << "\n"
         << "*************************************\n";
    return text.str();
}

class CommsChannelLocatorMapTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(fakeResolver.ok()); }

    // Waits until the locator learnt every name that the resolver knows.
    void waitForRemoteCount(std::size_t count)
    {
        ASSERT_TRUE(cctest::waitUntil([count] { return LocatorProbe::remoteCount() == count; }, 20000));
    }

    std::string dump()
    {
        testing::internal::CaptureStdout();
        CommsChannelLocator::instance()->dumpLocatorMap();
        return testing::internal::GetCapturedStdout();
    }

    cctest::FakeResolver fakeResolver;
};

TEST_F(CommsChannelLocatorMapTest, EmptyLocatorHasSizeZeroAndPrintsNothing)
{
    CommsChannelLocator* sut = CommsChannelLocator::instance();

    EXPECT_EQ(0u, sut->size());
    EXPECT_EQ("", dump());

    CommsChannel unnamed("");
    sut->unregisterChannel(&unnamed);  // the empty locator ends itself
    EXPECT_EQ(nullptr, LocatorProbe::current());
}

TEST_F(CommsChannelLocatorMapTest, SizeAddsLocalAndRemoteEntries)
{
    fakeResolver.setPort("far", 40001);
    CommsChannel first("first");
    CommsChannel second("second");
    waitForRemoteCount(1);

    EXPECT_EQ(3u, CommsChannelLocator::instance()->size());
}

TEST_F(CommsChannelLocatorMapTest, SizeCountsANameInBothMapsTwice)
{
    fakeResolver.setPort("both", 40002);
    CommsChannel both("both");
    waitForRemoteCount(1);
    ASSERT_EQ(&both, LocatorProbe::localHandle("both"));

    EXPECT_EQ(2u, CommsChannelLocator::instance()->size());
}

TEST_F(CommsChannelLocatorMapTest, DumpPrintsLocalMapFirstThenRemoteMapEachInByteOrderOfNames)
{
    fakeResolver.setPort("zulu", 40003);
    fakeResolver.setPort("Charlie", 40004);
    fakeResolver.setPort("bravo", 40005);
    CommsChannel lower("local");
    CommsChannel upper("Local");
    waitForRemoteCount(3);

    const std::string expected = block("Local", upper.port(), &upper) + block("local", lower.port(), &lower) +
                                 block("Charlie", 40004, nullptr) + block("bravo", 40005, nullptr) +
                                 block("zulu", 40003, nullptr);
    EXPECT_EQ(expected, dump());
}

TEST_F(CommsChannelLocatorMapTest, DumpPrintsTheSameNameOnceFromEachMap)
{
    fakeResolver.setPort("both", 40006);
    CommsChannel both("both");
    waitForRemoteCount(1);

    EXPECT_EQ(block("both", both.port(), &both) + block("both", 40006, nullptr), dump());
}

TEST_F(CommsChannelLocatorMapTest, DumpPrintsPortsInTheStreamsCurrentIntegerFormat)
{
    fakeResolver.setPort("hex", 0xABCD);
    CommsChannel anchor("anchor");
    waitForRemoteCount(1);

    std::cout << std::hex;
    const std::string output = dump();
    std::cout << std::dec;

    std::ostringstream anchorPort;
    anchorPort << std::hex << anchor.port();
    EXPECT_NE(std::string::npos, output.find("Channel Port = " + anchorPort.str() + "\n"));
    EXPECT_NE(std::string::npos, output.find("Channel Port = abcd\n"));
}

}  // namespace
