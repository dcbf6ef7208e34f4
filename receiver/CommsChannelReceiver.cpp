// The receiver registry: the singleton, its status socket and the list of
// watched channels.
#include "CommsChannelReceiver.h"

#include "CommsChannel.h"
#include "ReceiverState.h"
#include "ReceiverStorage.h"
#include "Semaphore.h"
#include "Threader.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

CommsChannelReceiver* CommsChannelReceiver::theInstance = nullptr;

namespace receiver_state {

std::atomic<ReceiverRecord*> currentRecord{nullptr};
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
std::atomic<unsigned long> threadsStarted{0};
std::atomic<unsigned long> threadsJoined{0};

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

// Descriptors that can be watched: 0 stands for "no socket" and -1 for a
// socket that could not be made.
bool watchable(int fd) { return fd > 0; }

// Watches fd in the instance's epoll set. A descriptor already there (a
// channel added twice) is fine.
void watch(ReceiverRecord* record, int fd)
{
    epoll_event event;
    std::memset(&event, 0, sizeof event);
    event.events = EPOLLIN;
    event.data.fd = fd;
    epoll_ctl(record->epollFd, EPOLL_CTL_ADD, fd, &event);
}

void unwatch(ReceiverRecord* record, int fd)
{
    epoll_event ignored;
    std::memset(&ignored, 0, sizeof ignored);
    epoll_ctl(record->epollFd, EPOLL_CTL_DEL, fd, &ignored);
}

// Sends the 4-byte status update from fd to 127.0.0.1 at networkOrderPort.
int sendStatusUpdate(int fd, int networkOrderPort, statusUpdateMsgId id)
{
    if (fd == 0) {
        return 0;
    }
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = static_cast<in_port_t>(networkOrderPort);
    // The id goes out as a 4-byte integer in host byte order.
    const int32_t value = static_cast<int32_t>(id);
    return sendto(fd, &value, 4, 0, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1 ? 0 : 1;
}

// The status socket and port of the current instance, read under the list
// lock, so that the update announcing a change reaches the thread of the
// instance that changed, never one created since.
// The record's own socket stays open while a captured send is under way:
// the destructor waits for such sends (which never block) before closing.
struct StatusTarget {
    int fd = 0;
    int port = 0;
    ReceiverRecord* record = nullptr;
    StatusTarget() = default;
    StatusTarget(const StatusTarget&) = delete;
    StatusTarget& operator=(const StatusTarget&) = delete;
    ~StatusTarget() { release(); }
    void release()
    {
        if (record != nullptr) {
            --record->statusSenders;
            record = nullptr;
        }
    }
    // REQUIRES: channelListLock is held.
    void capture()
    {
        fd = statusSocket.load();
        port = statusPort.load();
        record = currentRecord.load();
        if (record != nullptr) {
            ++record->statusSenders;
        }
    }
    // Sends the update once and lets the socket go.
    int send(statusUpdateMsgId id)
    {
        const int result = sendStatusUpdate(fd, port, id);
        release();
        return result;
    }
};

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
    if (__atomic_load_n(&theInstance, __ATOMIC_ACQUIRE) == nullptr) {
        stopReceiver = false;
        // The constructor publishes the receiver itself. Not read again from
        // theInstance: the new receiver's first channel may already have come
        // and gone on another thread.
        current = new CommsChannelReceiver();
    } else {
        current = __atomic_load_n(&theInstance, __ATOMIC_ACQUIRE);
    }
    instanceLock().give();
    return current;
}

void* CommsChannelReceiver::operator new(std::size_t size) { return takeReceiverStorage(size); }

void CommsChannelReceiver::operator delete(void* block) noexcept
{
    // Built before the block is marked free, so that no next receiver can be
    // built in it meanwhile.
    ::new (block) CommsChannelReceiver(Dormant());
    giveBackReceiverStorage(block);
}

CommsChannelReceiver::CommsChannelReceiver(Dormant) : m_precord(nullptr) {}

CommsChannelReceiver::CommsChannelReceiver() : m_precord(new ReceiverRecord())
{
    m_precord->owner = this;
    receiverThreadId = 0;
    m_precord->epollFd = epoll_create1(EPOLL_CLOEXEC);
    // The module-level names switch to this instance in one step under the
    // list lock, so that a holder of the lock sees them all of one instance.
    channelListLock().take(-1);
    m_precord->channels = new std::vector<CommsChannel*>();
    receiveChannels = m_precord->channels;
    currentRecord = m_precord;
    createStatusUpdateSocketConnection();
    updateSocketMonitorList();
    // The thread gets the instance's record and nothing else. It is started
    // before the lock is given, so that nobody can end this instance (and
    // join its thread) before the thread's id is known.
    Threader threader;
    threader.spawn(&m_precord->threadId, runReceiverThread, m_precord, "", TARN_PRIORITY_NORMAL, 0);
    receiverThreadId = m_precord->threadId;
    ++threadsStarted;
    __atomic_store_n(&theInstance, this, __ATOMIC_RELEASE);
    channelListLock().give();
}

CommsChannelReceiver::~CommsChannelReceiver()
{
    ReceiverRecord* record = m_precord;
    // The list lock is taken although the stop flag keeps the thread away
    // from the list: a pass that began before the flag was set may still be
    // walking it. Only this instance's own state is touched; a receiver
    // created since (the next channel of the process) keeps its own.
    channelListLock().take(-1);
    delete record->channels;
    record->channels = nullptr;
    record->byFd.clear();
    const bool stillCurrent = currentRecord.load() == record;
    if (stillCurrent) {
        receiveChannels = nullptr;
    }
    channelListLock().give();
    record->stop = true;
    if (stillCurrent) {
        stopReceiver = true;
    }
    int owned = record->statusSocket;
    ownedStatusSocket.compare_exchange_strong(owned, -1);
    CommsChannelReceiver* self = this;
    __atomic_compare_exchange_n(&theInstance, &self, static_cast<CommsChannelReceiver*>(nullptr), false,
                                __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
    // The update goes where status updates go now, as always; our thread is
    // also woken through its own status socket, since by now a newer
    // receiver's socket may be the current one.
    channelListLock().take(-1);
    StatusTarget target;
    target.capture();
    const bool current = currentRecord.load() == record;
    channelListLock().give();
    if (current) {
        target.send(CHANNEL_REMOVED);
    }
    target.release();
    sendStatusUpdate(record->statusSocket.load(), record->statusPort, CHANNEL_REMOVED);
    Threader threader;
    threader.waitForThreadCompletion(record->threadId);
    ++threadsJoined;
    // Status updates captured before the end are sent through our socket;
    // they take no time, but must be out before it is closed.
    while (record->statusSenders.load() != 0) {
        sched_yield();
    }
    // The thread has ended (and cleared statusSocket if it was current);
    // nobody sends through these descriptors any more.
    const int ownSocket = record->statusSocket.load();
    if (ownSocket > 0) {
        close(ownSocket);
    }
    if (record->epollFd >= 0) {
        close(record->epollFd);
    }
    channelListLock().take(-1);
    ReceiverRecord* expected = record;
    currentRecord.compare_exchange_strong(expected, nullptr);
    channelListLock().give();
    delete record;
}

int CommsChannelReceiver::createStatusUpdateSocketConnection()
{
    if (m_precord == nullptr) {
        // A dormant receiver: the current one keeps its socket.
        return 0;
    }
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    statusSocket = fd;
    m_precord->statusSocket = fd;
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
        // The closed number stays in statusSocket, but this instance no
        // longer owns a descriptor to watch or close.
        m_precord->statusSocket = -1;
        return 0;
    }
    // Kept exactly as getsockname gives it: in network byte order.
    statusPort = address.sin_port;
    m_precord->statusPort = address.sin_port;
    ownedStatusSocket = fd;
    watch(m_precord, fd);
    return 1;
}

void CommsChannelReceiver::updateSocketMonitorList()
{
    if (m_precord == nullptr) {
        // A dormant receiver: the view belongs to the current one.
        return;
    }
    // The select-style view of what is watched (the epoll set is kept in
    // step by add and remove). Descriptors beyond the 1024 bits of an fd_set
    // are watched all the same; they only do not appear in monitorSet.
    FD_ZERO(&monitorSet);
    const int status = statusSocket;
    maxSocketPlusOne = 0;
    if (watchable(status)) {
        if (status < FD_SETSIZE) {
            FD_SET(status, &monitorSet);
        }
        maxSocketPlusOne = status + 1;
    }
    std::vector<CommsChannel*>* channels = m_precord->channels;
    if (channels == nullptr) {
        return;
    }
    for (CommsChannel* channel : *channels) {
        if (channel == nullptr) {
            continue;
        }
        const int fd = channel->socketHandle();
        if (!watchable(fd)) {
            continue;
        }
        if (fd < FD_SETSIZE) {
            FD_SET(fd, &monitorSet);
        }
        if (fd >= maxSocketPlusOne) {
            maxSocketPlusOne = fd + 1;
        }
    }
}

int CommsChannelReceiver::statusUpdate(statusUpdateMsgId id)
{
    return sendStatusUpdate(statusSocket.load(), statusPort.load(), id);
}

// add, remove and numReceiveChannels work on the current instance's record,
// found under the list lock, and never on the object they were called on:
// a caller may hold a pointer to a receiver that another thread has ended
// and deleted since (instance() hands its pointer out without a lock).
int CommsChannelReceiver::addReceiveChannel(CommsChannel* channel)
{
    if (channel == nullptr) {
        return 0;
    }
    channelListLock().take(-1);
    ReceiverRecord* record = currentRecord.load();
    while (record == nullptr || record->channels == nullptr || record->ending) {
        // The receiver is on its way out: its last channel went while the
        // caller was on its way here. The channel goes to a fresh receiver.
        channelListLock().give();
        CommsChannelReceiver::instance();
        channelListLock().take(-1);
        record = currentRecord.load();
    }
    record->channels->push_back(channel);
    const int fd = channel->socketHandle();
    if (watchable(fd)) {
        record->byFd[fd].push_back(std::make_pair(record->nextSequence++, channel));
        watch(record, fd);
    }
    ++record->generation;
    record->owner->updateSocketMonitorList();
    StatusTarget target;
    target.capture();
    channelListLock().give();
    return target.send(CHANNEL_ADDED);
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
    ReceiverRecord* record = currentRecord.load();
    CommsChannelReceiver* receiver = record != nullptr ? record->owner : nullptr;
    bool empty = true;
    bool deleteReceiver = false;
    if (record != nullptr && record->channels != nullptr) {
        std::vector<CommsChannel*>::iterator it =
            std::find(record->channels->begin(), record->channels->end(), channel);
        if (it != record->channels->end()) {
            record->channels->erase(it);
            std::unordered_map<int, FdEntries>::iterator entries = record->byFd.find(fd);
            if (entries != record->byFd.end()) {
                FdEntries& list = entries->second;
                for (FdEntries::iterator e = list.begin(); e != list.end(); ++e) {
                    if (e->second == channel) {
                        list.erase(e);
                        break;
                    }
                }
                if (list.empty()) {
                    record->byFd.erase(entries);
                    unwatch(record, fd);
                }
            }
            ++record->generation;
        }
        empty = record->channels->empty();
        // Exactly one caller, the one that finds the list empty first, ends
        // this receiver; from then on nothing is added to it.
        if (empty && !record->ending) {
            record->ending = true;
            deleteReceiver = true;
            CommsChannelReceiver* self = receiver;
            __atomic_compare_exchange_n(&theInstance, &self, static_cast<CommsChannelReceiver*>(nullptr),
                                        false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
        }
    }
    if (receiver != nullptr) {
        receiver->updateSocketMonitorList();
    }
    StatusTarget target;
    target.capture();
    channelListLock().give();

    if (record == nullptr) {
        target.send(CHANNEL_REMOVED);
        return;
    }
    if (empty) {
        record->stop = true;
        if (currentRecord.load() == record) {
            stopReceiver = true;
        }
    }
    target.send(CHANNEL_REMOVED);
    if (!deleteReceiver) {
        return;
    }
    const unsigned long threadId = record->threadId;
    delete receiver;
    // The destructor has joined the thread already; the second wait on the
    // same id is harmless and kept.
    Threader threader;
    threader.waitForThreadCompletion(threadId);
}

int CommsChannelReceiver::numReceiveChannels()
{
    channelListLock().take(-1);
    const ReceiverRecord* record = currentRecord.load();
    const int count =
        record != nullptr && record->channels != nullptr ? static_cast<int>(record->channels->size()) : 0;
    channelListLock().give();
    return count;
}
