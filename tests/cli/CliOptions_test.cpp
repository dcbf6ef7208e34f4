// The command line of commschannel.
#include "CliOptions.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <vector>

using cli::CliOptions;

namespace {

class CliOptionsTest : public ::testing::Test {
protected:
    // Parses the arguments after the program name; the result says whether
    // they were accepted.
    bool parse(std::initializer_list<const char*> arguments)
    {
        std::vector<const char*> argv{"commschannel"};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        error.clear();
        return cli::parseCliOptions(static_cast<int>(argv.size()), argv.data(), &options, &error);
    }
    CliOptions options;
    std::string error;
};

TEST_F(CliOptionsTest, NoCommandIsRefused)
{
    EXPECT_FALSE(parse({}));
    EXPECT_EQ("missing command", error);
}

TEST_F(CliOptionsTest, UnknownCommandIsRefusedByName)
{
    EXPECT_FALSE(parse({"frobnicate"}));
    EXPECT_NE(std::string::npos, error.find("\"frobnicate\"")) << error;
}

TEST_F(CliOptionsTest, HelpAndVersionNeedNoCommand)
{
    ASSERT_TRUE(parse({"--help"}));
    EXPECT_TRUE(options.help);
    EXPECT_EQ(cli::COMMAND_NONE, options.command);
    ASSERT_TRUE(parse({"--version"}));
    EXPECT_TRUE(options.version);
}

TEST_F(CliOptionsTest, ListTakesJsonAndNothingElse)
{
    ASSERT_TRUE(parse({"list"}));
    EXPECT_EQ(cli::COMMAND_LIST, options.command);
    EXPECT_FALSE(options.json);
    ASSERT_TRUE(parse({"list", "-j"}));
    EXPECT_TRUE(options.json);
    EXPECT_FALSE(parse({"list", "name"}));
    EXPECT_NE(std::string::npos, error.find("unexpected argument \"name\"")) << error;
}

TEST_F(CliOptionsTest, SendTakesNameDataTypeAndId)
{
    ASSERT_TRUE(parse({"send", "--type", "3", "server", "hello", "--id=42"}));
    EXPECT_EQ(cli::COMMAND_SEND, options.command);
    EXPECT_EQ("server", options.name);
    EXPECT_EQ("hello", options.data);
    EXPECT_FALSE(options.dataFromStdin);
    EXPECT_EQ(3, options.msgType);
    EXPECT_EQ(42, options.requestId);
}

TEST_F(CliOptionsTest, DashAsDataMeansStandardInput)
{
    ASSERT_TRUE(parse({"send", "server", "-"}));
    EXPECT_TRUE(options.dataFromStdin);
}

TEST_F(CliOptionsTest, DoubleDashLetsDataStartWithADash)
{
    ASSERT_TRUE(parse({"send", "server", "--", "-x"}));
    EXPECT_EQ("-x", options.data);
}

TEST_F(CliOptionsTest, MissingOperandsAreNamed)
{
    EXPECT_FALSE(parse({"send"}));
    EXPECT_NE(std::string::npos, error.find("NAME")) << error;
    EXPECT_FALSE(parse({"send", "server"}));
    EXPECT_NE(std::string::npos, error.find("DATA")) << error;
    EXPECT_FALSE(parse({"wait", ""}));
    EXPECT_NE(std::string::npos, error.find("empty")) << error;
}

TEST_F(CliOptionsTest, OptionOfAnotherCommandIsRefused)
{
    EXPECT_FALSE(parse({"send", "server", "hi", "-j"}));
    EXPECT_NE(std::string::npos, error.find("send takes no option -j")) << error;
    EXPECT_FALSE(parse({"wait", "server", "--id", "3"}));
    EXPECT_EQ(cli::COMMAND_WAIT, options.command);
}

TEST_F(CliOptionsTest, UnknownOptionIsRefusedByName)
{
    EXPECT_FALSE(parse({"list", "--frobnicate"}));
    EXPECT_NE(std::string::npos, error.find("unknown option --frobnicate")) << error;
}

TEST_F(CliOptionsTest, MalformedNumbersAreRefused)
{
    EXPECT_FALSE(parse({"send", "s", "d", "--type", "x"}));
    EXPECT_NE(std::string::npos, error.find("\"x\"")) << error;
    EXPECT_FALSE(parse({"send", "s", "d", "--type", "-1"}));
    EXPECT_FALSE(parse({"send", "s", "d", "--id", "99999999999999999999"}));
    EXPECT_FALSE(parse({"call", "s", "d", "-t", "0"}));
    EXPECT_FALSE(parse({"listen", "s", "-n", "0"}));
    EXPECT_FALSE(parse({"wait", "s", "-t"}));
    EXPECT_NE(std::string::npos, error.find("needs a value")) << error;
}

TEST_F(CliOptionsTest, TimeOutsHaveDefaultsPerCommand)
{
    ASSERT_TRUE(parse({"call", "s", "d"}));
    EXPECT_EQ(cli::DEFAULT_CALL_TIMEOUT_MS, options.timeoutMs);
    ASSERT_TRUE(parse({"wait", "s"}));
    EXPECT_EQ(cli::DEFAULT_WAIT_TIMEOUT_MS, options.timeoutMs);
    ASSERT_TRUE(parse({"wait", "s", "-t", "0"}));
    EXPECT_EQ(0, options.timeoutMs);
    ASSERT_TRUE(parse({"call", "s", "d", "--timeout=250", "-j"}));
    EXPECT_EQ(250, options.timeoutMs);
    EXPECT_TRUE(options.json);
}

TEST_F(CliOptionsTest, ListenTakesCountAndJson)
{
    ASSERT_TRUE(parse({"listen", "inbox", "-n", "2", "--json"}));
    EXPECT_EQ(cli::COMMAND_LISTEN, options.command);
    EXPECT_EQ("inbox", options.name);
    EXPECT_EQ(2, options.count);
    EXPECT_TRUE(options.json);
}

TEST_F(CliOptionsTest, CommandHelpNeedsNoOperands)
{
    ASSERT_TRUE(parse({"call", "--help"}));
    EXPECT_TRUE(options.help);
    EXPECT_EQ(cli::COMMAND_CALL, options.command);
}

TEST_F(CliOptionsTest, EveryCommandHasItsOwnUsage)
{
    for (cli::Command command : {cli::COMMAND_LIST, cli::COMMAND_SEND, cli::COMMAND_CALL, cli::COMMAND_LISTEN,
                                 cli::COMMAND_WAIT}) {
        const std::string usage = cli::cliUsage(command);
        EXPECT_EQ(0u, usage.find(std::string("Usage: commschannel ") + cli::commandName(command))) << usage;
        EXPECT_NE(std::string::npos, usage.find("Exit status")) << usage;
        EXPECT_EQ('\n', usage.back());
    }
    EXPECT_EQ(0u, cli::cliUsage(cli::COMMAND_NONE).find("Usage: commschannel COMMAND"));
}

TEST_F(CliOptionsTest, MonitorTakesAnyNumberOfNamesCountJsonAndPcap)
{
    ASSERT_TRUE(parse({"monitor"})) << error;
    EXPECT_EQ(cli::COMMAND_MONITOR, options.command);
    EXPECT_TRUE(options.names.empty());
    EXPECT_EQ("", options.pcapPath);

    ASSERT_TRUE(parse({"monitor", "alpha", "-n", "5", "beta", "-j", "--pcap", "-"})) << error;
    EXPECT_EQ((std::vector<std::string>{"alpha", "beta"}), options.names);
    EXPECT_EQ(5, options.count);
    EXPECT_TRUE(options.json);
    EXPECT_EQ("-", options.pcapPath);

    ASSERT_TRUE(parse({"monitor", "--pcap=/tmp/x.pcap"})) << error;
    EXPECT_EQ("/tmp/x.pcap", options.pcapPath);
}

TEST_F(CliOptionsTest, MonitorRefusesEmptyNamesAndOptionsOfOthers)
{
    EXPECT_FALSE(parse({"monitor", ""}));
    EXPECT_FALSE(parse({"monitor", "--pcap"}));
    EXPECT_EQ("option --pcap needs a value", error);
    EXPECT_FALSE(parse({"monitor", "-t", "5"}));
    EXPECT_EQ("monitor takes no option -t", error);
    EXPECT_FALSE(parse({"listen", "inbox", "--pcap", "f"}));
}

}  // namespace
