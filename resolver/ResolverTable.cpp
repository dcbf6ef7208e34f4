#include "ResolverTable.h"

namespace resolver {

bool ResolverTable::addChannel(const std::string& name, int port, int ownerPort)
{
    ChannelMap::iterator it = m_channels.find(name);
    if (it == m_channels.end()) {
        m_channels.insert(std::make_pair(name, ChannelRecord{port, ownerPort}));
        return true;
    }
    if (it->second.port == port && it->second.ownerPort == ownerPort) {
        return false;
    }
    it->second.port = port;
    it->second.ownerPort = ownerPort;
    return true;
}

bool ResolverTable::removeChannel(const std::string& name) { return m_channels.erase(name) != 0; }

const ChannelRecord* ResolverTable::find(const std::string& name) const
{
    ChannelMap::const_iterator it = m_channels.find(name);
    return it != m_channels.end() ? &it->second : nullptr;
}

int ResolverTable::portOf(const std::string& name) const
{
    const ChannelRecord* record = find(name);
    return record != nullptr ? record->port : 0;
}

std::vector<std::string> ResolverTable::channelsOwnedBy(int ownerPort) const
{
    std::vector<std::string> names;
    for (ChannelMap::const_iterator it = m_channels.begin(); it != m_channels.end(); ++it) {
        if (it->second.ownerPort == ownerPort) {
            names.push_back(it->first);
        }
    }
    return names;
}

bool ResolverTable::addLocator(int port) { return m_locators.insert(port).second; }

bool ResolverTable::removeLocator(int port) { return m_locators.erase(port) != 0; }

bool ResolverTable::operator==(const ResolverTable& other) const
{
    if (m_locators != other.m_locators || m_channels.size() != other.m_channels.size()) {
        return false;
    }
    for (ChannelMap::const_iterator mine = m_channels.begin(), theirs = other.m_channels.begin();
         mine != m_channels.end(); ++mine, ++theirs) {
        if (mine->first != theirs->first || mine->second.port != theirs->second.port ||
            mine->second.ownerPort != theirs->second.ownerPort) {
            return false;
        }
    }
    return true;
}

}  // namespace resolver
