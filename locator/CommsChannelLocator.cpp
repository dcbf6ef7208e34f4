// The locator's life: construction, shutdown, its link to the resolver and
// the messages its thread hands over.
#include "CommsChannelLocator.h"

#include "CommsChannelLocatorEntry.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "CommsChannelUnregisterLocatorMessage.h"
#include "LocatorLink.h"
#include "LocatorProtocol.h"

#include <atomic>
#include <chrono>
#include <cstdio>

namespace {

// How long a resolution waits for the resolver before it says so.
const int SILENT_RESOLVER_WARNING_MS = 1000;

// One line per process, however many locators come and go: a missing
// resolver is one fact about the host, not one per channel.
void warnSilentResolverOnce()
{
    static std::atomic<bool> warned(false);
    if (!warned.exchange(true)) {
        std::fprintf(stderr,
                     "CommsChannel: no resolver has answered on 127.0.0.1:%d for %d s; is commschannel-resolver "
                     "running?\n",
                     COMMSCHANNEL_RESOLVER_PORT, SILENT_RESOLVER_WARNING_MS / 1000);
    }
}

}  // namespace

CommsChannelLocator::CommsChannelLocator()
    : m_requestId(0), m_initialUpdateReceived(false), m_linkBroken(false), m_shuttingDown(false), m_ended(false),
      m_plink(nullptr)
{
    m_plink = new LocatorLink([this](CommsChannelMessage& message) { applyMessage(message); },
                              [this]() { return resendRegistration(); });
    // Sent into the void when no resolver listens; UDP does not mind. The
    // link's thread repeats it until the resolver answers.
    sendLocatorRegistration();
}

int CommsChannelLocator::sendLocatorRegistration()
{
    CommsChannelRegisterLocatorMessage registration;
    registration.setPort(m_plink->port());
    return send(registration);
}

bool CommsChannelLocator::resendRegistration()
{
    // The map lock is held throughout, so that the shutdown's withdrawal,
    // sent under it too, never goes out before a registration repeated here.
    ScopedLock hold(m_mapLock);
    {
        ScopedLock state(m_stateLock);
        if (m_initialUpdateReceived || m_linkBroken || m_shuttingDown) {
            return false;
        }
    }
    // No resolver has answered yet: perhaps none ran when this process
    // started. Once one starts, this registration and the channel rows make
    // it learn every name of this process, and its answer ends the repeats.
    if (sendLocatorRegistration() != 1) {
        return false;
    }
    for (EntryMap::value_type& local : m_localMap) {
        sendChannelRegistration(local.second);
    }
    return true;
}

CommsChannelLocator::~CommsChannelLocator()
{
    shutdown();
    delete m_plink;
}

void CommsChannelLocator::shutdown()
{
    {
        ScopedLock hold(m_stateLock);
        if (m_shuttingDown) {
            return;
        }
        m_shuttingDown = true;
    }
    // From now on the thread applies nothing, and every operation refuses.
    m_initialUpdate.broadcast();
    {
        // Under the map lock, so that a registration repeated by the link's
        // thread either goes out before this withdrawal or not at all.
        ScopedLock hold(m_mapLock);
        CommsChannelUnregisterLocatorMessage unregistration;
        unregistration.setPort(m_plink->port());
        send(unregistration);
        for (EntryMap::value_type& local : m_localMap) {
            sendChannelUnregistration(local.second);
        }
        locator_protocol::clear(m_localMap);
        locator_protocol::clear(m_remoteMap);
    }
    releasePortRequests();
    shutdownReceiver();
    m_plink->stop();
    ScopedLock hold(m_stateLock);
    m_ended = true;
}

void CommsChannelLocator::releasePortRequests()
{
    // Each waiter learns that it was cancelled and returns without touching
    // the maps again.
    ScopedLock hold(m_requestLock);
    for (std::map<long, PortWaiter*>::value_type& request : m_requestMap) {
        request.second->cancelled = true;
        request.second->wake.signal();
    }
    m_requestMap.clear();
}

bool CommsChannelLocator::shuttingDown()
{
    ScopedLock hold(m_stateLock);
    return m_shuttingDown;
}

bool CommsChannelLocator::hasEnded()
{
    ScopedLock hold(m_stateLock);
    return m_ended;
}

int CommsChannelLocator::createResolverConnection() { return m_plink->opened() ? 1 : 0; }

int CommsChannelLocator::send(CommsChannelMessage& message)
{
    int length = 0;
    const char* encoding = message.encode(&length);
    if (encoding == nullptr) {
        return 0;
    }
    if (m_plink->send(encoding, length) == 1) {
        return 1;
    }
    // The resolver's first update can no longer arrive: nobody waits for it.
    {
        ScopedLock hold(m_stateLock);
        m_linkBroken = true;
    }
    m_initialUpdate.broadcast();
    return 0;
}

int CommsChannelLocator::shutdownReceiver() { return m_plink->sendWakeUp(); }

void CommsChannelLocator::applyMessage(CommsChannelMessage& message)
{
    if (shuttingDown()) {
        return;
    }
    if (message.type() == COMMS_MSG_LOCATOR_UPDATE) {
        processLocatorUpdate(static_cast<CommsChannelLocatorUpdateMessage*>(&message));
    } else if (message.type() == COMMS_MSG_PORT_RESPONSE) {
        processChannelPortResponse(static_cast<CommsChannelPortResponseMessage*>(&message));
    }
}

void CommsChannelLocator::processLocatorUpdate(CommsChannelLocatorUpdateMessage* update)
{
    {
        ScopedLock hold(m_mapLock);
        locator_protocol::applyUpdate(m_remoteMap, *update);
    }
    {
        ScopedLock hold(m_stateLock);
        if (m_initialUpdateReceived) {
            return;
        }
        m_initialUpdateReceived = true;
    }
    // Every resolution waiting for the first update goes on.
    m_initialUpdate.broadcast();
}

void CommsChannelLocator::processChannelPortResponse(CommsChannelPortResponseMessage* response)
{
    const std::string name = response->channel();
    const long requestId = response->requestId();
    const int port = response->port();
    if (port != 0) {
        ScopedLock hold(m_mapLock);
        locator_protocol::learn(m_remoteMap, name, port);
    }
    ScopedLock hold(m_requestLock);
    const std::map<long, PortWaiter*>::iterator waiter = m_requestMap.find(requestId);
    if (waiter != m_requestMap.end()) {
        waiter->second->answered = true;
        waiter->second->wake.signal();
        m_requestMap.erase(waiter);
    }
}

void CommsChannelLocator::awaitInitialUpdate()
{
    // The resolver answers a new locator with an update at once; without a
    // resolver INITIAL_UPDATE_TIMEOUT bounds the wait. A wait that lasts
    // says so on standard error, since a missing resolver is otherwise
    // silent: the sends that follow merely fail.
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    if (waitForInitialUpdateUntil(start + std::chrono::milliseconds(SILENT_RESOLVER_WARNING_MS))) {
        return;
    }
    warnSilentResolverOnce();
    waitForInitialUpdateUntil(start + std::chrono::milliseconds(INITIAL_UPDATE_TIMEOUT));
}

bool CommsChannelLocator::waitForInitialUpdateUntil(std::chrono::steady_clock::time_point end)
{
    ScopedLock hold(m_stateLock);
    while (!m_initialUpdateReceived && !m_linkBroken && !m_shuttingDown) {
        const long long left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
        if (left <= 0) {
            return false;
        }
        m_initialUpdate.waitFor(m_stateLock, static_cast<int>(left));
    }
    return true;
}
