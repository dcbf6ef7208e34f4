// Private to locator/: the locator's socket towards the resolver and the
// thread that reads it. The link only moves bytes: it hands every decoded
// message to its handler and knows nothing of what messages mean.
//
// The thread is the socket's only reader, and the only one that closes it,
// so a descriptor number is never used once it is closed. A send that fails
// breaks the link for good: later sends fail at once without touching the
// socket, and the thread closes it and waits only to be stopped.
//
// Until a tick callback declines, the thread also calls it once a second
// (its poll times out then; nothing sleeps). The locator uses this to repeat
// its registration while no resolver has answered yet: the link itself only
// moves bytes and never decides what to send.
//
// Thread safety: send, wake, broken and stop may be called from any thread;
// m_lock is held around every use of the socket by a sender and never while
// the handler or the tick callback runs.
#ifndef COMMSCHANNEL_LOCATOR_LINK_H
#define COMMSCHANNEL_LOCATOR_LINK_H

#include "LoopbackSocket.h"
#include "Mutex.h"

#include <functional>

class CommsChannelMessage;

class LocatorLink {
public:
    typedef std::function<void(CommsChannelMessage&)> Handler;
    // Called on the link's thread every TICK_INTERVAL_MS; returns true to be
    // called again, false never to be called again.
    typedef std::function<bool()> Tick;

    static constexpr int TICK_INTERVAL_MS = 1000;

    // Opens the socket (reporting a failed step with perror) and starts the
    // thread, which calls handler for each message the resolver sends, and
    // tick (when given) every TICK_INTERVAL_MS until it returns false.
    explicit LocatorLink(Handler handler, Tick tick = Tick());
    // Stops and joins the thread if stop() was not called.
    ~LocatorLink();
    LocatorLink(const LocatorLink&) = delete;
    LocatorLink& operator=(const LocatorLink&) = delete;

    bool opened() const { return m_opened; }
    int port() const { return m_port; }
    // Sends one encoding to the resolver. 1 when sent; 0 after a failure,
    // reported with perror, which breaks the link.
    int send(const char* data, int length);
    bool broken();
    // Sends the zero-length wake-up datagram to the link's own port, as the
    // system always has. 1 when sent.
    int sendWakeUp();
    // Stops the thread and waits for it. The handler is not called again.
    void stop();

private:
    static void* run(void* link);
    void readLoop();
    // The descriptor to wait on (-1 when none); closes a broken socket.
    int socketToWatch();
    void readOneDatagram(int fd);
    void wakeThread();
    // The poll time-out until the next tick: -1 when ticks have ended.
    // Calls the tick when it is due. Link thread only.
    int tickTimeout();

    const Handler m_handler;
    const Tick m_tick;
    bool m_ticking;                // link thread only
    long long m_nextTickMs;        // link thread only, monotonic
    Mutex m_lock;
    LoopbackSocket m_socket;  // guarded by m_lock
    bool m_opened;
    int m_port;
    int m_wakeFd;             // eventfd that wakes the thread
    bool m_broken;            // guarded by m_lock
    bool m_stopping;          // guarded by m_lock
    bool m_joined;            // guarded by m_lock
    unsigned long m_threadId;
};

#endif
