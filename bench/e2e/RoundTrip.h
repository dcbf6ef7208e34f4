// Round trips to a peer process, through the library and through raw UDP,
// shared by the scenarios that time them (c, f). Every reply is compared
// with its request; a missing or damaged reply throws ScenarioFailure.
#ifndef COMMSCHANNEL_BENCH_ROUND_TRIP_H
#define COMMSCHANNEL_BENCH_ROUND_TRIP_H

#include <cstddef>
#include <string>
#include <vector>

class CommsChannel;

namespace bench {

class PeerProcess;

// Starts a peer with args and waits for its "READY" line; detail (may be
// null) gets what follows the word. Throws ScenarioFailure.
void startPeer(PeerProcess& peer, const std::vector<std::string>& args, int timeoutMs, std::string* detail);

// A message that did not come back in time: "peer died (...)" or "no reply".
[[noreturn]] void failWithoutReply(PeerProcess& peer, const std::string& what);

enum class RoundTripKind { PLAIN, BY_REQUEST_ID };

// Times count round trips of size bytes from self to the lib-echo peer
// named peerName, after a few untimed ones. Returns microseconds each.
// nextRequestId is advanced for by-id trips.
std::vector<double> libraryRoundTrips(CommsChannel& self, PeerProcess& peer, const std::string& peerName,
                                      RoundTripKind kind, std::size_t size, int count, long& nextRequestId);

// The same over a raw UDP socket to the udp-echo peer at port.
std::vector<double> udpRoundTrips(PeerProcess& peer, int port, std::size_t size, int count);

}  // namespace bench

#endif
