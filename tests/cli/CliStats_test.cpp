// commschannel list and stats against the real resolver and channels held by
// other processes: the counters those processes publish, a process that
// publishes nothing, and a process whose receiving a bad datagram stopped.
#include "CCInterceptorContext.h"
#include "CCInterceptorDispatcher.h"
#include "ChildProcess.h"
#include "CliRun.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "JsonLine.h"
#include "ResolverClient.h"
#include "ResolverProcess.h"
#include "TestUtil.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <map>
#include <memory>
#include <string>

namespace {

using cctest::CliRun;
using cctest::linesOf;
using cctest::RUN_TIMEOUT_MS;

const int REFUSED_TYPE = 6;

// Refuses the messages of REFUSED_TYPE.
class RefuseOneType : public CCInterceptorDispatcher {
public:
    int intercept(CCInterceptorContext* context) override
    {
        if (context->getParams()->msgType() == REFUSED_TYPE) {
            context->setSendFlag(0);
        }
        return 1;
    }
};

// A channel that receives only when told: "take N" takes N messages and
// answers "TOOK"; end of input ends it.
CC_CHILD_MAIN(slowConsumer)
{
    RefuseOneType interceptor;
    CommsChannel channel(args.at(0), &interceptor);
    cctest::childSay("READY " + std::to_string(channel.port()));
    std::string line;
    while (cctest::childHear(line)) {
        const int count = std::stoi(line.substr(5));
        for (int i = 0; i < count; ++i) {
            CommsChannelDataContainerMessage message;
            if (channel.receiveMsg_ByID_Timed(message, 0, RUN_TIMEOUT_MS) != 1) {
                return cctest::CHILD_FAILED;
            }
        }
        cctest::childSay("TOOK");
    }
    return cctest::CHILD_OK;
}

class CliStatsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        resolver.reset(new cctest::ResolverProcess());
        ASSERT_TRUE(resolver->started());
        // Made once the resolver runs, so that it registers there.
        sender.reset(new CommsChannel("stats-test-sender"));
        ASSERT_TRUE(resolver::waitForName(5000, "stats-test-sender", RUN_TIMEOUT_MS));
    }
    // Starts a slow consumer called name; its port goes to *port.
    std::unique_ptr<cctest::ChildProcess> consumer(const std::string& name, int* port)
    {
        std::unique_ptr<cctest::ChildProcess> child(new cctest::ChildProcess("slowConsumer", {name}));
        std::string text;
        EXPECT_TRUE(child->waitForPrefix("READY ", &text, RUN_TIMEOUT_MS));
        EXPECT_TRUE(resolver::waitForName(5000, name, RUN_TIMEOUT_MS));
        *port = text.empty() ? 0 : std::stoi(text);
        return child;
    }
    // Sends count messages of type to name from a channel of this process.
    void sendTo(const std::string& name, int count, int type = 0)
    {
        for (int i = 0; i < count; ++i) {
            CommsChannelDataContainerMessage message;
            message.setChannel(name);
            message.setMsgType(type);
            message.setData("x", 1);
            ASSERT_EQ(1, sender->sendMsg(message));
        }
    }
    // The JSON objects that a run of the tool prints, one a line.
    std::vector<std::map<std::string, std::string>> jsonOf(const std::vector<std::string>& arguments)
    {
        CliRun run(arguments);
        EXPECT_EQ(0, run.wait()) << run.err();
        std::vector<std::map<std::string, std::string>> objects;
        for (const std::string& line : linesOf(run.out())) {
            objects.push_back(cctest::parseJsonLine(line));
        }
        return objects;
    }
    // Waits until stats -j NAME shows key with value.
    bool statsShow(const std::string& name, const std::string& key, const std::string& value)
    {
        return cctest::waitUntil(
            [&] {
                const std::vector<std::map<std::string, std::string>> objects = jsonOf({"stats", name, "-j"});
                return objects.size() == 1 && objects[0].count(key) != 0 && objects[0].at(key) == value;
            },
            RUN_TIMEOUT_MS);
    }

    std::unique_ptr<cctest::ResolverProcess> resolver;
    std::unique_ptr<CommsChannel> sender;
};

}  // namespace

TEST_F(CliStatsTest, StatsShowsEveryCounterOfASlowConsumer)
{
    int port = 0;
    std::unique_ptr<cctest::ChildProcess> slow = consumer("slow", &port);
    sendTo("slow", 5);
    sendTo("slow", 2, REFUSED_TYPE);
    ASSERT_TRUE(statsShow("slow", "received", "7"));
    slow->writeLine("take 2");
    ASSERT_TRUE(slow->waitForLine("TOOK", RUN_TIMEOUT_MS));

    const std::vector<std::map<std::string, std::string>> objects = jsonOf({"stats", "slow", "-j"});
    ASSERT_EQ(1u, objects.size());
    const std::map<std::string, std::string> expected{
        {"name", "\"slow\""}, {"pid", std::to_string(slow->pid())}, {"queued", "3"},  {"max_queued", "5"},
        {"received", "7"},    {"taken", "2"},  {"refused", "2"},   {"bad_datagrams", "0"},
        {"receiving", "true"}, {"rx_queue_bytes", "0"}, {"drops", "0"}};
    EXPECT_EQ(expected, objects[0]);
}

