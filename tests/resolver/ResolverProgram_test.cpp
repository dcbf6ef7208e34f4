// The real commschannel-resolver program, run in this test's private network
// namespace: start-up and shutdown, a second instance, garbage, processes
// that die without a word, restarts, --list and logging.
#include "ChildProcess.h"
#include "CommsChannel.h"
#include "ResolverProcess.h"
#include "ResolverPort.h"
#include "ResolverTestMessages.h"
#include "SyslogCapture.h"
#include "TestUtil.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <random>
#include <sstream>

#ifndef COMMSCHANNEL_RESOLVER_PATH
#error "COMMSCHANNEL_RESOLVER_PATH must name the resolver program"
#endif

using cctest::ResolverProcess;
using namespace resolvertest;

namespace {

const int START_TIMEOUT_MS = 20000;
// How soon a process killed outright must have lost its names.
const int WITHDRAW_DEADLINE_MS = 2000;

// The child that holds a real channel until it is killed.
CC_CHILD_MAIN(channelHolder)
{
    CommsChannel channel(args.at(0));
    cctest::childSay("READY " + std::to_string(channel.port()));
    std::string line;
    cctest::childHear(line);
    return cctest::CHILD_OK;
}

std::string readWhole(std::FILE* file)
{
    std::fflush(file);
    std::rewind(file);
    std::string text;
    char buffer[4096];
    std::size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
        text.append(buffer, got);
    }
    return text;
}

// The resolver program with its standard output and error going to files
// that the test reads afterwards. Killed on destruction if still running.
class CapturedProgram {
public:
    explicit CapturedProgram(const std::vector<std::string>& arguments)
        : m_out(std::tmpfile()), m_err(std::tmpfile()), m_pid(-1), m_status(-1)
    {
        std::vector<std::string> argv{COMMSCHANNEL_RESOLVER_PATH};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        // The child takes descriptors 1 and 2 as they are at the fork.
        std::fflush(stdout);
        std::fflush(stderr);
        const int savedOut = dup(1);
        const int savedErr = dup(2);
        dup2(fileno(m_out), 1);
        dup2(fileno(m_err), 2);
        m_pid = cctest::spawnProgram(argv);
        dup2(savedOut, 1);
        dup2(savedErr, 2);
        close(savedOut);
        close(savedErr);
    }
    ~CapturedProgram()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            cctest::waitForPid(m_pid, 5000);
        }
        std::fclose(m_out);
        std::fclose(m_err);
    }
    CapturedProgram(const CapturedProgram&) = delete;
    CapturedProgram& operator=(const CapturedProgram&) = delete;

    void signal(int signalNumber) { kill(m_pid, signalNumber); }
    // Exit code, 128 + signal, or -1 on time-out (the program is then killed).
    int wait(int timeoutMs)
    {
        m_status = cctest::waitForPid(m_pid, timeoutMs);
        m_pid = -1;
        return m_status;
    }
    std::string out() { return readWhole(m_out); }
    std::string err() { return readWhole(m_err); }

private:
    std::FILE* m_out;
    std::FILE* m_err;
    pid_t m_pid;
    int m_status;
};

// A locator played from a raw socket: registers with the resolver and
// collects the rows pushed to it.
class FakeLocator {
public:
    bool ok() const { return m_socket.ok(); }
    int port() const { return m_socket.port(); }
    void send(const std::string& bytes) { m_socket.sendTo(COMMSCHANNEL_RESOLVER_PORT, bytes); }

    // Registers and waits for the answer; false when none came.
    bool registerNow(std::vector<Row>* table = nullptr, int timeoutMs = 5000)
    {
        send(registerLocator(port()));
        std::vector<Row> rows;
        if (!nextUpdate(&rows, timeoutMs)) {
            return false;
        }
        if (table != nullptr) {
            *table = rows;
        }
        return true;
    }

    // The rows of the next update from the resolver.
    bool nextUpdate(std::vector<Row>* rows, int timeoutMs)
    {
        const long long deadline = cctest::nowMs() + timeoutMs;
        std::string bytes;
        int from = 0;
        while (m_socket.receive(bytes, static_cast<int>(std::max(0LL, deadline - cctest::nowMs())), &from)) {
            if (from == COMMSCHANNEL_RESOLVER_PORT && decodeUpdate(bytes, rows)) {
                return true;
            }
        }
        return false;
    }

