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
// destructor (map lock first). The file-scope instance lock is only held
// together with the shutdown lock, taken inside it.
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
    // map is left empty, the locator deletes itself before returning.
    int unregisterChannel(CommsChannel* channel);

    // The dispatcher for a destination name: this process's channel first,
    // then a name learnt from the resolver, else the resolver is asked and
    // the caller blocks until it answers. Unknown names get one shared null
    // dispatcher. Use it at once; never delete or keep it. Null only while
    // the locator shuts down. Blocks up to INITIAL_UPDATE_TIMEOUT ms on a
    // process's first resolution if the resolver has not answered yet; the
    // first update releases one such waiter only (deliberately not passed
    // on), so concurrent first resolutions should be avoided.
    CommsChannelDispatcher* getDispatcher(const std::string& channelName);

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
    friend class CommsChannel;                  // sends through acquireDispatcher

    // As getDispatcher, but the dispatcher stays valid until the caller
    // hands it back with releaseDispatcher: entries are not deleted while a
    // send through them is under way. Used by the channel's send path.
    CommsChannelDispatcher* acquireDispatcher(const std::string& channelName);
    void releaseDispatcher(CommsChannelDispatcher* dispatcher);
    CommsChannelDispatcher* resolve(const std::string& channelName, bool hold);
    // Counts a send that starts through an entry's dispatcher.
    // REQUIRES: m_pmapLock is held.
    void beginSend();
    // Waits until no send holds a dispatcher. Holding the map lock keeps
    // new sends from starting, so entries can then be deleted safely.
    // REQUIRES: m_pmapLock is held.
    void waitForSendsToDrain();

    static CommsChannelLocator* theInstance;

    std::map<std::string, CommsChannelLocatorEntry*>* m_plocalMap;   // guarded by m_pmapLock
    std::map<std::string, CommsChannelLocatorEntry*>* m_premoteMap;  // guarded by m_pmapLock
    std::map<int, Semaphore*>* m_prequestMap;                        // guarded by m_prequestLock
    long m_requestId;                                                // guarded by m_prequestLock
    int m_socket;
    int m_port;
    std::atomic<bool> m_initialUpdateReceived;  // set once, by the locator thread
    Semaphore* m_pmapLock;
    Semaphore* m_pinitialUpdateSem;
    Semaphore* m_prequestLock;
    Semaphore* m_psendCountLock;  // guards m_activeSends and m_drainWaiting
    Semaphore* m_psendsDrained;   // given when the last active send ends while a deleter waits
    int m_activeSends;
    bool m_drainWaiting;
};

#endif
