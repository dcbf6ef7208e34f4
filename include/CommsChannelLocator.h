// CommsChannelLocator: the one object per process that knows where channels
// are. It keeps the channels of this process (local map) and the names learnt
// from the resolver process at 127.0.0.1:5000 (remote map), resolves a
// destination name into a dispatcher, and runs one thread that applies the
// resolver's answers and updates.
//
// Lifetime: created by the first named channel through instance(), and
// deleted by itself when the last channel of this process unregisters; the
// next instance() creates a fresh one. Callers never delete it.
//
// Thread safety: every public operation may be called from any application
// thread. m_pmapLock guards both name maps; m_prequestLock guards the request
// map and the request-id counter; no operation holds both except the
// destructor (map lock first). The file-scope instance lock is taken before
// the map lock, never inside it. No operation waits for a send while it holds
// a lock: a send shares the ownership of its dispatcher with the entry.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_LOCATOR_H
#define COMMSCHANNEL_COMMS_CHANNEL_LOCATOR_H

#include <atomic>
#include <map>
#include <string>

class CommsChannel;
class CommsChannelDispatcher;
class CommsChannelLocatorEntry;
class CommsChannelLocatorUpdateMessage;
class CommsChannelMessage;
class CommsChannelPortResponseMessage;
class DispatcherShare;
class LocatorLink;
class Semaphore;

class CommsChannelLocator {
public:
    // The resolver's fixed UDP port on 127.0.0.1.
    static constexpr int RESOLVER_PORT = 5000;
    // How long (ms) a first resolution waits for the resolver's first update.
    static constexpr int INITIAL_UPDATE_TIMEOUT = 100000;

    // The process's locator, created on first use. Never delete it.
    static CommsChannelLocator* instance();

    CommsChannelLocator();
    virtual ~CommsChannelLocator();

    CommsChannelLocator(const CommsChannelLocator&) = delete;
    CommsChannelLocator& operator=(const CommsChannelLocator&) = delete;

    // Adds a channel of this process under its name and announces it to the
    // resolver. 0 for a null channel, a name already registered here, or
    // while the locator shuts down.
    int registerChannel(CommsChannel* channel);
    // Removes the entry of the channel's name (whichever channel holds it)
    // and announces the removal. 1 when an entry was removed. When the local
    // map is left empty, the locator deletes itself before returning. Before
    // returning it also waits until no send that found the removed entry is
    // still queuing into the channel, holding no lock meanwhile; it never
    // waits for sends to other names.
    int unregisterChannel(CommsChannel* channel);

    // The dispatcher for a destination name: this process's channel first,
    // then a name learnt from the resolver, else the resolver is asked and
    // the caller blocks until it answers. Unknown names get one shared null
    // dispatcher. Use it at once; never delete or keep it. Null only while
    // the locator shuts down. Blocks up to INITIAL_UPDATE_TIMEOUT ms on a
    // process's first resolution if the resolver has not answered yet; the
    // first update releases one such waiter only (deliberately not passed
    // on), so concurrent first resolutions should be avoided; the locator's
    // destruction lets every one of them go, with null. The dispatcher
    // stays owned by its entry: a removal of the name that runs meanwhile
    // may delete it as soon as this returns. The channel's own sends do not
    // go through here; they share the dispatcher until they are done.
    CommsChannelDispatcher* getDispatcher(const std::string& channelName);

    // True while the name stands in the local or the remote map: a channel
    // of this process, or a name the resolver announced and has not
    // withdrawn. Takes the map lock; never asks the resolver.
    bool knowsName(const std::string& channelName);

    // Entries in the local map plus entries in the remote map. No lock.
    unsigned int size();
    // Prints every entry, local map first, to standard output. No lock.
    void dumpLocatorMap();

    int createResolverConnection();
    // Sends one message to the resolver. 1 when sent.
    int send(CommsChannelMessage& message);
    // Wakes the locator thread so that it sees the shutdown.
    int shutdownReceiver();

    int sendChannelRegistration(CommsChannelLocatorEntry* entry);
    int sendChannelUnregistration(CommsChannelLocatorEntry* entry);
    // Asks the resolver for a name's port and blocks until the answer (or
    // the locator's destruction) releases it. Never call on the locator thread.
    int sendChannelPortRequest(const std::string& channelName);
    // Locator thread only. The message stays the caller's.
    void processChannelPortResponse(CommsChannelPortResponseMessage* response);
    void processLocatorUpdate(CommsChannelLocatorUpdateMessage* update);

private:
    friend class CommsChannelLocatorInspector;  // white-box access for the unit tests
    friend class CommsChannel;                  // registers, unregisters and sends through the members below

    struct PortWaiter;

    // The channel's send path and its replier check: the current locator
    // (created if there is none) is pinned from the moment it is found until
    // the call returns, so the removal of the process's last channel on
    // another thread cannot free it meanwhile; that removal waits for the
    // pin (see enterUse).
    static CommsChannelDispatcher* acquireFromInstance(const std::string& channelName, DispatcherShare** share);
    static bool instanceKnowsName(const std::string& channelName);
    // The current locator, created if there is none, with one more open use;
    // leaveUse() closes it.
    static CommsChannelLocator* enterUse();
    static void leaveUse();
    // Destructor only: returns once no use that found this locator is still
    // inside it. REQUIRES: this locator has just stopped being theInstance,
    // and the instance lock is held, so no other locator is in use.
    static void waitUntilUnused();
    class UseScope;  // one use, closed on every way out

    // Registration and removal for the channel object: the current locator
    // is found (or created) and used under the instance lock, so that the
    // removal of the process's last channel, which deletes the locator,
    // cannot happen between another channel finding it and using it.
    static int registerWithInstance(CommsChannel* channel);
    static int unregisterFromInstance(CommsChannel* channel);
    // The current locator, created if there is none.
    // REQUIRES: the instance lock is held.
    static CommsChannelLocator* currentOrNew();

    // Removes the channel's entry and deletes this locator when that left
    // the local map empty. A send may still be queuing into the channel
    // through the removed entry; *drain then receives a share of its
    // dispatcher, which the caller waits on and gives back once it holds no
    // lock (see DispatcherShare). REQUIRES: the instance lock is held.
    int unregisterLocked(CommsChannel* channel, DispatcherShare** drain);

    // As getDispatcher, and in addition *share receives a share of the
    // dispatcher (null for the shared null dispatcher), which keeps it alive
    // until the caller gives it back after sendMsg. Used by the send path.
    CommsChannelDispatcher* acquireDispatcher(const std::string& channelName, DispatcherShare** share);
    CommsChannelDispatcher* resolve(const std::string& channelName, DispatcherShare** share);
    // sendChannelPortRequest, telling the caller whether the locator's
    // destruction released it (then the locator must not be touched again).
    int requestPort(const std::string& channelName, bool* cancelled);

    static CommsChannelLocator* theInstance;

    std::map<std::string, CommsChannelLocatorEntry*>* m_plocalMap;   // guarded by m_pmapLock
    std::map<std::string, CommsChannelLocatorEntry*>* m_premoteMap;  // guarded by m_pmapLock
    std::map<int, PortWaiter*>* m_prequestMap;                       // guarded by m_prequestLock
    long m_requestId;                                                // guarded by m_prequestLock
    int m_socket;
    int m_port;
    std::atomic<bool> m_initialUpdateReceived;  // set once, by the locator thread
    Semaphore* m_pmapLock;
    Semaphore* m_pinitialUpdateSem;
    Semaphore* m_prequestLock;
    LocatorLink* m_plink;  // this instance's thread, stop flag and socket copy; owned
};

#endif
