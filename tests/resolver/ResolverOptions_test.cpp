// The command line of commschannel-resolver.
#include "ResolverOptions.h"

#include <gtest/gtest.h>

#include <initializer_list>

using resolver::ResolverOptions;

namespace {

class ResolverOptionsTest : public ::testing::Test {
protected:
    // Parses the arguments after the program name; the result says whether
    // they were accepted.
    bool parse(std::initializer_list<const char*> arguments)
    {
        std::vector<const char*> argv{"commschannel-resolver"};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        error.clear();
        return resolver::parseResolverOptions(static_cast<int>(argv.size()), argv.data(), &options, &error);
    }
    ResolverOptions options;
    std::string error;
};

TEST_F(ResolverOptionsTest, NoArgumentsGiveTheDefaults)
{
    ASSERT_TRUE(parse({}));
    EXPECT_FALSE(options.help);
    EXPECT_FALSE(options.version);
    EXPECT_FALSE(options.list);
    EXPECT_FALSE(options.verbose);
    EXPECT_FALSE(options.syslog);
    EXPECT_EQ("/run/commschannel-resolver.state", options.stateFile);
    EXPECT_EQ(5000, options.port);
}

TEST_F(ResolverOptionsTest, FlagsInShortAndLongFormAreSet)
{
    ASSERT_TRUE(parse({"-v", "--syslog", "--list", "-h"}));
    EXPECT_TRUE(options.verbose && options.syslog && options.list && options.help);
    ASSERT_TRUE(parse({"--verbose", "--help"}));
    EXPECT_TRUE(options.verbose && options.help);
}

TEST_F(ResolverOptionsTest, VersionIsAFlagOfItsOwn)
{
    ASSERT_TRUE(parse({"--version"}));
    EXPECT_TRUE(options.version);
    EXPECT_FALSE(options.verbose);
    EXPECT_FALSE(parse({"--version=2"}));
}

TEST_F(ResolverOptionsTest, ValuesFollowAsNextArgumentOrAfterEquals)
{
    ASSERT_TRUE(parse({"--state-file", "/tmp/a.state", "--port", "5001"}));
    EXPECT_EQ("/tmp/a.state", options.stateFile);
    EXPECT_EQ(5001, options.port);
    ASSERT_TRUE(parse({"--state-file=/tmp/b.state", "--port=65535"}));
    EXPECT_EQ("/tmp/b.state", options.stateFile);
    EXPECT_EQ(65535, options.port);
}

TEST_F(ResolverOptionsTest, EachParseStartsFromTheDefaults)
{
    ASSERT_TRUE(parse({"-v", "--port", "6000"}));
    ASSERT_TRUE(parse({}));
    EXPECT_FALSE(options.verbose);
    EXPECT_EQ(5000, options.port);
}

TEST_F(ResolverOptionsTest, PortOutsideTheRangeIsRefused)
{
    EXPECT_FALSE(parse({"--port", "0"}));
    EXPECT_FALSE(parse({"--port", "65536"}));
    EXPECT_FALSE(parse({"--port=-1"}));
    EXPECT_NE(std::string::npos, error.find("--port")) << error;
}

TEST_F(ResolverOptionsTest, PortThatIsNotANumberIsRefused)
{
    EXPECT_FALSE(parse({"--port", "50x"}));
    EXPECT_FALSE(parse({"--port", ""}));
    EXPECT_FALSE(parse({"--port", "1e3"}));
}

TEST_F(ResolverOptionsTest, MissingValueIsRefused)
{
    EXPECT_FALSE(parse({"--state-file"}));
    EXPECT_NE(std::string::npos, error.find("needs a value")) << error;
    EXPECT_FALSE(parse({"-v", "--port"}));
}

TEST_F(ResolverOptionsTest, EmptyStateFileIsRefused)
{
    EXPECT_FALSE(parse({"--state-file="}));
    EXPECT_FALSE(parse({"--state-file", ""}));
}

TEST_F(ResolverOptionsTest, UnknownOptionIsRefusedByName)
{
    EXPECT_FALSE(parse({"--daemonize"}));
    EXPECT_EQ("unknown option --daemonize", error);
    EXPECT_FALSE(parse({"-x"}));
}

TEST_F(ResolverOptionsTest, StrayArgumentIsRefused)
{
    EXPECT_FALSE(parse({"5000"}));
    EXPECT_NE(std::string::npos, error.find("5000")) << error;
}

TEST_F(ResolverOptionsTest, ValueOnAFlagIsRefused)
{
    EXPECT_FALSE(parse({"--syslog=yes"}));
    EXPECT_NE(std::string::npos, error.find("takes no value")) << error;
}

TEST_F(ResolverOptionsTest, UsageNamesEveryOption)
{
    const std::string usage = resolver::resolverUsage();
    for (const char* option : {"--help", "--version", "-v", "--syslog", "--state-file", "--port", "--list",
                               "/run/commschannel-resolver.state"}) {
        EXPECT_NE(std::string::npos, usage.find(option)) << option;
    }
    EXPECT_EQ('\n', usage.back());
}

}  // namespace