    // Waits until an update carries row; false at the deadline (absolute, ms).
    bool waitForRow(const Row& row, long long deadlineMs)
    {
        std::vector<Row> rows;
        while (nextUpdate(&rows, static_cast<int>(std::max(0LL, deadlineMs - cctest::nowMs())))) {
            if (std::find(rows.begin(), rows.end(), row) != rows.end()) {
                return true;
            }
        }
        return false;
    }

private:
    cctest::UdpSocket m_socket;
};

bool resolvesTo(const std::string& name, int port, int timeoutMs = 5000)
{
    return cctest::waitUntil([&] { return ResolverProcess::queryPort(name) == port; }, timeoutMs);
}

class ResolverProgramTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        resolver.reset(new ResolverProcess({}, START_TIMEOUT_MS));
        ASSERT_TRUE(resolver->started());
    }
    void TearDown() override { resolver.reset(); }
    std::unique_ptr<ResolverProcess> resolver;
};

TEST_F(ResolverProgramTest, SecondInstanceExitsWithStatusOneNamingThePort)
{
    const std::string stateBefore = cctest::readFile(resolver->stateFile());
    CapturedProgram second({"--state-file", resolver->stateFile()});
    EXPECT_EQ(1, second.wait(10000));
    EXPECT_NE(std::string::npos, second.err().find("commschannel-resolver: cannot bind 127.0.0.1:5000: Address "
                                                   "already in use (is another resolver running?)"))
        << second.err();
    EXPECT_EQ(stateBefore, cctest::readFile(resolver->stateFile()));
    EXPECT_TRUE(ResolverProcess::answers(2000));
}

TEST_F(ResolverProgramTest, SigtermEndsItWithStatusZero)
{
    resolver->sendSignal(SIGTERM);
    EXPECT_EQ(0, resolver->wait(5000));
}

TEST_F(ResolverProgramTest, SigintEndsItWithStatusZero)
{
    resolver->sendSignal(SIGINT);
    EXPECT_EQ(0, resolver->wait(5000));
}

TEST_F(ResolverProgramTest, GarbageDoesNotStopItAnswering)
{
    cctest::UdpSocket peer;
    const std::string request = portRequest("x", 1);
    peer.sendTo(COMMSCHANNEL_RESOLVER_PORT, "", 0);
    peer.sendTo(COMMSCHANNEL_RESOLVER_PORT, "junk");
    peer.sendTo(COMMSCHANNEL_RESOLVER_PORT, request.substr(0, request.size() - 1));
    peer.sendTo(COMMSCHANNEL_RESOLVER_PORT, request + "trailing");
    std::string bigJunk(65000, '\xcc');
    peer.sendTo(COMMSCHANNEL_RESOLVER_PORT, bigJunk);
    std::mt19937 random(5000);
    for (int i = 0; i < 2000; ++i) {
        std::string bytes = request;
        bytes[random() % bytes.size()] = static_cast<char>(random());
        peer.sendTo(COMMSCHANNEL_RESOLVER_PORT, bytes);
    }
    EXPECT_TRUE(ResolverProcess::answers(5000));
    std::string reply;
    EXPECT_TRUE(cctest::waitUntil([] { return ResolverProcess::queryPort("nobody") == 0; }, 5000));
}

TEST_F(ResolverProgramTest, RegistrationIsAnsweredWithTheWholeTable)
{
    FakeLocator first;
    cctest::UdpSocket channel;
    ASSERT_TRUE(first.registerNow());
    first.send(added("alpha", channel.port()));
    ASSERT_TRUE(first.waitForRow(Row(0, "alpha", channel.port()), cctest::nowMs() + 5000));
    FakeLocator second;
    std::vector<Row> table;
    ASSERT_TRUE(second.registerNow(&table));
    EXPECT_EQ(std::vector<Row>{Row(0, "alpha", channel.port())}, table);
}

