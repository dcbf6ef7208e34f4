// The monitor's work on each captured packet: keeps the UDP datagrams to or
// from the resolver's port, a channel's port or a port talking to itself
// (the receiver's status update), joins split encodings, decodes, follows
// the resolver's traffic to keep the names of ports current, and keeps the
// messages that concern the watched names (all, when none are given).
// Not thread-safe; one monitor's thread.
#ifndef COMMSCHANNEL_CLI_MONITOR_SESSION_H
#define COMMSCHANNEL_CLI_MONITOR_SESSION_H

#include "LoopbackCapture.h"
#include "MonitorEvent.h"
#include "MonitorJoiner.h"
#include "MonitorNames.h"

#include <set>
#include <string>
#include <vector>

namespace cli {

// A message to report, with the packets it came in.
struct MonitoredMessage {
    MonitorEvent event;
    std::vector<CapturedPacket> packets;
};

class MonitorSession {
public:
    // watched: the names to report on; empty for every name.
    MonitorSession(int resolverPort, const std::set<std::string>& watched);

    // The port-to-name picture, to seed from the resolver's table.
    MonitorNames& names() { return m_names; }
    // Handles one captured packet; appends to *out the message it completes
    // when that passes the name filter.
    void handle(const CapturedPacket& packet, std::vector<MonitoredMessage>* out);

private:
    bool captured(const UdpDatagram& datagram) const;
    MonitorEvent eventOf(const JoinedDatagram& joined, const UdpDatagram& datagram) const;
    void nameThePorts(MonitorEvent* event) const;
    bool concernsWatched(const MonitorEvent& event) const;

    int m_resolverPort;
    std::set<std::string> m_watched;
    MonitorNames m_names;
    MonitorJoiner m_joiner;
};

}  // namespace cli

#endif
