// CommsChannelReceiver: the per-process registry of channels and the one
// thread that reads their sockets. Created by the first channel installed,
// deleted when the last one leaves; the next channel starts a fresh one.
// Callers never delete it. Callable from any thread; its list lock is always
// taken before a channel's queue lock, never after.
//
// Each instance keeps what its thread uses in a record of its own (receiver/
// ReceiverState.h); module-level names in receiver/ point at the current
// instance. A private loopback "status" socket lets application threads wake
// the thread whenever the list changes. The thread waits with epoll, so any
// descriptor number works and idle channels cost nothing per message.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_RECEIVER_H
#define COMMSCHANNEL_COMMS_CHANNEL_RECEIVER_H

#include <cstddef>

class CommsChannel;

namespace receiver_state {
struct ReceiverRecord;
}

// The 4-byte content of a status-update datagram, in host byte order. The
// thread reads and discards it: only the wake-up matters.
enum statusUpdateMsgId {
    CHANNEL_ADDED = 0,
    CHANNEL_REMOVED = 1
};

class CommsChannelReceiver {
public:
    // The process's receiver, created (with its thread) on first use.
    static CommsChannelReceiver* instance();

    CommsChannelReceiver();
    // Stops and joins the thread. Reached only through removeReceiveChannel.
    virtual ~CommsChannelReceiver();

    // Receivers are built in storage that is kept for the next receiver. A
    // deleted receiver's storage holds a dormant receiver (one that owns
    // nothing) until then, so that a pointer read from instance() just
    // before another thread deleted its receiver still reaches a receiver;
    // add, remove, count and statusUpdate work on the current receiver
    // whichever they are called on; a dormant receiver's
    // createStatusUpdateSocketConnection (0) and updateSocketMonitorList do
    // nothing.
    static void* operator new(std::size_t size);
    static void operator delete(void* block) noexcept;

    CommsChannelReceiver(const CommsChannelReceiver&) = delete;
    CommsChannelReceiver& operator=(const CommsChannelReceiver&) = delete;

    // Adds the channel's socket to the watched set (a channel may be added
    // twice). Returns whether the wake-up datagram was sent; undefined for a
    // null channel.
    int addReceiveChannel(CommsChannel* channel);
    // Removes the first entry of the channel. Removing the last channel stops
    // the thread, waits for it and deletes the receiver before returning; a
    // channel added meanwhile goes to a fresh receiver.
    void removeReceiveChannel(CommsChannel* channel);
    // Entries in the list, duplicates counted.
    int numReceiveChannels();

    int createStatusUpdateSocketConnection();
    // Sends a 4-byte wake-up datagram to the status socket. 1 when sent.
    int statusUpdate(statusUpdateMsgId id);
    // Rebuilds the descriptor set that the thread watches.
    // REQUIRES: the list lock is held (except in the constructor).
    void updateSocketMonitorList();

private:
    struct Dormant {};
    explicit CommsChannelReceiver(Dormant);

    static CommsChannelReceiver* theInstance;
    // This instance's record; owned, freed by the destructor after the join.
    receiver_state::ReceiverRecord* m_precord;
    friend class CommsChannelReceiverInspector;  // white-box access for the unit tests
};

#endif
