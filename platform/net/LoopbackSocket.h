// LoopbackSocket: owns one UDP socket bound to 127.0.0.1, the only kind of
// socket the library, the resolver and the tools use. Move-only; the
// descriptor is closed when the owning object is destroyed, unless release()
// handed it on. One object is used by one thread at a time; sendTo() is
// const and may run on several threads at once, as sendto(2) may.
//
// This is the one place that calls socket(), bind() and setsockopt() and
// fills a sockaddr_in for the loopback address. Callers that report which
// step failed, each with its own fixed perror text, open through the
// SocketStep form:
//
//     SocketStep failed = SocketStep::None;
//     LoopbackSocket socket = LoopbackSocket::open(0, &failed);
//     if (!socket.valid()) {
//         perror(failed == SocketStep::Create ? "Error creating socket" : ...);
//     }
#ifndef COMMSCHANNEL_LOOPBACK_SOCKET_H
#define COMMSCHANNEL_LOOPBACK_SOCKET_H

#include <netinet/in.h>
#include <sys/types.h>

#include <cstddef>

// The step of LoopbackSocket::open that failed; None when none did.
enum class SocketStep { None, Create, Bind, Name };

class LoopbackSocket {
public:
    // No socket: fd() is -1 and port() 0.
    LoopbackSocket();
    // Takes ownership of fd, a UDP socket bound to 127.0.0.1:port (port in
    // host byte order). fd -1 makes an empty object.
    LoopbackSocket(int fd, int port);
    // Takes ownership of fd and asks the system for its port (0 when it
    // cannot tell).
    static LoopbackSocket adopt(int fd);

    // Opens a UDP socket (close-on-exec, plus extraTypeFlags such as
    // SOCK_NONBLOCK) and binds it to 127.0.0.1:port, 0 letting the kernel
    // choose; then reads back the port. On failure returns an empty object,
    // stores the failed step through failedStep and leaves errno as the
    // failing call set it, so the caller may perror() at once. failedStep
    // may be null; it is set to None on success.
    static LoopbackSocket open(int port, SocketStep* failedStep, int extraTypeFlags = 0);
    // The same, also telling through descriptorTried the number socket()
    // gave (-1 when it failed), which a failed bind or getsockname has
    // closed again by the time this returns.
    static LoopbackSocket open(int port, SocketStep* failedStep, int extraTypeFlags, int* descriptorTried);
    // The same, for callers that only want the error: *err gets errno on
    // failure and 0 on success (err may be null).
    static LoopbackSocket open(int port, int* err);

    ~LoopbackSocket();
    LoopbackSocket(LoopbackSocket&& other) noexcept;
    LoopbackSocket& operator=(LoopbackSocket&& other) noexcept;
    LoopbackSocket(const LoopbackSocket&) = delete;
    LoopbackSocket& operator=(const LoopbackSocket&) = delete;

    int fd() const { return m_fd; }
    // The bound port in host byte order, 0 when there is no socket.
    int port() const { return m_port; }
    bool valid() const { return m_fd >= 0; }

    // Gives up ownership: returns the descriptor (or -1), which the caller
    // must close, and leaves this object empty.
    int release();
    // Closes the socket now. Harmless when there is none.
    void close();

    // Asks for send and receive buffers of bytes each. Both are attempted
    // even when the first is refused; true when both were accepted. The
    // kernel may grant less than asked (its limits), which counts as
    // accepted.
    bool setBuffers(int bytes);

    // Sends one datagram to 127.0.0.1:port (host byte order). Returns the
    // bytes sent, or -1 with errno set. Blocks only while the socket's send
    // buffer is full, unless the socket is non-blocking. An interrupted
    // send is retried a few times here.
    ssize_t sendTo(int port, const void* data, std::size_t length) const;

private:
    int m_fd;
    int m_port;
};

// 127.0.0.1 at port: port in host byte order in, everything in network byte
// order in the result.
sockaddr_in loopbackAddress(int port);

#endif
