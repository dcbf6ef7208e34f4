// LoopbackSocket: opening on a chosen or kernel-chosen port, which step of
// opening failed, ownership (move, release, close, adopt) and sending.
#include "LoopbackSocket.h"

#include "TestUtil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace {

bool descriptorOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

class LoopbackSocketTest : public ::testing::Test {
protected:
    // A port that nothing is bound to right now.
    int freePort()
    {
        LoopbackSocket probe = LoopbackSocket::open(0, static_cast<int*>(nullptr));
        return probe.port();
    }
};

TEST_F(LoopbackSocketTest, DefaultObjectHoldsNoSocket)
{
    LoopbackSocket sut;
    EXPECT_FALSE(sut.valid());
    EXPECT_EQ(-1, sut.fd());
    EXPECT_EQ(0, sut.port());
}

TEST_F(LoopbackSocketTest, PortZeroGetsAKernelChosenPort)
{
    int err = -1;
    LoopbackSocket sut = LoopbackSocket::open(0, &err);
    ASSERT_TRUE(sut.valid());
    EXPECT_EQ(0, err);
    EXPECT_GT(sut.port(), 0);
}

TEST_F(LoopbackSocketTest, ChosenPortIsBoundOnLoopback)
{
    const int port = freePort();
    SocketStep step = SocketStep::Create;
    LoopbackSocket sut = LoopbackSocket::open(port, &step);
    ASSERT_TRUE(sut.valid());
    EXPECT_EQ(SocketStep::None, step);
    EXPECT_EQ(port, sut.port());
    sockaddr_in address;
    socklen_t length = sizeof address;
    ASSERT_EQ(0, getsockname(sut.fd(), reinterpret_cast<sockaddr*>(&address), &length));
    EXPECT_EQ(htonl(INADDR_LOOPBACK), address.sin_addr.s_addr);
}

TEST_F(LoopbackSocketTest, DescriptorIsClosedOnExec)
{
    LoopbackSocket sut = LoopbackSocket::open(0, static_cast<int*>(nullptr));
    ASSERT_TRUE(sut.valid());
    EXPECT_NE(0, fcntl(sut.fd(), F_GETFD) & FD_CLOEXEC);
}

TEST_F(LoopbackSocketTest, TakenPortFailsAtBindWithErrnoKept)
{
    LoopbackSocket holder = LoopbackSocket::open(0, static_cast<int*>(nullptr));
    ASSERT_TRUE(holder.valid());
    SocketStep step = SocketStep::None;
    errno = 0;
    LoopbackSocket sut = LoopbackSocket::open(holder.port(), &step);
    EXPECT_EQ(EADDRINUSE, errno);
    EXPECT_FALSE(sut.valid());
    EXPECT_EQ(SocketStep::Bind, step);
}

TEST_F(LoopbackSocketTest, TakenPortReportsTheErrorNumber)
{
    LoopbackSocket holder = LoopbackSocket::open(0, static_cast<int*>(nullptr));
    int err = 0;
    LoopbackSocket sut = LoopbackSocket::open(holder.port(), &err);
    EXPECT_FALSE(sut.valid());
    EXPECT_EQ(EADDRINUSE, err);
}

TEST_F(LoopbackSocketTest, MoveHandsTheSocketOver)
{
    LoopbackSocket first = LoopbackSocket::open(0, static_cast<int*>(nullptr));
    const int fd = first.fd();
    const int port = first.port();
    LoopbackSocket sut(std::move(first));
    EXPECT_EQ(fd, sut.fd());
    EXPECT_EQ(port, sut.port());
    EXPECT_FALSE(first.valid());
    LoopbackSocket other;
    other = std::move(sut);
    EXPECT_EQ(fd, other.fd());
    EXPECT_FALSE(sut.valid());
}

