#include "MonitorJoiner.h"

#include "MonitorDecode.h"
#include "WireHeader.h"

namespace cli {

namespace {

// The length an encoding starting in this datagram announces when it is
// more than the datagram holds (and not beyond what the monitor joins); 0
// when the datagram stands alone.
std::size_t splitLength(const UdpDatagram& datagram)
{
    if (!unframeableReason(datagram.payload, datagram.length).empty()) {
        return 0;
    }
    const std::size_t total = wire_header::totalLength(datagram.payload);
    return total > datagram.length && total <= MAX_JOINED_BYTES ? total : 0;
}

}  // namespace

bool MonitorJoiner::joining(int sourcePort, int destinationPort) const
{
    return m_pending.count(Key(sourcePort, destinationPort)) != 0;
}

bool MonitorJoiner::add(const CapturedPacket& packet, const UdpDatagram& datagram, JoinedDatagram* out)
{
    const Key key(datagram.sourcePort, datagram.destinationPort);
    std::map<Key, JoinedDatagram>::iterator pending = m_pending.find(key);
    if (pending == m_pending.end()) {
        if (splitLength(datagram) == 0) {
            out->bytes.assign(datagram.payload, datagram.payload + datagram.length);
            out->packets.assign(1, packet);
            return true;
        }
        pending = m_pending.emplace(key, JoinedDatagram()).first;
    }
    JoinedDatagram& joined = pending->second;
    joined.bytes.insert(joined.bytes.end(), datagram.payload, datagram.payload + datagram.length);
    joined.packets.push_back(packet);
    if (joined.bytes.size() < wire_header::totalLength(joined.bytes.data())) {
        return false;
    }
    *out = std::move(joined);
    m_pending.erase(pending);
    return true;
}

}  // namespace cli
