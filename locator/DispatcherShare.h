// Private to the library: the ownership of one locator entry's dispatcher,
// shared by the entry and by every send under way through that dispatcher.
//
// The entry holds the first share from the moment it is given the
// dispatcher. A send takes a share of its own while the locator's map lock
// proves that the entry (and so its share) still exists, and gives it back
// when sendMsg has returned. Whoever gives back the last share deletes the
// dispatcher, through its own class, and this record. Removing an entry
// therefore never waits for a send: the dispatcher simply outlives the entry
// until the last send through it is done.
//
// Thread safety: acquire, release and waitUntilSoleHolder may be called from
// any thread. m_lock is held only around the holder count, never while
// waiting and never together with another lock of the library.
//
// Usage (the send path):
//   share->acquire();                 // REQUIRES: the locator's map lock
//   ... give the map lock ...
//   share->dispatcher()->sendMsg(sender, message);
//   share->release();                 // may delete the dispatcher
#ifndef COMMSCHANNEL_DISPATCHER_SHARE_H
#define COMMSCHANNEL_DISPATCHER_SHARE_H

#include "Semaphore.h"

class CommsChannelDispatcher;

class DispatcherShare {
public:
    // Takes ownership of dispatcher (not null). The caller holds the first
    // share.
    explicit DispatcherShare(CommsChannelDispatcher* dispatcher);

    DispatcherShare(const DispatcherShare&) = delete;
    DispatcherShare& operator=(const DispatcherShare&) = delete;

    CommsChannelDispatcher* dispatcher() const { return m_pdispatcher; }

    // Takes one more share. REQUIRES: the caller holds a share already, or
    // holds the lock under which the holder of a share is reachable.
    void acquire();
    // Gives back one share. The last one deletes the dispatcher and this
    // record; the caller must not touch either afterwards. Never blocks
    // beyond the holder count's own lock.
    void release();
    // Blocks until the caller's share is the only one left, that is until
    // every send that took a share before has returned from sendMsg.
    // REQUIRES: the caller holds a share, nobody can take a new one (the
    // entry is out of its map) and no other thread waits here. Call it with
    // no lock held.
    void waitUntilSoleHolder();

private:
    ~DispatcherShare();

    CommsChannelDispatcher* const m_pdispatcher;  // owned; constant
    Semaphore m_lock;
    int m_holders;            // guarded by m_lock
    Semaphore* m_psoleHolder;  // guarded by m_lock; the waiter's, given when m_holders drops to 1
};

#endif
