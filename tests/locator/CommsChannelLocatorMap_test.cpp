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
#include <vector>

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

    // Waits until the locator learnt every one of the names (the resolver's
    // answer to its registration lists them all at once).
    void waitForNames(const std::vector<std::string>& names)
    {
        ASSERT_TRUE(cctest::waitUntil(
            [&names] {
                for (const std::string& name : names) {
                    if (!LocatorProbe::knows(name)) {
                        return false;
                    }
                }
                return true;
            },
            20000));
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
    EXPECT_TRUE(sut->hasEnded());
}

TEST_F(CommsChannelLocatorMapTest, SizeAddsLocalAndRemoteEntries)
{
    fakeResolver.setPort("far", 40001);
    CommsChannel first("first");
    CommsChannel second("second");
    waitForNames({"far"});

    EXPECT_EQ(3u, CommsChannelLocator::instance()->size());
}

TEST_F(CommsChannelLocatorMapTest, SizeCountsANameInBothMapsTwice)
{
    fakeResolver.setPort("both", 40002);
    CommsChannel both("both");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));
    // The name is local already; the remote row shows in the size.
    ASSERT_TRUE(cctest::waitUntil([] { return CommsChannelLocator::instance()->size() == 2u; }, 20000));
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
    waitForNames({"zulu", "Charlie", "bravo"});

    const std::string expected = block("Local", upper.port(), &upper) + block("local", lower.port(), &lower) +
                                 block("Charlie", 40004, nullptr) + block("bravo", 40005, nullptr) +
                                 block("zulu", 40003, nullptr);
    EXPECT_EQ(expected, dump());
}

TEST_F(CommsChannelLocatorMapTest, DumpPrintsTheSameNameOnceFromEachMap)
{
    fakeResolver.setPort("both", 40006);
    CommsChannel both("both");
    ASSERT_NE(0, fakeResolver.waitForLocator(20000));
    ASSERT_TRUE(cctest::waitUntil([] { return CommsChannelLocator::instance()->size() == 2u; }, 20000));

    EXPECT_EQ(block("both", both.port(), &both) + block("both", 40006, nullptr), dump());
}

TEST_F(CommsChannelLocatorMapTest, DumpPrintsPortsInTheStreamsCurrentIntegerFormat)
{
    fakeResolver.setPort("hex", 0xABCD);
    CommsChannel anchor("anchor");
    waitForNames({"hex"});

    std::cout << std::hex;
    const std::string output = dump();
    std::cout << std::dec;

    std::ostringstream anchorPort;
    anchorPort << std::hex << anchor.port();
    EXPECT_NE(std::string::npos, output.find("Channel Port = " + anchorPort.str() + "\n"));
    EXPECT_NE(std::string::npos, output.find("Channel Port = abcd\n"));
}

}  // namespace
