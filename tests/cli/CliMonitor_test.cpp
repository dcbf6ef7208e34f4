// commschannel monitor end to end: the real program capturing on this
// test's private loopback while real channels, the real resolver and hand-
// made datagrams cross it. Each kind of output, the name filter, -n, -j,
// the capture file, the refusal for other users and the end on SIGTERM.
//
// Under user-mode emulation (the MIPS run) a packet socket may not work:
// the tests then skip, saying so, when the monitor cannot open its capture.
#include "ChildProcess.h"
#include "CliRun.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "JsonLine.h"
#include "ResolverClient.h"
#include "ResolverProcess.h"
#include "TestUtil.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>

namespace {

using cctest::CliRun;
using cctest::jsonText;
using cctest::linesOf;
using cctest::parseJsonLine;
using cctest::RUN_TIMEOUT_MS;
typedef std::map<std::string, std::string> Json;

#ifdef COMMSCHANNEL_TEST_EMULATED
const bool EMULATED = true;
#else
const bool EMULATED = false;
#endif

// A channel held by another process until its parent says anything.
CC_CHILD_MAIN(monitoredHolder)
{
    CommsChannel channel(args.at(0));
    cctest::childSay("READY " + std::to_string(channel.port()));
    std::string line;
    cctest::childHear(line);
    return cctest::CHILD_OK;
}

// Sends from a channel of its own in another process (a process's channels
// talk to each other without datagrams): args are the sender's name, the
// destination, the data, how many times the data is repeated, the type, the
// request id and the callback channel. Says "SENT <port>" and keeps the
// channel until its parent says anything.
CC_CHILD_MAIN(messageSender)
{
    CommsChannel sender(args.at(0));
    std::string data;
    for (int copies = std::stoi(args.at(3)); copies > 0; --copies) {
        data += args.at(2);
    }
    CommsChannelDataContainerMessage message;
    message.setChannel(args.at(1));
    message.setData(data.data(), static_cast<int>(data.size()));
    message.setMsgType(std::stoi(args.at(4)));
    message.setRequestId(std::stol(args.at(5)));
    message.setCallbackChannel(args.at(6));
    if (sender.sendMsg(message) != 1) {
        return cctest::CHILD_FAILED;
    }
    cctest::childSay("SENT " + std::to_string(sender.port()));
    std::string line;
    cctest::childHear(line);
    return cctest::CHILD_OK;
}

// A sender process as above; its port goes to *port.
std::unique_ptr<cctest::ChildProcess> sendFromChild(const std::string& target, const std::string& data,
                                                    std::string* port, int copies = 1, int type = 0, long id = 0,
                                                    const std::string& callback = std::string())
{
    std::unique_ptr<cctest::ChildProcess> child(new cctest::ChildProcess(
        "messageSender", {"sender", target, data, std::to_string(copies), std::to_string(type), std::to_string(id),
                          callback}));
    std::string ignored;
    EXPECT_TRUE(child->waitForPrefix("SENT ", port != nullptr ? port : &ignored, RUN_TIMEOUT_MS));
    return child;
}

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

class CliMonitorTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        resolver.reset(new cctest::ResolverProcess());
        ASSERT_TRUE(resolver->started());
    }

    // Starts the monitor and waits until it captures. False (with *skip
    // set under emulation) when it could not start capturing.
    bool startMonitor(const std::vector<std::string>& arguments, bool* skip)
    {
        std::vector<std::string> full{"monitor"};
        full.insert(full.end(), arguments.begin(), arguments.end());
        monitor.reset(new CliRun(full));
        const bool listening = cctest::waitUntil(
            [this] { return monitor->err().find("listening on lo\n") != std::string::npos; }, RUN_TIMEOUT_MS);
        *skip = !listening && EMULATED && monitor->err().find("cannot capture on lo") != std::string::npos;
        return listening;
    }

    // The JSON lines printed so far.
    std::vector<Json> events() const
    {
        std::vector<Json> parsed;
        for (const std::string& line : linesOf(monitor->out())) {
            parsed.push_back(parseJsonLine(line));
        }
        return parsed;
    }

    // Waits until some printed JSON line satisfies match; returns it.
    Json waitForEvent(const std::function<bool(const Json&)>& match)
    {
        Json found;
        cctest::waitUntil(
            [&] {
                for (const Json& event : events()) {
                    if (match(event)) {
                        found = event;
                        return true;
                    }
                }
                return false;
            },
            RUN_TIMEOUT_MS);
        return found;
    }

    Json waitForKind(const std::string& kind, const std::string& key = std::string(),
                     const std::string& value = std::string())
    {
        return waitForEvent([&](const Json& event) {
            return event.count("kind") && event.at("kind") == quoted(kind) &&
                   (key.empty() || (event.count(key) && event.at(key) == value));
        });
    }

    bool registered(const std::string& name) { return resolver::waitForName(5000, name, RUN_TIMEOUT_MS); }

    std::unique_ptr<cctest::ResolverProcess> resolver;
    std::unique_ptr<CliRun> monitor;
};

