// The real commschannel program against the real resolver, in this test's
// private network namespace: every subcommand end to end, its exit status
// and its messages.
#include "ChildProcess.h"
#include "CliRun.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelVersion.h"
#include "ResolverClient.h"
#include "ResolverProcess.h"
#include "TestUtil.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <sstream>

namespace {

using cctest::CliRun;
using cctest::linesOf;
using cctest::readDescriptor;
using cctest::RUN_TIMEOUT_MS;

// A channel held by another process until its parent says anything.
CC_CHILD_MAIN(channelHolder)
{
    CommsChannel channel(args.at(0));
    cctest::childSay("READY " + std::to_string(channel.port()));
    std::string line;
    cctest::childHear(line);
    return cctest::CHILD_OK;
}

// A server that answers every request on its callback channel with the same
// request id and type and the data "re: <request data>".
CC_CHILD_MAIN(echoServer)
{
    CommsChannel server(args.at(0));
    cctest::childSay("READY");
    for (;;) {
        CommsChannelDataContainerMessage request;
        if (server.receiveMsg(request) != 1) {
            return cctest::CHILD_FAILED;
        }
        CommsChannelDataContainerMessage reply;
        reply.setChannel(request.callbackChannel());
        reply.setRequestId(request.requestId());
        reply.setMsgType(request.msgType());
        const std::string text = "re: " + request.getData();
        reply.setData(text.data(), static_cast<int>(text.size()));
        server.sendMsg(reply);
    }
}

std::string commOf(pid_t pid)
{
    std::string name = cctest::readFile("/proc/" + std::to_string(pid) + "/comm");
    if (!name.empty() && name.back() == '\n') {
        name.pop_back();
    }
    return name;
}

class CliProgramTest : public ::testing::Test {
protected:
    void startResolver()
    {
        resolver.reset(new cctest::ResolverProcess());
        ASSERT_TRUE(resolver->started());
    }
    // Runs to the end and returns the exit status.
    int run(CliRun& program) { return program.wait(); }
    // Waits until the resolver knows name (as the tool's wait does).
    bool registered(const std::string& name) { return resolver::waitForName(5000, name, RUN_TIMEOUT_MS); }

    std::unique_ptr<cctest::ResolverProcess> resolver;
};

TEST_F(CliProgramTest, VersionPrintsTheProjectVersion)
{
    CliRun sut({"--version"});
    EXPECT_EQ(0, run(sut));
    EXPECT_EQ(std::string("commschannel ") + COMMSCHANNEL_VERSION + "\n", sut.out());
}

TEST_F(CliProgramTest, ResolverPrintsTheSameVersion)
{
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> out(std::tmpfile(), std::fclose);
    std::fflush(stdout);
    const int saved = dup(1);
    dup2(fileno(out.get()), 1);
    const pid_t pid = cctest::spawnProgram({COMMSCHANNEL_RESOLVER_PATH, "--version"});
    dup2(saved, 1);
    close(saved);
    EXPECT_EQ(0, cctest::waitForPid(pid, RUN_TIMEOUT_MS));
    EXPECT_EQ(std::string("commschannel-resolver ") + COMMSCHANNEL_VERSION + "\n", readDescriptor(fileno(out.get())));
}

TEST_F(CliProgramTest, EverySubcommandHasHelp)
{
    for (const char* command : {"list", "stats", "send", "call", "listen", "wait", "monitor"}) {
        CliRun sut({command, "--help"});
        EXPECT_EQ(0, run(sut)) << command;
        EXPECT_EQ(0u, sut.out().find(std::string("Usage: commschannel ") + command)) << sut.out();
    }
    CliRun overview({"--help"});
    EXPECT_EQ(0, run(overview));
    EXPECT_NE(std::string::npos, overview.out().find("listen NAME")) << overview.out();
    EXPECT_NE(std::string::npos, overview.out().find("monitor [NAME...]")) << overview.out();
}

TEST_F(CliProgramTest, UsageErrorsExitTwoWithOneLine)
{
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {}, {"frobnicate"}, {"send", "only-a-name"}, {"list", "--bogus"}, {"call", "a", "b", "-t", "soon"}}) {
        CliRun sut(arguments);
        EXPECT_EQ(2, run(sut));
        const std::vector<std::string> lines = linesOf(sut.err());
        ASSERT_EQ(1u, lines.size()) << sut.err();
        EXPECT_EQ(0u, lines[0].find("commschannel")) << lines[0];
        EXPECT_EQ("", sut.out());
    }
}

