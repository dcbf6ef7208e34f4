// Scenarios c, f and i: round trips between two processes, the same round
// trip with many idle channels open on both sides, and the round trip by
// request id beside the plain one. The baseline of c and f is a raw UDP
// round trip between two processes (blocking send and receive on 127.0.0.1
// sockets), measured right after each library run; the baseline of i is
// the library's plain round trip to the same peer.
#include "Scenario.h"

#include "Baselines.h"
#include "LibSupport.h"
#include "PeerProcess.h"
#include "RoundTrip.h"
#include "Stats.h"

#include "CommsChannel.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <vector>

namespace bench {

namespace {

const int READY_TIMEOUT_MS = 60000;

void addLatency(Report& report, const std::string& id, const std::string& scenario, Side side, int rep,
                const std::vector<double>& times)
{
    report.add(id, scenario, "median us", side, rep, median(times));
    report.add(id, scenario, "p99 us", side, rep, percentile(times, 99));
}

}  // namespace

void runRoundTrips(Context& context)
{
    CommsChannel self(uniqueName("c-client"));
    const std::string peerName = uniqueName("c-echo");
    PeerProcess libraryPeer;
    PeerProcess udpPeer;
    startPeer(libraryPeer, {"lib-echo", "name=" + peerName}, READY_TIMEOUT_MS, nullptr);
    std::string port;
    startPeer(udpPeer, {"udp-echo"}, READY_TIMEOUT_MS, &port);

    struct Case {
        RoundTripKind kind;
        std::size_t size;
        const char* label;
    };
    const Case cases[] = {
        {RoundTripKind::PLAIN, 64, "c plain 64 B"},
        {RoundTripKind::PLAIN, 4096, "c plain 4096 B"},
        {RoundTripKind::BY_REQUEST_ID, 64, "c by id 64 B"},
        {RoundTripKind::BY_REQUEST_ID, 4096, "c by id 4096 B"},
    };
    long nextRequestId = 1;
    const int count = context.options.roundTrips;
    for (int rep = 1; rep <= context.options.reps; ++rep) {
        for (const Case& c : cases) {
            addLatency(context.report, "c", c.label, Side::LIBRARY, rep,
                       libraryRoundTrips(self, libraryPeer, peerName, c.kind, c.size, count, nextRequestId));
            addLatency(context.report, "c", c.label, Side::BASELINE, rep,
                       udpRoundTrips(udpPeer, std::atoi(port.c_str()), c.size, count));
        }
    }
    if (!libraryPeer.stop(10000)) {
        throw ScenarioFailure("c: echo peer ended badly (" + libraryPeer.describeEnd() + ")");
    }
}

void runByIdAgainstPlain(Context& context)
{
    CommsChannel self(uniqueName("i-client"));
    const std::string peerName = uniqueName("i-echo");
    PeerProcess peer;
    startPeer(peer, {"lib-echo", "name=" + peerName}, READY_TIMEOUT_MS, nullptr);
    const std::string scenario = "i by id / plain 64 B";
    long nextRequestId = 1;
    const int count = context.options.roundTrips;
    for (int rep = 1; rep <= context.options.reps; ++rep) {
        // Which kind goes first alternates, so that neither always meets
        // the processors as the other left them.
        std::vector<double> plain;
        std::vector<double> byId;
        for (int turn = 0; turn < 2; ++turn) {
            if ((turn == 0) == (rep % 2 == 1)) {
                plain = libraryRoundTrips(self, peer, peerName, RoundTripKind::PLAIN, 64, count, nextRequestId);
            } else {
                byId = libraryRoundTrips(self, peer, peerName, RoundTripKind::BY_REQUEST_ID, 64, count, nextRequestId);
            }
        }
        addLatency(context.report, "i", scenario, Side::LIBRARY, rep, byId);
        addLatency(context.report, "i", scenario, Side::BASELINE, rep, plain);
    }
    if (!peer.stop(10000)) {
        throw ScenarioFailure("i: echo peer ended badly (" + peer.describeEnd() + ")");
    }
}

void runIdleChannels(Context& context)
{
    // The active channel is made before the idle ones so that its socket
    // gets a low descriptor: the receiver thread watches descriptors below
    // FD_SETSIZE (1024) only.
    CommsChannel self(uniqueName("f-client"));
    const int idleCounts[] = {1, 100, 1000};
    const int count = context.options.roundTrips;
    std::vector<double> libraryOne(static_cast<std::size_t>(context.options.reps) + 1, 0);
    std::vector<double> udpOne(libraryOne.size(), 0);
    for (int idle : idleCounts) {
        std::vector<std::unique_ptr<CommsChannel>> idleChannels;
        std::vector<int> idleSockets;
        for (int i = 0; i < idle; ++i) {
            idleChannels.emplace_back(new CommsChannel(uniqueName("f-idle")));
            idleSockets.push_back(openUdpSocket(0));
        }
        const std::string peerName = uniqueName("f-echo");
        PeerProcess libraryPeer;
        PeerProcess udpPeer;
        startPeer(libraryPeer, {"lib-echo", "name=" + peerName, "idle=" + std::to_string(idle)}, READY_TIMEOUT_MS,
                  nullptr);
        std::string port;
        startPeer(udpPeer, {"udp-echo", "idle=" + std::to_string(idle)}, READY_TIMEOUT_MS, &port);

        const std::string scenario = "f plain 64 B, " + std::to_string(idle) + " idle";
        long unusedRequestId = 1;
        for (int rep = 1; rep <= context.options.reps; ++rep) {
            const std::vector<double> library =
                libraryRoundTrips(self, libraryPeer, peerName, RoundTripKind::PLAIN, 64, count, unusedRequestId);
            const std::vector<double> udp = udpRoundTrips(udpPeer, std::atoi(port.c_str()), 64, count);
            addLatency(context.report, "f", scenario, Side::LIBRARY, rep, library);
            addLatency(context.report, "f", scenario, Side::BASELINE, rep, udp);
            if (idle == 1) {
                libraryOne[static_cast<std::size_t>(rep)] = median(library);
                udpOne[static_cast<std::size_t>(rep)] = median(udp);
            } else {
                context.report.add("f", scenario, "median ratio to 1 idle", Side::LIBRARY, rep,
                                   median(library) / libraryOne[static_cast<std::size_t>(rep)]);
                context.report.add("f", scenario, "median ratio to 1 idle", Side::BASELINE, rep,
                                   median(udp) / udpOne[static_cast<std::size_t>(rep)]);
            }
        }
        if (!libraryPeer.stop(30000)) {
            throw ScenarioFailure("f: echo peer ended badly (" + libraryPeer.describeEnd() + ")");
        }
        for (int fd : idleSockets) {
            if (fd >= 0) {
                close(fd);
            }
        }
    }
}

}  // namespace bench
