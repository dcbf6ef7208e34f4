// Scenario e: large messages in a closed loop. The client sends one message
// of 1 MiB or 64 MiB, the peer answers with the same data, and the client
// sends the next only after the answer. Data of that size travels through
// the library's spool files. The baseline moves the same bytes through a
// file in /tmp both ways: write and read there, write and read back.
//
// Each side also reports the peak resident memory that one round adds,
// as (VmHWM - VmRSS before the round) / message size, with the high-water
// mark reset before the round.
#include "Scenario.h"

#include "Baselines.h"
#include "LibSupport.h"
#include "PeerProcess.h"
#include "ProcessMemory.h"
#include "RoundTrip.h"
#include "Stats.h"
#include "Timing.h"

#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"

#include <unistd.h>

#include <cstring>
#include <vector>

namespace bench {

namespace {

const int REPLY_TIMEOUT_MS = 120000;
const int READY_TIMEOUT_MS = 30000;

struct LargeResult {
    std::vector<double> milliseconds;
    std::vector<double> clientMemory;
    std::vector<double> peerMemory;
};

// Makes round r's payload differ from the others in its first bytes, so a
// stale answer is caught, without generating megabytes each round.
void stamp(std::string& payload, int round)
{
    const std::uint64_t mark = 0x5a5a000000000000ULL + static_cast<std::uint64_t>(round);
    std::memcpy(&payload[0], &mark, sizeof mark);
}

LargeResult libraryLoop(CommsChannel& self, PeerProcess& peer, const std::string& peerName, std::string& payload,
                        int rounds, int& round)
{
    LargeResult result;
    const double size = static_cast<double>(payload.size());
    for (int i = 0; i < rounds; ++i) {
        stamp(payload, ++round);
        bool answered = false;
        bool intact = false;
        std::int64_t start = 0;
        std::int64_t end = 0;
        const long long before = residentBytes();
        resetPeakResident();
        {
            CommsChannelDataContainerMessage reply;
            start = nowNs();
            answered = self.sendMsg(peerName, payload) == 1 && receiveWithin(self, reply, 0, REPLY_TIMEOUT_MS);
            end = nowNs();
            int length = 0;
            const char* data = reply.getData(&length);
            intact = static_cast<std::size_t>(length) == payload.size() &&
                     std::memcmp(data, payload.data(), payload.size()) == 0;
        }
        const long long peak = peakResidentBytes();
        if (!answered) {
            failWithoutReply(peer, "e round trip of " + std::to_string(payload.size()) + " bytes");
        }
        if (!intact) {
            throw ScenarioFailure("e: the answer to a large message came back damaged");
        }
        std::string memory;
        long long peerAdded = 0;
        int peerLength = 0;
        if (!peer.expect("MEM", 30000, memory) ||
            std::sscanf(memory.c_str(), "%lld %d", &peerAdded, &peerLength) != 2) {
            failWithoutReply(peer, "e memory report");
        }
        result.milliseconds.push_back(nsToMs(end - start));
        result.clientMemory.push_back(static_cast<double>(peak - before) / size);
        result.peerMemory.push_back(static_cast<double>(peerAdded) / size);
    }
    return result;
}

std::vector<double> fileLoop(std::string& payload, int rounds, int& round)
{
    const std::string there = "/tmp/commschannel-bench-" + std::to_string(getpid()) + "-there";
    const std::string back = "/tmp/commschannel-bench-" + std::to_string(getpid()) + "-back";
    std::vector<double> milliseconds;
    std::string received;
    std::string returned;
    for (int i = 0; i < rounds; ++i) {
        stamp(payload, ++round);
        const std::int64_t start = nowNs();
        const bool ok = fileWriteRead(there, payload, received) && fileWriteRead(back, received, returned);
        const std::int64_t end = nowNs();
        if (!ok || returned != payload) {
            throw ScenarioFailure("e: the file baseline failed in /tmp");
        }
        milliseconds.push_back(nsToMs(end - start));
    }
    return milliseconds;
}

}  // namespace

void runLargeMessages(Context& context)
{
    CommsChannel self(uniqueName("e-client"));
    const std::string peerName = uniqueName("e-echo");
    PeerProcess peer;
    startPeer(peer, {"lib-echo", "name=" + peerName, "mem=1"}, READY_TIMEOUT_MS, nullptr);

    struct Case {
        std::size_t size;
        int rounds;
        const char* label;
    };
    const Case cases[] = {
        {std::size_t(1) << 20, context.options.largeRoundsSmall, "e closed loop 1 MiB"},
        {std::size_t(64) << 20, context.options.largeRoundsBig, "e closed loop 64 MiB"},
    };
    int round = 0;
    for (const Case& c : cases) {
        std::string payload = patterned(c.size, c.size);
        for (int rep = 1; rep <= context.options.reps; ++rep) {
            const LargeResult library = libraryLoop(self, peer, peerName, payload, c.rounds, round);
            const std::vector<double> file = fileLoop(payload, c.rounds, round);
            context.report.add("e", c.label, "ms/round trip", Side::LIBRARY, rep, median(library.milliseconds));
            context.report.add("e", c.label, "ms/round trip", Side::BASELINE, rep, median(file));
            context.report.add("e", c.label, "client peak mem/size", Side::LIBRARY, rep, median(library.clientMemory));
            context.report.add("e", c.label, "peer peak mem/size", Side::LIBRARY, rep, median(library.peerMemory));
        }
    }
    if (!peer.stop(10000)) {
        throw ScenarioFailure("e: echo peer ended badly (" + peer.describeEnd() + ")");
    }
}

}  // namespace bench
