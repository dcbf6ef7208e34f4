// The receiver registry: the singleton, its status socket and the list of
// watched channels.
#include "CommsChannelReceiver.h"

#include "CommsChannel.h"
#include "ReceiverState.h"
#include "Semaphore.h"
#include "Threader.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

CommsChannelReceiver* CommsChannelReceiver::theInstance = nullptr;

namespace receiver_state {

std::atomic<int> statusSocket{0};
std::atomic<int> ownedStatusSocket{-1};
std::vector<CommsChannel*>* receiveChannels = nullptr;
std::atomic<bool> stopReceiver{false};
fd_set monitorSet;
int maxSocketPlusOne = 0;
std::atomic<int> statusPort{0};
unsigned long receiverThreadId = 0;
std::atomic<int> joiningSocket{-1};
std::atomic<int> abandonSocket{-1};

Semaphore& instanceLock()
{
    static Semaphore* lock = new Semaphore(Semaphore::AVAILABLE, 1, false);
    return *lock;
}

Semaphore& channelListLock()
{
    static Semaphore* lock = new Semaphore(1, 1, false);
    return *lock;
}

namespace {

// Descriptors that select can watch: a failed socket (-1) or one beyond the
// set's 1024 bits is left out rather than written outside the set.
bool watchable(int fd) { return fd > 0 && fd < FD_SETSIZE; }

}  // namespace

}  // namespace receiver_state

using namespace receiver_state;

CommsChannelReceiver* CommsChannelReceiver::instance()
{
    CommsChannelReceiver* current = __atomic_load_n(&theInstance, __ATOMIC_ACQUIRE);
    if (current != nullptr) {
        return current;
    }
    instanceLock().take(-1);
    if (theInstance == nullptr) {
        stopReceiver = false;
        __atomic_store_n(&theInstance, new CommsChannelReceiver(), __ATOMIC_RELEASE);
        Threader threader;
        threader.spawn(&receiverThreadId, runReceiverThread, nullptr, "", TARN_PRIORITY_NORMAL, 0);
    }
    current = theInstance;
    instanceLock().give();
    return current;
}

CommsChannelReceiver::CommsChannelReceiver()
{
    receiverThreadId = 0;
    channelListLock().take(-1);
    receiveChannels = new std::vector<CommsChannel*>();
    channelListLock().give();
    createStatusUpdateSocketConnection();
    channelListLock().take(-1);
    updateSocketMonitorList();
    channelListLock().give();
}

CommsChannelReceiver::~CommsChannelReceiver()
{
    // The list lock is taken although stopReceiver keeps the thread away
    // from the list: a pass that began before the flag was set may still be
    // walking it.
    channelListLock().take(-1);
    delete receiveChannels;
    receiveChannels = nullptr;
    channelListLock().give();
    stopReceiver = true;
    // Taken before theInstance is cleared: a receiver created after that
    // owns a status socket of its own.
    const int ownStatusSocket = ownedStatusSocket.exchange(-1);
    __atomic_store_n(&theInstance, static_cast<CommsChannelReceiver*>(nullptr), __ATOMIC_RELEASE);
    statusUpdate(CHANNEL_REMOVED);
    Threader threader;
    threader.waitForThreadCompletion(receiverThreadId);
    // The thread has ended (and cleared statusSocket); nobody sends through
    // this descriptor any more.
    if (ownStatusSocket > 0) {
        close(ownStatusSocket);
    }
}

int CommsChannelReceiver::createStatusUpdateSocketConnection()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    statusSocket = fd;
    if (fd == -1) {
        return 0;
    }
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) == -1 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == -1) {
        close(fd);
        return 0;
    }
    // Kept exactly as getsockname gives it: in network byte order.
    statusPort = address.sin_port;
    ownedStatusSocket = fd;
    return 1;
}

void CommsChannelReceiver::updateSocketMonitorList()
{
    FD_ZERO(&monitorSet);
    const int status = statusSocket;
    maxSocketPlusOne = 0;
    if (watchable(status)) {
        FD_SET(status, &monitorSet);
        maxSocketPlusOne = status + 1;
    }
    if (receiveChannels == nullptr) {
        return;
    }
    for (CommsChannel* channel : *receiveChannels) {
        if (channel == nullptr) {
            continue;
        }
        const int fd = channel->socketHandle();
        if (!watchable(fd)) {
            continue;
        }
        FD_SET(fd, &monitorSet);
        if (fd >= maxSocketPlusOne) {
            maxSocketPlusOne = fd + 1;
        }
    }
}

int CommsChannelReceiver::statusUpdate(statusUpdateMsgId id)
{
    const int fd = statusSocket;
    if (fd == 0) {
        return 0;
    }
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = static_cast<in_port_t>(statusPort.load());
    // The id goes out as a 4-byte integer in host byte order.
    const int32_t value = static_cast<int32_t>(id);
    return sendto(fd, &value, 4, 0, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1 ? 0 : 1;
}

int CommsChannelReceiver::addReceiveChannel(CommsChannel* channel)
{
    if (channel == nullptr) {
        return 0;
    }
    channelListLock().take(-1);
    if (receiveChannels != nullptr) {
        receiveChannels->push_back(channel);
    }
    updateSocketMonitorList();
    channelListLock().give();
    return statusUpdate(CHANNEL_ADDED);
}

void CommsChannelReceiver::removeReceiveChannel(CommsChannel* channel)
{
    if (channel == nullptr) {
        return;
    }
    // If the thread is stuck joining an encoding on this channel's socket,
    // ask it to give up so that the list lock comes free.
    const int fd = channel->socketHandle();
    abandonSocket = fd;
    if (joiningSocket == fd) {
        statusUpdate(CHANNEL_REMOVED);
    }
    channelListLock().take(-1);
    abandonSocket = -1;
    if (receiveChannels != nullptr) {
        std::vector<CommsChannel*>::iterator it =
            std::find(receiveChannels->begin(), receiveChannels->end(), channel);
        if (it != receiveChannels->end()) {
            receiveChannels->erase(it);
        }
    }
    updateSocketMonitorList();
    channelListLock().give();

    if (numReceiveChannels() == 0) {
        stopReceiver = true;
    }
    statusUpdate(CHANNEL_REMOVED);
    if (numReceiveChannels() != 0) {
        return;
    }
    const unsigned long threadId = receiverThreadId;
    delete this;
    // The destructor has joined the thread already; the second wait on the
    // same id is harmless and kept.
    Threader threader;
    threader.waitForThreadCompletion(threadId);
}

int CommsChannelReceiver::numReceiveChannels()
{
    channelListLock().take(-1);
    const int count = receiveChannels != nullptr ? static_cast<int>(receiveChannels->size()) : 0;
    channelListLock().give();
    return count;
}
