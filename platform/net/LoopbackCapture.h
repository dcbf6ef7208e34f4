// LoopbackCapture: owns one packet socket (AF_PACKET) bound to the loopback
// interface "lo", through which a watching tool sees a copy of every IPv4
// packet that crosses it. Each packet is delivered once: the kernel shows a
// loopback packet both as it leaves and as it arrives, and the leaving copy
// is skipped. Opening it needs root (CAP_NET_RAW).
//
// Move-only; the descriptor is closed when the owning object is destroyed.
// One object is used by one thread at a time. The socket is non-blocking:
// wait for fd() to become readable (poll) and then call receive() until it
// answers 0.
//
// Like LoopbackSocket, this is one of the places that call socket(): the
// tools never open sockets themselves.
#ifndef COMMSCHANNEL_LOOPBACK_CAPTURE_H
#define COMMSCHANNEL_LOOPBACK_CAPTURE_H

#include <sys/time.h>

#include <cstddef>
#include <vector>

// One captured packet: the whole IPv4 packet (IP header first) and the time
// at which the kernel saw it.
struct CapturedPacket {
    timeval time;
    std::vector<char> ip;
};

// The UDP datagram inside an IPv4 packet; payload points into the packet.
struct UdpDatagram {
    int sourcePort = 0;       // host byte order
    int destinationPort = 0;  // host byte order
    const char* payload = nullptr;
    std::size_t length = 0;
};

// True when the bytes are an unfragmented IPv4 packet carrying UDP whose
// headers are whole; *datagram then describes its payload. Pure function.
bool udpInIpv4(const std::vector<char>& ip, UdpDatagram* datagram);

class LoopbackCapture {
public:
    // No socket: valid() is false.
    LoopbackCapture();
    // Opens the packet socket on "lo", asks for a large receive buffer and
    // for kernel receive times. On failure returns an empty object with
    // *err set to the errno of the failed step (err may be null).
    static LoopbackCapture open(int* err);

    ~LoopbackCapture();
    LoopbackCapture(LoopbackCapture&& other) noexcept;
    LoopbackCapture& operator=(LoopbackCapture&& other) noexcept;
    LoopbackCapture(const LoopbackCapture&) = delete;
    LoopbackCapture& operator=(const LoopbackCapture&) = delete;

    bool valid() const { return m_fd >= 0; }
    int fd() const { return m_fd; }

    // Takes the next waiting packet into *packet without blocking. Returns
    // 1 with a packet, 0 when none waits, -1 on an error (errno set).
    int receive(CapturedPacket* packet);
    // Throws away every packet waiting now.
    void drain();

private:
    explicit LoopbackCapture(int fd);
    int m_fd;
};

#endif
