// Private to locator/: what one locator instance shares with its own thread,
// and the little state that belongs to the process rather than to one
// instance.
//
// Each locator gets a LocatorLink of its own: the thread's id, the stop flag
// and the socket that the thread reads. The link is handed to the thread as
// its argument, so a locator that is ending and the one created after it
// never share a flag, a descriptor or a thread id. The module-level names
// below only lead to the current locator; none of them belongs to one.
#ifndef COMMSCHANNEL_LOCATOR_STATE_H
#define COMMSCHANNEL_LOCATOR_STATE_H

#include "CommsChannelLocator.h"
#include "Semaphore.h"

#include <atomic>

// One locator instance and its thread. Created by the locator's constructor,
// deleted by its destructor once the thread has been joined.
//
// Thread safety: the constant members may be read by both sides without a
// lock; m_stateLock guards the two flags and is held only around reading or
// writing them.
class LocatorLink {
public:
    LocatorLink(CommsChannelLocator* owner, int socketFd, unsigned long instanceSerial);
    LocatorLink(const LocatorLink&) = delete;
    LocatorLink& operator=(const LocatorLink&) = delete;

    // Constant after construction.
    CommsChannelLocator* const locator;
    const int socket;
    // 1 for the process's first locator, 2 for the next, and so on.
    const unsigned long serial;
    // Written by Threader::spawn in the locator's constructor; read only by
    // its destructor.
    unsigned long threadId;

    // Sets the stop flag. Returns whether the thread was applying a message
    // at that moment; the caller then waits with waitUntilNotApplying().
    bool requestStop();
    bool stopRequested();
    // The thread brackets each message it applies with these. begin answers
    // false once a stop was requested: the message must not be applied.
    bool beginApplying();
    void endApplying();
    // REQUIRES: requestStop() answered true.
    void waitUntilNotApplying();

private:
    Semaphore m_stateLock;
    bool m_stopRequested;  // guarded by m_stateLock
    bool m_applying;       // guarded by m_stateLock
    Semaphore m_notApplying;  // given when applying ends after a stop request
};

// The port-request waiter of one requesting thread, on that thread's stack.
// cancelled is set (under the request lock, before the semaphore is given)
// when the locator's destruction releases the waiter: the requester must
// then return without touching the locator, which may be gone already.
struct CommsChannelLocator::PortWaiter {
    PortWaiter() : answered(0, 1, false), cancelled(false) {}
    Semaphore answered;
    bool cancelled;
};

namespace locator_state {

// Serialises the creation of the singleton and, for channels, registration
// and removal with it, so that the last channel's removal and the deletion
// it causes cannot interleave with a new channel finding the same locator.
// Taken before a locator's map lock, never inside it.
Semaphore& instanceLock();

// Observers for the white-box tests: called with a locator's serial when its
// thread was started, and when it has been joined. Null (the default) means
// nobody watches.
typedef void (*ThreadObserver)(unsigned long serial);
extern std::atomic<ThreadObserver> threadStartedObserver;
extern std::atomic<ThreadObserver> threadJoinedObserver;

// The locator thread's body; argument is the instance's LocatorLink.
void* receiveLocatorUpdateMessage(void* link);

}  // namespace locator_state

#endif
