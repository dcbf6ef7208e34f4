// CommsChannelLocator: the one object per process that knows where channels
// are. It keeps the channels of this process (local map) and the names learnt
// from the resolver process at 127.0.0.1:5000 (remote map), resolves a
// destination name into a dispatcher, and runs one thread that reads the
// resolver's answers and updates.
//
// Lifetime: the process runtime owns it. instance() returns the current one,
// made on first use. When unregisterChannel leaves the local map empty, the
// locator shuts down before that call returns (it withdraws from the
// resolver, lets every waiting caller go and joins its thread): it has then
// ended, and the runtime makes a fresh one the next time one is wanted.
// Callers never delete it.
//
// Thread safety: every public operation may be called from any application
// thread. The map lock guards both name maps; the request lock guards the
// port requests and the request-id counter; the state lock guards the
// shutdown and first-update flags. None is held while another is taken,
// except the map lock around a send to the resolver, and no wait happens
// under any of them. A send shares the ownership of its dispatcher with the
// entry, so removing an entry never waits for a send.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_LOCATOR_H
#define COMMSCHANNEL_COMMS_CHANNEL_LOCATOR_H

#include "Mutex.h"
#include "ResolverPort.h"

#include <chrono>
#include <map>
#include <memory>
#include <string>

class CommsChannel;
class CommsChannelDispatcher;
class CommsChannelLocatorEntry;
class CommsChannelLocatorUpdateMessage;
class CommsChannelMessage;
class CommsChannelPortResponseMessage;
class LocatorLink;

class CommsChannelLocator {
public:
    // The resolver's fixed UDP port on 127.0.0.1.
    static constexpr int RESOLVER_PORT = COMMSCHANNEL_RESOLVER_PORT;
    // How long (ms) a first resolution waits for the resolver's first update.
    static constexpr int INITIAL_UPDATE_TIMEOUT = 100000;

    // The process's current locator, made on first use. Never delete it.
    static CommsChannelLocator* instance();
    // Whether the current locator knows the name (see knowsName).
    static bool instanceKnowsName(const std::string& channelName);

    // Opens the socket, starts the thread and registers at the resolver.
    CommsChannelLocator();
    // Shuts down first if that has not happened yet.
    virtual ~CommsChannelLocator();

    CommsChannelLocator(const CommsChannelLocator&) = delete;
    CommsChannelLocator& operator=(const CommsChannelLocator&) = delete;

    // Adds a channel of this process under its name and announces it to the
    // resolver, unless the name is too long for the resolver to carry (its
    // registration row would not fit an update of MAX_PIECE bytes): such a
    // name is reached from this process only. 0 for a null channel, a name
    // already registered here, or while the locator shuts down.
    int registerChannel(CommsChannel* channel);
    // Removes the entry of the channel's name (whichever channel holds it)
    // and announces the removal. 1 when an entry was removed. When the local
    // map is left empty, the locator shuts down before returning.
    int unregisterChannel(CommsChannel* channel);

    // The dispatcher for a destination name: this process's channel first,
    // then a name learnt from the resolver, else the resolver is asked and
    // the caller blocks until it answers. Unknown names, and names too long
    // for the resolver that this process does not hold, get one shared null
    // dispatcher. Null while the locator shuts down. A process's first
    // resolutions wait for the resolver's first update, at most
    // INITIAL_UPDATE_TIMEOUT ms; that update lets every one of them go on.
    // Use the result at once: a removal of the name may delete it.
    CommsChannelDispatcher* getDispatcher(const std::string& channelName);
    // getDispatcher for the send path: the caller shares the dispatcher's
    // ownership until it lets go of the result.
    std::shared_ptr<CommsChannelDispatcher> acquireDispatcher(const std::string& channelName);

    // True while the name stands in the local or the remote map. Never asks
    // the resolver.
    bool knowsName(const std::string& channelName);
    // True once the locator has shut down.
    bool hasEnded();

    // Entries in the local map plus entries in the remote map. No lock.
    unsigned int size();
    // Prints every entry, local map first, to standard output. No lock.
    void dumpLocatorMap();

    // 1 when the socket towards the resolver is open (made by the constructor).
    int createResolverConnection();
    // Sends one message to the resolver. 1 when sent.
    int send(CommsChannelMessage& message);
    // Wakes the locator thread so that it sees the shutdown.
    int shutdownReceiver();

    int sendChannelRegistration(CommsChannelLocatorEntry* entry);
    int sendChannelUnregistration(CommsChannelLocatorEntry* entry);
    // Asks the resolver for a name's port and blocks until the answer (or
    // the locator's shutdown) releases it. Never call on the locator thread.
    int sendChannelPortRequest(const std::string& channelName);
    // Applied by the locator thread. The message stays the caller's.
    void processChannelPortResponse(CommsChannelPortResponseMessage* response);
    void processLocatorUpdate(CommsChannelLocatorUpdateMessage* update);

private:
    // A port requester's wait, on its own stack; released by the answer or,
    // cancelled, by the shutdown. Guarded by the request lock.
    struct PortWaiter {
        ConditionVariable wake;
        bool answered = false;
        bool cancelled = false;
    };
    typedef std::map<std::string, CommsChannelLocatorEntry*> EntryMap;

    // The destruction's work, done once: withdraw from the resolver, drop
    // every entry, let every waiter go, stop and join the thread.
    void shutdown();
    bool shuttingDown();
    // Waits for the resolver's first update, unless it came, the link
    // broke or the locator is shutting down. After a second without it,
    // writes one line on standard error (once per process).
    void awaitInitialUpdate();
    // Waits as awaitInitialUpdate does, until end. False on time-out.
    bool waitForInitialUpdateUntil(std::chrono::steady_clock::time_point end);
    // Sends the register-locator message. 1 when sent.
    int sendLocatorRegistration();
    // Called by the link's thread every second: while the resolver's first
    // update is missing, registers the locator and every local channel
    // again and returns true; else returns false, ending the repeats.
    bool resendRegistration();
    // The entry's dispatcher with a share of its ownership, from the local
    // map or else the remote map.
    std::shared_ptr<CommsChannelDispatcher> lookUp(const std::string& channelName, bool remoteOnly);
    // sendChannelPortRequest, telling whether the shutdown released it.
    int requestPort(const std::string& channelName, bool* cancelled);
    void releasePortRequests();
    void applyMessage(CommsChannelMessage& message);

    Mutex m_mapLock;
    EntryMap m_localMap;    // guarded by m_mapLock
    EntryMap m_remoteMap;   // guarded by m_mapLock
    Mutex m_requestLock;
    std::map<long, PortWaiter*> m_requestMap;  // guarded by m_requestLock
    long m_requestId;                          // guarded by m_requestLock
    Mutex m_stateLock;
    ConditionVariable m_initialUpdate;  // broadcast when a flag below is set
    bool m_initialUpdateReceived;       // guarded by m_stateLock
    bool m_linkBroken;                  // guarded by m_stateLock
    bool m_shuttingDown;                // guarded by m_stateLock
    bool m_ended;                       // guarded by m_stateLock
    LocatorLink* m_plink;  // the socket towards the resolver and the thread reading it; owned
};

#endif
