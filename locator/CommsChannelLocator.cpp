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

#include <chrono>

CommsChannelLocator::CommsChannelLocator()
    : m_requestId(0), m_initialUpdateReceived(false), m_linkBroken(false), m_shuttingDown(false), m_ended(false),
      m_plink(nullptr)
{
    m_plink = new LocatorLink([this](CommsChannelMessage& message) { applyMessage(message); });
    // Sent into the void when no resolver listens; UDP does not mind.
    CommsChannelRegisterLocatorMessage registration;
    registration.setPort(m_plink->port());
    send(registration);
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
    CommsChannelUnregisterLocatorMessage unregistration;
    unregistration.setPort(m_plink->port());
    send(unregistration);
    {
        ScopedLock hold(m_mapLock);
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
    ScopedLock hold(m_stateLock);
    // The resolver answers a new locator with an update at once; without a
    // resolver this bounds the wait.
    const std::chrono::steady_clock::time_point end =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(INITIAL_UPDATE_TIMEOUT);
    while (!m_initialUpdateReceived && !m_linkBroken && !m_shuttingDown) {
        const long long left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
        if (left <= 0) {
            return;
        }
        m_initialUpdate.waitFor(m_stateLock, static_cast<int>(left));
    }
}
