// ResolverTakeovers: the registrations that a later registration of the same
// name by another process replaced. The resolver keeps them so that a name
// goes back to its earlier owner when the process that took it over
// withdraws it (as `commschannel listen` on a live name does when it ends),
// instead of vanishing while that owner still runs.
//
// Several takeovers of one name stack up: the latest replaced registration
// is given back first. A kept registration is dropped as soon as its owner
// withdraws the name itself, registers it anew, unregisters, or its
// socket or its locator's socket is no longer bound.
//
// A plain value: no locks, one thread at a time (the resolver's).
#ifndef COMMSCHANNEL_RESOLVER_TAKEOVERS_H
#define COMMSCHANNEL_RESOLVER_TAKEOVERS_H

#include "ResolverTable.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace resolver {

class ResolverTakeovers {
public:
    // Keeps the registration of name that a newer one replaced.
    void remember(const std::string& name, const ChannelRecord& replaced);
    // Drops what is kept of name for the locator at ownerPort.
    void forget(const std::string& name, int ownerPort);
    // Drops everything kept for the locator at ownerPort.
    void forgetOwner(int ownerPort);
    // Drops every registration whose channel port or owner port is not in
    // boundPorts (the ports still reachable on 127.0.0.1).
    void keepBound(const std::set<int>& boundPorts);
    // Moves the latest kept registration of name into *record. False, with
    // *record untouched, when none is kept.
    bool takeBack(const std::string& name, ChannelRecord* record);
    void clear() { m_replaced.clear(); }
    bool empty() const { return m_replaced.empty(); }

private:
    typedef std::map<std::string, std::vector<ChannelRecord>> ReplacedMap;
    // Drops the rows of name for which drop() is true.
    template <typename Predicate>
    void dropIf(ReplacedMap::iterator name, Predicate drop);

    ReplacedMap m_replaced;  // oldest first for each name
};

}  // namespace resolver

#endif
