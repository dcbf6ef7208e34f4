#include "LoopbackCapture.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#ifndef PACKET_IGNORE_OUTGOING
#define PACKET_IGNORE_OUTGOING 23
#endif

namespace {

// The largest IPv4 packet, which loopback's 64 KiB MTU lets through whole.
const std::size_t MAX_PACKET = 65535;
// Room for bursts: a busy loopback moves many datagrams between two reads.
const int RECEIVE_BUFFER_BYTES = 32 << 20;

int failWith(int fd, int* err)
{
    if (err != nullptr) {
        *err = errno;
    }
    if (fd >= 0) {
        ::close(fd);
    }
    return -1;
}

// The packet socket, bound to lo, or -1 with *err set.
int openBound(int* err)
{
    const int fd = ::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETH_P_IP));
    if (fd < 0) {
        return failWith(-1, err);
    }
    const unsigned int index = if_nametoindex("lo");
    if (index == 0) {
        return failWith(fd, err);
    }
    sockaddr_ll address;
    std::memset(&address, 0, sizeof address);
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_IP);
    address.sll_ifindex = static_cast<int>(index);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return failWith(fd, err);
    }
    return fd;
}

// Options that only make the capture cheaper or better; failing them is
// harmless (older kernels lack PACKET_IGNORE_OUTGOING, and receive() then
// skips the leaving copies itself).
void tune(int fd)
{
    const int on = 1;
    setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_TIMESTAMP, &on, sizeof on);
    const int bytes = RECEIVE_BUFFER_BYTES;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }
}

// The receive time from the control data, or the time now.
timeval receiveTime(msghdr* header)
{
    for (cmsghdr* control = CMSG_FIRSTHDR(header); control != nullptr; control = CMSG_NXTHDR(header, control)) {
        if (control->cmsg_level == SOL_SOCKET && control->cmsg_type == SCM_TIMESTAMP) {
            timeval time;
            std::memcpy(&time, CMSG_DATA(control), sizeof time);
            return time;
        }
    }
    timeval now;
    gettimeofday(&now, nullptr);
    return now;
}

std::uint16_t read16(const unsigned char* bytes) { return static_cast<std::uint16_t>((bytes[0] << 8) | bytes[1]); }

}  // namespace

bool udpInIpv4(const std::vector<char>& ip, UdpDatagram* datagram)
{
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(ip.data());
    if (ip.size() < 20 || (bytes[0] >> 4) != 4 || bytes[9] != IPPROTO_UDP) {
        return false;
    }
    const std::size_t headerLength = static_cast<std::size_t>(bytes[0] & 0x0f) * 4;
    const std::size_t total = read16(bytes + 2);
    // More fragments, or a fragment offset: not a whole datagram.
    const bool fragment = (read16(bytes + 6) & 0x3fff) != 0;
    if (fragment || headerLength < 20 || total > ip.size() || total < headerLength + 8) {
        return false;
    }
    const unsigned char* udp = bytes + headerLength;
    const std::size_t udpLength = read16(udp + 4);
    if (udpLength < 8 || headerLength + udpLength > total) {
        return false;
    }
    datagram->sourcePort = read16(udp);
    datagram->destinationPort = read16(udp + 2);
    datagram->payload = ip.data() + headerLength + 8;
    datagram->length = udpLength - 8;
    return true;
}

LoopbackCapture::LoopbackCapture() : m_fd(-1) {}

LoopbackCapture::LoopbackCapture(int fd) : m_fd(fd) {}

LoopbackCapture LoopbackCapture::open(int* err)
{
    const int fd = openBound(err);
    if (fd < 0) {
        return LoopbackCapture();
    }
    tune(fd);
    if (err != nullptr) {
        *err = 0;
    }
    return LoopbackCapture(fd);
}

LoopbackCapture::~LoopbackCapture()
{
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

LoopbackCapture::LoopbackCapture(LoopbackCapture&& other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }

LoopbackCapture& LoopbackCapture::operator=(LoopbackCapture&& other) noexcept
{
    if (this != &other) {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = other.m_fd;
        other.m_fd = -1;
    }
    return *this;
}

int LoopbackCapture::receive(CapturedPacket* packet)
{
    for (;;) {
        packet->ip.resize(MAX_PACKET);
        sockaddr_ll from;
        iovec vector{packet->ip.data(), packet->ip.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timeval))];
        msghdr header;
        std::memset(&header, 0, sizeof header);
        header.msg_name = &from;
        header.msg_namelen = sizeof from;
        header.msg_iov = &vector;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
        const ssize_t got = ::recvmsg(m_fd, &header, 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            packet->ip.clear();
            return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
        }
        if (from.sll_pkttype == PACKET_OUTGOING) {
            continue;
        }
        packet->ip.resize(static_cast<std::size_t>(got));
        packet->time = receiveTime(&header);
        return 1;
    }
}

void LoopbackCapture::drain()
{
    CapturedPacket packet;
    while (receive(&packet) == 1) {
    }
}
