// Registration of this process's channels and resolution of destination
// names.
#include "CommsChannel.h"
#include "CommsChannelDispatcher.h"
#include "CommsChannelLocator.h"
#include "CommsChannelLocatorEntry.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelPortRequestMessage.h"

#include <cerrno>
#include <cstdio>

namespace {

// One null dispatcher serves every unresolved name for the life of the
// process; it is never deleted, and its shares own nothing.
const std::shared_ptr<CommsChannelDispatcher>& sharedNullDispatcher()
{
    static const std::shared_ptr<CommsChannelDispatcher> share(new CCNullDispatcher(), [](CommsChannelDispatcher*) {});
    return share;
}

// True when the resolver can carry the name: its registration row fits an
// update of MAX_PIECE bytes, the largest the resolver accepts from a locator
// and sends. A longer name stays this process's own. Sending it would be no
// use (the resolver ignores such a row), and past the largest datagram the
// send would fail and break the link for every other name.
bool resolverCarries(const std::string& name)
{
    CommsChannelLocatorUpdateMessage update;
    update.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_ADDED, name, 0);
    int length = 0;
    return update.encode(&length) != nullptr && length <= CCInterProcDispatcher::MAX_PIECE;
}

}  // namespace

int CommsChannelLocator::registerChannel(CommsChannel* channel)
{
    if (channel == nullptr || shuttingDown()) {
        return 0;
    }
    ScopedLock hold(m_mapLock);
    if (m_localMap.count(channel->channelName()) != 0) {
        return 0;
    }
    CommsChannelLocatorEntry* entry = new CommsChannelLocatorEntry();
    entry->setChannelName(channel->channelName());
    entry->setPort(channel->port());
    entry->setChannelHandle(channel);
    entry->setDispatcher(new CCIntraProcDispatcher(channel));
    m_localMap.insert(std::make_pair(entry->channelName(), entry));
    if (!resolverCarries(entry->channelName())) {
        // Reported as the failed send it would have been, once, but without
        // sending: the link stays whole for the process's other names.
        errno = EMSGSIZE;
        perror("CommsChannelLocator::send(CommsChannelMessage& message) sendto");
        return 1;
    }
    sendChannelRegistration(entry);
    return 1;
}

int CommsChannelLocator::unregisterChannel(CommsChannel* channel)
{
    if (channel == nullptr || shuttingDown()) {
        return 0;
    }
    int removed = 0;
    bool empty = false;
    {
        ScopedLock hold(m_mapLock);
        const EntryMap::iterator it = m_localMap.find(channel->channelName());
        if (it != m_localMap.end()) {
            // A send still delivering through the entry's dispatcher keeps
            // it (and the channel's inbox) until it returns.
            sendChannelUnregistration(it->second);
            delete it->second;
            m_localMap.erase(it);
            removed = 1;
        }
        empty = m_localMap.empty();
    }
    // The locator lives exactly as long as this process has channels.
    if (empty) {
        shutdown();
    }
    return removed;
}

int CommsChannelLocator::sendChannelRegistration(CommsChannelLocatorEntry* entry)
{
    if (!resolverCarries(entry->channelName())) {
        return 0;
    }
    CommsChannelLocatorUpdateMessage update;
    update.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_ADDED, entry->channelName(), entry->port());
    return send(update);
}

int CommsChannelLocator::sendChannelUnregistration(CommsChannelLocatorEntry* entry)
{
    if (entry == nullptr || !resolverCarries(entry->channelName())) {
        return 0;
    }
    CommsChannelLocatorUpdateMessage update;
    update.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_REMOVED, entry->channelName(), entry->port());
    return send(update);
}

int CommsChannelLocator::sendChannelPortRequest(const std::string& channelName)
{
    bool cancelled = false;
    return requestPort(channelName, &cancelled);
}

int CommsChannelLocator::requestPort(const std::string& channelName, bool* cancelled)
{
    PortWaiter waiter;
    CommsChannelPortRequestMessage request;
    {
        ScopedLock hold(m_requestLock);
        ++m_requestId;
        m_requestMap.insert(std::make_pair(m_requestId, &waiter));
        request.setRequestId(m_requestId);
        request.setChannel(channelName);
    }
    if (shuttingDown()) {
        // The shutdown may have released the waiters already; this request
        // fares as they did.
        ScopedLock hold(m_requestLock);
        m_requestMap.erase(request.requestId());
        *cancelled = true;
        return 1;
    }
    const int sent = send(request);
    // Waits even when the request could not be sent: such a caller is
    // released only by the locator's shutdown.
    ScopedLock hold(m_requestLock);
    while (!waiter.answered && !waiter.cancelled) {
        waiter.wake.wait(m_requestLock);
    }
    *cancelled = waiter.cancelled;
    return sent;
}

std::shared_ptr<CommsChannelDispatcher> CommsChannelLocator::lookUp(const std::string& channelName, bool remoteOnly)
{
    ScopedLock hold(m_mapLock);
    EntryMap::const_iterator found = remoteOnly ? m_localMap.end() : m_localMap.find(channelName);
    if (found == m_localMap.end()) {
        found = m_remoteMap.find(channelName);
        if (found == m_remoteMap.end()) {
            return nullptr;
        }
    }
    return found->second->sharedDispatcher();
}

CommsChannelDispatcher* CommsChannelLocator::getDispatcher(const std::string& channelName)
{
    return acquireDispatcher(channelName).get();
}

std::shared_ptr<CommsChannelDispatcher> CommsChannelLocator::acquireDispatcher(const std::string& channelName)
{
    if (shuttingDown()) {
        return nullptr;
    }
    awaitInitialUpdate();
    std::shared_ptr<CommsChannelDispatcher> dispatcher = lookUp(channelName, false);
    if (dispatcher) {
        return dispatcher;
    }
    if (!resolverCarries(channelName)) {
        return sharedNullDispatcher();
    }
    bool cancelled = false;
    if (requestPort(channelName, &cancelled) == 1) {
        if (cancelled || shuttingDown()) {
            return nullptr;
        }
        dispatcher = lookUp(channelName, true);
    }
    return dispatcher ? dispatcher : sharedNullDispatcher();
}

bool CommsChannelLocator::knowsName(const std::string& channelName)
{
    ScopedLock hold(m_mapLock);
    return m_localMap.count(channelName) != 0 || m_remoteMap.count(channelName) != 0;
}
