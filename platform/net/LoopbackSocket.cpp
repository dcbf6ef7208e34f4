#include "LoopbackSocket.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

// How often sendTo() retries a send that a signal interrupted before it
// gives up and reports EINTR.
const int EINTR_RETRIES = 5;

// The port a socket is bound to, in host byte order; 0 (with errno set)
// when the system cannot tell.
int boundPort(int fd)
{
    sockaddr_in address;
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    return ntohs(address.sin_port);
}

// Closes fd without disturbing errno, which the caller still has to report.
void closeKeepingErrno(int fd)
{
    const int saved = errno;
    ::close(fd);
    errno = saved;
}

}  // namespace

sockaddr_in loopbackAddress(int port)
{
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

LoopbackSocket::LoopbackSocket() : m_fd(-1), m_port(0) {}

LoopbackSocket::LoopbackSocket(int fd, int port) : m_fd(fd < 0 ? -1 : fd), m_port(fd < 0 ? 0 : port) {}

LoopbackSocket LoopbackSocket::adopt(int fd)
{
    return fd < 0 ? LoopbackSocket() : LoopbackSocket(fd, boundPort(fd));
}

LoopbackSocket LoopbackSocket::open(int port, SocketStep* failedStep, int extraTypeFlags)
{
    return open(port, failedStep, extraTypeFlags, nullptr);
}

LoopbackSocket LoopbackSocket::open(int port, SocketStep* failedStep, int extraTypeFlags, int* descriptorTried)
{
    SocketStep ignored;
    SocketStep& step = failedStep != nullptr ? *failedStep : ignored;
    step = SocketStep::Create;
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | extraTypeFlags, 0);
    if (descriptorTried != nullptr) {
        *descriptorTried = fd;
    }
    if (fd < 0) {
        return LoopbackSocket();
    }
    step = SocketStep::Bind;
    const sockaddr_in address = loopbackAddress(port);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        closeKeepingErrno(fd);
        return LoopbackSocket();
    }
    step = SocketStep::Name;
    const int bound = boundPort(fd);
    if (bound == 0) {
        closeKeepingErrno(fd);
        return LoopbackSocket();
    }
    step = SocketStep::None;
    return LoopbackSocket(fd, bound);
}

LoopbackSocket LoopbackSocket::open(int port, int* err)
{
    LoopbackSocket socket = open(port, static_cast<SocketStep*>(nullptr));
    if (err != nullptr) {
        *err = socket.valid() ? 0 : errno;
    }
    return socket;
}

LoopbackSocket::~LoopbackSocket() { close(); }

LoopbackSocket::LoopbackSocket(LoopbackSocket&& other) noexcept : m_fd(other.m_fd), m_port(other.m_port)
{
    other.m_fd = -1;
    other.m_port = 0;
}

LoopbackSocket& LoopbackSocket::operator=(LoopbackSocket&& other) noexcept
{
    if (this != &other) {
        close();
        m_fd = other.m_fd;
        m_port = other.m_port;
        other.m_fd = -1;
        other.m_port = 0;
    }
    return *this;
}

int LoopbackSocket::release()
{
    const int fd = m_fd;
    m_fd = -1;
    m_port = 0;
    return fd;
}

void LoopbackSocket::close()
{
    // close(2) is not retried on EINTR: on Linux the descriptor is gone
    // either way, and a retry could close one that another thread has just
    // been given.
    if (m_fd >= 0) {
        ::close(m_fd);
    }
    m_fd = -1;
    m_port = 0;
}

bool LoopbackSocket::setBuffers(int bytes)
{
    const bool sendOk = setsockopt(m_fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes) == 0;
    const bool receiveOk = setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes) == 0;
    return sendOk && receiveOk;
}

ssize_t LoopbackSocket::sendTo(int port, const void* data, std::size_t length) const
{
    const sockaddr_in destination = loopbackAddress(port);
    ssize_t sent = -1;
    for (int attempt = 0; attempt <= EINTR_RETRIES; ++attempt) {
        sent = ::sendto(m_fd, data, length, 0, reinterpret_cast<const sockaddr*>(&destination), sizeof destination);
        if (sent >= 0 || errno != EINTR) {
            break;
        }
    }
    return sent;
}
