// How commschannel prints names, data, listings and messages.
#include "CliText.h"

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
    const std::string text = cli::formatListTable(
        {cli::ListRow{"alpha", 41001, 123, "server", 0, 0}, cli::ListRow{"b", 7, 0, "", -1, -1}});
    EXPECT_EQ("NAME   PORT   PID  PROCESS  RX_QUEUE  DROPS\n"
              "alpha  41001  123  server   0         0\n"
              "b      7      -    -        -         -\n",
              text);
}

TEST(CliTextTest, ListJsonHasEveryKey)
{
    EXPECT_EQ("{\"name\":\"a\\n\",\"port\":5,\"pid\":9,\"process\":\"p\",\"rx_queue_bytes\":768,\"drops\":3}",
              cli::formatListJson(cli::ListRow{"a\n", 5, 9, "p", 768, 3}));
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