TEST_F(CliStatsTest, ListShowsQueuedAndMaxQueued)
{
    int port = 0;
    std::unique_ptr<cctest::ChildProcess> slow = consumer("slow", &port);
    sendTo("slow", 4);
    ASSERT_TRUE(statsShow("slow", "queued", "4"));
    slow->writeLine("take 3");
    ASSERT_TRUE(slow->waitForLine("TOOK", RUN_TIMEOUT_MS));

    const std::vector<std::map<std::string, std::string>> objects = jsonOf({"list", "-j"});
    ASSERT_EQ(2u, objects.size());
    EXPECT_EQ("\"slow\"", objects[0].at("name"));
    EXPECT_EQ("1", objects[0].at("queued"));
    EXPECT_EQ("4", objects[0].at("max_queued"));

    CliRun table({"list"});
    ASSERT_EQ(0, table.wait()) << table.err();
    const std::vector<std::string> rows = linesOf(table.out());
    ASSERT_EQ(3u, rows.size()) << table.out();
    EXPECT_EQ(0u, rows[0].find("NAME")) << rows[0];
    EXPECT_NE(std::string::npos, rows[0].find("  QUEUED  MAXQ  ")) << rows[0];
    EXPECT_NE(std::string::npos, rows[1].find("  1       4     ")) << rows[1];
}

TEST_F(CliStatsTest, AProcessPublishingNothingShowsDashesAndMinusOne)
{
    int port = 0;
    std::unique_ptr<cctest::ChildProcess> quiet = consumer("quiet", &port);
    // As for another user's process, or one built before the counters.
    ASSERT_EQ(0, unlink(("/dev/shm/commschannel-" + std::to_string(quiet->pid())).c_str()));

    const std::vector<std::map<std::string, std::string>> listed = jsonOf({"list", "-j"});
    ASSERT_EQ(2u, listed.size());
    EXPECT_EQ("-1", listed[0].at("queued"));
    EXPECT_EQ("-1", listed[0].at("max_queued"));
    const std::vector<std::map<std::string, std::string>> stats = jsonOf({"stats", "quiet", "-j"});
    ASSERT_EQ(1u, stats.size());
    for (const char* key : {"queued", "max_queued", "received", "taken", "refused", "bad_datagrams"}) {
        EXPECT_EQ("-1", stats[0].at(key)) << key;
    }
    EXPECT_EQ("null", stats[0].at("receiving"));

    CliRun table({"stats", "quiet"});
    ASSERT_EQ(0, table.wait()) << table.err();
    const std::vector<std::string> rows = linesOf(table.out());
    ASSERT_EQ(2u, rows.size()) << table.out();
    EXPECT_NE(std::string::npos, rows[1].find(std::to_string(quiet->pid()) + "  -       -     -  ")) << rows[1];
}

TEST_F(CliStatsTest, AStoppedReceiverShowsInListAndStats)
{
    int port = 0;
    std::unique_ptr<cctest::ChildProcess> victim = consumer("victim", &port);
    cctest::UdpSocket peer;
    ASSERT_EQ(3, peer.sendTo(port, "abc"));
    ASSERT_TRUE(statsShow("victim", "receiving", "false"));
    EXPECT_EQ("1", jsonOf({"stats", "victim", "-j"}).at(0).at("bad_datagrams"));

    CliRun table({"list"});
    ASSERT_EQ(0, table.wait()) << table.err();
    const std::vector<std::string> rows = linesOf(table.out());
    ASSERT_EQ(3u, rows.size()) << table.out();
    EXPECT_EQ(0u, rows[2].find("victim! ")) << rows[2];
    EXPECT_EQ(0u, rows[1].find("stats-test-sender ")) << rows[1];

    CliRun stats({"stats", "victim"});
    ASSERT_EQ(0, stats.wait()) << stats.err();
    EXPECT_NE(std::string::npos, stats.out().find("RECEIVING")) << stats.out();
    EXPECT_NE(std::string::npos, stats.out().find("  no  ")) << stats.out();
}

TEST_F(CliStatsTest, StatsWithoutNamesShowsEveryChannelAndAnUnknownNameFails)
{
    int port = 0;
    std::unique_ptr<cctest::ChildProcess> slow = consumer("slow", &port);
    const std::vector<std::map<std::string, std::string>> all = jsonOf({"stats", "-j"});
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ("\"slow\"", all[0].at("name"));
    EXPECT_EQ("\"stats-test-sender\"", all[1].at("name"));
    EXPECT_EQ(std::to_string(getpid()), all[1].at("pid"));

    CliRun unknown({"stats", "slow", "nobody", "-j"});
    EXPECT_EQ(1, unknown.wait());
    EXPECT_EQ(1u, linesOf(unknown.out()).size()) << unknown.out();
    EXPECT_EQ("commschannel stats: no channel named \"nobody\"\n", unknown.err());
}

TEST_F(CliStatsTest, ListSweepsTheFileOfAProcessKilledOutright)
{
    int port = 0;
    std::unique_ptr<cctest::ChildProcess> doomed = consumer("doomed", &port);
    const std::string file = "/dev/shm/commschannel-" + std::to_string(doomed->pid());
    ASSERT_EQ(0, access(file.c_str(), F_OK));
    doomed->sendSignal(SIGKILL);
    doomed->wait(RUN_TIMEOUT_MS);
    ASSERT_EQ(0, access(file.c_str(), F_OK));

    CliRun list({"list"});
    EXPECT_EQ(0, list.wait()) << list.err();
    EXPECT_NE(0, access(file.c_str(), F_OK));
}
