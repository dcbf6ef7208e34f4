#include "ResolverServer.h"

#include "ProcNetUdp.h"
#include "ProcSocketOwners.h"
#include "ResolverClock.h"
#include "ResolverLog.h"
#include "ResolverStateFile.h"
#include "ShutdownSignals.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace resolver {

namespace {

// Larger than any UDP payload, so nothing received is ever cut short.
const std::size_t RECEIVE_BUFFER_BYTES = 65536;
// Datagrams handled per wake-up before the loop looks at the clock and the
// signal pipe again, so that a flood cannot hold off scans or a shutdown.
const int RECEIVE_BATCH = 256;
// Room for bursts of registrations while the loop is busy; the kernel caps
// it at net.core.rmem_max.
const int SOCKET_BUFFER_BYTES = 1 << 20;


ProcessIdentity lookUpProcess(int port)
{
    const int pid = findPortOwner(port);
    return ProcessIdentity{pid, processName(pid)};
}

std::set<int> portsOf(const ResolverTable& table)
{
    std::set<int> ports(table.locators());
    const ResolverTable::ChannelMap& channels = table.channels();
    for (ResolverTable::ChannelMap::const_iterator it = channels.begin(); it != channels.end(); ++it) {
        ports.insert(it->second.port);
    }
    return ports;
}

}  // namespace

ResolverServer::ResolverServer(const ResolverOptions& options)
    : m_options(options),
      m_resolver(monotonicMilliseconds, lookUpProcess),
      m_saveDue(false),
      m_saveFailing(false),
      m_scanFailing(false),
      m_sendErrorLog(1000),
      m_buffer(RECEIVE_BUFFER_BYTES)
{
}

bool ResolverServer::open()
{
    // LoopbackSocket sets no SO_REUSEADDR, deliberately: on UDP it would let
    // a second resolver bind the same port and split the traffic with the
    // first one.
    SocketStep failed = SocketStep::None;
    m_socket = LoopbackSocket::open(m_options.port, &failed, SOCK_NONBLOCK);
    if (!m_socket.valid()) {
        const int error = errno;
        if (failed == SocketStep::Create) {
            log::write(log::LEVEL_ERROR, "cannot create a UDP socket: %s", std::strerror(error));
        } else if (failed == SocketStep::Bind) {
            log::write(log::LEVEL_ERROR, "cannot bind 127.0.0.1:%d: %s%s", m_options.port, std::strerror(error),
                       error == EADDRINUSE ? " (is another resolver running?)" : "");
        } else {
            log::write(log::LEVEL_ERROR, "cannot read the address of 127.0.0.1:%d: %s", m_options.port,
                       std::strerror(error));
        }
        return false;
    }
    // The kernel caps the size at its limits; less than asked still works.
    m_socket.setBuffers(SOCKET_BUFFER_BYTES);
    return true;
}

int ResolverServer::run()
{
    ShutdownSignals signals;
    if (!signals.ok()) {
        return 1;
    }
    restoreState();

    long long nextScan = monotonicMilliseconds() + SCAN_INTERVAL_MS;
    for (;;) {
        const long long wait = nextScan - monotonicMilliseconds();
        pollfd fds[2];
        fds[0].fd = m_socket.fd();
        fds[0].events = POLLIN;
        fds[0].revents = 0;
        fds[1].fd = signals.descriptor();
        fds[1].events = POLLIN;
        fds[1].revents = 0;
        const int ready = poll(fds, 2, wait > 0 ? static_cast<int>(wait) : 0);
        if (ready < 0 && errno != EINTR) {
            log::write(log::LEVEL_ERROR, "poll failed: %s", std::strerror(errno));
        }
        if (ready > 0 && (fds[1].revents & POLLIN) != 0) {
            const int signalNumber = signals.drain();
            log::write(log::LEVEL_INFO, "shutting down on signal %d", signalNumber);
            break;
        }
        std::vector<Outgoing> outgoing;
        if (ready > 0 && (fds[0].revents & POLLIN) != 0) {
            receiveBatch(&outgoing);
        }
        if (monotonicMilliseconds() >= nextScan) {
            scan(&outgoing);
            nextScan = monotonicMilliseconds() + SCAN_INTERVAL_MS;
        }
        // The table is saved before anything leaves: whoever hears of a
        // change may count on it surviving a crash of the resolver.
        saveIfDue(false);
        sendAll(outgoing);
        m_resolver.identifyPending();
    }
    // The table is kept on purpose: a resolver started later takes back the
    // names whose processes still run.
    saveIfDue(false);
    return 0;
}

