#include "MonitorSession.h"

#include "MonitorDecode.h"

namespace cli {

MonitorSession::MonitorSession(int resolverPort, const std::set<std::string>& watched)
    : m_resolverPort(resolverPort), m_watched(watched)
{
}

void MonitorSession::handle(const CapturedPacket& packet, std::vector<MonitoredMessage>* out)
{
    UdpDatagram datagram;
    if (!udpInIpv4(packet.ip, &datagram) || !captured(datagram)) {
        return;
    }
    JoinedDatagram joined;
    // The resolver and the locators exchange one encoding per datagram:
    // nothing there is ever split.
    const bool resolverTraffic =
        datagram.sourcePort == m_resolverPort || datagram.destinationPort == m_resolverPort;
    if (resolverTraffic) {
        joined.bytes.assign(datagram.payload, datagram.payload + datagram.length);
        joined.packets.assign(1, packet);
    } else if (!m_joiner.add(packet, datagram, &joined)) {
        return;
    }
    MonitoredMessage message{eventOf(joined, datagram), std::move(joined.packets)};
    m_names.learn(message.event);
    nameThePorts(&message.event);
    if (concernsWatched(message.event)) {
        out->push_back(std::move(message));
    }
}

bool MonitorSession::captured(const UdpDatagram& datagram) const
{
    const int source = datagram.sourcePort;
    const int destination = datagram.destinationPort;
    return source == m_resolverPort || destination == m_resolverPort || m_names.knows(source) ||
           m_names.knows(destination) || isStatusDatagram(datagram.length, source, destination) ||
           m_joiner.joining(source, destination);
}

MonitorEvent MonitorSession::eventOf(const JoinedDatagram& joined, const UdpDatagram& datagram) const
{
    MonitorEvent event;
    event.time = joined.packets.front().time;
    event.sourcePort = datagram.sourcePort;
    event.destinationPort = datagram.destinationPort;
    if (isStatusDatagram(joined.bytes.size(), datagram.sourcePort, datagram.destinationPort)) {
        event.kind = "status";
        event.hasLength = event.hasData = true;
        event.length = joined.bytes.size();
        event.data.assign(joined.bytes.begin(), joined.bytes.end());
        return event;
    }
    decodeDatagram(joined.bytes.data(), joined.bytes.size(), &event);
    if (joined.packets.size() > 1) {
        event.pieces = static_cast<int>(joined.packets.size());
    }
    return event;
}

void MonitorSession::nameThePorts(MonitorEvent* event) const
{
    if (!event->hasSource) {
        event->hasSource = m_names.nameOf(event->sourcePort, &event->source);
    }
    if (!event->hasChannel) {
        event->hasChannel = m_names.nameOf(event->destinationPort, &event->channel);
    }
}

bool MonitorSession::concernsWatched(const MonitorEvent& event) const
{
    if (m_watched.empty()) {
        return true;
    }
    std::string portName;
    bool concerns = (event.hasSource && m_watched.count(event.source) != 0) ||
                    (event.hasChannel && m_watched.count(event.channel) != 0) ||
                    (event.hasCallbackAndType && m_watched.count(event.callback) != 0) ||
                    (event.hasName && m_watched.count(event.name) != 0) ||
                    (m_names.nameOf(event.sourcePort, &portName) && m_watched.count(portName) != 0) ||
                    (m_names.nameOf(event.destinationPort, &portName) && m_watched.count(portName) != 0);
    for (const MonitorRow& row : event.rows) {
        concerns = concerns || m_watched.count(row.name) != 0;
    }
    return concerns;
}

}  // namespace cli
