// ChannelInbox: one channel's receive queue and everything that waits on it.
//
// Producers (a sender of this process, the receiver thread) deliver messages;
// consumers (the channel's receive operations) take them out, from the front
// or by request id. Every delivery makes exactly one wake-up ("token"): for
// the thread waiting for the message's request id if there is one, else for
// the general receivers; a message the interceptor refuses still makes its
// token. A token is counted the moment its message is queued.
//
// Ownership: the inbox owns every queued message and never its interceptor.
// It is held through a shared_ptr by its channel and by the intra-process
// dispatchers that deliver into it, so a send that is under way when the
// channel goes delivers into a closed inbox (the message is dropped) instead
// of into freed memory.
//
// Thread safety: every operation may be called from any thread. One lock
// (m_lock) guards the queue, the token count and the by-id waiters; nothing
// is allocated or freed while it is held, and it is never held while a
// caller-supplied check runs. The interceptor runs under it, so an
// interceptor must not receive from its own channel.
//
// Counters: once attachCounters() has given it a slot, the inbox publishes
// its length, the most it ever held, the messages taken and those refused,
// with relaxed stores under m_lock (no extra lock, no system call). The
// receiver thread adds what it reads into the same slot (counters()).
#ifndef COMMSCHANNEL_CHANNEL_INBOX_H
#define COMMSCHANNEL_CHANNEL_INBOX_H

#include "Mutex.h"
#include "VireoThreadPriority.h"

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

class CCInterceptorDispatcher;
class CommsChannelDataContainerMessage;
namespace counter_table {
struct Slot;
}
class ReceiveQueueIndex;

class ChannelInbox {
public:
    typedef std::list<CommsChannelDataContainerMessage*> Queue;
    // Called between waits of a by-id or front receive that watches
    // something else too; it ends the receive by throwing. Never called
    // with the inbox locked.
    typedef std::function<void()> Check;

    // interceptor (may be null) is not owned and must outlive the inbox's
    // last delivery, that is close().
    explicit ChannelInbox(CCInterceptorDispatcher* interceptor);
    ~ChannelInbox();
    ChannelInbox(const ChannelInbox&) = delete;
    ChannelInbox& operator=(const ChannelInbox&) = delete;

    // Queues a copy of message. Always 1 (also when refused or closed).
    int deliver(CommsChannelDataContainerMessage& message);
    // Queues message itself, a heap object whose ownership passes here
    // whatever happens to it. Always 1.
    int deliver(CommsChannelDataContainerMessage* message);

    // Waits for a token (timeout ms; -1 no limit) and takes the front
    // message into *out, or only its data into *data (exactly one given).
    // 1 taken; 0 shut down or nothing queued after the wake-up.
    // Throws: CommsException on time-out; whatever check throws.
    int takeFront(int timeout, CommsChannelDataContainerMessage* out, std::string* data,
                  const Check* check = nullptr);
    // Takes the first message carrying requestId (not 0), waiting as long
    // as it takes, each wait up to timeout ms anew. 1 when taken.
    // Throws: CommsException when a wait times out; whatever check throws.
    int takeById(CommsChannelDataContainerMessage& out, long requestId, int timeout,
                 const Check* check = nullptr);

    // Notes that the calling thread has just sent a message: its next wait
    // on any inbox most likely waits for the answer, due within
    // microseconds, and keeps its processor a moment before it sleeps. A
    // thread that only consumes a stream sleeps at once, leaving the
    // processor to the threads that feed it.
    static void noteSend();

    // Wakes one general receiver for good: from now on takeFront returns 0.
    void shutdown();
    // No delivery is queued (nor shown to the interceptor) after this
    // returns; a delivery under way has finished.
    void close();

    // Publishes the counters into slot (may be null) from now on; slot is
    // not owned. Called before the channel is registered or installed.
    void attachCounters(counter_table::Slot* slot);
    // Stops publishing and returns the slot, for its owner to release.
    // Called after close(), once the receiver thread has let the channel go.
    counter_table::Slot* detachCounters();
    // The slot, for the receiver thread's own counters (received, bad
    // datagrams); null when none. Read without the lock: it changes only
    // while the channel is outside the receiver's list.
    counter_table::Slot* counters() const { return m_pcounters; }

    // Whether nothing is queued; read without the lock, outdated at once.
    bool empty() const { return m_length.load(std::memory_order_relaxed) == 0; }
    // Queued messages, read under the lock.
    std::size_t length();
    // General tokens not yet taken, read under the lock (diagnostics).
    int pendingTokens();
    // Whether a thread waits for requestId right now (diagnostics).
    bool hasWaiter(long requestId);
    // Calls visit for each queued message in queue order, under the lock.
    void forEach(const std::function<void(CommsChannelDataContainerMessage&)>& visit);

private:
    struct Waiter;
    class TokenWait;

    int enqueue(CommsChannelDataContainerMessage* owned, CommsChannelDataContainerMessage* original);
    // REQUIRES: m_lock held. Makes the copy to queue: in a kept message
    // when there is one (returns m_spare, copy at its front), else a new one
    // appended to incoming (returned), letting go of the lock to allocate.
    Queue& prepareCopy(const CommsChannelDataContainerMessage& original, Queue& incoming);
    // REQUIRES: m_lock held. Whether the interceptor lets message through;
    // an interceptor that throws refuses it.
    bool admitted(CommsChannelDataContainerMessage* message);
    // REQUIRES: m_lock held.
    void insert(Queue& source, Queue::iterator node, int priority, const std::string& interfaceName);
    // REQUIRES: m_lock held.
    void giveToken(long requestId);
    void warnIfLong(std::size_t length, const std::string& interfaceName);
    // REQUIRES: m_lock held. Publishes the queue's new length.
    void publishLength(std::size_t length);
    // REQUIRES: m_lock held.
    bool waitForGeneralToken(int timeout, const Check* check, bool expectSoon = false);
    bool waitForOwnToken(Waiter& waiter, int timeout, const Check* check, bool expectSoon = false);
    // REQUIRES: m_lock held. Lets go of it while the thread keeps its
    // processor for up to the time an answer takes, or until a wake-up is
    // given.
    void spinForWakeUp();
    void takeOut(Queue::iterator position, CommsChannelDataContainerMessage* out, std::string* data,
                 Queue& discarded);
    Queue::iterator findRequest(long requestId);
    void balanceFoundAtOnce(Waiter& waiter, int timeout);

    Mutex m_lock;
    ConditionVariable m_generalToken;     // signalled once per general token
    CCInterceptorDispatcher* const m_pinterceptor;  // not owned
    const std::vector<VireoThreadPriority> m_priorities;
    Queue m_queue;                        // guarded by m_lock
    Queue m_spare;                        // emptied messages kept for reuse; guarded by m_lock
    ReceiveQueueIndex* const m_pindex;    // owned; guarded by m_lock
    std::map<long, Waiter*> m_waiters;    // by-id waiters (on their stacks); guarded by m_lock
    int m_tokens;                         // general tokens; guarded by m_lock
    bool m_shutdown;                      // guarded by m_lock
    bool m_closed;                        // guarded by m_lock
    std::atomic<std::size_t> m_length;    // m_queue's size, for empty()
    std::atomic<unsigned> m_wakeUps;      // counts the wake-ups given; written under m_lock
    counter_table::Slot* m_pcounters;     // not owned; written under m_lock, see counters()
};

#endif