#define START_MONITOR(...)                                                               \
    do {                                                                                 \
        bool skip = false;                                                               \
        if (!startMonitor(__VA_ARGS__, &skip)) {                                         \
            if (skip) {                                                                  \
                GTEST_SKIP() << "no packet capture under emulation: " << monitor->err(); \
            }                                                                            \
            FAIL() << "the monitor did not start capturing: " << monitor->err();         \
        }                                                                                \
    } while (0)

// The keys of an event, in one string, for comparing key sets.
std::string keysOf(const Json& event)
{
    std::string keys;
    for (const std::pair<const std::string, std::string>& field : event) {
        keys += (keys.empty() ? "" : ",") + field.first;
    }
    return keys;
}

TEST_F(CliMonitorTest, DataMessageIsOneJsonLineWithEveryField)
{
    START_MONITOR({"-j"});
    CommsChannel inbox("inbox");
    ASSERT_TRUE(registered("inbox"));
    std::string senderPort;
    const std::unique_ptr<cctest::ChildProcess> sender =
        sendFromChild("inbox", "one\n\xff", &senderPort, 1, 3, 11, "back");

    const Json event = waitForKind("data");
    ASSERT_FALSE(event.empty()) << monitor->out();
    EXPECT_EQ("callback,channel,data,dst_port,kind,length,request_id,source,src_port,time,type", keysOf(event));
    EXPECT_EQ("\"sender\"", event.at("source"));
    EXPECT_EQ("\"inbox\"", event.at("channel"));
    EXPECT_EQ("\"back\"", event.at("callback"));
    EXPECT_EQ("3", event.at("type"));
    EXPECT_EQ("11", event.at("request_id"));
    EXPECT_EQ("5", event.at("length"));
    EXPECT_EQ("\"one\\n\\u00ff\"", event.at("data"));
    EXPECT_EQ(senderPort, event.at("src_port"));
    EXPECT_EQ(std::to_string(inbox.port()), event.at("dst_port"));
    EXPECT_GT(std::stod(event.at("time")), 1.5e9);
}

TEST_F(CliMonitorTest, TextLineEscapesDataAsListenDoes)
{
    START_MONITOR({});
    CommsChannel inbox("inbox");
    ASSERT_TRUE(registered("inbox"));
    std::string senderPort;
    const std::unique_ptr<cctest::ChildProcess> sender = sendFromChild("inbox", "a\x01z", &senderPort);
    const std::string expected = " data " + senderPort + "->" + std::to_string(inbox.port()) +
                                 " source=sender channel=inbox callback= type=0 request_id=0 length=3 data=\"a\\x01z\"";
    ASSERT_TRUE(cctest::waitUntil([&] { return monitor->out().find(expected + "\n") != std::string::npos; },
                                  RUN_TIMEOUT_MS))
        << monitor->out();
}

TEST_F(CliMonitorTest, LargeDataIsShownAsSpoolAndStillReachesItsReceiver)
{
    START_MONITOR({"-j"});
    CommsChannel inbox("inbox");
    ASSERT_TRUE(registered("inbox"));
    const std::string large(70000, 'L');
    const std::unique_ptr<cctest::ChildProcess> sender = sendFromChild("inbox", "L", nullptr, 70000);

    const Json event = waitForKind("spool");
    ASSERT_FALSE(event.empty()) << monitor->out();
    EXPECT_EQ("70000", event.at("length"));
    EXPECT_EQ(0u, jsonText(event.at("spool_path")).find("/tmp/commschannel-spool-0/cc-")) << event.at("spool_path");
    EXPECT_EQ(0u, event.count("data"));
    CommsChannelDataContainerMessage received;
    ASSERT_EQ(1, inbox.receiveMsg_ByID_Timed(received, 0, RUN_TIMEOUT_MS));
    EXPECT_EQ(large, received.getData());
}

