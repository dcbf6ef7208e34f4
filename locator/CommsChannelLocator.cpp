// The locator singleton: creation, destruction, its socket towards the
// resolver and the thread that reads that socket.
#include "CommsChannelLocator.h"

#include "CommsChannelLocatorEntry.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelMessageCreator.h"
#include "CommsChannelPortResponseMessage.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "CommsChannelUnregisterLocatorMessage.h"
#include "DispatcherShare.h"
#include "LocatorState.h"
#include "Semaphore.h"
#include "Threader.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

CommsChannelLocator* CommsChannelLocator::theInstance = nullptr;

namespace {

// Uses of the current locator under way (see enterUse). A use is counted
// before it reads theInstance, so a locator that has cleared theInstance and
// then sees no use open knows that none is inside it any more.
std::atomic<int> openUses{0};

// How often an ending locator looks whether its last use has left (us).
const int USE_POLL_US = 50;

}  // namespace

// Closes a use even if the call made under it throws.
class CommsChannelLocator::UseScope {
public:
    UseScope() : m_locator(CommsChannelLocator::enterUse()) {}
    ~UseScope() { CommsChannelLocator::leaveUse(); }
    UseScope(const UseScope&) = delete;
    UseScope& operator=(const UseScope&) = delete;
    CommsChannelLocator* operator->() const { return m_locator; }

private:
    CommsChannelLocator* const m_locator;
};

LocatorLink::LocatorLink(CommsChannelLocator* owner, int socketFd, unsigned long instanceSerial)
    : locator(owner), socket(socketFd), serial(instanceSerial), threadId(0),
      m_stateLock(Semaphore::AVAILABLE, 1, false), m_stopRequested(false), m_applying(false),
      m_notApplying(0, 1, false)
{
}

bool LocatorLink::requestStop()
{
    m_stateLock.take(-1);
    m_stopRequested = true;
    const bool busy = m_applying;
    m_stateLock.give();
    return busy;
}

bool LocatorLink::stopRequested()
{
    m_stateLock.take(-1);
    const bool requested = m_stopRequested;
    m_stateLock.give();
    return requested;
}

bool LocatorLink::beginApplying()
{
    m_stateLock.take(-1);
    const bool allowed = !m_stopRequested;
    m_applying = allowed;
    m_stateLock.give();
    return allowed;
}

void LocatorLink::endApplying()
{
    m_stateLock.take(-1);
    m_applying = false;
    const bool destructorWaiting = m_stopRequested;
    m_stateLock.give();
    if (destructorWaiting) {
        m_notApplying.give();
    }
}

void LocatorLink::waitUntilNotApplying() { m_notApplying.take(-1); }

