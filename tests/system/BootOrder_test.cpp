// Processes started before the resolver: their locators repeat their
// registration until a resolver answers, so a resolver started later learns
// their names; a resolution left waiting for the resolver says so on
// standard error, once per process.
#include "ChildProcess.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsException.h"
#include "ResolverProcess.h"
#include "SystemPeer.h"
#include "TestUtil.h"

#include <cstdio>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace {

using systest::LINE_TIMEOUT_MS;

const char SILENT_RESOLVER_LINE[] =
    "CommsChannel: no resolver has answered on 127.0.0.1:5000 for 1 s; is commschannel-resolver running?";

// A channel that reports every message it receives as "GOT <data>".
CC_CHILD_MAIN(earlyServer)
{
    CommsChannel server(args.at(0));
    cctest::childSay("READY");
    for (;;) {
        CommsChannelDataContainerMessage message;
        if (server.receiveMsg(message) != 1) {
            return cctest::CHILD_FAILED;
        }
        cctest::childSay("GOT " + message.getData());
    }
}

// Sends to args[0] at once, while no resolver runs, then again on "GO";
// standard error goes to the file args[1].
CC_CHILD_MAIN(earlyClient)
{
    if (std::freopen(args.at(1).c_str(), "w", stderr) == nullptr) {
        return cctest::CHILD_FAILED;
    }
    std::setvbuf(stderr, nullptr, _IONBF, 0);
    CommsChannel client("early-client");
    cctest::childSay("READY");
    const int first = client.sendMsg(args.at(0), std::string("first"));
    cctest::childSay("FIRST " + std::to_string(first));
    std::string line;
    if (!cctest::childHear(line)) {
        return cctest::CHILD_FAILED;
    }
    cctest::childSay("SECOND " + std::to_string(client.sendMsg(args.at(0), std::string("second"))));
    cctest::childHear(line);
    return cctest::CHILD_OK;
}

class BootOrderTest : public ::testing::Test {
protected:
    void startResolver()
    {
        resolver.reset(new cctest::ResolverProcess());
        ASSERT_TRUE(resolver->started()) << "commschannel-resolver did not start";
    }
    static bool resolverKnows(const std::string& name)
    {
        return cctest::waitUntil([&] { return cctest::ResolverProcess::queryPort(name, 1000) > 0; },
                                 LINE_TIMEOUT_MS);
    }
    static std::unique_ptr<cctest::ChildProcess> start(const std::string& child,
                                                        const std::vector<std::string>& args)
    {
        std::unique_ptr<cctest::ChildProcess> process(new cctest::ChildProcess(child, args));
        EXPECT_TRUE(process->waitForLine("READY", LINE_TIMEOUT_MS)) << child << " did not start";
        return process;
    }
    static std::string stderrPath() { return "/tmp/cc-boot-order-" + std::to_string(getpid()) + ".err"; }

    std::unique_ptr<cctest::ResolverProcess> resolver;
};

TEST_F(BootOrderTest, ServerStartedBeforeTheResolverIsReachedOnceTheResolverStarts)
{
    std::unique_ptr<cctest::ChildProcess> server = start("earlyServer", {"early-server"});
    startResolver();
    ASSERT_TRUE(resolverKnows("early-server")) << "the resolver never learnt the early server's name";

    CommsChannel client("late-client");
    ASSERT_EQ(1, client.sendMsg("early-server", std::string("hello")));
    EXPECT_TRUE(server->waitForLine("GOT hello", LINE_TIMEOUT_MS));
}

TEST_F(BootOrderTest, ResolutionWaitingForTheResolverSaysSoOnceOnStandardError)
{
    std::unique_ptr<cctest::ChildProcess> server = start("earlyServer", {"early-server"});
    std::unique_ptr<cctest::ChildProcess> client = start("earlyClient", {"early-server", stderrPath()});
    ASSERT_TRUE(cctest::waitUntil(
        [&] { return cctest::readFile(stderrPath()).find(SILENT_RESOLVER_LINE) != std::string::npos; },
        LINE_TIMEOUT_MS))
        << cctest::readFile(stderrPath());

    startResolver();
    std::string first;
    ASSERT_TRUE(client->waitForPrefix("FIRST ", &first, LINE_TIMEOUT_MS));
    ASSERT_TRUE(resolverKnows("early-server"));
    client->writeLine("GO");
    EXPECT_TRUE(client->waitForLine("SECOND 1", LINE_TIMEOUT_MS));
    EXPECT_TRUE(server->waitForLine("GOT second", LINE_TIMEOUT_MS));
    client->writeLine("QUIT");
    EXPECT_EQ(0, client->wait(LINE_TIMEOUT_MS));
    EXPECT_EQ(std::string(SILENT_RESOLVER_LINE) + "\n", cctest::readFile(stderrPath()));
    std::remove(stderrPath().c_str());
}

}  // namespace