void ResolverServer::restoreState()
{
    ResolverTable saved;
    int badLines = 0;
    std::string problem;
    const LoadOutcome outcome = loadState(m_options.stateFile, &saved, &badLines, &problem);
    if (outcome == STATE_INVALID) {
        log::write(log::LEVEL_WARNING, "starting with an empty table: %s", problem.c_str());
    }
    if (badLines > 0) {
        log::write(log::LEVEL_WARNING, "skipped %d unreadable line(s) of %s", badLines, m_options.stateFile.c_str());
    }
    // Two scans, for the same reason as in scan(): one read of the list can
    // miss a socket that is there.
    std::set<int> bound;
    std::set<int> second;
    if (scanPorts(&bound) && scanPorts(&second)) {
        bound.insert(second.begin(), second.end());
        m_previousScan = bound;
    } else {
        // Without /proc nothing can be told dead; keep every saved row.
        bound = portsOf(saved);
    }
    const std::size_t savedChannels = saved.channels().size();
    const std::vector<Outgoing> removals = m_resolver.restore(saved, bound);
    const std::size_t kept = m_resolver.table().channels().size();
    log::write(log::LEVEL_NOTICE, "listening on 127.0.0.1:%d; state file %s; %zu channel(s) restored, %zu dropped",
               m_options.port, m_options.stateFile.c_str(), kept, savedChannels - kept);
    // Written at once, so that a state file that cannot be written is
    // reported at start-up and not at the first registration.
    saveIfDue(true);
    sendAll(removals);
}

void ResolverServer::receiveBatch(std::vector<Outgoing>* outgoing)
{
    char* const buffer = m_buffer.data();
    for (int count = 0; count < RECEIVE_BATCH; ++count) {
        sockaddr_in source;
        socklen_t sourceLength = sizeof source;
        const ssize_t received = recvfrom(m_socket.fd(), buffer, m_buffer.size(), MSG_TRUNC,
                                          reinterpret_cast<sockaddr*>(&source), &sourceLength);
        if (received < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                log::write(log::LEVEL_WARNING, "recvfrom failed: %s", std::strerror(errno));
            }
            return;
        }
        if (sourceLength < sizeof source || source.sin_family != AF_INET) {
            continue;
        }
        // MSG_TRUNC makes received the datagram's real size. No IPv4
        // datagram exceeds the buffer, so this only guards the read below.
        const std::size_t length = static_cast<std::size_t>(received);
        if (length > m_buffer.size()) {
            continue;
        }
        const std::vector<Outgoing> replies = m_resolver.handleDatagram(buffer, length, ntohs(source.sin_port));
        outgoing->insert(outgoing->end(), replies.begin(), replies.end());
    }
}

void ResolverServer::scan(std::vector<Outgoing>* outgoing)
{
    std::set<int> current;
    if (!scanPorts(&current)) {
        return;
    }
    // A port counts as closed only when two scans in a row miss it: the
    // kernel writes the list while we read it, and one read can skip a line.
    std::set<int> bound(current);
    bound.insert(m_previousScan.begin(), m_previousScan.end());
    m_previousScan.swap(current);
    const std::vector<Outgoing> removals = m_resolver.withdrawDead(bound);
    outgoing->insert(outgoing->end(), removals.begin(), removals.end());
}

bool ResolverServer::scanPorts(std::set<int>* ports)
{
    std::vector<UdpSocketEntry> entries;
    if (!readUdpSockets(&entries)) {
        if (!m_scanFailing) {
            log::write(log::LEVEL_WARNING, "cannot read /proc/net/udp; dead processes are not noticed");
            m_scanFailing = true;
        }
        return false;
    }
    m_scanFailing = false;
    *ports = loopbackPorts(entries);
    return true;
}

void ResolverServer::sendAll(const std::vector<Outgoing>& datagrams)
{
    for (std::vector<Outgoing>::const_iterator it = datagrams.begin(); it != datagrams.end(); ++it) {
        // A zero-length datagram would sit for ever in a locator's socket.
        if (it->bytes.empty()) {
            continue;
        }
        // The socket is non-blocking: a send that would block fails here
        // and is logged below rather than stalling the loop.
        if (m_socket.sendTo(it->port, it->bytes.data(), it->bytes.size()) >= 0) {
            continue;
        }
        const int error = errno;
        unsigned long suppressed = 0;
        if (m_sendErrorLog.allow(monotonicMilliseconds(), &suppressed)) {
            log::write(log::LEVEL_WARNING, "cannot send %zu bytes to %s: %s (and %lu more since the last report)",
                       it->bytes.size(), m_resolver.describe(it->port).c_str(), std::strerror(error), suppressed);
        }
    }
}

void ResolverServer::saveIfDue(bool force)
{
    if (m_resolver.takeChanged() || force) {
        m_saveDue = true;
    }
    if (!m_saveDue) {
        return;
    }
    std::string problem;
    if (!saveState(m_options.stateFile, m_resolver.table(), &problem)) {
        if (!m_saveFailing) {
            log::write(log::LEVEL_WARNING, "cannot save the table: %s; a restarted resolver will not know it",
                       problem.c_str());
            m_saveFailing = true;
        }
        return;
    }
    if (m_saveFailing) {
        log::write(log::LEVEL_NOTICE, "the table is saved to %s again", m_options.stateFile.c_str());
        m_saveFailing = false;
    }
    m_saveDue = false;
}

}  // namespace resolver
