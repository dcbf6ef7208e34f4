// Large messages between processes of different users, through the real
// resolver: the test program (root in its namespaces) and children that take
// on another user and group before they make their channels. /tmp is a
// tmpfs of the test's own, so the spool directories of the users made here
// never reach the host.
#include "ChildProcess.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "DataSpool.h"
#include "ResolverProcess.h"
#include "StderrRecorder.h"
#include "SystemPeer.h"
#include "TestUtil.h"

#include <dirent.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using systest::LINE_TIMEOUT_MS;

const uid_t OTHER_UID = 4243;
const gid_t OTHER_GID = 4243;
const std::size_t LARGE = std::size_t(1) << 20;

// Pattern-named files in a user's spool directory.
std::vector<std::string> spoolFilesOf(uid_t owner)
{
    std::vector<std::string> names;
    DIR* dir = opendir(spool::directoryOf(owner).c_str());
    if (dir == nullptr) {
        return names;
    }
    while (dirent* entry = readdir(dir)) {
        if (spool::isValidName(entry->d_name)) {
            names.push_back(entry->d_name);
        }
    }
    closedir(dir);
    return names;
}

// Child: as user args[0] with group args[1], owns the channel args[2]. On
// "SEND NAME SIZE SEED" it sends pattern data to NAME and answers "SENT
// <result>"; on "RECV" it receives one message and answers "GOT <length>
// <checksum>" and then "STDERR <what the receive wrote there>".
CC_CHILD_MAIN(otherUser)
{
    if (!cctest::becomeUser(args.at(0), args.at(1))) {
        cctest::childSay("NO USER");
        return cctest::CHILD_FAILED;
    }
    // The recorder is in place before the channel exists, so that it
    // catches what the receiver thread writes.
    std::unique_ptr<cctest::StderrRecorder> recorder(new cctest::StderrRecorder());
    CommsChannel channel(args.at(2));
    cctest::childSay("READY");
    std::string line;
    while (cctest::childHear(line)) {
        std::vector<std::string> words;
        std::size_t start = 0;
        for (std::size_t space = line.find(' '); ; space = line.find(' ', start)) {
            words.push_back(line.substr(start, space - start));
            if (space == std::string::npos) {
                break;
            }
            start = space + 1;
        }
        if (words[0] == "SEND" && words.size() == 4) {
            const std::string data = systest::patternData(std::stoul(words[2]), static_cast<unsigned>(std::stoul(words[3])));
            cctest::childSay("SENT " + std::to_string(channel.sendMsg(words[1], data)));
        } else if (words[0] == "RECV") {
            std::string data;
            const int got = channel.receiveMsg(data);
            cctest::childSay("GOT " + std::to_string(got) + " " + std::to_string(data.size()) + " " +
                             systest::checksum(data));
            cctest::childSay("STDERR " + cctest::oneLine(recorder->text()));
        } else if (words[0] == "QUIT") {
            break;
        }
    }
    cctest::childSay("BYE");
    return cctest::CHILD_OK;
}

class CrossUserDeliveryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "processes of other users need root in the test's namespaces";
        }
        const std::string failure = cctest::mountPrivateTmp(CC_TEST_BINARY_DIR);
        ASSERT_EQ("", failure);
        mounted = true;
        resolver.reset(new cctest::ResolverProcess());
        ASSERT_TRUE(resolver->started()) << "commschannel-resolver did not start";
    }
    void TearDown() override
    {
        resolver.reset();
        if (mounted) {
            cctest::unmountPrivateTmp();
        }
    }

    static std::unique_ptr<cctest::ChildProcess> startOtherUser(const std::string& channelName)
    {
        std::unique_ptr<cctest::ChildProcess> child(new cctest::ChildProcess(
            "otherUser", {std::to_string(OTHER_UID), std::to_string(OTHER_GID), channelName}));
        EXPECT_TRUE(child->waitForLine("READY", LINE_TIMEOUT_MS)) << "the other user's process did not start";
        return child;
    }
    static void quit(cctest::ChildProcess& child)
    {
        child.writeLine("QUIT");
        EXPECT_TRUE(child.waitForLine("BYE", LINE_TIMEOUT_MS));
        EXPECT_EQ(cctest::CHILD_OK, child.wait(LINE_TIMEOUT_MS));
    }

    bool mounted = false;
    std::unique_ptr<cctest::ResolverProcess> resolver;
};

TEST_F(CrossUserDeliveryTest, LargeMessageFromAnotherUserArrivesIntactAtRootAndLeavesNoFile)
{
    CommsChannel sink("rootsink");
    std::unique_ptr<cctest::ChildProcess> sender = startOtherUser("othersender");
    sender->writeLine("SEND rootsink " + std::to_string(LARGE) + " 7");
    std::string sent;
    ASSERT_TRUE(sender->waitForPrefix("SENT ", &sent, LINE_TIMEOUT_MS));
    EXPECT_EQ("1", sent);

    CommsChannelDataContainerMessage received;
    ASSERT_EQ(1, sink.receiveMsg_ByID_Timed(received, 0, systest::within(20000)));
    EXPECT_EQ("othersender", received.sourceChannel());
    const std::string expected = systest::patternData(LARGE, 7);
    EXPECT_EQ(expected.size(), received.getData().size());
    EXPECT_EQ(systest::checksum(expected), systest::checksum(received.getData()));
    EXPECT_TRUE(spoolFilesOf(OTHER_UID).empty());
    quit(*sender);
}

TEST_F(CrossUserDeliveryTest, LargeMessageToAnotherUserOutsideTheGroupIsReportedThereNotSilentlyEmpty)
{
    CommsChannel source("rootsource");
    std::unique_ptr<cctest::ChildProcess> receiver = startOtherUser("othersink");
    const std::string data = systest::patternData(LARGE, 8);
    ASSERT_EQ(1, source.sendMsg("othersink", data));
    const std::vector<std::string> files = spoolFilesOf(0);
    ASSERT_EQ(1U, files.size());

    receiver->writeLine("RECV");
    std::string got;
    ASSERT_TRUE(receiver->waitForPrefix("GOT ", &got, LINE_TIMEOUT_MS));
    EXPECT_EQ(0U, got.find("1 0 ")) << got;  // a message arrived, without data
    std::string errors;
    ASSERT_TRUE(receiver->waitForPrefix("STDERR ", &errors, LINE_TIMEOUT_MS));
    EXPECT_NE(std::string::npos,
              errors.find("cannot read large data file " + spool::directoryOf(0) + "/" + files[0] + ": "))
        << errors;
    quit(*receiver);
}

}  // namespace