TEST_F(CliMonitorTest, ResolverTrafficOfASendIsDecoded)
{
    START_MONITOR({"-j"});
    CommsChannel inbox("inbox");
    ASSERT_TRUE(registered("inbox"));
    CliRun send({"send", "inbox", "x"});
    ASSERT_EQ(0, send.wait()) << send.err();
    const std::string inboxPort = std::to_string(inbox.port());

    const Json request = waitForKind("port_request", "name", "\"inbox\"");
    EXPECT_EQ("dst_port,kind,name,request_id,src_port,time", keysOf(request)) << monitor->out();
    Json response = waitForKind("port_response", "port", inboxPort);
    EXPECT_EQ("dst_port,kind,name,port,request_id,src_port,time", keysOf(response)) << monitor->out();
    EXPECT_EQ("\"inbox\"", response["name"]);
    // The send's locator registers, and withdraws when the program ends.
    Json withdrawal = waitForKind("unregister");
    ASSERT_FALSE(withdrawal.empty()) << monitor->out();
    EXPECT_EQ("dst_port,kind,port,src_port,time", keysOf(withdrawal)) << monitor->out();
    EXPECT_EQ(withdrawal["src_port"], withdrawal["port"]);
    EXPECT_EQ("5000", withdrawal["dst_port"]);
    const Json registration = waitForKind("register", "port", withdrawal["port"]);
    EXPECT_EQ("dst_port,kind,port,src_port,time", keysOf(registration)) << monitor->out();
    const Json update = waitForEvent([](const Json& event) {
        return event.count("rows") && event.at("rows").find("\"name\":\"commschannel-send-") != std::string::npos;
    });
    ASSERT_FALSE(update.empty()) << monitor->out();
    EXPECT_EQ("\"update\"", update.at("kind"));
    EXPECT_EQ(0u, update.at("rows").find("[{\"change\":\"added\",\"name\":\"commschannel-send-")) << update.at("rows");
}

TEST_F(CliMonitorTest, ANewChannelShowsTheReceiversStatusUpdate)
{
    START_MONITOR({"-j"});
    cctest::ChildProcess holder("monitoredHolder", {"holder"});
    std::string port;
    ASSERT_TRUE(holder.waitForPrefix("READY ", &port, RUN_TIMEOUT_MS));
    const Json status = waitForKind("status");
    ASSERT_FALSE(status.empty()) << monitor->out();
    EXPECT_EQ(status.at("src_port"), status.at("dst_port"));
    EXPECT_EQ("4", status.at("length"));
    EXPECT_EQ(0u, status.count("reason"));
}

TEST_F(CliMonitorTest, DatagramsThatEndAReceiverAreUndecodableWithTheReason)
{
    cctest::ChildProcess victim("monitoredHolder", {"victim"});
    std::string port;
    ASSERT_TRUE(victim.waitForPrefix("READY ", &port, RUN_TIMEOUT_MS));
    ASSERT_TRUE(registered("victim"));
    START_MONITOR({"-j", "victim"});
    cctest::UdpSocket stranger;
    ASSERT_EQ(3, stranger.sendTo(std::stoi(port), std::string("abc")));

    const Json event = waitForKind("undecodable");
    ASSERT_FALSE(event.empty()) << monitor->out();
    EXPECT_EQ("\"victim\"", event.at("channel"));
    EXPECT_EQ("3", event.at("length"));
    EXPECT_EQ("\"abc\"", event.at("data"));
    EXPECT_NE(std::string::npos, event.at("reason").find("shorter than the 8-byte header")) << event.at("reason");
    EXPECT_NE(std::string::npos, event.at("reason").find("ends the receiving")) << event.at("reason");
}

TEST_F(CliMonitorTest, AHeaderLengthBelowEightIsUndecodable)
{
    cctest::ChildProcess victim("monitoredHolder", {"victim"});
    std::string port;
    ASSERT_TRUE(victim.waitForPrefix("READY ", &port, RUN_TIMEOUT_MS));
    ASSERT_TRUE(registered("victim"));
    START_MONITOR({"-j"});
    char header[8] = {'\xcc', '\x5e', 1, 1, 0, 0, 0, 0};
    const std::uint32_t four = 4;
    std::memcpy(header + 4, &four, sizeof four);
    cctest::UdpSocket stranger;
    ASSERT_EQ(8, stranger.sendTo(std::stoi(port), header, sizeof header));

    const Json event = waitForKind("undecodable");
    ASSERT_FALSE(event.empty()) << monitor->out();
    EXPECT_NE(std::string::npos, event.at("reason").find("header total length 4 below 8")) << event.at("reason");
}

