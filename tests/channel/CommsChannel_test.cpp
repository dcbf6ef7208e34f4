// Construction, socket set-up, shutdown and destruction of a channel.
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "Inspectors.h"
#include "TestUtil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

namespace {

TEST(CommsChannel, PortIsTheOneTheKernelReportsForItsSocket)
{
    CommsChannel sut("");
    sockaddr_in address;
    socklen_t length = sizeof address;
    ASSERT_EQ(0, getsockname(sut.socketHandle(), reinterpret_cast<sockaddr*>(&address), &length));
    EXPECT_EQ(ntohs(address.sin_port), sut.port());
    EXPECT_EQ(htonl(INADDR_LOOPBACK), address.sin_addr.s_addr);
}

TEST(CommsChannel, DatagramSentToItsPortArrivesOnItsSocket)
{
    CommsChannel sut("");
    CommsChannelDataContainerMessage message;
    message.setData("abc", 3);
    int length = 0;
    const char* encoding = message.encode(&length);
    ASSERT_NE(nullptr, encoding);
    cctest::UdpSocket peer;
    ASSERT_EQ(length, peer.sendTo(sut.port(), encoding, static_cast<std::size_t>(length)));
    std::string data;
    ASSERT_EQ(1, sut.receiveMsg(data));
    EXPECT_EQ("abc", data);
}

}  // namespace
