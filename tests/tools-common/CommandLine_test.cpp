// command_line: "--option=value" splitting, values taken from the next
// argument, flags that refuse a value, and decimal numbers within bounds.
#include "CommandLine.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

class CommandLineTest : public ::testing::Test {
protected:
    // Takes the value of the option at argument index 1 of args.
    bool take(const std::vector<const char*>& args)
    {
        argument = command_line::splitOption(args.at(1));
        index = 1;
        return command_line::takeValue(static_cast<int>(args.size()), args.data(), &index, &argument, &error);
    }

    command_line::OptionArgument argument;
    int index = 0;
    std::string error;
};

TEST_F(CommandLineTest, LongOptionIsSplitAtTheFirstEquals)
{
    const command_line::OptionArgument sut = command_line::splitOption("--state-file=/a=b");
    EXPECT_EQ("--state-file", sut.option);
    EXPECT_EQ("/a=b", sut.value);
    EXPECT_TRUE(sut.hasValue);
}

TEST_F(CommandLineTest, EmptyValueAfterEqualsIsAValue)
{
    const command_line::OptionArgument sut = command_line::splitOption("--port=");
    EXPECT_EQ("--port", sut.option);
    EXPECT_TRUE(sut.hasValue);
    EXPECT_EQ("", sut.value);
}

TEST_F(CommandLineTest, ShortOptionAndOperandAreNotSplit)
{
    EXPECT_FALSE(command_line::splitOption("-t=5").hasValue);
    EXPECT_EQ("-t=5", command_line::splitOption("-t=5").option);
    EXPECT_FALSE(command_line::splitOption("a=b").hasValue);
}

TEST_F(CommandLineTest, ValueAfterEqualsIsKeptWithoutTakingTheNextArgument)
{
    ASSERT_TRUE(take({"prog", "--port=5001", "next"}));
    EXPECT_EQ("5001", argument.value);
    EXPECT_EQ(1, index);
}

TEST_F(CommandLineTest, MissingValueIsTakenFromTheNextArgument)
{
    ASSERT_TRUE(take({"prog", "--port", "5001"}));
    EXPECT_EQ("5001", argument.value);
    EXPECT_EQ(2, index);
}

TEST_F(CommandLineTest, OptionAtTheEndNeedsAValue)
{
    EXPECT_FALSE(take({"prog", "--port"}));
    EXPECT_EQ("option --port needs a value", error);
}

TEST_F(CommandLineTest, FlagWithAValueIsRefused)
{
    EXPECT_FALSE(command_line::refuseValue(command_line::splitOption("--syslog=yes"), &error));
    EXPECT_EQ("option --syslog takes no value", error);
    EXPECT_TRUE(command_line::refuseValue(command_line::splitOption("--syslog"), &error));
}

TEST_F(CommandLineTest, DecimalWithinBoundsIsRead)
{
    long long value = -1;
    EXPECT_TRUE(command_line::parseDecimal("0", 0, 10, &value));
    EXPECT_EQ(0, value);
    EXPECT_TRUE(command_line::parseDecimal("007", 0, 10, &value));
    EXPECT_EQ(7, value);
}

TEST_F(CommandLineTest, DecimalOutsideBoundsIsRefusedAndLeavesTheValue)
{
    long long value = 42;
    EXPECT_FALSE(command_line::parseDecimal("11", 0, 10, &value));
    EXPECT_FALSE(command_line::parseDecimal("0", 1, 10, &value));
    EXPECT_EQ(42, value);
}

TEST_F(CommandLineTest, AnythingButDigitsIsRefused)
{
    long long value = 0;
    for (const char* text : {"", "-1", "+1", " 1", "1 ", "1e3", "0x10"}) {
        EXPECT_FALSE(command_line::parseDecimal(text, 0, 1000000, &value)) << text;
    }
}

TEST_F(CommandLineTest, MoreThanEighteenDigitsAreRefused)
{
    long long value = 0;
    EXPECT_TRUE(command_line::parseDecimal("999999999999999999", 0, 999999999999999999LL, &value));
    EXPECT_FALSE(command_line::parseDecimal("0000000000000000001", 0, 10, &value));
}

}  // namespace
