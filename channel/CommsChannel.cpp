// Construction, socket set-up, shutdown and destruction of a channel, and its
// attachment to the process's locator and receiver.
#include "CommsChannel.h"

#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelLocator.h"
#include "CommsChannelReceiver.h"
#include "ReceiveQueueIndex.h"
#include "Semaphore.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace {

// Both socket buffers are asked for at this size (Linux reports twice it).
const int SOCKET_BUFFER_SIZE = 65535;

// Queue priority of each message type, indexed by msgType(). The mix (types
// 1 and 4 lowest, 2, 5 and 6 highest) is the system's fixed table.
const VireoThreadPriority MSG_TYPE_PRIORITIES[] = {
    VIREO_PRIORITY_NORMAL,  // 0
    VIREO_PRIORITY_LOW,     // 1
    VIREO_PRIORITY_HIGH,    // 2
    VIREO_PRIORITY_NORMAL,  // 3
    VIREO_PRIORITY_LOW,     // 4
    VIREO_PRIORITY_HIGH,    // 5
    VIREO_PRIORITY_HIGH,    // 6
};

}  // namespace

CommsChannel::CommsChannel(const std::string& name)
    : m_channelName(name), m_socketHandle(0), m_port(0), m_shutdown(false), m_pinterceptor(nullptr)
{
    construct();
}

CommsChannel::CommsChannel(const std::string& name, CCInterceptorDispatcher* interceptor)
    : m_channelName(name), m_socketHandle(0), m_port(0), m_shutdown(false), m_pinterceptor(interceptor)
{
    construct();
}

void CommsChannel::construct()
{
    m_pqueueSemaphore = new Semaphore(0, -1, false);
    m_pqueueMutex = new Semaphore(1, 1, false);
    m_preceiveQueue = new std::list<CommsChannelDataContainerMessage*>();
    m_pqueueIndex = new ReceiveQueueIndex();
    m_psparedMessages = new std::list<CommsChannelDataContainerMessage*>();
    m_prequestIdSemaphores = new std::map<int, Semaphore*>();
    m_prequestIdSemaphores->insert(std::make_pair(0, static_cast<Semaphore*>(nullptr)));
    m_prequestWaiters = new std::map<long, Semaphore*>();
    m_msgTypePriorities.assign(MSG_TYPE_PRIORITIES,
                               MSG_TYPE_PRIORITIES + sizeof MSG_TYPE_PRIORITIES / sizeof MSG_TYPE_PRIORITIES[0]);

    // A channel whose socket could not be made is still built, registered
    // and installed: callers learn of the failure only from perror.
    createSocket();
    registerChannel();
    installReceiveChannel();
}

int CommsChannel::createSocket()
{
    // Close-on-exec: a program this process starts must not keep the
    // channel's port bound after the process is gone.
    m_socketHandle = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_socketHandle == -1) {
        perror("Error creating socket");
        return 0;
    }
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = 0;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    // After a failed bind or getsockname the handle keeps the closed number
    // on purpose; the destructor closes it again unconditionally.
    if (bind(m_socketHandle, reinterpret_cast<sockaddr*>(&address), length) == -1) {
        perror("CommsChannel::createSocket bind");
        close(m_socketHandle);
        return 0;
    }
    if (getsockname(m_socketHandle, reinterpret_cast<sockaddr*>(&address), &length) == -1) {
        perror("CommsChannel::createSocket getsockname");
        close(m_socketHandle);
        return 0;
    }
    m_port = ntohs(address.sin_port);
    const int bufferSize = SOCKET_BUFFER_SIZE;
    setsockopt(m_socketHandle, SOL_SOCKET, SO_SNDBUF, &bufferSize, sizeof bufferSize);
    setsockopt(m_socketHandle, SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize);
    return 1;
}

CommsChannel::~CommsChannel()
{
    m_shutdown = true;
    m_pqueueSemaphore->give();
    uninstallReceiveChannel();
    unregisterChannel();
    close(m_socketHandle);

    // The receiver thread and the locator no longer know this channel, so
    // the queue is ours alone.
    while (!m_preceiveQueue->empty()) {
        delete m_preceiveQueue->front();
        m_preceiveQueue->pop_front();
    }
    delete m_pqueueSemaphore;
    delete m_pqueueMutex;
    delete m_preceiveQueue;
    delete m_pqueueIndex;
    for (CommsChannelDataContainerMessage* spare : *m_psparedMessages) {
        delete spare;
    }
    delete m_psparedMessages;
    delete m_prequestIdSemaphores;
    delete m_prequestWaiters;
}

std::string& CommsChannel::channelName() { return m_channelName; }

int CommsChannel::port() { return m_port; }

int CommsChannel::socketHandle() const { return m_socketHandle; }

void CommsChannel::shutdown()
{
    m_shutdown = true;
    m_pqueueSemaphore->give();
}

int CommsChannel::registerChannel()
{
    if (m_channelName.compare("") == 0) {
        return 0;
    }
    // Found and used under the locator's instance lock: the last channel of
    // another thread cannot delete the locator in between.
    return CommsChannelLocator::registerWithInstance(this);
}

int CommsChannel::unregisterChannel()
{
    if (m_channelName.compare("") == 0) {
        return 0;
    }
    // Returns once no send in this process is queuing into this channel
    // through its former entry, so the queue can then be dismantled.
    return CommsChannelLocator::unregisterFromInstance(this);
}

void CommsChannel::installReceiveChannel() { CommsChannelReceiver::instance()->addReceiveChannel(this); }

void CommsChannel::uninstallReceiveChannel() { CommsChannelReceiver::instance()->removeReceiveChannel(this); }
