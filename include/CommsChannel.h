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
// Thread safety: m_pqueueMutex guards the queue and the request-id map;
// m_pqueueSemaphore counts queued messages that no request-id waiter claimed.
// The receiver's list lock is always taken before m_pqueueMutex, never after.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_H
#define COMMSCHANNEL_COMMS_CHANNEL_H

#include "CommsChannelIfc.h"
#include "VireoThreadPriority.h"

#include <atomic>
#include <fstream>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

class CCInterceptorDispatcher;
class CommsChannelDataContainerMessage;
class ReceiveQueueIndex;
class Semaphore;

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
    // As addToMsgQ, but queues message itself instead of a copy: the channel
    // takes ownership of it (a heap object) whatever happens to it. Used by
    // the receiver thread, whose freshly decoded message has no other use, so
    // that a large message is never held twice.
    int queueMessage(CommsChannelDataContainerMessage* message);
    // queueMessage for a burst: a token due to the queue semaphore is counted
    // in *deferredTokens instead of given (a request-id waiter's token is
    // still given at once). The caller gives them with giveQueueTokens before
    // the channel can go, so that a burst wakes a sleeping receiver once.
    int queueMessage(CommsChannelDataContainerMessage* message, int* deferredTokens);
    void giveQueueTokens(int count);

    // Appends a dump of the channel and every queued message to
    // "/logs/CommsChannel.log-<pid>". Reads the queue without its lock: for
    // diagnosis only, never on a channel that is being destroyed. Silent
    // when the file cannot be opened; a null channel writes nothing.
    static void info(CommsChannel* channel);
    // Writes the block of one message to file; channel is not used.
    static void displayInfo(CommsChannel* channel, CommsChannelDataContainerMessage* message,
                            std::ofstream& file);

private:
    friend class CommsChannelInspector;  // white-box access for the unit tests

    void construct();
    int createSocket();
    int registerChannel();
    int unregisterChannel();
    void installReceiveChannel();
    void uninstallReceiveChannel();

    int send(CommsChannelDataContainerMessage& message);

    // The common part of addToMsgQ and queueMessage. Queues owned (taking
    // ownership) or, when it is null, a copy of original. interfaceName
    // names the interface in the queue warning.
    int enqueue(CommsChannelDataContainerMessage* owned, const CommsChannelDataContainerMessage* original,
                const std::string& interfaceName, int* deferredTokens = nullptr);
    // getMsgFromQ_ByID with a check: check is called before each wait and
    // at least every 100 ms while waiting; it ends the receive by throwing.
    int waitForRequestId(CommsChannelDataContainerMessage& out, long requestId, Semaphore* idSemaphore,
                         int timeout, const std::function<void()>* check);
    // Waits for a count of idSemaphore up to timeout ms (-1: no limit) in
    // slices, calling check before each. False when the time ran out.
    static bool waitInSlices(Semaphore* idSemaphore, int timeout, const std::function<void()>& check,
                             bool answerExpected);
    // Takes a count of semaphore within timeout ms (-1: no limit). When the
    // calling thread expects an answer (it sent since its last wait), the
    // wait keeps the processor a little before it sleeps.
    static bool takeToken(Semaphore* semaphore, int timeout, bool answerExpected);

    // The request-id map is keyed by the id as an int, where different ids
    // can meet (and id 0's placeholder entry lives). Waiters are therefore
    // matched through a map keyed by the full id, kept beside it; the int
    // map still shows every registration.
    // REQUIRES: m_pqueueMutex is held.
    void registerRequestWaiter(long requestId, Semaphore* semaphore);
    void unregisterRequestWaiter(long requestId);
    // The semaphore of the thread waiting for exactly requestId, or null.
    Semaphore* requestWaiter(long requestId);

    // Unlinks the element at position and moves its message into out.
    // The emptied message goes to recycle().
    // REQUIRES: m_pqueueMutex is held.
    void takeOut(std::list<CommsChannelDataContainerMessage*>::iterator position,
                 CommsChannelDataContainerMessage& out, std::list<CommsChannelDataContainerMessage*>& discarded);
    // Unlinks the element at position and moves only its data into data;
    // data's old buffer stays with the emptied message for the next copy.
    // The emptied message goes to recycle().
    // REQUIRES: m_pqueueMutex is held.
    void takeDataOut(std::list<CommsChannelDataContainerMessage*>::iterator position, std::string& data,
                     std::list<CommsChannelDataContainerMessage*>& discarded);
    // Keeps the emptied message at position (unlinked from the index) with
    // its list node for the next copy or, when enough are kept, moves it to
    // discarded, for the caller to delete once it has let go of the lock.
    // REQUIRES: m_pqueueMutex is held.
    void recycle(std::list<CommsChannelDataContainerMessage*>::iterator position,
                 std::list<CommsChannelDataContainerMessage*>& discarded);
    // The front message taken as getMsgFromQ takes it, into *out, or only
    // its data into *data (exactly one of the two is given).
    int takeFront(int timeout, CommsChannelDataContainerMessage* out, std::string* data);

    // Takes the front message. 1: moved into out; 0: shut down, or nothing
    // there after a wake-up. Throws: CommsException when timeout expires.
    int getMsgFromQ(CommsChannelDataContainerMessage& out, int timeout);
    // getMsgFromQ for the data alone (receiveMsg(std::string&)).
    int getDataFromQ(std::string& data, int timeout);
    // Takes the first message carrying requestId, waiting on idSemaphore
    // (already registered under requestId by the caller). Returns 1.
    // Throws: CommsException when a wait expires.
    int getMsgFromQ_ByID(CommsChannelDataContainerMessage& out, long requestId,
                         Semaphore* idSemaphore, int timeout);

    // Constant after construction.
    std::string m_channelName;
    int m_socketHandle;
    int m_port;
    // Written once, without a lock, by shutdown() and the destructor.
    std::atomic<bool> m_shutdown;
    std::list<CommsChannelDataContainerMessage*>* m_preceiveQueue;  // guarded by m_pqueueMutex
    std::vector<VireoThreadPriority> m_msgTypePriorities;           // constant after construction
    CCInterceptorDispatcher* m_pinterceptor;                        // not owned
    Semaphore* m_pqueueSemaphore;
    Semaphore* m_pqueueMutex;
    std::map<int, Semaphore*>* m_prequestIdSemaphores;  // guarded by m_pqueueMutex
    std::map<long, Semaphore*>* m_prequestWaiters;      // guarded by m_pqueueMutex; owned
    ReceiveQueueIndex* m_pqueueIndex;                   // guarded by m_pqueueMutex; owned
    // Messages taken out of the queue, kept with their list nodes for the
    // next copies, so that a steady stream allocates nothing per message.
    std::list<CommsChannelDataContainerMessage*>* m_psparedMessages;  // guarded by m_pqueueMutex; owned
};

#endif