TEST_F(CliProgramTest, WithoutAResolverCommandsSaySoAndExitOne)
{
    CliRun list({"list"});
    EXPECT_EQ(1, run(list));
    EXPECT_NE(std::string::npos, list.err().find("commschannel list: no resolver answered")) << list.err();
    CliRun send({"send", "anyone", "hello"});
    EXPECT_EQ(1, run(send));
    EXPECT_NE(std::string::npos, send.err().find("no resolver answered")) << send.err();
}

TEST_F(CliProgramTest, ListShowsNamesSortedWithProcessAndCounters)
{
    startResolver();
    cctest::ChildProcess beta("channelHolder", {"beta"});
    cctest::ChildProcess alpha("channelHolder", {"alpha"});
    std::string port;
    ASSERT_TRUE(beta.waitForPrefix("READY ", &port, RUN_TIMEOUT_MS));
    ASSERT_TRUE(alpha.waitForPrefix("READY ", &port, RUN_TIMEOUT_MS));
    ASSERT_TRUE(registered("alpha") && registered("beta"));

    CliRun sut({"list", "-j"});
    ASSERT_EQ(0, run(sut)) << sut.err();
    const std::vector<std::string> lines = linesOf(sut.out());
    ASSERT_EQ(2u, lines.size()) << sut.out();
    EXPECT_EQ(0u, lines[0].find("{\"name\":\"alpha\",\"port\":")) << lines[0];
    EXPECT_NE(std::string::npos, lines[0].find(",\"pid\":" + std::to_string(alpha.pid()) + ",\"process\":\"" +
                                               commOf(alpha.pid()) +
                                               "\",\"queued\":0,\"max_queued\":0,\"rx_queue_bytes\":0,\"drops\":0}"))
        << lines[0];
    EXPECT_EQ(0u, lines[1].find("{\"name\":\"beta\",")) << lines[1];

    CliRun table({"list"});
    ASSERT_EQ(0, run(table)) << table.err();
    const std::vector<std::string> rows = linesOf(table.out());
    ASSERT_EQ(3u, rows.size()) << table.out();
    EXPECT_EQ(0u, rows[0].find("NAME")) << rows[0];
    EXPECT_EQ(0u, rows[1].find("alpha ")) << rows[1];
    EXPECT_NE(std::string::npos, rows[1].find(" " + std::to_string(alpha.pid()) + " ")) << rows[1];
}

// The state letter of a process in /proc/PID/stat ('T' when stopped).
char processState(pid_t pid)
{
    const std::string stat = cctest::readFile("/proc/" + std::to_string(pid) + "/stat");
    const std::string::size_type end = stat.rfind(')');
    return end != std::string::npos && end + 2 < stat.size() ? stat[end + 2] : '?';
}

TEST_F(CliProgramTest, FloodOnAStoppedProcessShowsDropsInList)
{
    startResolver();
    cctest::ChildProcess victim("channelHolder", {"victim"});
    std::string port;
    ASSERT_TRUE(victim.waitForPrefix("READY ", &port, RUN_TIMEOUT_MS));
    ASSERT_TRUE(registered("victim"));
    // Stopped, its receiver thread drains nothing: the socket's buffer fills
    // and the kernel drops the rest.
    victim.sendSignal(SIGSTOP);
    // The signal takes effect asynchronously: flood only once the process
    // really stands still, or its receiver thread reads some garbage.
    ASSERT_TRUE(cctest::waitUntil([&victim] { return processState(victim.pid()) == 'T'; }, RUN_TIMEOUT_MS));
    cctest::UdpSocket flooder;
    const std::string datagram(1000, 'x');
    for (int i = 0; i < 1000; ++i) {
        flooder.sendTo(std::stoi(port), datagram);
    }

    CliRun sut({"list", "-j"});
    ASSERT_EQ(0, run(sut)) << sut.err();
    const std::string out = sut.out();
    EXPECT_EQ(0u, out.find("{\"name\":\"victim\"")) << out;
    EXPECT_EQ(std::string::npos, out.find("\"rx_queue_bytes\":0,")) << out;
    EXPECT_EQ(std::string::npos, out.find("\"drops\":0}")) << out;
    EXPECT_EQ(std::string::npos, out.find("\"drops\":-1}")) << out;
    // The garbage must never be read: the child ends still stopped.
    victim.sendSignal(SIGKILL);
}

TEST_F(CliProgramTest, SendDeliversDataTypeAndIdToTheChannel)
{
    startResolver();
    CommsChannel inbox("inbox");
    ASSERT_TRUE(registered("inbox"));

    CliRun sut({"send", "inbox", "hello there", "--type", "2", "--id", "9"});
    ASSERT_EQ(0, run(sut)) << sut.err();
    EXPECT_EQ("", sut.out());
    CommsChannelDataContainerMessage message;
    ASSERT_EQ(1, inbox.receiveMsg_ByID_Timed(message, 0, RUN_TIMEOUT_MS));
    EXPECT_EQ("hello there", message.getData());
    EXPECT_EQ(2, message.msgType());
    EXPECT_EQ(9, message.requestId());
    EXPECT_EQ(0u, message.sourceChannel().find("commschannel-send-")) << message.sourceChannel();
}

