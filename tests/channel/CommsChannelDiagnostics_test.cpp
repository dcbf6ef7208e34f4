// The diagnostics dump: the exact bytes that info() and displayInfo() append
// to /logs/CommsChannel.log-<pid> (a private /logs for every test).
#include "CommsChannel.h"
#include "ChannelTestHelpers.h"
#include "ChildProcess.h"
#include "CommsChannelDataContainerMessage.h"
#include "TestUtil.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

// A second process that dumps a channel of its own, named by its argument,
// and says where.
CC_CHILD_MAIN(dumpOwnChannel)
{
    CommsChannel channel(args.at(0));
    CommsChannelDataContainerMessage queued = channeltest::message("from the child");
    channel.addToMsgQ(queued);
    CommsChannel::info(&channel);
    cctest::childSay("DUMPED " + std::to_string(getpid()));
    return cctest::CHILD_OK;
}

namespace {

const std::string CHANNEL_SEPARATOR(58, '=');
const std::string MESSAGE_SEPARATOR(58, '*');

bool fileExists(const std::string& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0;
}

class CommsChannelDiagnosticsTest : public testing::Test {
protected:
    CommsChannelDiagnosticsTest() : sut("diagnosed") {}

    void add(const std::string& data, int msgType, long requestId)
    {
        CommsChannelDataContainerMessage queued = channeltest::message(data, msgType, requestId);
        queued.setChannel("diagnosed");
        queued.setSourceChannel("source-" + data);
        queued.setCallbackChannel("callback-" + data);
        queued.setProtocol("protocol-" + data);
        queued.setInterface("interface-" + data);
        queued.setRemoteContext("context-" + data);
        sut.addToMsgQ(queued);
    }

    // The header as it must appear, address with its doubled prefix.
    std::string expectedHeader(CommsChannel& channel)
    {
        std::ostringstream address;
        address << std::hex << reinterpret_cast<std::uintptr_t>(&channel);
        return CHANNEL_SEPARATOR + "\n" +
               "Getting all messages for CommsChannel: 0x0x" + address.str() + "\n" +
               "Channel                      =" + channel.channelName() + "\n" +
               "Port                         =" + std::to_string(channel.port()) + "\n" +
               "Socket Handle                =" + std::to_string(channel.socketHandle()) + "\n";
    }
    std::string expectedFooter() { return CHANNEL_SEPARATOR + "\n"; }
    std::string expectedBlock(const std::string& data, const std::string& requestId)
    {
        return MESSAGE_SEPARATOR + "\n" +
               "Type                         = CommsChannel\n"
               "channel                      = diagnosed\n"
               "source channel               = source-" + data + "\n" +
               "callback channel             = callback-" + data + "\n" +
               "protocol                     = protocol-" + data + "\n" +
               "interface                    = interface-" + data + "\n" +
               "request id                   = " + requestId + "\n" +
               "remote context               = context-" + data + "\n" +
               "data                         = " + data + "\n" +
               MESSAGE_SEPARATOR + "\n";
    }
    std::string dumped() { return cctest::readFile(cctest::diagnosticsLogPath()); }

