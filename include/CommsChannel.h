// CommsChannel: one named, message-oriented endpoint of a process. It owns a
// UDP socket on 127.0.0.1 (port chosen by the kernel), a receive queue ordered
// by priority, and every message in that queue. Construction registers a
// non-empty name with the process's CommsChannelLocator and hands the channel
// to the process's CommsChannelReceiver, whose thread fills the queue from the
// socket; destruction undoes both and frees what is still queued.
//
// The application owns the channel. It never owns the interceptor given to
// it. All operations may be called from several threads at once, but the
// channel must not be destroyed while another thread still uses it.
//
// Usage:
//   CommsChannel server("server");
//   CommsChannel client("client");
//   client.sendMsg("server", std::string("hello"));
//   std::string text;
//   server.receiveMsg(text);              // "hello"
//
// Thread safety: the inbox's one lock guards the queue and its waiters; the
// receiver's list lock is always taken before it, never after.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_H
#define COMMSCHANNEL_COMMS_CHANNEL_H

#include "CommsChannelIfc.h"

#include <fstream>
#include <functional>
#include <memory>
#include <string>

class CCInterceptorDispatcher;
class ChannelInbox;
class CommsChannelDataContainerMessage;

class CommsChannel : public CommsChannelIfc {
public:
    explicit CommsChannel(const std::string& name);
    // interceptor (may be null) sees every message before it is queued and
    // may drop it; it must outlive the channel.
    CommsChannel(const std::string& name, CCInterceptorDispatcher* interceptor);
    ~CommsChannel() override;

    CommsChannel(const CommsChannel&) = delete;
    CommsChannel& operator=(const CommsChannel&) = delete;

    std::string& channelName() override;
    int port() override;
    int socketHandle() const override;

    int sendMsg(CommsChannelDataContainerMessage& message) override;
    int sendMsg(const std::string& destination, char* data, int length) override;
    int sendMsg(const std::string& destination, const std::string& data) override;

    int receiveMsg(CommsChannelDataContainerMessage& message) override;
    int receiveMsg(CommsChannelDataContainerMessage& message, long requestId) override;
    int receiveMsg(char* buffer, int* length) override;
    int receiveMsg(std::string& data) override;
    int receiveMsg_ByID_Timed(CommsChannelDataContainerMessage& message, long requestId,
                              int timeout) override;
    bool isQEmpty() override;
    void shutdown() override;

    // Waits for the answer to requestId from the channel named replier, like
    // receiveMsg_ByID_Timed (1 with the reply; CommsException on time-out;
    // timeout -1 waits without limit), and also ends, within a fraction of a
    // second, once replier is gone: its name was withdrawn by the resolver
    // (its process ended) or, in this process, its channel was destroyed.
    // Then it throws CommsPeerGoneException. A replier that this process's
    // locator does not know at all counts as gone. Not virtual: the
    // interface's table is unchanged. 0 at once on a channel without socket.
    int receiveReply(CommsChannelDataContainerMessage& reply, long requestId, const std::string& replier,
                     int timeout);

    // Queues a copy of message (the caller keeps its own), at the priority
    // that this channel's table gives its msgType(), unless the interceptor
    // drops it. Wakes the thread waiting for its request id, or one general
    // receiver. Logs a notice when the queue reaches 50 messages. Returns 1.
    // Called by senders in this process and by the receiver thread.
    int addToMsgQ(CommsChannelDataContainerMessage& message);

    // The channel's receive queue and its waiters. Producers of this process
    // deliver into it; an intra-process dispatcher keeps it through the
    // shared pointer, so that a send under way while the channel goes finds
    // a closed inbox rather than freed memory.
    ChannelInbox& inbox() const { return *m_pinbox; }
    const std::shared_ptr<ChannelInbox>& sharedInbox() const { return m_pinbox; }

    // Appends a dump of the channel and every queued message to
    // "/logs/CommsChannel.log-<pid>". Silent when the file cannot be opened;
    // a null channel writes nothing. Never on a channel being destroyed.
    static void info(CommsChannel* channel);
    // Writes the block of one message to file; channel is not used.
    static void displayInfo(CommsChannel* channel, CommsChannelDataContainerMessage* message,
                            std::ofstream& file);

private:
    void construct();
    int createSocket();
    int registerChannel();
    int unregisterChannel();
    void installReceiveChannel();
    void uninstallReceiveChannel();

    int send(CommsChannelDataContainerMessage& message);
    // receiveMsg_ByID_Timed with a check called between waits (receiveReply).
    int receiveById(CommsChannelDataContainerMessage& message, long requestId, int timeout,
                    const std::function<void()>* check);

    // Constant after construction.
    std::string m_channelName;
    int m_socketHandle;
    int m_port;
    bool m_ownsSocket;  // false when the socket could not be set up
    // The queue, its tokens and its waiters; shared with the intra-process
    // dispatchers that deliver into it. Closed by the destructor.
    const std::shared_ptr<ChannelInbox> m_pinbox;
};

#endif