namespace locator_state {

std::atomic<ThreadObserver> threadStartedObserver(nullptr);
std::atomic<ThreadObserver> threadJoinedObserver(nullptr);

Semaphore& instanceLock()
{
    static Semaphore* lock = new Semaphore(Semaphore::AVAILABLE, 1, false);
    return *lock;
}

namespace {

std::atomic<unsigned long> lastSerial(0);

std::uint32_t readHostOrderTotalLength(const char* header)
{
    // Bytes 4 to 7 of every encoding: its total length, header included, in
    // this host's byte order.
    std::uint32_t length = 0;
    std::memcpy(&length, header + 4, sizeof length);
    return length;
}

// Reads one datagram from the socket and decodes it. Null when nothing
// could be read or decoded.
CommsChannelMessage* readMessage(int socketFd, CommsChannelMessageCreator& creator)
{
    const std::size_t HEADER_SIZE = 8;
    int count = 0;
    if (ioctl(socketFd, FIONREAD, &count) == -1) {
        perror("CommsChannelLocator::receiveLocatorUpdateMessage: ioctl failed");
    }
    if (count <= 0) {
        // A zero-length datagram is left in place: it is the shutdown
        // wake-up, and stays until the loop sees the shutdown request.
        return nullptr;
    }
    char* buffer = new char[static_cast<std::size_t>(count)];
    sockaddr_in source;
    socklen_t sourceLength = sizeof source;
    const ssize_t received = recvfrom(socketFd, buffer, static_cast<std::size_t>(count), 0,
                                      reinterpret_cast<sockaddr*>(&source), &sourceLength);
    if (received == -1) {
        perror("receiveLocatorUpdateMessage() recvfrom");
    }
    // The decoder reads as many bytes as the header announces, so the
    // datagram must hold a whole header and at least that many bytes;
    // anything else, from whatever sender, is dropped here.
    CommsChannelMessage* message = nullptr;
    if (received >= static_cast<ssize_t>(HEADER_SIZE) &&
        readHostOrderTotalLength(buffer) <= static_cast<std::size_t>(received)) {
        message = creator.decodeMessage(buffer);
    }
    delete[] buffer;
    return message;
}

}  // namespace

void* receiveLocatorUpdateMessage(void* argument)
{
    static CommsChannelMessageCreator creator;
    // Everything this thread uses belongs to its own locator: a locator
    // created while this one is still ending has a link of its own.
    LocatorLink* link = static_cast<LocatorLink*>(argument);
    const int socketFd = link->socket;
    while (!link->stopRequested()) {
        // poll rather than select: the descriptor may be 1024 or more, or
        // -1 when the socket could not be made (poll then just waits for
        // the wake-up that never needs it: the stop test below).
        pollfd watched;
        watched.fd = socketFd;
        watched.events = POLLIN;
        watched.revents = 0;
        if (socketFd < 0) {
            // No socket: nothing will ever arrive; wait to be stopped.
            poll(nullptr, 0, 100);
            continue;
        }
        if (poll(&watched, 1, -1) < 0) {
            continue;
        }
        if (link->stopRequested()) {
            break;
        }
        CommsChannelMessage* message = socketFd != 0 ? readMessage(socketFd, creator) : nullptr;
        if (message != nullptr && link->beginApplying()) {
            // type() is asked twice; it has no side effects.
            if (message->type() == COMMS_MSG_LOCATOR_UPDATE) {
                link->locator->processLocatorUpdate(static_cast<CommsChannelLocatorUpdateMessage*>(message));
            } else if (message->type() == COMMS_MSG_PORT_RESPONSE) {
                link->locator->processChannelPortResponse(static_cast<CommsChannelPortResponseMessage*>(message));
            }
            link->endApplying();
        }
        delete message;
    }
    // The socket is closed by the destructor once this thread has ended:
    // the thread may see the stop before the destructor has sent its last
    // datagrams from it.
    return nullptr;
}

}  // namespace locator_state

using namespace locator_state;

CommsChannelLocator* CommsChannelLocator::instance()
{
    CommsChannelLocator* current = __atomic_load_n(&theInstance, __ATOMIC_ACQUIRE);
    if (current != nullptr) {
        return current;
    }
    instanceLock().take(-1);
    current = currentOrNew();
    instanceLock().give();
    return current;
}

CommsChannelLocator* CommsChannelLocator::enterUse()
{
    for (;;) {
        openUses.fetch_add(1, std::memory_order_seq_cst);
        CommsChannelLocator* current = __atomic_load_n(&theInstance, __ATOMIC_SEQ_CST);
        if (current != nullptr) {
            return current;
        }
        openUses.fetch_sub(1, std::memory_order_seq_cst);
        // None: make one, or wait for a removal under way to finish. It is
        // found again the same way, as it may be gone again by then.
        instance();
    }
}

void CommsChannelLocator::leaveUse() { openUses.fetch_sub(1, std::memory_order_release); }

void CommsChannelLocator::waitUntilUnused()
{
    // Uses that come now find no locator and wait for the instance lock
    // without being counted. The ones counted found this locator in time;
    // whatever they might wait for inside it (a port answer, the first
    // update) has been released by now, so they leave within moments.
    while (openUses.load(std::memory_order_seq_cst) != 0) {
        usleep(USE_POLL_US);
    }
}

