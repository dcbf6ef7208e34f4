// Registration of this process's channels and resolution of destination
// names, and the locator thread's handling of the resolver's messages.
#include "CommsChannel.h"
#include "CommsChannelDispatcher.h"
#include "CommsChannelLocator.h"
#include "CommsChannelLocatorEntry.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "DispatcherShare.h"
#include "LocatorState.h"
#include "Semaphore.h"

namespace {

// One null dispatcher serves every unresolved name for the life of the
// process; it is never deleted.
CCNullDispatcher* sharedNullDispatcher()
{
    static CCNullDispatcher* const nullDispatcher = new CCNullDispatcher();
    return nullDispatcher;
}

typedef std::map<std::string, CommsChannelLocatorEntry*> EntryMap;

CommsChannelLocatorEntry* find(EntryMap* map, const std::string& name)
{
    EntryMap::iterator it = map->find(name);
    return it != map->end() ? it->second : nullptr;
}

// Adds a name learnt from the resolver, or updates its port. A known entry
// keeps sending through its first dispatcher (and so to its first port).
void learnRemote(EntryMap* remoteMap, const std::string& name, int port)
{
    CommsChannelLocatorEntry* entry = find(remoteMap, name);
    if (entry != nullptr) {
        entry->setPort(port);
        entry->setDispatcher(new CCInterProcDispatcher(port));
        return;
    }
    entry = new CommsChannelLocatorEntry();
    entry->setChannelName(name);
    entry->setPort(port);
    entry->setDispatcher(new CCInterProcDispatcher(port));
    remoteMap->insert(std::make_pair(name, entry));
}

}  // namespace

int CommsChannelLocator::registerChannel(CommsChannel* channel)
{
    if (m_plink->stopRequested()) {
        return 0;
    }
    m_pmapLock->take(-1);
    if (channel == nullptr || m_plocalMap->count(channel->channelName()) != 0) {
        m_pmapLock->give();
        return 0;
    }
    CommsChannelLocatorEntry* entry = new CommsChannelLocatorEntry();
    entry->setChannelName(channel->channelName());
    entry->setPort(channel->port());
    entry->setChannelHandle(channel);
    entry->setDispatcher(new CCIntraProcDispatcher(channel));
    m_plocalMap->insert(std::make_pair(entry->channelName(), entry));
    // The announcement is sent outside the lock from a copy: once the lock
    // is given, another channel of the same name may unregister the entry.
    CommsChannelLocatorEntry announced(entry->channelName(), entry->port(), "");
    m_pmapLock->give();
    sendChannelRegistration(&announced);
    return 1;
}

int CommsChannelLocator::unregisterChannel(CommsChannel* channel)
{
    if (m_plink->stopRequested() || channel == nullptr) {
        return 0;
    }
    locator_state::instanceLock().take(-1);
    DispatcherShare* drain = nullptr;
    const int removed = unregisterLocked(channel, &drain);
    locator_state::instanceLock().give();
    // This locator may be gone by now; the share is not part of it.
    if (drain != nullptr) {
        drain->waitUntilSoleHolder();
        drain->release();
    }
    return removed;
}

int CommsChannelLocator::unregisterLocked(CommsChannel* channel, DispatcherShare** drain)
{
    int removed = 0;
    m_pmapLock->take(-1);
    EntryMap::iterator it = m_plocalMap->find(channel->channelName());
    if (it != m_plocalMap->end()) {
        CommsChannelLocatorEntry* entry = it->second;
        m_plocalMap->erase(it);
        sendChannelUnregistration(entry);
        // A sender in this process may be queuing into the channel through
        // this entry right now, and the channel goes away once our caller
        // returns. We keep a share of the dispatcher so that the caller can
        // wait for such sends to end, after it has given every lock. The
        // entry itself goes at once.
        DispatcherShare* share = entry->dispatcherShare();
        if (share != nullptr) {
            share->acquire();
            *drain = share;
        }
        delete entry;
        removed = 1;
    }
    const bool lastLocalChannel = m_plocalMap->empty();
    m_pmapLock->give();
    // The locator lives exactly as long as this process has channels; the
    // next named channel creates a new one. The instance lock, held by our
    // caller, keeps anyone from finding this locator in the meantime.
    if (lastLocalChannel) {
        delete this;
    }
    return removed;
}

int CommsChannelLocator::sendChannelRegistration(CommsChannelLocatorEntry* entry)
{
    CommsChannelLocatorUpdateMessage update;
    update.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_ADDED, entry->channelName(), entry->port());
    return send(update);
}

