// The locator singleton: creation, destruction, its socket towards the
// resolver and the thread that reads that socket.
#include "CommsChannelLocator.h"

#include "CommsChannelLocatorEntry.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelMessageCreator.h"
#include "CommsChannelPortResponseMessage.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "CommsChannelUnregisterLocatorMessage.h"
#include "LocatorState.h"
#include "Semaphore.h"
#include "Threader.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

CommsChannelLocator* CommsChannelLocator::theInstance = nullptr;

namespace locator_state {

bool shutdownRequested = false;
bool processingMessage = false;
int locatorSocket = 0;
unsigned long locatorThreadId = 0;

Semaphore& instanceLock()
{
    static Semaphore* lock = new Semaphore(Semaphore::AVAILABLE, 1, false);
    return *lock;
}

Semaphore& shutdownLock()
{
    static Semaphore* lock = new Semaphore(Semaphore::AVAILABLE, 1, false);
    return *lock;
}

Semaphore& processingIdle()
{
    static Semaphore* idle = new Semaphore(0, 1, false);
    return *idle;
}

bool requestShutdown()
{
    shutdownLock().take(-1);
    shutdownRequested = true;
    const bool busy = processingMessage;
    shutdownLock().give();
    return busy;
}

bool isShutdownRequested()
{
    shutdownLock().take(-1);
    const bool requested = shutdownRequested;
    shutdownLock().give();
    return requested;
}

namespace {

// Marks the start of applying a message; false when shutdown was requested,
// in which case the message must not be applied.
bool beginProcessing()
{
    shutdownLock().take(-1);
    const bool allowed = !shutdownRequested;
    processingMessage = allowed;
    shutdownLock().give();
    return allowed;
}

void endProcessing()
{
    shutdownLock().take(-1);
    processingMessage = false;
    const bool destructorWaiting = shutdownRequested;
    shutdownLock().give();
    if (destructorWaiting) {
        processingIdle().give();
    }
}

// Reads one datagram from the socket and decodes it. Null when nothing
// could be read or decoded.
CommsChannelMessage* readMessage(int socketFd, CommsChannelMessageCreator& creator)
{
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
    // Decoding is bounded by the bytes actually received, so a datagram
    // whose header claims more cannot make it read past the buffer.
    CommsChannelMessage* message =
        received > 0 ? creator.decodeMessage(buffer, static_cast<unsigned int>(received)) : nullptr;
    delete[] buffer;
    return message;
}

}  // namespace

void* receiveLocatorUpdateMessage(void* /*unused*/)
{
    static CommsChannelMessageCreator creator;
    // The thread works on its own copy of the descriptor: a locator created
    // while this one is still ending sets the shared variable anew.
    const int socketFd = __atomic_load_n(&locatorSocket, __ATOMIC_ACQUIRE);
    while (!isShutdownRequested()) {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(socketFd, &readSet);
        if (select(socketFd + 1, &readSet, nullptr, nullptr, nullptr) < 0) {
            continue;
        }
        if (isShutdownRequested()) {
            break;
        }
        CommsChannelMessage* message = socketFd != 0 ? readMessage(socketFd, creator) : nullptr;
        if (message != nullptr && beginProcessing()) {
            // type() is asked twice; it has no side effects.
            if (message->type() == COMMS_MSG_LOCATOR_UPDATE) {
                CommsChannelLocator::instance()->processLocatorUpdate(
                    static_cast<CommsChannelLocatorUpdateMessage*>(message));
            } else if (message->type() == COMMS_MSG_PORT_RESPONSE) {
                CommsChannelLocator::instance()->processChannelPortResponse(
                    static_cast<CommsChannelPortResponseMessage*>(message));
            }
            endProcessing();
        }
        delete message;
    }
    // The socket is closed by the destructor once this thread has ended:
    // the thread may see the shutdown before the destructor has sent its
    // last datagrams from it.
    int expected = socketFd;
    __atomic_compare_exchange_n(&locatorSocket, &expected, 0, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
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
    if (theInstance == nullptr) {
        shutdownLock().take(-1);
        shutdownRequested = false;
        shutdownLock().give();
        __atomic_store_n(&theInstance, new CommsChannelLocator(), __ATOMIC_RELEASE);
    }
    current = theInstance;
    instanceLock().give();
    return current;
}

CommsChannelLocator::CommsChannelLocator()
    : m_requestId(0), m_socket(0), m_port(0), m_initialUpdateReceived(false)
{
    m_plocalMap = new std::map<std::string, CommsChannelLocatorEntry*>();
    m_premoteMap = new std::map<std::string, CommsChannelLocatorEntry*>();
    m_pmapLock = new Semaphore(1, 1, false);
    m_pinitialUpdateSem = new Semaphore(0, 1, false);
    m_prequestMap = new std::map<int, Semaphore*>();
    m_prequestLock = new Semaphore(1, 1, false);
    m_psendCountLock = new Semaphore(1, 1, false);
    m_psendsDrained = new Semaphore(0, 1, false);
    m_activeSends = 0;
    m_drainWaiting = false;

    createResolverConnection();
    __atomic_store_n(&locatorSocket, m_socket, __ATOMIC_RELEASE);
    Threader threader;
    threader.spawn(&locatorThreadId, receiveLocatorUpdateMessage, nullptr, "", TARN_PRIORITY_HIGH, 0);

    // Sent into the void when no resolver listens; UDP does not mind.
    CommsChannelRegisterLocatorMessage registration;
    registration.setPort(m_port);
    send(registration);
}

CommsChannelLocator::~CommsChannelLocator()
{
    // Read now: a locator created after theInstance is cleared below spawns
    // a thread of its own into the shared variable.
    const unsigned long threadId = locatorThreadId;
    // Once the flag is set the locator thread applies no further message;
    // one that it is applying right now is allowed to finish first.
    if (requestShutdown()) {
        processingIdle().take(-1);
    }

    CommsChannelUnregisterLocatorMessage unregistration;
    unregistration.setPort(m_port);
    send(unregistration);

    m_pmapLock->take(-1);
    // Sends already under way finish before their entries go.
    waitForSendsToDrain();
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

    // Release every thread still waiting for a port answer.
    m_prequestLock->take(-1);
    for (std::map<int, Semaphore*>::iterator it = m_prequestMap->begin(); it != m_prequestMap->end(); ++it) {
        if (it->second != nullptr) {
            it->second->give();
        }
    }
    m_prequestMap->clear();
    delete m_prequestMap;
    m_prequestMap = nullptr;
    m_prequestLock->give();
    m_pmapLock->give();

    shutdownReceiver();

    delete m_pmapLock;
    delete m_pinitialUpdateSem;
    delete m_prequestLock;
    delete m_psendCountLock;
    delete m_psendsDrained;
    __atomic_store_n(&theInstance, static_cast<CommsChannelLocator*>(nullptr), __ATOMIC_RELEASE);
    Threader threader;
    threader.waitForThreadCompletion(threadId);
    // Only now: the unregistration and the wake-up above went out through
    // this socket, and the thread no longer waits on it.
    if (m_socket > 0) {
        close(m_socket);
    }
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
    // A zero-length datagram wakes select without being read.
    if (sendto(m_socket, "", 0, 0, reinterpret_cast<sockaddr*>(&self), sizeof self) == -1) {
        perror("CommsChannelLocator::shutdownReceiver sendto");
        return 0;
    }
    return 1;
}