CommsChannelDispatcher* CommsChannelLocator::acquireFromInstance(const std::string& channelName,
                                                                 DispatcherShare** share)
{
    UseScope locator;
    return locator->acquireDispatcher(channelName, share);
}

bool CommsChannelLocator::instanceKnowsName(const std::string& channelName)
{
    UseScope locator;
    return locator->knowsName(channelName);
}

CommsChannelLocator* CommsChannelLocator::currentOrNew()
{
    // A new locator starts with a link of its own, stop flag clear; nothing
    // that a locator still ending may need is reset here.
    if (theInstance == nullptr) {
        __atomic_store_n(&theInstance, new CommsChannelLocator(), __ATOMIC_RELEASE);
    }
    return theInstance;
}

int CommsChannelLocator::registerWithInstance(CommsChannel* channel)
{
    instanceLock().take(-1);
    const int registered = currentOrNew()->registerChannel(channel);
    instanceLock().give();
    return registered;
}

int CommsChannelLocator::unregisterFromInstance(CommsChannel* channel)
{
    instanceLock().take(-1);
    CommsChannelLocator* locator = currentOrNew();
    DispatcherShare* drain = nullptr;
    int removed = 0;
    if (!locator->m_plink->stopRequested() && channel != nullptr) {
        removed = locator->unregisterLocked(channel, &drain);
    }
    instanceLock().give();
    // Sends into the channel that found its entry before it went end here;
    // no lock is held, so they can take whatever they need.
    if (drain != nullptr) {
        drain->waitUntilSoleHolder();
        drain->release();
    }
    return removed;
}

CommsChannelLocator::CommsChannelLocator()
    : m_requestId(0), m_socket(0), m_port(0), m_initialUpdateReceived(false)
{
    m_plocalMap = new std::map<std::string, CommsChannelLocatorEntry*>();
    m_premoteMap = new std::map<std::string, CommsChannelLocatorEntry*>();
    m_pmapLock = new Semaphore(1, 1, false);
    m_pinitialUpdateSem = new Semaphore(0, 1, false);
    m_prequestMap = new std::map<int, PortWaiter*>();
    m_prequestLock = new Semaphore(1, 1, false);

    createResolverConnection();
    m_plink = new LocatorLink(this, m_socket, ++lastSerial);
    Threader threader;
    if (threader.spawn(&m_plink->threadId, receiveLocatorUpdateMessage, m_plink, "", TARN_PRIORITY_HIGH, 0) == 1) {
        ThreadObserver observer = threadStartedObserver.load();
        if (observer != nullptr) {
            observer(m_plink->serial);
        }
    }

    // Sent into the void when no resolver listens; UDP does not mind.
    CommsChannelRegisterLocatorMessage registration;
    registration.setPort(m_port);
    send(registration);
}

