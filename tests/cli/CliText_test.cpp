// How commschannel prints names, data, listings and messages.
#include "CliText.h"
#include "StatsText.h"

#include <gtest/gtest.h>

namespace {

cli::MessageView message(const std::string& data)
{
    return cli::MessageView{"client", "", 2, 7, data};
}

TEST(CliTextTest, PrintableBytesStayAsTheyAre)
{
    EXPECT_EQ("hello world", cli::escapeBytes("hello world"));
}

TEST(CliTextTest, ControlBytesQuotesAndBackslashesAreEscaped)
{
    EXPECT_EQ("a\\x0ab\\x00\\x22\\x5c\\xff", cli::escapeBytes(std::string("a\nb\0\"\\\xff", 7)));
}

TEST(CliTextTest, JsonStringKeepsEveryByteRecoverable)
{
    EXPECT_EQ("\"q\\\"b\\\\n\\n\\u0001\\u00ff\"", cli::jsonString(std::string("q\"b\\n\n\x01\xff", 8)));
}

TEST(CliTextTest, ListTableHasAHeaderAndAlignedColumns)
{
    cli::ListRow alpha{"alpha", 41001, 123, "server", 0, 0};
    alpha.queued = 2;
    alpha.maxQueued = 17;
    const std::string text = cli::formatListTable({alpha, cli::ListRow{"b", 7, 0, "", -1, -1}});
    EXPECT_EQ("NAME   PORT   PID  PROCESS  QUEUED  MAXQ  RX_QUEUE  DROPS\n"
              "alpha  41001  123  server   2       17    0         0\n"
              "b      7      -    -        -       -     -         -\n",
              text);
}

TEST(CliTextTest, ListTableMarksAStoppedReceiverAfterTheName)
{
    cli::ListRow stopped{"slow", 41001, 123, "server", 0, 0};
    stopped.queued = 0;
    stopped.maxQueued = 0;
    stopped.stopped = true;
    const std::string text = cli::formatListTable({stopped});
    EXPECT_EQ(0u, text.find("NAME ")) << text;
    EXPECT_NE(std::string::npos, text.find("\nslow!  41001")) << text;
}

TEST(CliTextTest, ListJsonHasEveryKey)
{
    cli::ListRow row{"a\n", 5, 9, "p", 768, 3};
    row.queued = 4;
    row.maxQueued = 6;
    EXPECT_EQ("{\"name\":\"a\\n\",\"port\":5,\"pid\":9,\"process\":\"p\",\"queued\":4,\"max_queued\":6,"
              "\"rx_queue_bytes\":768,\"drops\":3}",
              cli::formatListJson(row));
}

TEST(CliTextTest, ListJsonOfAProcessPublishingNothingHasMinusOne)
{
    const std::string json = cli::formatListJson(cli::ListRow{"a", 5, 0, "", -1, -1});
    EXPECT_NE(std::string::npos, json.find(",\"queued\":-1,\"max_queued\":-1,")) << json;
}

TEST(CliTextTest, StatsTableShowsEveryCounter)
{
    cli::ChannelCounters counters;
    counters.queued = 1;
    counters.maxQueued = 9;
    counters.received = 20;
    counters.taken = 19;
    counters.refused = 3;
    counters.badDatagrams = 2;
    counters.receivingKnown = true;
    counters.receiving = false;
    const std::string text = cli::formatStatsTable(
        {cli::StatsRow{"alpha", 123, counters, 0, 5}, cli::StatsRow{"b", 0, cli::ChannelCounters(), -1, -1}});
    EXPECT_EQ("NAME   PID  QUEUED  MAXQ  RECEIVED  TAKEN  REFUSED  BAD  RECEIVING  RX_QUEUE  DROPS\n"
              "alpha  123  1       9     20        19     3        2    no         0         5\n"
              "b      -    -       -     -         -      -        -    -          -         -\n",
              text);
}

TEST(CliTextTest, StatsJsonHasEveryKey)
{
    cli::ChannelCounters counters;
    counters.queued = 1;
    counters.maxQueued = 9;
    counters.received = 20;
    counters.taken = 19;
    counters.refused = 3;
    counters.badDatagrams = 2;
    counters.receivingKnown = true;
    counters.receiving = true;
    EXPECT_EQ("{\"name\":\"a\",\"pid\":7,\"queued\":1,\"max_queued\":9,\"received\":20,\"taken\":19,"
              "\"refused\":3,\"bad_datagrams\":2,\"receiving\":true,\"rx_queue_bytes\":0,\"drops\":5}",
              cli::formatStatsJson(cli::StatsRow{"a", 7, counters, 0, 5}));
    EXPECT_EQ("{\"name\":\"b\",\"pid\":0,\"queued\":-1,\"max_queued\":-1,\"received\":-1,\"taken\":-1,"
              "\"refused\":-1,\"bad_datagrams\":-1,\"receiving\":null,\"rx_queue_bytes\":-1,\"drops\":-1}",
              cli::formatStatsJson(cli::StatsRow{"b", 0, cli::ChannelCounters(), -1, -1}));
}

TEST(CliTextTest, MessageLineShowsEveryFieldAndEscapesData)
{
    EXPECT_EQ("source=client callback= type=2 request_id=7 length=3 data=\"a\\x0ab\"",
              cli::formatMessageLine(message("a\nb")));
}

TEST(CliTextTest, MessageJsonShowsEveryField)
{
    EXPECT_EQ("{\"source\":\"client\",\"callback\":\"\",\"type\":2,\"request_id\":7,\"length\":2,\"data\":\"hi\"}",
              cli::formatMessageJson(message("hi")));
}

}  // namespace
