// The state file: its text, and saving and loading it on disk.
#include "ResolverStateFile.h"
#include "ResolverTable.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

using resolver::ResolverTable;

namespace {

class ResolverStateFileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/cc-resolver-state-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        directory = pattern;
        path = directory + "/resolver.state";
    }
    void TearDown() override
    {
        std::remove(path.c_str());
        std::remove((path + ".tmp").c_str());
        rmdir((directory + "/sub").c_str());
        rmdir(directory.c_str());
    }

    static ResolverTable sampleTable()
    {
        ResolverTable table;
        table.addLocator(40001);
        table.addLocator(40002);
        table.addChannel("alpha", 41001, 40001);
        table.addChannel("with space", 41002, 40002);
        table.addChannel(std::string("new\nline%and\0nul\xff", 17), 41003, 40001);
        return table;
    }

    static void writeText(const std::string& file, const std::string& text)
    {
        std::ofstream out(file.c_str(), std::ios::binary);
        out << text;
    }

    static std::string readText(const std::string& file)
    {
        std::ifstream in(file.c_str(), std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

    // Parses text; returns the number of bad lines, or -1 for a rejected text.
    static int parse(const std::string& text, ResolverTable* table)
    {
        int badLines = 0;
        return resolver::parseState(text, table, &badLines) ? badLines : -1;
    }

    std::string directory;
    std::string path;
};

TEST_F(ResolverStateFileTest, FormattedTableParsesBackEqual)
{
    const ResolverTable original = sampleTable();
    ResolverTable parsed;
    EXPECT_EQ(0, parse(resolver::formatState(original), &parsed));
    EXPECT_EQ(original, parsed);
}

TEST_F(ResolverStateFileTest, EveryRecordIsOneLineWithoutBlanksInNames)
{
    const std::string text = resolver::formatState(sampleTable());
    EXPECT_EQ("commschannel-resolver-state 1\n"
              "locator 40001\n"
              "locator 40002\n"
              "channel 41001 40001 alpha\n"
              "channel 41003 40001 new%0Aline%25and%00nul%FF\n"
              "channel 41002 40002 with%20space\n",
              text);
}

TEST_F(ResolverStateFileTest, EmptyTableIsOnlyTheHeader)
{
    EXPECT_EQ("commschannel-resolver-state 1\n", resolver::formatState(ResolverTable()));
}

TEST_F(ResolverStateFileTest, TextWithAnotherHeaderIsRejected)
{
    ResolverTable table = sampleTable();
    EXPECT_EQ(-1, parse("commschannel-resolver-state 2\nlocator 40001\n", &table));
    EXPECT_EQ(ResolverTable(), table);
    EXPECT_EQ(-1, parse("", &table));
}

TEST_F(ResolverStateFileTest, BadRecordsAreSkippedAndCounted)
{
    ResolverTable table;
    const std::string text = "commschannel-resolver-state 1\n"
                             "locator 40001\n"
                             "locator 0\n"
                             "locator 65536\n"
                             "locator 4x\n"
                             "channel 41001 40001\n"
                             "channel 41001 40001 bad%G1\n"
                             "channel 41001 40001 cut%4\n"
                             "channel 41001  40001 twoblanks\n"
                             "channel -1 40001 negative\n"
                             "listener 5 x\n"
                             "channel 41002 40001 good\n";
    EXPECT_EQ(9, parse(text, &table));
    ResolverTable expected;
    expected.addLocator(40001);
    expected.addChannel("good", 41002, 40001);
    EXPECT_EQ(expected, table);
}

TEST_F(ResolverStateFileTest, MissingFileLoadsAsMissingAndEmpty)
{
    ResolverTable table = sampleTable();
    int badLines = 0;
    std::string problem;
    EXPECT_EQ(resolver::STATE_MISSING, resolver::loadState(path, &table, &badLines, &problem));
    EXPECT_EQ(ResolverTable(), table);
}

TEST_F(ResolverStateFileTest, SavedTableLoadsBackEqual)
{
    std::string problem;
    ASSERT_TRUE(resolver::saveState(path, sampleTable(), &problem)) << problem;
    ResolverTable loaded;
    int badLines = -1;
    EXPECT_EQ(resolver::STATE_LOADED, resolver::loadState(path, &loaded, &badLines, &problem));
    EXPECT_EQ(0, badLines);
    EXPECT_EQ(sampleTable(), loaded);
}

TEST_F(ResolverStateFileTest, SaveReplacesTheFileAndLeavesNoTemporary)
{
    writeText(path, "old content\n");
    std::string problem;
    ASSERT_TRUE(resolver::saveState(path, sampleTable(), &problem)) << problem;
    EXPECT_EQ(resolver::formatState(sampleTable()), readText(path));
    EXPECT_NE(0, access((path + ".tmp").c_str(), F_OK));
}

TEST_F(ResolverStateFileTest, SaveIntoAMissingDirectoryFailsWithAReason)
{
    std::string problem;
    EXPECT_FALSE(resolver::saveState(directory + "/sub/resolver.state", sampleTable(), &problem));
    EXPECT_NE(std::string::npos, problem.find("No such file or directory")) << problem;
}

TEST_F(ResolverStateFileTest, FailedSaveKeepsThePreviousFile)
{
    std::string problem;
    ASSERT_TRUE(resolver::saveState(path, sampleTable(), &problem)) << problem;
    // A directory in the way of the temporary file makes the save fail.
    ASSERT_EQ(0, mkdir((directory + "/sub").c_str(), 0700));
    ASSERT_EQ(0, rename((directory + "/sub").c_str(), (path + ".tmp").c_str()));
    EXPECT_FALSE(resolver::saveState(path, ResolverTable(), &problem));
    EXPECT_EQ(resolver::formatState(sampleTable()), readText(path));
    rmdir((path + ".tmp").c_str());
}

TEST_F(ResolverStateFileTest, FileWithAnotherHeaderLoadsAsInvalid)
{
    writeText(path, "something else\nlocator 40001\n");
    ResolverTable table;
    int badLines = 0;
    std::string problem;
    EXPECT_EQ(resolver::STATE_INVALID, resolver::loadState(path, &table, &badLines, &problem));
    EXPECT_NE(std::string::npos, problem.find(path)) << problem;
    EXPECT_EQ(ResolverTable(), table);
}

TEST_F(ResolverStateFileTest, DirectoryInsteadOfAFileLoadsAsInvalid)
{
    ResolverTable table;
    int badLines = 0;
    std::string problem;
    EXPECT_EQ(resolver::STATE_INVALID, resolver::loadState(directory, &table, &badLines, &problem));
    EXPECT_FALSE(problem.empty());
}

TEST_F(ResolverStateFileTest, LoadCountsBadLines)
{
    writeText(path, "commschannel-resolver-state 1\nlocator 40001\ngarbage\n");
    ResolverTable table;
    int badLines = 0;
    std::string problem;
    EXPECT_EQ(resolver::STATE_LOADED, resolver::loadState(path, &table, &badLines, &problem));
    EXPECT_EQ(1, badLines);
    EXPECT_TRUE(table.hasLocator(40001));
}

}  // namespace