TEST_F(CliProgramTest, SendWithDashReadsStandardInput)
{
    startResolver();
    CommsChannel inbox("inbox");
    ASSERT_TRUE(registered("inbox"));

    const std::string bytes("line one\nline\0two\n", 18);
    CliRun sut({"send", "inbox", "-"}, bytes);
    ASSERT_EQ(0, run(sut)) << sut.err();
    CommsChannelDataContainerMessage message;
    ASSERT_EQ(1, inbox.receiveMsg_ByID_Timed(message, 0, RUN_TIMEOUT_MS));
    EXPECT_EQ(bytes, message.getData());
}

TEST_F(CliProgramTest, SendToAnUnknownNameExitsOneAndPrintsNothingOnStandardOutput)
{
    startResolver();
    CliRun sut({"send", "nobody", "hello"});
    EXPECT_EQ(1, run(sut));
    EXPECT_EQ("", sut.out());
    EXPECT_EQ("commschannel send: no channel named \"nobody\" is registered\n", sut.err());
}

TEST_F(CliProgramTest, CallPrintsTheReplyOfAServerInAnotherProcess)
{
    startResolver();
    cctest::ChildProcess server("echoServer", {"server"});
    ASSERT_TRUE(server.waitForLine("READY", RUN_TIMEOUT_MS));
    ASSERT_TRUE(registered("server"));

    CliRun plain({"call", "server", "ping"});
    ASSERT_EQ(0, run(plain)) << plain.err();
    EXPECT_EQ("re: ping\n", plain.out());

    CliRun json({"call", "server", "-", "-j", "--type", "5"}, "a\"b");
    ASSERT_EQ(0, run(json)) << json.err();
    const std::string out = json.out();
    EXPECT_EQ(0u, out.find("{\"source\":\"server\",\"type\":5,\"request_id\":")) << out;
    EXPECT_EQ(std::string::npos, out.find("\"request_id\":0,")) << out;
    EXPECT_NE(std::string::npos, out.find(",\"data\":\"re: a\\\"b\"}\n")) << out;
}

TEST_F(CliProgramTest, CallWithoutAnAnswerTimesOutWithOne)
{
    startResolver();
    CommsChannel silent("silent");
    ASSERT_TRUE(registered("silent"));

    CliRun sut({"call", "silent", "anyone?", "-t", "300"});
    EXPECT_EQ(1, run(sut));
    EXPECT_EQ("", sut.out());
    EXPECT_NE(std::string::npos, sut.err().find("no reply from \"silent\" within 300 ms (timed out)")) << sut.err();
}

TEST_F(CliProgramTest, CallToAnUnknownNameExitsOne)
{
    startResolver();
    CliRun sut({"call", "nobody", "x"});
    EXPECT_EQ(1, run(sut));
    EXPECT_NE(std::string::npos, sut.err().find("no channel named \"nobody\"")) << sut.err();
}

TEST_F(CliProgramTest, ListenPrintsMessagesAndStopsAfterTheCount)
{
    startResolver();
    CliRun sut({"listen", "inbox", "-n", "2", "-j"});
    ASSERT_TRUE(registered("inbox"));
    CommsChannel sender("sender");
    CommsChannelDataContainerMessage first;
    first.setChannel("inbox");
    first.setMsgType(3);
    first.setRequestId(11);
    first.setData("one\n", 4);
    ASSERT_EQ(1, sender.sendMsg(first));
    ASSERT_EQ(1, sender.sendMsg("inbox", std::string("two")));

    ASSERT_EQ(0, run(sut)) << sut.err();
    const std::vector<std::string> lines = linesOf(sut.out());
    ASSERT_EQ(2u, lines.size()) << sut.out();
    EXPECT_EQ("{\"source\":\"sender\",\"callback\":\"\",\"type\":3,\"request_id\":11,\"length\":4,\"data\":\"one\\n\"}",
              lines[0]);
    EXPECT_NE(std::string::npos, lines[1].find("\"data\":\"two\"")) << lines[1];
}

