// Joins split encodings as a channel's receiver does: a datagram whose
// header announces more bytes than it holds starts an encoding, and the
// following datagrams from the same source port to the same destination
// port are its pieces until the announced length is reached. Keeps the
// captured packets of every piece, for the capture file.
// Not thread-safe; one monitor's thread.
#ifndef COMMSCHANNEL_CLI_MONITOR_JOINER_H
#define COMMSCHANNEL_CLI_MONITOR_JOINER_H

#include "LoopbackCapture.h"

#include <cstddef>
#include <map>
#include <utility>
#include <vector>

namespace cli {

// The largest encoding the monitor joins; a header announcing more is
// reported as undecodable instead of being waited for.
const std::size_t MAX_JOINED_BYTES = 64u << 20;

struct JoinedDatagram {
    std::vector<char> bytes;               // the payload, or the joined encoding
    std::vector<CapturedPacket> packets;   // every packet it came in
};

class MonitorJoiner {
public:
    // True when a split encoding from source to destination is under way.
    bool joining(int sourcePort, int destinationPort) const;
    // Takes one datagram. Returns true with *out filled when it is whole
    // (a datagram of its own, or the last piece of a split encoding), false
    // when it was kept as a piece of one still incomplete.
    bool add(const CapturedPacket& packet, const UdpDatagram& datagram, JoinedDatagram* out);

private:
    typedef std::pair<int, int> Key;
    std::map<Key, JoinedDatagram> m_pending;
};

}  // namespace cli

#endif
