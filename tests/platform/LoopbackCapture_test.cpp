// LoopbackCapture on this test's private loopback (the test runs as root in
// a network namespace of its own): each datagram seen once, with its ports
// and payload; and the reading of IPv4/UDP headers.
#include "LoopbackCapture.h"
#include "LoopbackSocket.h"

#include <gtest/gtest.h>

#include <poll.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace {

// Waits up to timeoutMs for a packet; false when none came.
bool nextPacket(LoopbackCapture& capture, CapturedPacket* packet, int timeoutMs)
{
    pollfd readable{capture.fd(), POLLIN, 0};
    return poll(&readable, 1, timeoutMs) == 1 && capture.receive(packet) == 1;
}

TEST(LoopbackCaptureTest, SeesEachLoopbackDatagramOnceWithPortsAndPayload)
{
    int err = 0;
    LoopbackCapture capture = LoopbackCapture::open(&err);
    if (!capture.valid() && (err == EAFNOSUPPORT || err == EINVAL || err == ENOSYS)) {
        GTEST_SKIP() << "no packet sockets here (user-mode emulation?): " << std::strerror(err);
    }
    ASSERT_TRUE(capture.valid()) << std::strerror(err);
    capture.drain();
    LoopbackSocket sender = LoopbackSocket::open(0, &err);
    LoopbackSocket receiver = LoopbackSocket::open(0, &err);
    ASSERT_TRUE(sender.valid() && receiver.valid());
    ASSERT_EQ(5, sender.sendTo(receiver.port(), "hello", 5));

    CapturedPacket packet;
    ASSERT_TRUE(nextPacket(capture, &packet, 5000));
    UdpDatagram datagram;
    ASSERT_TRUE(udpInIpv4(packet.ip, &datagram));
    EXPECT_EQ(sender.port(), datagram.sourcePort);
    EXPECT_EQ(receiver.port(), datagram.destinationPort);
    EXPECT_EQ("hello", std::string(datagram.payload, datagram.length));
    EXPECT_GT(packet.time.tv_sec, 0);
    // The copy of the leaving packet is not delivered a second time.
    EXPECT_FALSE(nextPacket(capture, &packet, 200));
}

TEST(LoopbackCaptureTest, OnlyWholeUdpPacketsAreRead)
{
    // 20-byte IPv4 header (UDP, total 31), 8-byte UDP header, "abc".
    std::vector<char> ip{0x45, 0, 0, 31, 0, 0, 0, 0, 64, 17, 0, 0, 127, 0, 0, 1, 127, 0, 0, 1,
                         0x13, (char)0x88, 0x10, 0x00, 0, 11, 0, 0, 'a', 'b', 'c'};
    UdpDatagram datagram;
    ASSERT_TRUE(udpInIpv4(ip, &datagram));
    EXPECT_EQ(5000, datagram.sourcePort);
    EXPECT_EQ(4096, datagram.destinationPort);
    EXPECT_EQ(3u, datagram.length);

    std::vector<char> fragment = ip;
    fragment[6] = 0x20;  // more fragments follow
    EXPECT_FALSE(udpInIpv4(fragment, &datagram));
    std::vector<char> tcp = ip;
    tcp[9] = 6;
    EXPECT_FALSE(udpInIpv4(tcp, &datagram));
    std::vector<char> cut(ip.begin(), ip.begin() + 25);
    EXPECT_FALSE(udpInIpv4(cut, &datagram));
}

}  // namespace