TEST_F(ResolverProgramTest, LargeTableArrivesInSeveralDatagrams)
{
    FakeLocator owner;
    cctest::UdpSocket channel;
    ASSERT_TRUE(owner.registerNow());
    std::vector<Row> expected;
    for (int batch = 0; batch < 6; ++batch) {
        std::vector<Row> rows;
        for (int i = 0; i < 500; ++i) {
            rows.push_back(Row(0, "bulk-channel-with-a-long-name-" + std::to_string(batch * 1000 + i),
                               channel.port()));
        }
        owner.send(update(rows));
        ASSERT_TRUE(owner.waitForRow(rows.back(), cctest::nowMs() + 5000));
        expected.insert(expected.end(), rows.begin(), rows.end());
    }
    std::sort(expected.begin(), expected.end());
    FakeLocator reader;
    std::vector<Row> all;
    ASSERT_TRUE(reader.registerNow(&all));
    int datagrams = 1;
    std::vector<Row> more;
    while (reader.nextUpdate(&more, 500)) {
        all.insert(all.end(), more.begin(), more.end());
        ++datagrams;
    }
    EXPECT_GE(datagrams, 2);
    std::sort(all.begin(), all.end());
    EXPECT_EQ(expected, all);
}

TEST_F(ResolverProgramTest, ProcessKilledOutrightLosesItsNamesWithinTwoSeconds)
{
    FakeLocator watcher;
    ASSERT_TRUE(watcher.registerNow());
    cctest::ChildProcess holder("channelHolder", {"victim"});
    std::string portText;
    ASSERT_TRUE(holder.waitForPrefix("READY ", &portText, 20000));
    const int port = std::stoi(portText);
    ASSERT_TRUE(resolvesTo("victim", port));

    const long long killedAt = cctest::nowMs();
    holder.sendSignal(SIGKILL);
    EXPECT_TRUE(watcher.waitForRow(Row(1, "victim", port), killedAt + WITHDRAW_DEADLINE_MS));
    EXPECT_EQ(0, ResolverProcess::queryPort("victim"));
    EXPECT_EQ(128 + SIGKILL, holder.wait(5000));
}

TEST_F(ResolverProgramTest, ClosedChannelSocketLosesItsNameWhileItsLocatorLives)
{
    FakeLocator owner;
    ASSERT_TRUE(owner.registerNow());
    std::unique_ptr<cctest::UdpSocket> channel(new cctest::UdpSocket());
    const int port = channel->port();
    owner.send(added("short-lived", port));
    ASSERT_TRUE(resolvesTo("short-lived", port));
    const long long closedAt = cctest::nowMs();
    channel.reset();
    EXPECT_TRUE(owner.waitForRow(Row(1, "short-lived", port), closedAt + WITHDRAW_DEADLINE_MS));
}

TEST_F(ResolverProgramTest, StateFileFollowsEveryChange)
{
    FakeLocator owner;
    cctest::UdpSocket channel;
    ASSERT_TRUE(owner.registerNow());
    owner.send(added("saved", channel.port()));
    const std::string record =
        "channel " + std::to_string(channel.port()) + " " + std::to_string(owner.port()) + " saved\n";
    EXPECT_TRUE(cctest::waitUntil(
        [&] { return cctest::readFile(resolver->stateFile()).find(record) != std::string::npos; }, 5000))
        << cctest::readFile(resolver->stateFile());
    owner.send(removed("saved", channel.port()));
    EXPECT_TRUE(cctest::waitUntil(
        [&] { return cctest::readFile(resolver->stateFile()).find(record) == std::string::npos; }, 5000));
}

class ResolverRestartTest : public ResolverProgramTest {
protected:
    // Registers "survivor" on a socket that stays open and "doomed" on one
    // that closes while no resolver runs.
    void registerNames()
    {
        ASSERT_TRUE(owner.registerNow());
        doomedChannel.reset(new cctest::UdpSocket());
        doomedPort = doomedChannel->port();
        owner.send(update({Row(0, "survivor", survivorChannel.port()), Row(0, "doomed", doomedPort)}));
        ASSERT_TRUE(resolvesTo("survivor", survivorChannel.port()));
        ASSERT_TRUE(resolvesTo("doomed", doomedPort));
    }
    // After a restart the first answer must already know the survivor.
    void expectRestoredAfterRestart()
    {
        doomedChannel.reset();
        ASSERT_TRUE(resolver->restart(START_TIMEOUT_MS));
        EXPECT_EQ(survivorChannel.port(), ResolverProcess::queryPort("survivor"));
        EXPECT_EQ(0, ResolverProcess::queryPort("doomed"));
        // The owner still runs, so the new resolver tells it what died.
        EXPECT_TRUE(owner.waitForRow(Row(1, "doomed", doomedPort), cctest::nowMs() + 5000));
    }
    FakeLocator owner;
    cctest::UdpSocket survivorChannel;
    std::unique_ptr<cctest::UdpSocket> doomedChannel;
    int doomedPort = 0;
};