TEST_F(CliMonitorTest, ASplitEncodingIsPrintedOnceJoinedWithItsPieces)
{
    START_MONITOR({"-j"});
    CommsChannel inbox("inbox");
    ASSERT_TRUE(registered("inbox"));
    CommsChannelDataContainerMessage message;
    message.setChannel("inbox");
    message.setSourceChannel("hand-made");
    const std::string data(70000, 'S');
    message.setData(data.data(), static_cast<int>(data.size()));
    int length = 0;
    const char* encoding = message.encode(&length);
    ASSERT_GT(length, 70000);
    cctest::UdpSocket sender;
    ASSERT_EQ(60000, sender.sendTo(inbox.port(), encoding, 60000));
    ASSERT_EQ(length - 60000, sender.sendTo(inbox.port(), encoding + 60000, static_cast<std::size_t>(length - 60000)));

    const Json event = waitForKind("data");
    ASSERT_FALSE(event.empty()) << monitor->out();
    EXPECT_EQ("2", event.at("pieces"));
    EXPECT_EQ("70000", event.at("length"));
    EXPECT_EQ("\"hand-made\"", event.at("source"));
    int dataLines = 0;
    for (const Json& printed : events()) {
        dataLines += printed.at("kind") == "\"data\"" ? 1 : 0;
    }
    EXPECT_EQ(1, dataLines) << monitor->out();
    CommsChannelDataContainerMessage received;
    ASSERT_EQ(1, inbox.receiveMsg_ByID_Timed(received, 0, RUN_TIMEOUT_MS));
    EXPECT_EQ(data, received.getData());
}

TEST_F(CliMonitorTest, NamesLimitTheOutputToTheirMessagesAndResolverTraffic)
{
    CommsChannel alpha("alpha");
    CommsChannel beta("beta");
    ASSERT_TRUE(registered("alpha") && registered("beta"));
    START_MONITOR({"-j", "alpha"});
    sendFromChild("beta", "for beta", nullptr);
    CliRun askBeta({"send", "beta", "b"});
    ASSERT_EQ(0, askBeta.wait());
    CliRun askAlpha({"send", "alpha", "a"});
    ASSERT_EQ(0, askAlpha.wait());
    sendFromChild("alpha", "for alpha", nullptr);

    ASSERT_FALSE(waitForKind("data", "data", "\"for alpha\"").empty()) << monitor->out();
    EXPECT_FALSE(waitForKind("port_request", "name", "\"alpha\"").empty()) << monitor->out();
    for (const Json& event : events()) {
        const std::string line = keysOf(event) + " " + (event.count("kind") ? event.at("kind") : "");
        EXPECT_TRUE(event.count("channel") == 0 || event.at("channel") == "\"alpha\"") << line;
        EXPECT_TRUE(event.count("name") == 0 || event.at("name") == "\"alpha\"") << line;
        EXPECT_NE("\"register\"", event.at("kind"));
        EXPECT_NE("\"status\"", event.at("kind"));
    }
}

TEST_F(CliMonitorTest, CountEndsTheMonitorWithZero)
{
    CommsChannel inbox("inbox");
    ASSERT_TRUE(registered("inbox"));
    START_MONITOR({"-n", "3"});
    for (const char* data : {"one", "two", "three"}) {
        sendFromChild("inbox", data, nullptr);
    }
    ASSERT_EQ(0, monitor->wait()) << monitor->err();
    EXPECT_EQ(3u, linesOf(monitor->out()).size()) << monitor->out();
}

// A classic pcap file as the monitor writes it, in this host's byte order.
struct PcapFile {
    std::uint32_t magic = 0, snapLength = 0, linkType = 0;
    std::uint16_t versionMajor = 0, versionMinor = 0;
    std::vector<std::string> packets;  // each record's bytes
    bool whole = false;                // every record complete, nothing left over
};

