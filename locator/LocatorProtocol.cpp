// The locator's handling of the resolver's datagrams, as plain functions.
#include "LocatorProtocol.h"

#include "CommsChannelDispatcher.h"
#include "CommsChannelLocatorEntry.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelMessageCreator.h"
#include "WireHeader.h"

namespace locator_protocol {

std::unique_ptr<CommsChannelMessage> decodeDatagram(const char* datagram, std::size_t length)
{
    // The decoder reads as many bytes as the header announces, so the
    // datagram must hold at least that many; anything else, from whatever
    // sender, is dropped here.
    if (!wire_header::complete(datagram, length)) {
        return nullptr;
    }
    CommsChannelMessageCreator creator;
    return std::unique_ptr<CommsChannelMessage>(creator.decodeMessage(datagram));
}

void learn(EntryMap& remote, const std::string& name, int port)
{
    EntryMap::iterator known = remote.find(name);
    if (known != remote.end()) {
        known->second->setPort(port);
        known->second->setDispatcher(new CCInterProcDispatcher(port));
        return;
    }
    CommsChannelLocatorEntry* entry = new CommsChannelLocatorEntry();
    entry->setChannelName(name);
    entry->setPort(port);
    entry->setDispatcher(new CCInterProcDispatcher(port));
    remote.insert(std::make_pair(name, entry));
}

void applyUpdate(EntryMap& remote, const CommsChannelLocatorUpdateMessage& update)
{
    for (int index = 0; index < update.numChannelEntries(); ++index) {
        CommsChannelLocatorUpdateMessage::eUpdateType type = CommsChannelLocatorUpdateMessage::CHANNEL_ADDED;
        std::string name;
        int port = 0;
        update.getChannelEntry(index, &type, &name, &port);
        if (type == CommsChannelLocatorUpdateMessage::CHANNEL_ADDED) {
            learn(remote, name, port);
            continue;
        }
        EntryMap::iterator known = remote.find(name);
        if (known != remote.end()) {
            // A send under way through the entry's dispatcher keeps it
            // until it returns.
            delete known->second;
            remote.erase(known);
        }
    }
}

void clear(EntryMap& map)
{
    for (EntryMap::value_type& entry : map) {
        delete entry.second;
    }
    map.clear();
}

}  // namespace locator_protocol