TEST_F(ResolverRestartTest, RestartAfterSigtermRestoresNamesOfRunningProcesses)
{
    registerNames();
    resolver->sendSignal(SIGTERM);
    ASSERT_EQ(0, resolver->wait(5000));
    expectRestoredAfterRestart();
}

TEST_F(ResolverRestartTest, RestartAfterACrashRestoresNamesOfRunningProcesses)
{
    registerNames();
    resolver->sendSignal(SIGKILL);
    ASSERT_EQ(128 + SIGKILL, resolver->wait(5000));
    expectRestoredAfterRestart();
}

TEST_F(ResolverProgramTest, ListPrintsEveryChannelWithItsPortAndOwner)
{
    FakeLocator owner;
    cctest::UdpSocket channel;
    ASSERT_TRUE(owner.registerNow());
    owner.send(added("listed", channel.port()));
    ASSERT_TRUE(resolvesTo("listed", channel.port()));
    CapturedProgram list({"--list"});
    ASSERT_EQ(0, list.wait(10000)) << list.err();
    const std::string text = list.out();
    EXPECT_EQ(0u, text.find("NAME    PORT   PID\n")) << text;
    EXPECT_NE(std::string::npos,
              text.find("listed  " + std::to_string(channel.port()) + "  " + std::to_string(getpid()) + "\n"))
        << text;
}

TEST_F(ResolverProgramTest, ListLeavesNoLocatorBehind)
{
    CapturedProgram list({"--list"});
    ASSERT_EQ(0, list.wait(10000)) << list.err();
    EXPECT_TRUE(cctest::waitUntil(
        [&] { return cctest::readFile(resolver->stateFile()).find("locator ") == std::string::npos; }, 5000))
        << cctest::readFile(resolver->stateFile());
}

TEST(ResolverProgramStandaloneTest, ListWithoutAResolverExitsOneWithAMessage)
{
    CapturedProgram list({"--list"});
    EXPECT_EQ(1, list.wait(10000));
    EXPECT_NE(std::string::npos, list.err().find("no resolver answered at 127.0.0.1:5000")) << list.err();
    EXPECT_TRUE(list.out().empty());
}

TEST(ResolverProgramStandaloneTest, HelpPrintsUsageAndExitsZero)
{
    CapturedProgram help({"--help"});
    EXPECT_EQ(0, help.wait(10000));
    EXPECT_EQ(0u, help.out().find("Usage: commschannel-resolver")) << help.out();
}

TEST(ResolverProgramStandaloneTest, UnknownOptionExitsTwoWithAMessage)
{
    CapturedProgram bad({"--frobnicate"});
    EXPECT_EQ(2, bad.wait(10000));
    EXPECT_NE(std::string::npos, bad.err().find("unknown option --frobnicate")) << bad.err();
}

TEST(ResolverProgramStandaloneTest, QuietByDefaultPrintsOnlyTheStartUpLine)
{
    const std::string stateFile = "/tmp/cc-quiet-" + std::to_string(getpid()) + ".state";
    {
        CapturedProgram daemon({"--state-file", stateFile});
        ASSERT_TRUE(cctest::waitUntil([] { return ResolverProcess::answers(200); }, START_TIMEOUT_MS));
        FakeLocator locator;
        ASSERT_TRUE(locator.registerNow());
        daemon.signal(SIGTERM);
        EXPECT_EQ(0, daemon.wait(5000));
        const std::string err = daemon.err();
        EXPECT_EQ(0u, err.find("commschannel-resolver: listening on 127.0.0.1:5000")) << err;
        EXPECT_EQ(1, std::count(err.begin(), err.end(), '\n')) << err;
    }
    std::remove(stateFile.c_str());
}

