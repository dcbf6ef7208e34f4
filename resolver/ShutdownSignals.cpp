#include "ShutdownSignals.h"

#include "ResolverLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace resolver {

namespace {

// The write end, for the handler. A plain int written before the handlers
// are installed and read only inside them.
volatile sig_atomic_t writeFd = -1;

extern "C" void onShutdownSignal(int signalNumber)
{
    const int savedErrno = errno;
    const unsigned char byte = static_cast<unsigned char>(signalNumber);
    // A full pipe already holds a wake-up, so a failed write loses nothing.
    const ssize_t written = write(writeFd, &byte, 1);
    (void)written;
    errno = savedErrno;
}

bool makeNonBlocking(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0 && fcntl(fd, F_SETFD, FD_CLOEXEC) == 0;
}

}  // namespace

ShutdownSignals::ShutdownSignals() : m_readFd(-1), m_ok(false)
{
    std::memset(&m_previousTerm, 0, sizeof m_previousTerm);
    std::memset(&m_previousInt, 0, sizeof m_previousInt);
    int fds[2];
    if (pipe(fds) != 0) {
        log::write(log::LEVEL_ERROR, "cannot create the signal pipe: %s", std::strerror(errno));
        return;
    }
    if (!makeNonBlocking(fds[0]) || !makeNonBlocking(fds[1])) {
        log::write(log::LEVEL_ERROR, "cannot set up the signal pipe: %s", std::strerror(errno));
        close(fds[0]);
        close(fds[1]);
        return;
    }
    m_readFd = fds[0];
    writeFd = fds[1];

    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onShutdownSignal;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: a blocking call in the loop should return at once.
    action.sa_flags = 0;
    if (sigaction(SIGTERM, &action, &m_previousTerm) != 0 || sigaction(SIGINT, &action, &m_previousInt) != 0) {
        log::write(log::LEVEL_ERROR, "cannot install the shutdown signal handlers: %s", std::strerror(errno));
        return;
    }
    m_ok = true;
}

ShutdownSignals::~ShutdownSignals()
{
    if (m_ok) {
        sigaction(SIGTERM, &m_previousTerm, nullptr);
        sigaction(SIGINT, &m_previousInt, nullptr);
    }
    if (m_readFd >= 0) {
        close(m_readFd);
        close(writeFd);
        writeFd = -1;
    }
}

int ShutdownSignals::drain()
{
    int last = 0;
    unsigned char bytes[16];
    for (;;) {
        const ssize_t got = read(m_readFd, bytes, sizeof bytes);
        if (got > 0) {
            last = bytes[got - 1];
            continue;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        return last;
    }
}

}  // namespace resolver
