#include "ResolverTakeovers.h"

#include <algorithm>

namespace resolver {

template <typename Predicate>
void ResolverTakeovers::dropIf(ReplacedMap::iterator name, Predicate drop)
{
    std::vector<ChannelRecord>& records = name->second;
    records.erase(std::remove_if(records.begin(), records.end(), drop), records.end());
    if (records.empty()) {
        m_replaced.erase(name);
    }
}

void ResolverTakeovers::remember(const std::string& name, const ChannelRecord& replaced)
{
    // An owner has at most one kept registration per name: its latest.
    forget(name, replaced.ownerPort);
    m_replaced[name].push_back(replaced);
}

void ResolverTakeovers::forget(const std::string& name, int ownerPort)
{
    const ReplacedMap::iterator found = m_replaced.find(name);
    if (found != m_replaced.end()) {
        dropIf(found, [ownerPort](const ChannelRecord& record) { return record.ownerPort == ownerPort; });
    }
}

void ResolverTakeovers::forgetOwner(int ownerPort)
{
    for (ReplacedMap::iterator it = m_replaced.begin(); it != m_replaced.end();) {
        const ReplacedMap::iterator current = it++;
        dropIf(current, [ownerPort](const ChannelRecord& record) { return record.ownerPort == ownerPort; });
    }
}

void ResolverTakeovers::keepBound(const std::set<int>& boundPorts)
{
    for (ReplacedMap::iterator it = m_replaced.begin(); it != m_replaced.end();) {
        const ReplacedMap::iterator current = it++;
        dropIf(current, [&boundPorts](const ChannelRecord& record) {
            return boundPorts.count(record.port) == 0 || boundPorts.count(record.ownerPort) == 0;
        });
    }
}

bool ResolverTakeovers::takeBack(const std::string& name, ChannelRecord* record)
{
    const ReplacedMap::iterator found = m_replaced.find(name);
    if (found == m_replaced.end()) {
        return false;
    }
    *record = found->second.back();
    found->second.pop_back();
    if (found->second.empty()) {
        m_replaced.erase(found);
    }
    return true;
}

}  // namespace resolver