TEST(ResolverProgramStandaloneTest, VerboseLogsRegistrationsAndRequests)
{
    const std::string stateFile = "/tmp/cc-verbose-" + std::to_string(getpid()) + ".state";
    {
        CapturedProgram daemon({"-v", "--state-file", stateFile});
        ASSERT_TRUE(cctest::waitUntil([] { return ResolverProcess::answers(200); }, START_TIMEOUT_MS));
        FakeLocator locator;
        ASSERT_TRUE(locator.registerNow());
        daemon.signal(SIGTERM);
        EXPECT_EQ(0, daemon.wait(5000));
        const std::string err = daemon.err();
        const std::string self = "pid " + std::to_string(getpid());
        EXPECT_NE(std::string::npos, err.find(self + " (")) << err;
        EXPECT_NE(std::string::npos, err.find(" registered its locator")) << err;
        EXPECT_NE(std::string::npos, err.find("port request")) << err;
        // Processes are named by pid, never by a bare locator port.
        EXPECT_EQ(std::string::npos, err.find("locator " + std::to_string(locator.port()))) << err;
        std::istringstream lines(err);
        std::string line;
        while (std::getline(lines, line)) {
            // "2024-05-31 14:02:07.125 commschannel-resolver: ..."
            ASSERT_GT(line.size(), 24u) << line;
            EXPECT_EQ('-', line[4]) << line;
            EXPECT_EQ(' ', line[10]) << line;
            EXPECT_EQ('.', line[19]) << line;
            EXPECT_EQ(24u, line.find("commschannel-resolver: ")) << line;
        }
    }
    std::remove(stateFile.c_str());
}

TEST(ResolverProgramStandaloneTest, QuietResolverReportsTakeoverDeathAndIgnoredRows)
{
    const std::string stateFile = "/tmp/cc-notice-" + std::to_string(getpid()) + ".state";
    {
        CapturedProgram daemon({"--state-file", stateFile});
        ASSERT_TRUE(cctest::waitUntil([] { return ResolverProcess::answers(200); }, START_TIMEOUT_MS));
        cctest::ChildProcess first("channelHolder", {"shared"});
        cctest::ChildProcess doomed("channelHolder", {"doomed"});
        std::string firstPort;
        std::string doomedPort;
        ASSERT_TRUE(first.waitForPrefix("READY ", &firstPort, START_TIMEOUT_MS));
        ASSERT_TRUE(doomed.waitForPrefix("READY ", &doomedPort, START_TIMEOUT_MS));
        ASSERT_TRUE(resolvesTo("shared", std::stoi(firstPort)));
        ASSERT_TRUE(resolvesTo("doomed", std::stoi(doomedPort)));

        CommsChannel takeover("shared");
        ASSERT_TRUE(resolvesTo("shared", takeover.port()));
        doomed.sendSignal(SIGKILL);
        ASSERT_TRUE(resolvesTo("doomed", 0));
        FakeLocator locator;
        ASSERT_TRUE(locator.registerNow());
        locator.send(update({Row(0, "bad", 0)}));
        ASSERT_TRUE(ResolverProcess::answers(2000));

        daemon.signal(SIGTERM);
        EXPECT_EQ(0, daemon.wait(5000));
        const std::string err = daemon.err();
        EXPECT_NE(std::string::npos, err.find("\"shared\" taken over by pid " + std::to_string(getpid()))) << err;
        EXPECT_NE(std::string::npos, err.find("from pid " + std::to_string(first.pid()))) << err;
        EXPECT_NE(std::string::npos,
                  err.find("pid " + std::to_string(doomed.pid()) + " (")) << err;
        EXPECT_NE(std::string::npos, err.find("is gone; withdrew 1 name(s): \"doomed\"")) << err;
        EXPECT_NE(std::string::npos, err.find("ignored a registration of \"bad\" at port 0 (ports are 1 to 65535) "
                                              "from pid " + std::to_string(getpid())))
            << err;
    }
    std::remove(stateFile.c_str());
}

TEST(ResolverProgramStandaloneTest, SyslogOptionSendsTheLogToTheSystemLog)
{
    cctest::SyslogCapture capture;
    ASSERT_TRUE(capture.ok()) << capture.errorText();
    ResolverProcess resolver({"--syslog", "-v"}, START_TIMEOUT_MS);
    ASSERT_TRUE(resolver.started());
    EXPECT_FALSE(capture.recordsContaining("listening on 127.0.0.1:5000", 500).empty());
    EXPECT_FALSE(capture.recordsContaining("port request").empty());
}

}  // namespace
