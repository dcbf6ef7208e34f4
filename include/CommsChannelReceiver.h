// CommsChannelReceiver: the per-process registry of channels and the one
// thread that reads their sockets and fills their inboxes.
//
// The process runtime owns it: instance() returns the current receiver,
// made (with its thread) on first use. Removing the last channel stops and
// joins the thread before it returns; the receiver has then ended, and the
// runtime makes a fresh one the next time one is wanted. Callers never
// delete it.
//
// Thread safety: every operation may be called from any thread. The list
// lock is held by the thread for a whole pass over the ready channels, so it
// is always taken before a channel's inbox lock, never after. A private
// loopback "status" socket lets application threads wake the thread
// whenever the list changes; the thread waits with epoll, so any descriptor
// number works and idle channels cost nothing per message.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_RECEIVER_H
#define COMMSCHANNEL_COMMS_CHANNEL_RECEIVER_H

class CommsChannel;

namespace receiver_state {
struct ReceiverState;
}

// The 4-byte content of a status-update datagram, in host byte order. The
// thread reads and discards it: only the wake-up matters.
enum statusUpdateMsgId {
    CHANNEL_ADDED = 0,
    CHANNEL_REMOVED = 1
};

class CommsChannelReceiver {
public:
    // The process's current receiver, made (with its thread) on first use.
    static CommsChannelReceiver* instance();

    // Makes the status socket and starts the thread.
    CommsChannelReceiver();
    // Stops and joins the thread if it still runs; closes what it owns.
    virtual ~CommsChannelReceiver();

    CommsChannelReceiver(const CommsChannelReceiver&) = delete;
    CommsChannelReceiver& operator=(const CommsChannelReceiver&) = delete;

    // Adds the channel's socket to the watched set (a channel may be added
    // twice). Returns whether the wake-up datagram was sent; 0 for a null
    // channel or an ended receiver.
    int addReceiveChannel(CommsChannel* channel);
    // Removes the first entry of the channel. Removing the last channel
    // stops and joins the thread before returning: the receiver has ended.
    void removeReceiveChannel(CommsChannel* channel);
    // Entries in the list, duplicates counted.
    int numReceiveChannels();
    // True once the last channel's removal has stopped the thread.
    bool hasEnded() const;

    // 1 when the status socket exists (it is made by the constructor).
    int createStatusUpdateSocketConnection();
    // Sends a 4-byte wake-up datagram to the status socket. 1 when sent.
    int statusUpdate(statusUpdateMsgId id);
    // The watched set follows the list by itself; kept for callers.
    void updateSocketMonitorList();

private:
    void stopThread();

    // Everything the thread shares with the operations above; owned.
    receiver_state::ReceiverState* const m_pstate;
};

#endif
