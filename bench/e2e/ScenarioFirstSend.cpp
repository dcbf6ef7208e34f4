// Scenario g: the first send of a freshly started process. A peer registers
// a channel and waits until the resolver knows it; then each repetition
// starts a new process that constructs its channel, sends to the peer's
// name at once (the first send waits for the process's first answer from
// the resolver), sends again, and times one raw UDP round trip to the peer
// as the baseline.
#include "Scenario.h"

#include "LibSupport.h"
#include "PeerProcess.h"
#include "RoundTrip.h"

#include <cstdio>
#include <cstdlib>

namespace bench {

namespace {

const int READY_TIMEOUT_MS = 30000;
// Well below the library's 100 s wait for a missing resolver.
const int RESULT_TIMEOUT_MS = 30000;

}  // namespace

void runFirstSend(Context& context)
{
    const std::string targetName = uniqueName("g-target");
    PeerProcess target;
    std::string udpPort;
    startPeer(target, {"lib-sink", "name=" + targetName}, READY_TIMEOUT_MS, &udpPort);
    if (!waitUntilResolverKnows(targetName, 10000)) {
        throw ScenarioFailure("g: the resolver never learnt the target's name");
    }
    const std::string scenario = "g fresh process";
    for (int rep = 1; rep <= context.options.reps; ++rep) {
        PeerProcess fresh;
        std::string result;
        if (!fresh.start({"first-send", "target=" + targetName, "udpport=" + udpPort})) {
            throw ScenarioFailure("g: cannot start a fresh process");
        }
        if (!fresh.expect("RESULT", RESULT_TIMEOUT_MS, result)) {
            failWithoutReply(fresh, "g fresh process");
        }
        double construct = 0;
        double first = 0;
        double later = 0;
        double udp = 0;
        if (std::sscanf(result.c_str(), "%lf %lf %lf %lf", &construct, &first, &later, &udp) != 4) {
            throw ScenarioFailure("g: fresh process reports '" + result + "'");
        }
        if (!fresh.stop(10000)) {
            throw ScenarioFailure("g: fresh process ended badly (" + fresh.describeEnd() + ")");
        }
        context.report.add("g", scenario, "construct us", Side::LIBRARY, rep, construct);
        context.report.add("g", scenario, "first send us", Side::LIBRARY, rep, first);
        context.report.add("g", scenario, "first send us", Side::BASELINE, rep, udp);
        context.report.add("g", scenario, "later send us", Side::LIBRARY, rep, later);
        context.report.add("g", scenario, "later send us", Side::BASELINE, rep, udp);
    }
    if (!target.stop(10000)) {
        throw ScenarioFailure("g: target peer ended badly (" + target.describeEnd() + ")");
    }
}

}  // namespace bench
