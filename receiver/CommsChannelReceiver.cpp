// The receiver registry: the list of watched channels, the status socket
// that wakes the thread, and the thread's start and end.
#include "CommsChannelReceiver.h"

#include "CommsChannel.h"
#include "ProcessCounters.h"
#include "ReceiverState.h"
#include "Threader.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

using receiver_state::FdEntries;
using receiver_state::ReceiverState;

namespace {

// Descriptors that can be watched: 0 stands for "no socket" and -1 for a
// socket that could not be made.
bool watchable(int fd) { return fd > 0; }

// Watches fd in the epoll set. A descriptor already there (a channel added
// twice) is fine.
void watch(int epollFd, int fd)
{
    epoll_event event;
    std::memset(&event, 0, sizeof event);
    event.events = EPOLLIN;
    event.data.fd = fd;
    epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event);
}

void unwatch(int epollFd, int fd)
{
    epoll_event ignored;
    std::memset(&ignored, 0, sizeof ignored);
    epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, &ignored);
}

// Forgets the first entry of channel under fd in the index.
// REQUIRES: the list lock is held.
void unindex(ReceiverState& state, CommsChannel* channel, int fd)
{
    std::unordered_map<int, FdEntries>::iterator entries = state.byFd.find(fd);
    if (entries == state.byFd.end()) {
        return;
    }
    FdEntries& list = entries->second;
    for (FdEntries::iterator entry = list.begin(); entry != list.end(); ++entry) {
        if (entry->second == channel) {
            list.erase(entry);
            break;
        }
    }
    if (list.empty()) {
        state.byFd.erase(entries);
        unwatch(state.epollFd, fd);
    }
}

}  // namespace

CommsChannelReceiver::CommsChannelReceiver() : m_pstate(new ReceiverState())
{
    m_pstate->discardBadDatagrams = receiver_state::discardRequested();
    m_pstate->epollFd = epoll_create1(EPOLL_CLOEXEC);
    // A receiver made after one that a bad datagram ended receives again.
    ProcessCounters::process().setReceiving(true);
    createStatusUpdateSocketConnection();
    Threader threader;
    threader.spawn(&m_pstate->threadId, receiver_state::runReceiverThread, m_pstate, "", TARN_PRIORITY_NORMAL, 0);
}

CommsChannelReceiver::~CommsChannelReceiver()
{
    stopThread();
    delete m_pstate;
}

int CommsChannelReceiver::createStatusUpdateSocketConnection()
{
    if (!m_pstate->status.valid()) {
        m_pstate->status = LoopbackSocket::open(0, static_cast<int*>(nullptr));
        if (m_pstate->status.valid()) {
            watch(m_pstate->epollFd, m_pstate->status.fd());
        }
    }
    return m_pstate->status.valid() ? 1 : 0;
}

int CommsChannelReceiver::statusUpdate(statusUpdateMsgId id)
{
    // Once the thread has gone nobody reads the status socket.
    if (m_pstate->threadGone || !m_pstate->status.valid()) {
        return 0;
    }
    // The id goes out as a 4-byte integer in host byte order.
    const std::int32_t value = static_cast<std::int32_t>(id);
    return m_pstate->status.sendTo(m_pstate->status.port(), &value, sizeof value) == -1 ? 0 : 1;
}

void CommsChannelReceiver::updateSocketMonitorList() {}

bool CommsChannelReceiver::hasEnded() const { return m_pstate->ended; }

int CommsChannelReceiver::numReceiveChannels()
{
    ScopedLock hold(m_pstate->listLock);
    return static_cast<int>(m_pstate->channels.size());
}

int CommsChannelReceiver::addReceiveChannel(CommsChannel* channel)
{
    if (channel == nullptr) {
        return 0;
    }
    {
        ScopedLock hold(m_pstate->listLock);
        if (m_pstate->ended) {
            return 0;
        }
        m_pstate->channels.push_back(channel);
        const int fd = channel->socketHandle();
        if (watchable(fd)) {
            m_pstate->byFd[fd].push_back(std::make_pair(m_pstate->nextSequence++, channel));
            watch(m_pstate->epollFd, fd);
        }
        ++m_pstate->generation;
    }
    return statusUpdate(CHANNEL_ADDED);
}

void CommsChannelReceiver::removeReceiveChannel(CommsChannel* channel)
{
    if (channel == nullptr) {
        return;
    }
    // If the thread is joining an encoding on this channel's socket, it is
    // asked to give up, so that the list lock comes free.
    const int fd = channel->socketHandle();
    m_pstate->abandonSocket = fd;
    if (m_pstate->joiningSocket == fd) {
        statusUpdate(CHANNEL_REMOVED);
    }
    bool empty = false;
    {
        ScopedLock hold(m_pstate->listLock);
        m_pstate->abandonSocket = -1;
        std::vector<CommsChannel*>& channels = m_pstate->channels;
        const std::vector<CommsChannel*>::iterator it = std::find(channels.begin(), channels.end(), channel);
        if (it != channels.end()) {
            channels.erase(it);
            unindex(*m_pstate, channel, fd);
            ++m_pstate->generation;
        }
        empty = channels.empty();
    }
    if (empty) {
        m_pstate->stop = true;
    }
    statusUpdate(CHANNEL_REMOVED);
    if (empty) {
        stopThread();
    }
}

void CommsChannelReceiver::stopThread()
{
    if (m_pstate->ended) {
        return;
    }
    m_pstate->stop = true;
    statusUpdate(CHANNEL_REMOVED);
    Threader threader;
    threader.waitForThreadCompletion(m_pstate->threadId);
    // Joining an ended thread once more must be harmless.
    threader.waitForThreadCompletion(m_pstate->threadId);
    ScopedLock hold(m_pstate->listLock);
    m_pstate->ended = true;
    // Nobody sends through the status socket or watches the epoll set once
    // the receiver has ended.
    m_pstate->status.close();
    if (m_pstate->epollFd >= 0) {
        close(m_pstate->epollFd);
        m_pstate->epollFd = -1;
    }
}