CommsChannelLocator::~CommsChannelLocator()
{
    // Once the flag is set the locator thread applies no further message;
    // one that it is applying right now is allowed to finish first. The
    // flag is this instance's own: a locator created later has another.
    if (m_plink->requestStop()) {
        m_plink->waitUntilNotApplying();
    }

    CommsChannelUnregisterLocatorMessage unregistration;
    unregistration.setPort(m_port);
    send(unregistration);

    // Entries go without waiting for anything: a send still under way
    // through one of their dispatchers keeps that dispatcher until it
    // returns.
    m_pmapLock->take(-1);
    while (!m_plocalMap->empty()) {
        std::map<std::string, CommsChannelLocatorEntry*>::iterator first = m_plocalMap->begin();
        CommsChannelLocatorEntry* entry = first->second;
        sendChannelUnregistration(entry);
        m_plocalMap->erase(first);
        delete entry;
    }
    delete m_plocalMap;
    m_plocalMap = nullptr;
    while (!m_premoteMap->empty()) {
        std::map<std::string, CommsChannelLocatorEntry*>::iterator first = m_premoteMap->begin();
        CommsChannelLocatorEntry* entry = first->second;
        m_premoteMap->erase(first);
        delete entry;
    }
    delete m_premoteMap;
    m_premoteMap = nullptr;

    // Release every thread still waiting for a port answer. Each learns
    // from its waiter that it was cancelled and returns without touching
    // this locator again.
    m_prequestLock->take(-1);
    for (std::map<int, PortWaiter*>::iterator it = m_prequestMap->begin(); it != m_prequestMap->end(); ++it) {
        if (it->second != nullptr) {
            it->second->cancelled = true;
            it->second->answered.give();
        }
    }
    m_prequestMap->clear();
    delete m_prequestMap;
    m_prequestMap = nullptr;
    m_prequestLock->give();
    m_pmapLock->give();
    // A first resolution still waiting for the resolver's first update is
    // let go too; it passes the wake-up on to the next one (see resolve).
    m_pinitialUpdateSem->give();

    // Only this instance is cleared: should another one already stand in
    // theInstance, it is not ours to touch. From then on no send finds this
    // locator, and the ones that found it before leave it before anything
    // of it is freed.
    CommsChannelLocator* self = this;
    if (__atomic_compare_exchange_n(&theInstance, &self, static_cast<CommsChannelLocator*>(nullptr), false,
                                    __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) {
        waitUntilUnused();
    }

    shutdownReceiver();

    delete m_pmapLock;
    delete m_pinitialUpdateSem;
    delete m_prequestLock;
    Threader threader;
    threader.waitForThreadCompletion(m_plink->threadId);
    ThreadObserver observer = threadJoinedObserver.load();
    if (observer != nullptr) {
        observer(m_plink->serial);
    }
    // Only now: the unregistration and the wake-up above went out through
    // this socket, and the thread no longer waits on it.
    if (m_socket > 0) {
        close(m_socket);
    }
    delete m_plink;
}

int CommsChannelLocator::createResolverConnection()
{
    m_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_socket == -1) {
        perror("CommsChannelLocator::createResolverConnection() Error creating socket");
        return 0;
    }
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof address;
    if (bind(m_socket, reinterpret_cast<sockaddr*>(&address), length) == -1) {
        perror("CommsChannelLocator::createResolverConnection() bind");
        close(m_socket);
        return 0;
    }
    if (getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length) == -1) {
        perror("CommsChannelLocator::createResolverConnection() getsockname");
        close(m_socket);
        return 0;
    }
    m_port = ntohs(address.sin_port);
    return 1;
}

int CommsChannelLocator::send(CommsChannelMessage& message)
{
    if (m_socket == 0) {
        return 0;
    }
    sockaddr_in resolver;
    std::memset(&resolver, 0, sizeof resolver);
    resolver.sin_family = AF_INET;
    resolver.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    resolver.sin_port = htons(RESOLVER_PORT);
    int length = 0;
    const char* encoding = message.encode(&length);
    if (encoding == nullptr) {
        return 0;
    }
    if (sendto(m_socket, encoding, static_cast<std::size_t>(length), 0, reinterpret_cast<sockaddr*>(&resolver),
               sizeof resolver) == -1) {
        // The closed descriptor stays in m_socket: every later send fails
        // the same way, which is how a broken link shows.
        perror("CommsChannelLocator::send(CommsChannelMessage& message) sendto");
        close(m_socket);
        return 0;
    }
    return 1;
}

int CommsChannelLocator::shutdownReceiver()
{
    if (m_socket == 0) {
        return 0;
    }
    sockaddr_in self;
    std::memset(&self, 0, sizeof self);
    self.sin_family = AF_INET;
    self.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    self.sin_port = htons(static_cast<uint16_t>(m_port));
    // A zero-length datagram wakes the thread's poll without being read.
    if (sendto(m_socket, "", 0, 0, reinterpret_cast<sockaddr*>(&self), sizeof self) == -1) {
        perror("CommsChannelLocator::shutdownReceiver sendto");
        return 0;
    }
    return 1;
}
