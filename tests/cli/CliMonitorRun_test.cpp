// commschannel monitor end to end: its capture file, written to a file and
// to standard output and read back (by tshark too when installed), its end
// on SIGTERM and its refusal to run for another user.
#include "MonitorFixture.h"

#include <sys/wait.h>

#include <cstdlib>

namespace {

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
