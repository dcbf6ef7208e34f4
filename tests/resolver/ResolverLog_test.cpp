// The resolver's log: levels, the replaceable sink and quoting of names.
#include "ResolverLog.h"

#include <gtest/gtest.h>

namespace {

namespace rlog = resolver::log;

class RecordingSink : public rlog::Sink {
public:
    void write(rlog::Level level, const std::string& line) override { lines.push_back({level, line}); }
    std::vector<std::pair<rlog::Level, std::string>> lines;
};

class ResolverLogTest : public ::testing::Test {
protected:
    void SetUp() override { rlog::setSink(&sink); }
    void TearDown() override
    {
        rlog::setSink(nullptr);
        rlog::setLevel(rlog::LEVEL_NOTICE);
    }
    RecordingSink sink;
};

TEST_F(ResolverLogTest, SinkReceivesTheFormattedLineAndItsLevel)
{
    rlog::write(rlog::LEVEL_WARNING, "port %d: %s", 5000, "busy");
    ASSERT_EQ(1u, sink.lines.size());
    EXPECT_EQ(rlog::LEVEL_WARNING, sink.lines[0].first);
    EXPECT_EQ("port 5000: busy", sink.lines[0].second);
}

TEST_F(ResolverLogTest, DefaultLevelDropsInfoButKeepsNotice)
{
    rlog::write(rlog::LEVEL_INFO, "chatter");
    rlog::write(rlog::LEVEL_NOTICE, "started");
    ASSERT_EQ(1u, sink.lines.size());
    EXPECT_EQ("started", sink.lines[0].second);
}

TEST_F(ResolverLogTest, RaisedLevelLetsInfoThrough)
{
    rlog::setLevel(rlog::LEVEL_INFO);
    rlog::write(rlog::LEVEL_INFO, "chatter");
    rlog::write(rlog::LEVEL_DEBUG, "detail");
    ASSERT_EQ(1u, sink.lines.size());
    EXPECT_TRUE(rlog::enabled(rlog::LEVEL_INFO));
    EXPECT_FALSE(rlog::enabled(rlog::LEVEL_DEBUG));
}

TEST_F(ResolverLogTest, LongLinesAreNotCut)
{
    const std::string text(5000, 'x');
    rlog::write(rlog::LEVEL_ERROR, "%s", text.c_str());
    ASSERT_EQ(1u, sink.lines.size());
    EXPECT_EQ(text, sink.lines[0].second);
}

TEST_F(ResolverLogTest, NullSinkGoesBackToTheBuiltInSink)
{
    rlog::setSink(nullptr);
    EXPECT_NE(&sink, &rlog::sink());
    rlog::write(rlog::LEVEL_ERROR, "to standard error");
    EXPECT_TRUE(sink.lines.empty());
}

TEST(ResolverLogQuotedTest, PrintableNameIsQuotedAsIs) { EXPECT_EQ("\"alpha-1\"", rlog::quoted("alpha-1")); }

TEST(ResolverLogQuotedTest, ControlBytesQuotesAndBackslashesAreEscaped)
{
    EXPECT_EQ("\"a\\x0ab\\x22c\\x5cd\\xff\"", rlog::quoted(std::string("a\nb\"c\\d\xff")));
}

TEST(ResolverLogQuotedTest, LongNameIsCut)
{
    const std::string quoted = rlog::quoted(std::string(1000, 'n'));
    EXPECT_EQ("\"" + std::string(120, 'n') + "\"...", quoted);
}

}  // namespace
