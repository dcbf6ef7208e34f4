// The locator's link to the resolver: its socket and its reading thread.
#include "LocatorLink.h"

#include "CommsChannelMessage.h"
#include "LocatorProtocol.h"
#include "ResolverPort.h"
#include "Threader.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

namespace {

const char* failedStepText(SocketStep step)
{
    switch (step) {
    case SocketStep::Create:
        return "CommsChannelLocator::createResolverConnection() Error creating socket";
    case SocketStep::Bind:
        return "CommsChannelLocator::createResolverConnection() bind";
    default:
        return "CommsChannelLocator::createResolverConnection() getsockname";
    }
}

long long monotonicMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

LocatorLink::LocatorLink(Handler handler, Tick tick)
    : m_handler(std::move(handler)), m_tick(std::move(tick)), m_ticking(static_cast<bool>(m_tick)),
      m_nextTickMs(monotonicMs() + TICK_INTERVAL_MS), m_opened(false), m_port(0), m_wakeFd(eventfd(0, EFD_CLOEXEC)), m_broken(false),
      m_stopping(false), m_joined(false), m_threadId(0)
{
    SocketStep failed = SocketStep::None;
    m_socket = LoopbackSocket::open(0, &failed);
    if (!m_socket.valid()) {
        perror(failedStepText(failed));
    }
    m_opened = m_socket.valid();
    m_port = m_socket.port();
    Threader threader;
    threader.spawn(&m_threadId, &LocatorLink::run, this, "", TARN_PRIORITY_HIGH, 0);
}

LocatorLink::~LocatorLink()
{
    stop();
    if (m_wakeFd >= 0) {
        close(m_wakeFd);
    }
}

int LocatorLink::send(const char* data, int length)
{
    ScopedLock hold(m_lock);
    if (!m_broken) {
        const ssize_t sent = m_socket.sendTo(COMMSCHANNEL_RESOLVER_PORT, data, static_cast<std::size_t>(length));
        if (sent != -1) {
            return 1;
        }
    } else {
        // The socket has gone with the first failure; every later send
        // fails the same way.
        errno = EBADF;
    }
    perror("CommsChannelLocator::send(CommsChannelMessage& message) sendto");
    if (!m_broken) {
        m_broken = true;
        wakeThread();
    }
    return 0;
}

bool LocatorLink::broken()
{
    ScopedLock hold(m_lock);
    return m_broken;
}

int LocatorLink::sendWakeUp()
{
    ScopedLock hold(m_lock);
    if (m_broken || m_socket.sendTo(m_port, "", 0) == -1) {
        if (m_broken) {
            errno = EBADF;
        }
        perror("CommsChannelLocator::shutdownReceiver sendto");
        return 0;
    }
    return 1;
}

void LocatorLink::stop()
{
    {
        ScopedLock hold(m_lock);
        if (m_joined) {
            return;
        }
        m_stopping = true;
        m_joined = true;
    }
    wakeThread();
    Threader threader;
    threader.waitForThreadCompletion(m_threadId);
    ScopedLock hold(m_lock);
    m_socket.close();
}

void LocatorLink::wakeThread()
{
    const std::uint64_t one = 1;
    if (m_wakeFd >= 0 && write(m_wakeFd, &one, sizeof one) == -1) {
        // The counter is far from full; nothing else can fail here.
    }
}

void* LocatorLink::run(void* link)
{
    static_cast<LocatorLink*>(link)->readLoop();
    return nullptr;
}

int LocatorLink::socketToWatch()
{
    ScopedLock hold(m_lock);
    if (m_stopping) {
        return -2;
    }
    if (m_broken) {
        m_socket.close();
    }
    return m_socket.fd();
}

void LocatorLink::readLoop()
{
    for (;;) {
        const int fd = socketToWatch();
        if (fd == -2) {
            return;
        }
        pollfd watched[2];
        watched[0].fd = fd;
        watched[0].events = POLLIN;
        watched[0].revents = 0;
        watched[1].fd = m_wakeFd;
        watched[1].events = POLLIN;
        watched[1].revents = 0;
        if (poll(watched, 2, tickTimeout()) <= 0) {
            continue;
        }
        if (watched[1].revents & POLLIN) {
            std::uint64_t count = 0;
            if (read(m_wakeFd, &count, sizeof count) == -1) {
                // Read by nobody else; a wake-up is a wake-up.
            }
            continue;
        }
        if (fd >= 0 && (watched[0].revents & POLLIN)) {
            readOneDatagram(fd);
        }
    }
}

int LocatorLink::tickTimeout()
{
    if (!m_ticking) {
        return -1;
    }
    long long now = monotonicMs();
    if (now >= m_nextTickMs) {
        m_ticking = m_tick();
        now = monotonicMs();
        m_nextTickMs = now + TICK_INTERVAL_MS;
        if (!m_ticking) {
            return -1;
        }
    }
    return static_cast<int>(m_nextTickMs - now);
}

void LocatorLink::readOneDatagram(int fd)
{
    int count = 0;
    if (ioctl(fd, FIONREAD, &count) == -1) {
        perror("CommsChannelLocator::receiveLocatorUpdateMessage: ioctl failed");
    }
    if (count <= 0) {
        // A zero-length datagram is left in place: it is the shutdown
        // wake-up, and stays until the loop sees the stop.
        return;
    }
    std::vector<char> buffer(static_cast<std::size_t>(count));
    const ssize_t received = recv(fd, buffer.data(), buffer.size(), 0);
    if (received == -1) {
        perror("receiveLocatorUpdateMessage() recvfrom");
        return;
    }
    std::unique_ptr<CommsChannelMessage> message =
        locator_protocol::decodeDatagram(buffer.data(), static_cast<std::size_t>(received));
    if (message) {
        m_handler(*message);
    }
}
