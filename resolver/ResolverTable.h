// ResolverTable: what the resolver knows. Each channel name maps to the UDP
// port on 127.0.0.1 where the channel receives, and to the port of the
// locator that registered it (its owner: only the owner may remove the
// name). Beside the names, the set of registered locator ports, which get
// every change pushed to them.
//
// A plain value: copyable, no locks, one thread at a time.
#ifndef COMMSCHANNEL_RESOLVER_TABLE_H
#define COMMSCHANNEL_RESOLVER_TABLE_H

#include <map>
#include <set>
#include <string>
#include <vector>

namespace resolver {

struct ChannelRecord {
    int port;
    int ownerPort;
};

class ResolverTable {
public:
    typedef std::map<std::string, ChannelRecord> ChannelMap;

    // Sets name to (port, ownerPort), replacing whatever the name had: the
    // latest registration of a name wins. True when the table changed.
    bool addChannel(const std::string& name, int port, int ownerPort);
    // True when the name was there and is now gone.
    bool removeChannel(const std::string& name);
    // The record of a name, or null. Valid until the table changes.
    const ChannelRecord* find(const std::string& name) const;
    // The port of a name, 0 for an unknown one.
    int portOf(const std::string& name) const;
    // Names whose owner is ownerPort, in name order.
    std::vector<std::string> channelsOwnedBy(int ownerPort) const;
    const ChannelMap& channels() const { return m_channels; }

    // True when the port was not registered yet.
    bool addLocator(int port);
    // True when the port was registered.
    bool removeLocator(int port);
    bool hasLocator(int port) const { return m_locators.count(port) != 0; }
    const std::set<int>& locators() const { return m_locators; }

    bool operator==(const ResolverTable& other) const;
    bool operator!=(const ResolverTable& other) const { return !(*this == other); }

private:
    ChannelMap m_channels;
    std::set<int> m_locators;
};

}  // namespace resolver

#endif