    channeltest::Watchdog watchdog;
    CommsChannel sut;
};

TEST_F(CommsChannelDiagnosticsTest, EmptyQueueGivesExactlySixLines)
{
    CommsChannel::info(&sut);
    EXPECT_EQ(expectedHeader(sut) + expectedFooter(), dumped());
    EXPECT_EQ(6u, cctest::readLines(cctest::diagnosticsLogPath()).size());
}

TEST_F(CommsChannelDiagnosticsTest, AddressLineShowsThePrefixTwice)
{
    CommsChannel::info(&sut);
    const std::vector<std::string> lines = cctest::readLines(cctest::diagnosticsLogPath());
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(0u, lines[1].find("Getting all messages for CommsChannel: 0x0x"));
}

TEST_F(CommsChannelDiagnosticsTest, TwoQueuedMessagesGiveTwoBlocksInQueueOrder)
{
    add("low", 1, 3);
    add("high", 2, 4);
    CommsChannel::info(&sut);
    EXPECT_EQ(expectedHeader(sut) + expectedBlock("high", "4") + expectedBlock("low", "3") + expectedFooter(),
              dumped());
    EXPECT_EQ(6u + 2 * 11u, cctest::readLines(cctest::diagnosticsLogPath()).size());
}

TEST_F(CommsChannelDiagnosticsTest, DumpLeavesTheQueueAsItWas)
{
    add("one", 0, 0);
    CommsChannel::info(&sut);
    std::string data;
    EXPECT_EQ(1, sut.receiveMsg(data));
    EXPECT_EQ("one", data);
}

TEST_F(CommsChannelDiagnosticsTest, RequestIdZeroPrintsTheDigitZero)
{
    add("zero", 0, 0);
    CommsChannel::info(&sut);
    EXPECT_EQ(expectedHeader(sut) + expectedBlock("zero", "0") + expectedFooter(), dumped());
}

TEST_F(CommsChannelDiagnosticsTest, NegativeRequestIdPrintsItsMinusSign)
{
    add("negative", 0, -42);
    CommsChannel::info(&sut);
    EXPECT_EQ(expectedHeader(sut) + expectedBlock("negative", "-42") + expectedFooter(), dumped());
}

TEST_F(CommsChannelDiagnosticsTest, DataWithNewlinesIsWrittenAsItIs)
{
    add("first line\nsecond line\ttab", 0, 1);
    CommsChannel::info(&sut);
    EXPECT_EQ(expectedHeader(sut) + expectedBlock("first line\nsecond line\ttab", "1") + expectedFooter(), dumped());
}

TEST_F(CommsChannelDiagnosticsTest, TwoDumpsAreAppendedOneAfterTheOther)
{
    CommsChannel::info(&sut);
    add("later", 5, 9);
    CommsChannel::info(&sut);
    EXPECT_EQ(expectedHeader(sut) + expectedFooter() + expectedHeader(sut) + expectedBlock("later", "9") +
                  expectedFooter(),
              dumped());
}

TEST_F(CommsChannelDiagnosticsTest, EarlierContentOfTheFileIsKept)
{
    {
        std::ofstream earlier(cctest::diagnosticsLogPath().c_str());
        earlier << "earlier content\n";
    }
    CommsChannel::info(&sut);
    EXPECT_EQ("earlier content\n" + expectedHeader(sut) + expectedFooter(), dumped());
}

TEST_F(CommsChannelDiagnosticsTest, DumpsOfTwoChannelsOfOneProcessShareTheFile)
{
    CommsChannel other("");
    CommsChannel::info(&sut);
    CommsChannel::info(&other);
    EXPECT_EQ(expectedHeader(sut) + expectedFooter() + expectedHeader(other) + expectedFooter(), dumped());
}

TEST_F(CommsChannelDiagnosticsTest, DumpOfAnotherProcessGoesToThatProcesssOwnFile)
{
    cctest::ChildProcess child("dumpOwnChannel", {"child channel"});
    std::string childPid;
    ASSERT_TRUE(child.waitForPrefix("DUMPED ", &childPid, channeltest::DEADLINE_MS));
    EXPECT_EQ(cctest::CHILD_OK, child.wait(channeltest::DEADLINE_MS));
    ASSERT_EQ(std::to_string(child.pid()), childPid);
    CommsChannel::info(&sut);

    const std::string childFile = "/logs/CommsChannel.log-" + childPid;
    ASSERT_NE(cctest::diagnosticsLogPath(), childFile);
    const std::string childDump = cctest::readFile(childFile);
    EXPECT_NE(std::string::npos, childDump.find("Channel                      =child channel\n"));
    EXPECT_NE(std::string::npos, childDump.find("data                         = from the child\n"));
    EXPECT_EQ(expectedHeader(sut) + expectedFooter(), dumped());
}

TEST_F(CommsChannelDiagnosticsTest, NullChannelCreatesTheFileButWritesNothing)
{
    ASSERT_FALSE(fileExists(cctest::diagnosticsLogPath()));
    CommsChannel::info(nullptr);
    EXPECT_TRUE(fileExists(cctest::diagnosticsLogPath()));
    EXPECT_EQ("", dumped());
}

TEST_F(CommsChannelDiagnosticsTest, NullChannelLeavesExistingContentAlone)
{
    CommsChannel::info(&sut);
    const std::string before = dumped();
    CommsChannel::info(nullptr);
    EXPECT_EQ(before, dumped());
}

TEST_F(CommsChannelDiagnosticsTest, UnwritableLogDirectoryWritesNothingAndReportsNothing)
{
    // A read-only file system over this test's private /logs: the file
    // cannot be created, not even by root.
    ASSERT_EQ(0, mount("tmpfs", "/logs", "tmpfs", MS_RDONLY, "mode=0777")) << std::strerror(errno);
    add("queued", 0, 0);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    bool threw = false;
    try {
        CommsChannel::info(&sut);
        CommsChannel::info(nullptr);
    } catch (...) {
        threw = true;
    }
    const std::string printed = testing::internal::GetCapturedStdout();
    const std::string reported = testing::internal::GetCapturedStderr();
    const bool createdOnReadOnly = fileExists(cctest::diagnosticsLogPath());
    ASSERT_EQ(0, umount2("/logs", 0)) << std::strerror(errno);

    EXPECT_FALSE(threw);
    EXPECT_EQ("", printed);
    EXPECT_EQ("", reported);
    EXPECT_FALSE(createdOnReadOnly);
    EXPECT_FALSE(fileExists(cctest::diagnosticsLogPath()));
    EXPECT_FALSE(sut.isQEmpty());
}

TEST_F(CommsChannelDiagnosticsTest, DisplayInfoWritesElevenLinesAndIgnoresTheChannelArgument)
{
    CommsChannelDataContainerMessage message = channeltest::message("direct", 0, 17);
    message.setChannel("diagnosed");
    message.setSourceChannel("source-direct");
    message.setCallbackChannel("callback-direct");
    message.setProtocol("protocol-direct");
    message.setInterface("interface-direct");
    message.setRemoteContext("context-direct");
    const std::string path = "/logs/display-info";
    {
        std::ofstream file(path.c_str());
        CommsChannel::displayInfo(nullptr, &message, file);
    }
    EXPECT_EQ(expectedBlock("direct", "17"), cctest::readFile(path));
    EXPECT_EQ(11u, cctest::readLines(path).size());
}

}  // namespace