std::uint32_t u32At(const std::string& bytes, std::size_t at)
{
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

PcapFile readPcap(const std::string& bytes)
{
    PcapFile file;
    if (bytes.size() < 24) {
        return file;
    }
    file.magic = u32At(bytes, 0);
    std::memcpy(&file.versionMajor, bytes.data() + 4, 2);
    std::memcpy(&file.versionMinor, bytes.data() + 6, 2);
    file.snapLength = u32At(bytes, 16);
    file.linkType = u32At(bytes, 20);
    std::size_t at = 24;
    while (at + 16 <= bytes.size()) {
        const std::uint32_t captured = u32At(bytes, at + 8);
        if (captured != u32At(bytes, at + 12) || at + 16 + captured > bytes.size()) {
            return file;
        }
        file.packets.push_back(bytes.substr(at + 16, captured));
        at += 16 + captured;
    }
    file.whole = at == bytes.size();
    return file;
}

void expectRawIpv4Udp(const PcapFile& file)
{
    EXPECT_EQ(0xa1b2c3d4u, file.magic);
    EXPECT_EQ(2, file.versionMajor);
    EXPECT_EQ(4, file.versionMinor);
    EXPECT_EQ(65535u, file.snapLength);
    EXPECT_EQ(101u, file.linkType);
    EXPECT_TRUE(file.whole);
    for (const std::string& packet : file.packets) {
        ASSERT_GE(packet.size(), 28u);
        EXPECT_EQ(0x45, static_cast<unsigned char>(packet[0]));
        EXPECT_EQ(17, static_cast<unsigned char>(packet[9]));  // UDP
    }
}

// "srcport dstport" of each packet as tshark reads the file; "" when tshark
// is not installed.
std::string tsharkPorts(const std::string& path)
{
    if (std::system("command -v tshark >/dev/null 2>&1") != 0) {
        return std::string();
    }
    const std::string out = path + ".tshark";
    const std::string command = "tshark -r " + path + " -T fields -e udp.srcport -e udp.dstport >" + out + " 2>/dev/null";
    EXPECT_EQ(0, std::system(command.c_str()));
    const std::string text = cctest::readFile(out);
    unlink(out.c_str());
    return text;
}

TEST_F(CliMonitorTest, PcapFileHoldsTheShownDatagramsAndEndsWholeOnSigterm)
{
    const std::string path = "/tmp/commschannel-monitor-" + std::to_string(getpid()) + ".pcap";
    CommsChannel inbox("inbox");
    ASSERT_TRUE(registered("inbox"));
    START_MONITOR({"-j", "--pcap", path, "inbox"});
    const std::string large(70000, 'L');
    sendFromChild("inbox", "small", nullptr);
    CommsChannelDataContainerMessage split;
    split.setChannel("inbox");
    split.setData(large.data(), static_cast<int>(large.size()));
    int length = 0;
    const char* encoding = split.encode(&length);
    cctest::UdpSocket stranger;
    stranger.sendTo(inbox.port(), encoding, 60000);
    stranger.sendTo(inbox.port(), encoding + 60000, static_cast<std::size_t>(length - 60000));
    ASSERT_FALSE(waitForKind("data", "pieces", "2").empty()) << monitor->out();
    monitor->signal(SIGTERM);
    ASSERT_EQ(0, monitor->wait());

    const PcapFile file = readPcap(cctest::readFile(path));
    expectRawIpv4Udp(file);
    // One record per datagram: the split encoding's two pieces apart.
    EXPECT_EQ(events().size() + 1, file.packets.size());
    const std::string ports = tsharkPorts(path);
    if (!ports.empty()) {
        EXPECT_EQ(file.packets.size(), linesOf(ports).size()) << ports;
        EXPECT_NE(std::string::npos, ports.find(std::to_string(stranger.port()) + "\t" +
                                                std::to_string(inbox.port()))) << ports;
    }
    unlink(path.c_str());
}

TEST_F(CliMonitorTest, PcapOnStandardOutputCarriesNothingElse)
{
    CommsChannel inbox("inbox");
    ASSERT_TRUE(registered("inbox"));
    START_MONITOR({"--pcap", "-", "-n", "1", "inbox"});
    sendFromChild("inbox", "to the file", nullptr);
    ASSERT_EQ(0, monitor->wait()) << monitor->err();
    const PcapFile file = readPcap(monitor->out());
    expectRawIpv4Udp(file);
    ASSERT_EQ(1u, file.packets.size());
    EXPECT_NE(std::string::npos, file.packets[0].find("inbox"));
}

TEST_F(CliMonitorTest, SigtermEndsTheMonitorWithZero)
{
    START_MONITOR({});
    monitor->signal(SIGTERM);
    EXPECT_EQ(0, monitor->wait());
    EXPECT_EQ("listening on lo\n", monitor->err());
}

TEST_F(CliMonitorTest, AnotherUserIsRefusedWithOneLine)
{
    const std::string errFile = "/tmp/commschannel-monitor-refusal-" + std::to_string(getpid());
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::FILE* err = std::fopen(errFile.c_str(), "w");
        if (err == nullptr || !cctest::becomeUser("65534", "65534")) {
            _exit(99);
        }
        dup2(fileno(err), 2);
        _exit(cctest::waitForPid(cctest::spawnProgram({COMMSCHANNEL_CLI_PATH, "monitor"}), RUN_TIMEOUT_MS));
    }
    const int status = cctest::waitForPid(child, RUN_TIMEOUT_MS);
    const std::string err = cctest::readFile(errFile);
    unlink(errFile.c_str());
    if (status == 99) {
        GTEST_SKIP() << "cannot become nobody here";
    }
    EXPECT_EQ(1, status);
    EXPECT_EQ("commschannel monitor: must run as root (capturing on the loopback interface needs it)\n", err);
}

}  // namespace
