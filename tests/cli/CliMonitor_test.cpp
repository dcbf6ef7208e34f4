// commschannel monitor end to end: the real program capturing on this
// test's private loopback while real channels, the real resolver and hand-
// made datagrams cross it. Each kind of output, the name filter, -n and -j.
#include "MonitorFixture.h"

namespace {

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

}  // namespace
