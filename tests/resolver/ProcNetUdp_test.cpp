// Reading the kernel's UDP socket list: which ports count as reachable on
// 127.0.0.1, and lines that do not parse.
#include "ProcNetUdp.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

using resolver::UdpSocketEntry;

namespace {

const char HEADER[] = "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
                      "inode ref pointer drops\n";

// One line as the kernel prints it.
std::string line(const std::string& localAddress, const std::string& inode = "12345")
{
    return "  123: " + localAddress + " 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 " +
           inode + " 2 0000000000000000 0\n";
}

std::set<int> reachable(const std::string& text) { return resolver::loopbackPorts(resolver::parseProcNetUdp(text)); }

TEST(ProcNetUdpTest, PortAndInodeAreParsed)
{
    const std::vector<UdpSocketEntry> entries = resolver::parseProcNetUdp(HEADER + line("0100007F:1388", "98765"));
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(5000, entries[0].port);
    EXPECT_EQ(98765u, entries[0].inode);
    EXPECT_TRUE(entries[0].reachableOnLoopback);
}

TEST(ProcNetUdpTest, ReceiveQueueAndDropsAreParsed)
{
    const std::string text = "  7: 0100007F:A001 00000000:0000 07 00000000:0001F400 00:00000000 00000000     0        0 "
                             "4242 2 0000000000000000 317\n";
    const std::vector<UdpSocketEntry> entries = resolver::parseProcNetUdp(HEADER + text);
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(0x1F400, entries[0].rxQueueBytes);
    EXPECT_EQ(317, entries[0].drops);
}

TEST(ProcNetUdpTest, LineWithoutDropsColumnReportsThemUnknown)
{
    const std::string text = "  7: 0100007F:A001 00000000:0000 07 00000000:00000010 00:00000000 00000000     0        0 "
                             "4242\n";
    const std::vector<UdpSocketEntry> entries = resolver::parseProcNetUdp(text);
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(16, entries[0].rxQueueBytes);
    EXPECT_EQ(-1, entries[0].drops);
}

TEST(ProcNetUdpTest, InodeBeyondThirtyTwoBitsIsKept)
{
    const std::vector<UdpSocketEntry> entries =
        resolver::parseProcNetUdp(line("0100007F:1388", "8589934597"));
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(8589934597ULL, entries[0].inode);
}

TEST(ProcNetUdpTest, LoopbackInLittleEndianSpellingIsReachable)
{
    EXPECT_EQ(std::set<int>{0xA001}, reachable(line("0100007F:A001")));
}

TEST(ProcNetUdpTest, LoopbackInBigEndianSpellingIsReachable)
{
    EXPECT_EQ(std::set<int>{0xA001}, reachable(line("7F000001:A001")));
}

TEST(ProcNetUdpTest, WildcardAddressIsReachable) { EXPECT_EQ(std::set<int>{0x1234}, reachable(line("00000000:1234"))); }

TEST(ProcNetUdpTest, OtherAddressIsNotReachable)
{
    EXPECT_TRUE(reachable(line("0F02000A:1234") + line("0200007F:1235")).empty());
}

TEST(ProcNetUdpTest, Ipv6WildcardAndMappedLoopbackAreReachable)
{
    EXPECT_EQ((std::set<int>{1, 2, 3}), reachable(line("00000000000000000000000000000000:0001") +
                                                    line("0000000000000000FFFF00000100007F:0002") +
                                                    line("00000000000000000000FFFF7F000001:0003")));
}

TEST(ProcNetUdpTest, Ipv6LoopbackAndOtherMappedAddressesAreNotReachable)
{
    EXPECT_TRUE(reachable(line("00000000000000000000000001000000:0001") +
                          line("0000000000000000FFFF00000F02000A:0002"))
                    .empty());
}

TEST(ProcNetUdpTest, MalformedLinesAreSkipped)
{
    const std::string text = std::string(HEADER) + "\n" + "garbage\n" + line("0100007F") + line("0100007F:XYZ") +
                             line("01000G7F:1388") + line("0100007F:12345") + line("0100007F:1388", "12a") +
                             "  1: 0100007F:1388 00000000:0000 07\n" + line("0100007F:1389");
    const std::vector<UdpSocketEntry> entries = resolver::parseProcNetUdp(text);
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(0x1389, entries[0].port);
}

class ProcRootTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/cc-proc-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        root = pattern;
        ASSERT_EQ(0, mkdir((root + "/net").c_str(), 0700));
    }
    void TearDown() override
    {
        std::remove((root + "/net/udp").c_str());
        std::remove((root + "/net/udp6").c_str());
        rmdir((root + "/net").c_str());
        rmdir(root.c_str());
    }
    void write(const std::string& name, const std::string& text)
    {
        std::ofstream out((root + "/net/" + name).c_str());
        out << text;
    }
    std::string root;
};

TEST_F(ProcRootTest, BothFilesAreRead)
{
    write("udp", HEADER + line("0100007F:0001"));
    write("udp6", HEADER + line("00000000000000000000000000000000:0002"));
    std::vector<UdpSocketEntry> entries;
    ASSERT_TRUE(resolver::readUdpSockets(&entries, root));
    EXPECT_EQ((std::set<int>{1, 2}), resolver::loopbackPorts(entries));
}

TEST_F(ProcRootTest, MissingIpv6FileIsFine)
{
    write("udp", HEADER + line("0100007F:0001"));
    std::vector<UdpSocketEntry> entries;
    ASSERT_TRUE(resolver::readUdpSockets(&entries, root));
    EXPECT_EQ(std::set<int>{1}, resolver::loopbackPorts(entries));
}

TEST_F(ProcRootTest, MissingIpv4FileFails)
{
    write("udp6", HEADER);
    std::vector<UdpSocketEntry> entries;
    EXPECT_FALSE(resolver::readUdpSockets(&entries, root));
}

// The real file of this network namespace.
TEST(ProcNetUdpLiveTest, SocketBoundOnLoopbackIsListedUntilClosed)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), length));
    ASSERT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length));
    const int port = ntohs(address.sin_port);

    std::vector<UdpSocketEntry> entries;
    ASSERT_TRUE(resolver::readUdpSockets(&entries));
    EXPECT_EQ(1u, resolver::loopbackPorts(entries).count(port));
    close(fd);
    ASSERT_TRUE(resolver::readUdpSockets(&entries));
    EXPECT_EQ(0u, resolver::loopbackPorts(entries).count(port));
}

}  // namespace