TEST_F(CliProgramTest, ListenStopsOnSigtermAndWithdrawsItsName)
{
    startResolver();
    CliRun sut({"listen", "inbox"});
    ASSERT_TRUE(registered("inbox"));
    CommsChannel sender("sender");
    ASSERT_EQ(1, sender.sendMsg("inbox", std::string("a\x01z")));
    ASSERT_TRUE(cctest::waitUntil([&] { return sut.out().find('\n') != std::string::npos; }, RUN_TIMEOUT_MS));
    EXPECT_EQ("source=sender callback= type=0 request_id=0 length=3 data=\"a\\x01z\"\n", sut.out());

    sut.signal(SIGTERM);
    EXPECT_EQ(0, sut.wait());
    // Destroyed cleanly: the name is withdrawn at once, not by the
    // resolver's scan for dead sockets.
    EXPECT_EQ(0, resolver::queryPort(5000, "inbox", 2000));
}

TEST_F(CliProgramTest, ListenOnALiveNameWarnsAndTheOwnerIsReachableAgainAfterIt)
{
    startResolver();
    cctest::ChildProcess server("echoServer", {"server"});
    ASSERT_TRUE(server.waitForLine("READY", RUN_TIMEOUT_MS));
    ASSERT_TRUE(registered("server"));
    const int ownerPort = resolver::queryPort(5000, "server", 2000);

    CliRun listener({"listen", "server"});
    ASSERT_TRUE(cctest::waitUntil([&] { return resolver::queryPort(5000, "server", 2000) != ownerPort; },
                                  RUN_TIMEOUT_MS));
    EXPECT_EQ("commschannel listen: warning: \"server\" is registered by pid " + std::to_string(server.pid()) + " (" +
                  commOf(server.pid()) + ") at port " + std::to_string(ownerPort) +
                  "; listening takes the name over until this listener ends, then the resolver gives it back\n",
              listener.err());
    listener.signal(SIGTERM);
    ASSERT_EQ(0, listener.wait());

    ASSERT_TRUE(cctest::waitUntil([&] { return resolver::queryPort(5000, "server", 2000) == ownerPort; },
                                  RUN_TIMEOUT_MS));
    CliRun call({"call", "server", "still there?"});
    ASSERT_EQ(0, run(call)) << call.err();
    EXPECT_EQ("re: still there?\n", call.out());
}

TEST_F(CliProgramTest, ListenOnAFreeNameDoesNotWarn)
{
    startResolver();
    CliRun sut({"listen", "inbox"});
    ASSERT_TRUE(registered("inbox"));
    sut.signal(SIGTERM);
    EXPECT_EQ(0, sut.wait());
    EXPECT_EQ("", sut.err());
}

TEST_F(CliProgramTest, NamesTheResolverCannotCarryAreRefusedAsTooLongWithTheLimit)
{
    startResolver();
    const std::string longName(70000, 'n');
    const std::string expected = ": name too long: 70000 bytes; the resolver carries names of at most 59972 bytes\n";
    for (const char* command : {"send", "call", "listen", "wait"}) {
        std::vector<std::string> arguments{command, longName};
        if (std::string(command) == "send" || std::string(command) == "call") {
            arguments.push_back("data");
        }
        CliRun sut(arguments);
        EXPECT_EQ(2, run(sut)) << command;
        EXPECT_EQ(std::string("commschannel ") + command + expected, sut.err());
        EXPECT_EQ("", sut.out());
    }
}

TEST_F(CliProgramTest, LongestNameTheResolverCarriesIsNotTooLong)
{
    startResolver();
    CliRun sut({"send", std::string(59972, 'n'), "data"});
    EXPECT_EQ(1, run(sut));
    EXPECT_NE(std::string::npos, sut.err().find("no channel named")) << sut.err().substr(0, 200);
}

TEST_F(CliProgramTest, WaitReturnsAtOnceForAKnownName)
{
    startResolver();
    CommsChannel known("known");
    ASSERT_TRUE(registered("known"));
    CliRun sut({"wait", "known", "-t", "0"});
    EXPECT_EQ(0, run(sut)) << sut.err();
}

TEST_F(CliProgramTest, WaitReturnsWhenTheNameAppearsLater)
{
    startResolver();
    CliRun sut({"wait", "later", "-t", "20000"});
    // Once the waiting program is registered as a locator, the resolver has
    // it in its saved table.
    ASSERT_TRUE(cctest::waitUntil(
        [&] { return cctest::readFile(resolver->stateFile()).find("locator ") != std::string::npos; },
        RUN_TIMEOUT_MS));
    CommsChannel later("later");
    EXPECT_EQ(0, sut.wait()) << sut.err();
}

TEST_F(CliProgramTest, WaitTimesOutWithOne)
{
    startResolver();
    CliRun sut({"wait", "never", "-t", "300"});
    EXPECT_EQ(1, run(sut));
    EXPECT_EQ("commschannel wait: \"never\" was not registered within 300 ms (timed out)\n", sut.err());
}

}  // namespace