int CommsChannelLocator::sendChannelUnregistration(CommsChannelLocatorEntry* entry)
{
    if (entry == nullptr) {
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
    m_prequestLock->take(-1);
    if (m_prequestMap == nullptr) {
        // The destruction under way has already released every waiter; this
        // request fares as they did.
        m_prequestLock->give();
        *cancelled = true;
        return 1;
    }
    ++m_requestId;
    m_prequestMap->insert(std::make_pair(static_cast<int>(m_requestId), &waiter));
    CommsChannelPortRequestMessage request;
    request.setRequestId(m_requestId);
    request.setChannel(channelName);
    m_prequestLock->give();

    const int sent = send(request);
    // Waits even when the request could not be sent: such a caller is
    // released only by the locator's destruction. The resolver answers
    // within microseconds, so the wait keeps the processor a little first.
    waiter.answered.takeExpectingSoon(-1);
    *cancelled = waiter.cancelled;
    return sent;
}

void CommsChannelLocator::processChannelPortResponse(CommsChannelPortResponseMessage* response)
{
    const std::string name = response->channel();
    const long requestId = response->requestId();
    const int port = response->port();
    if (port != 0) {
        m_pmapLock->take(-1);
        learnRemote(m_premoteMap, name, port);
        m_pmapLock->give();
    }
    m_prequestLock->take(-1);
    std::map<int, PortWaiter*>::iterator waiter = m_prequestMap->find(static_cast<int>(requestId));
    if (waiter != m_prequestMap->end() && waiter->second != nullptr) {
        waiter->second->answered.give();
    }
    m_prequestMap->erase(static_cast<int>(requestId));
    m_prequestLock->give();
}

void CommsChannelLocator::processLocatorUpdate(CommsChannelLocatorUpdateMessage* update)
{
    m_pmapLock->take(-1);
    for (int index = 0; index < update->numChannelEntries(); ++index) {
        CommsChannelLocatorUpdateMessage::eUpdateType type = CommsChannelLocatorUpdateMessage::CHANNEL_ADDED;
        std::string name;
        int port = 0;
        update->getChannelEntry(index, &type, &name, &port);
        // Every type other than "added" is a removal.
        if (type != CommsChannelLocatorUpdateMessage::CHANNEL_ADDED) {
            EntryMap::iterator it = m_premoteMap->find(name);
            if (it != m_premoteMap->end()) {
                // A send under way through the entry's dispatcher keeps it
                // until it returns; nothing waits for that here.
                CommsChannelLocatorEntry* entry = it->second;
                m_premoteMap->erase(it);
                delete entry;
            }
        } else {
            learnRemote(m_premoteMap, name, port);
        }
    }
    if (!m_initialUpdateReceived) {
        m_pinitialUpdateSem->give();
        m_initialUpdateReceived = true;
    }
    m_pmapLock->give();
}

CommsChannelDispatcher* CommsChannelLocator::getDispatcher(const std::string& channelName)
{
    return resolve(channelName, nullptr);
}

CommsChannelDispatcher* CommsChannelLocator::acquireDispatcher(const std::string& channelName,
                                                               DispatcherShare** share)
{
    return resolve(channelName, share);
}

CommsChannelDispatcher* CommsChannelLocator::resolve(const std::string& channelName, DispatcherShare** share)
{
    if (m_plink->stopRequested()) {
        return nullptr;
    }
    if (!m_initialUpdateReceived) {
        // The resolver answers a new locator with an update at once; without
        // a resolver this bounds the wait. The count is not given back.
        m_pinitialUpdateSem->take(INITIAL_UPDATE_TIMEOUT);
        if (m_plink->stopRequested()) {
            // The destruction let this wait go; the next such waiter, if
            // any, goes the same way.
            m_pinitialUpdateSem->give();
            return nullptr;
        }
    }
    // The dispatcher is read under the map lock: once the lock is given, a
    // removal may let go of the entry's share. A caller that asked for a
    // share of its own gets it here, while the entry still holds one.
    // REQUIRES: m_pmapLock is held.
    auto dispatcherOf = [share](CommsChannelLocatorEntry* entry) -> CommsChannelDispatcher* {
        if (entry == nullptr || entry->dispatcher() == nullptr) {
            return nullptr;
        }
        if (share != nullptr) {
            entry->dispatcherShare()->acquire();
            *share = entry->dispatcherShare();
        }
        return entry->dispatcher();
    };
    m_pmapLock->take(-1);
    if (m_plocalMap == nullptr) {
        // Emptied by the destruction under way.
        m_pmapLock->give();
        return nullptr;
    }
    CommsChannelLocatorEntry* entry = find(m_plocalMap, channelName);
    if (entry == nullptr) {
        entry = find(m_premoteMap, channelName);
    }
    CommsChannelDispatcher* dispatcher = dispatcherOf(entry);
    m_pmapLock->give();

    if (entry == nullptr) {
        bool cancelled = false;
        const int sent = requestPort(channelName, &cancelled);
        // Released by the locator's destruction: this object may be gone.
        // The answer is the one a shutdown test would give.
        if (cancelled) {
            return sent == 1 ? nullptr : sharedNullDispatcher();
        }
        if (sent == 1) {
            if (m_plink->stopRequested()) {
                return nullptr;
            }
            m_pmapLock->take(-1);
            if (m_premoteMap == nullptr) {
                m_pmapLock->give();
                return nullptr;
            }
            dispatcher = dispatcherOf(find(m_premoteMap, channelName));
            m_pmapLock->give();
        }
    }
    return dispatcher != nullptr ? dispatcher : sharedNullDispatcher();
}

bool CommsChannelLocator::knowsName(const std::string& channelName)
{
    m_pmapLock->take(-1);
    // The maps are gone once a destruction has emptied them.
    const bool known = m_plocalMap != nullptr &&
                       (find(m_plocalMap, channelName) != nullptr || find(m_premoteMap, channelName) != nullptr);
    m_pmapLock->give();
    return known;
}
