// commschannel-resolver --list: applying the answers, finding owners,
// formatting, and the client against a scripted resolver.
#include "ResolverList.h"
#include "ResolverTestMessages.h"
#include "TestUtil.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <thread>

using resolver::ListedChannel;
using namespace resolvertest;

namespace {

// What a FILE* received, read back after the call under test.
class CapturedFile {
public:
    CapturedFile() : m_file(std::tmpfile()) {}
    ~CapturedFile() { std::fclose(m_file); }
    CapturedFile(const CapturedFile&) = delete;
    CapturedFile& operator=(const CapturedFile&) = delete;
    std::FILE* file() { return m_file; }
    std::string text()
    {
        std::fflush(m_file);
        std::rewind(m_file);
        std::string content;
        char buffer[4096];
        std::size_t got;
        while ((got = std::fread(buffer, 1, sizeof buffer, m_file)) > 0) {
            content.append(buffer, got);
        }
        return content;
    }

private:
    std::FILE* m_file;
};

bool applyBytes(const std::string& bytes, std::map<std::string, int>* channels)
{
    return resolver::applyUpdate(bytes.data(), bytes.size(), channels);
}

TEST(ResolverListFormatTest, ColumnsAreAlignedAndUnknownPidIsADash)
{
    const std::string text = resolver::formatChannelList(
        {ListedChannel{"alpha", 41001, 1234}, ListedChannel{"a-much-longer-name", 7, 0}});
    EXPECT_EQ("NAME                PORT   PID\n"
              "alpha               41001  1234\n"
              "a-much-longer-name  7      -\n",
              text);
}

TEST(ResolverListFormatTest, EmptyTableIsOnlyTheHeader)
{
    EXPECT_EQ("NAME  PORT  PID\n", resolver::formatChannelList({}));
}

TEST(ResolverListFormatTest, NameBytesOutsidePrintableAsciiAreEscaped)
{
    const std::string text = resolver::formatChannelList({ListedChannel{"a b\n\\", 1, 2}});
    EXPECT_NE(std::string::npos, text.find("a\\x20b\\x0a\\x5c  ")) << text;
}

TEST(ResolverListApplyTest, RowsAreAppliedInOrder)
{
    std::map<std::string, int> channels{{"old", 1}};
    ASSERT_TRUE(applyBytes(update({Row(0, "alpha", 2), Row(0, "beta", 3), Row(1, "old", 1), Row(9, "beta", 3),
                              Row(0, "alpha", 4)}),
                      &channels));
    EXPECT_EQ((std::map<std::string, int>{{"alpha", 4}}), channels);
}

TEST(ResolverListApplyTest, OtherMessagesAndGarbageAreNotUpdates)
{
    std::map<std::string, int> channels{{"kept", 1}};
    EXPECT_FALSE(applyBytes(portRequest("x", 1), &channels));
    EXPECT_FALSE(applyBytes("junk", &channels));
    const std::string valid = added("alpha", 2);
    EXPECT_FALSE(applyBytes(valid.substr(0, valid.size() - 1), &channels));
    EXPECT_EQ((std::map<std::string, int>{{"kept", 1}}), channels);
}

TEST(ResolverListOwnersTest, PortOfOwnSocketIsCreditedToThisProcess)
{
    cctest::UdpSocket socket;
    ASSERT_TRUE(socket.ok());
    const std::vector<ListedChannel> listed = resolver::withOwners({{"mine", socket.port()}, {"closed", 1}});
    ASSERT_EQ(2u, listed.size());
    EXPECT_EQ("closed", listed[0].name);
    EXPECT_EQ(0, listed[0].pid);
    EXPECT_EQ("mine", listed[1].name);
    EXPECT_EQ(getpid(), listed[1].pid);
}

// The client against a resolver played from a raw socket: registration,
// an answer in two updates, unregistration.
TEST(ResolverListClientTest, AnswerInSeveralUpdatesIsCollectedAndTheClientUnregisters)
{
    cctest::UdpSocket fakeResolver;
    ASSERT_TRUE(fakeResolver.ok());
    cctest::UdpSocket alphaChannel;
    int registeredPort = -1;
    int unregisteredPort = -2;
    std::thread script([&] {
        std::string bytes;
        int clientPort = 0;
        if (!fakeResolver.receive(bytes, 10000, &clientPort) || bytes != registerLocator(clientPort)) {
            return;
        }
        registeredPort = clientPort;
        const std::string first = update({Row(0, "alpha", alphaChannel.port()), Row(0, "beta", 2)});
        const std::string second = update({Row(1, "beta", 2), Row(0, "gamma", 3)});
        fakeResolver.sendTo(clientPort, first);
        fakeResolver.sendTo(clientPort, second);
        int from = 0;
        if (fakeResolver.receive(bytes, 10000, &from) && bytes == unregisterLocator(clientPort)) {
            unregisteredPort = from;
        }
    });
    CapturedFile out;
    CapturedFile err;
    const int status = resolver::runList(fakeResolver.port(), out.file(), err.file());
    script.join();
    EXPECT_EQ(0, status) << err.text();
    EXPECT_EQ(registeredPort, unregisteredPort);
    const std::string text = out.text();
    EXPECT_EQ(0u, text.find("NAME")) << text;
    EXPECT_NE(std::string::npos, text.find("alpha  " + std::to_string(alphaChannel.port()) + "  " +
                                           std::to_string(getpid()) + "\n"))
        << text;
    EXPECT_NE(std::string::npos, text.find("gamma  3")) << text;
    EXPECT_EQ(std::string::npos, text.find("beta")) << text;
}

TEST(ResolverListClientTest, SilentResolverFailsAfterTwoSecondsWithAMessage)
{
    cctest::UdpSocket silentResolver;
    ASSERT_TRUE(silentResolver.ok());
    CapturedFile out;
    CapturedFile err;
    const long long start = cctest::nowMs();
    EXPECT_EQ(1, resolver::runList(silentResolver.port(), out.file(), err.file()));
    const long long elapsed = cctest::nowMs() - start;
    EXPECT_GE(elapsed, resolver::LIST_ANSWER_TIMEOUT_MS);
    EXPECT_LT(elapsed, resolver::LIST_ANSWER_TIMEOUT_MS + 2000);
    EXPECT_NE(std::string::npos, err.text().find("no resolver answered at 127.0.0.1:" +
                                                 std::to_string(silentResolver.port())))
        << err.text();
    EXPECT_TRUE(out.text().empty());
}

TEST(ResolverListClientTest, SilentResolverGetsTheRegistrationTwice)
{
    cctest::UdpSocket silentResolver;
    ASSERT_TRUE(silentResolver.ok());
    CapturedFile out;
    CapturedFile err;
    resolver::runList(silentResolver.port(), out.file(), err.file());
    std::string bytes;
    int count = 0;
    while (silentResolver.receive(bytes, 0)) {
        ++count;
    }
    EXPECT_EQ(2, count);
}

}  // namespace