TEST_F(LoopbackSocketTest, MoveAssignmentClosesTheSocketItReplaces)
{
    LoopbackSocket sut = LoopbackSocket::open(0, static_cast<int*>(nullptr));
    const int replaced = sut.fd();
    sut = LoopbackSocket::open(0, static_cast<int*>(nullptr));
    EXPECT_TRUE(sut.valid());
    if (sut.fd() != replaced) {
        EXPECT_FALSE(descriptorOpen(replaced));
    }
}

TEST_F(LoopbackSocketTest, DestructionClosesTheDescriptor)
{
    int fd = -1;
    {
        LoopbackSocket sut = LoopbackSocket::open(0, static_cast<int*>(nullptr));
        fd = sut.fd();
        ASSERT_TRUE(descriptorOpen(fd));
    }
    EXPECT_FALSE(descriptorOpen(fd));
}

TEST_F(LoopbackSocketTest, ReleasedDescriptorStaysOpen)
{
    int fd = -1;
    {
        LoopbackSocket sut = LoopbackSocket::open(0, static_cast<int*>(nullptr));
        fd = sut.release();
        EXPECT_FALSE(sut.valid());
        EXPECT_EQ(0, sut.port());
    }
    EXPECT_TRUE(descriptorOpen(fd));
    ::close(fd);
}

TEST_F(LoopbackSocketTest, CloseIsIdempotent)
{
    LoopbackSocket sut = LoopbackSocket::open(0, static_cast<int*>(nullptr));
    const int fd = sut.fd();
    sut.close();
    sut.close();
    EXPECT_FALSE(sut.valid());
    EXPECT_FALSE(descriptorOpen(fd));
}

TEST_F(LoopbackSocketTest, AdoptLearnsThePortOfTheDescriptor)
{
    LoopbackSocket original = LoopbackSocket::open(0, static_cast<int*>(nullptr));
    const int port = original.port();
    LoopbackSocket sut = LoopbackSocket::adopt(original.release());
    EXPECT_TRUE(sut.valid());
    EXPECT_EQ(port, sut.port());
}

TEST_F(LoopbackSocketTest, AdoptingNoDescriptorGivesAnEmptySocket)
{
    LoopbackSocket sut = LoopbackSocket::adopt(-1);
    EXPECT_FALSE(sut.valid());
    EXPECT_EQ(0, sut.port());
}

TEST_F(LoopbackSocketTest, SetBuffersIsAccepted)
{
    LoopbackSocket sut = LoopbackSocket::open(0, static_cast<int*>(nullptr));
    EXPECT_TRUE(sut.setBuffers(256 * 1024));
}

TEST_F(LoopbackSocketTest, SetBuffersWithoutSocketFails)
{
    LoopbackSocket sut;
    EXPECT_FALSE(sut.setBuffers(256 * 1024));
}

TEST_F(LoopbackSocketTest, SendToDeliversOneDatagramFromTheBoundPort)
{
    cctest::UdpSocket receiver;
    ASSERT_TRUE(receiver.ok());
    LoopbackSocket sut = LoopbackSocket::open(0, static_cast<int*>(nullptr));
    ASSERT_EQ(5, sut.sendTo(receiver.port(), "hello", 5));
    std::string bytes;
    int source = 0;
    ASSERT_TRUE(receiver.receive(bytes, 5000, &source));
    EXPECT_EQ("hello", bytes);
    EXPECT_EQ(sut.port(), source);
}

TEST_F(LoopbackSocketTest, SendToWithoutSocketFailsWithBadDescriptor)
{
    LoopbackSocket sut;
    errno = 0;
    EXPECT_EQ(-1, sut.sendTo(9, "x", 1));
    EXPECT_EQ(EBADF, errno);
}

TEST_F(LoopbackSocketTest, LoopbackAddressIsInNetworkByteOrder)
{
    const sockaddr_in sut = loopbackAddress(5001);
    EXPECT_EQ(AF_INET, sut.sin_family);
    EXPECT_EQ(htonl(INADDR_LOOPBACK), sut.sin_addr.s_addr);
    EXPECT_EQ(htons(5001), sut.sin_port);
}

}  // namespace
