// Timed round trips; see RoundTrip.h.
#include "RoundTrip.h"

#include "Baselines.h"
#include "LibSupport.h"
#include "PeerProcess.h"
#include "Scenario.h"
#include "Timing.h"

#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"

#include <unistd.h>

#include <cstring>

namespace bench {

namespace {

const int REPLY_TIMEOUT_MS = 5000;
const int UNTIMED_TRIPS = 10;

bool sameData(CommsChannelDataContainerMessage& reply, const std::string& expected)
{
    int length = 0;
    const char* data = reply.getData(&length);
    return static_cast<std::size_t>(length) == expected.size() &&
           (length == 0 || std::memcmp(data, expected.data(), expected.size()) == 0);
}

}  // namespace

void startPeer(PeerProcess& peer, const std::vector<std::string>& args, int timeoutMs, std::string* detail)
{
    std::string rest;
    if (!peer.start(args)) {
        throw ScenarioFailure("cannot start peer " + args.front());
    }
    if (!peer.expect("READY", timeoutMs, rest)) {
        peer.stop(0);
        throw ScenarioFailure("peer " + args.front() + " not ready (" + peer.describeEnd() + ")");
    }
    if (detail != nullptr) {
        *detail = rest;
    }
}

void failWithoutReply(PeerProcess& peer, const std::string& what)
{
    if (!peer.running()) {
        throw ScenarioFailure(what + ": peer died (" + peer.describeEnd() + ")");
    }
    throw ScenarioFailure(what + ": no reply within " + std::to_string(REPLY_TIMEOUT_MS) + " ms");
}

std::vector<double> libraryRoundTrips(CommsChannel& self, PeerProcess& peer, const std::string& peerName,
                                      RoundTripKind kind, std::size_t size, int count, long& nextRequestId)
{
    std::vector<double> times;
    for (int trip = -UNTIMED_TRIPS; trip < count; ++trip) {
        const std::string payload = patterned(size, static_cast<std::uint64_t>(trip + UNTIMED_TRIPS));
        CommsChannelDataContainerMessage reply;
        std::int64_t start = 0;
        bool answered = false;
        long requestId = 0;
        if (kind == RoundTripKind::PLAIN) {
            start = nowNs();
            answered = self.sendMsg(peerName, payload) == 1 && receiveWithin(self, reply, 0, REPLY_TIMEOUT_MS);
        } else {
            requestId = nextRequestId++;
            CommsChannelDataContainerMessage request;
            request.setChannel(peerName);
            request.setCallbackChannel(self.channelName());
            request.setRequestId(requestId);
            request.setData(payload.data(), static_cast<int>(payload.size()));
            start = nowNs();
            answered = self.sendMsg(request) == 1 && receiveWithin(self, reply, requestId, REPLY_TIMEOUT_MS);
        }
        const std::int64_t end = nowNs();
        if (!answered) {
            failWithoutReply(peer, "round trip " + std::to_string(trip));
        }
        if (!sameData(reply, payload) || reply.requestId() != requestId) {
            throw ScenarioFailure("round trip " + std::to_string(trip) + ": reply damaged or for another request");
        }
        if (trip >= 0) {
            times.push_back(nsToUs(end - start));
        }
    }
    return times;
}

std::vector<double> udpRoundTrips(PeerProcess& peer, int port, std::size_t size, int count)
{
    const int fd = openUdpSocket(0);
    if (fd < 0) {
        throw ScenarioFailure("no UDP socket");
    }
    std::vector<double> times;
    std::vector<char> reply(size + 1);
    for (int trip = -UNTIMED_TRIPS; trip < count; ++trip) {
        const std::string payload = patterned(size, static_cast<std::uint64_t>(trip + UNTIMED_TRIPS));
        const std::int64_t start = nowNs();
        const bool sent = udpSend(fd, port, payload.data(), payload.size());
        const long n = sent ? udpReceive(fd, reply.data(), reply.size(), REPLY_TIMEOUT_MS, nullptr) : -1;
        const std::int64_t end = nowNs();
        if (n < 0) {
            close(fd);
            failWithoutReply(peer, "UDP round trip " + std::to_string(trip));
        }
        if (static_cast<std::size_t>(n) != size || std::memcmp(reply.data(), payload.data(), size) != 0) {
            close(fd);
            throw ScenarioFailure("UDP round trip " + std::to_string(trip) + ": reply damaged");
        }
        if (trip >= 0) {
            times.push_back(nsToUs(end - start));
        }
    }
    close(fd);
    return times;
}

}  // namespace bench
