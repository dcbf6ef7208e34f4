// Scenario g: the first send of a freshly started process. A peer registers
// a channel and waits until the resolver knows it; then each repetition
// starts a new process that constructs its channel, sends to the peer's
// name at once (the first send waits for the process's first answer from
// the resolver), sends again, and times one raw UDP round trip to the peer
// as the baseline.
//
// Scenario j: the same from a child that a long-running process forks
// without exec, a process that never called the library itself (it only
// has it loaded). The child's figure that counts is the time from its
// first library call (the channel's construction) to its first send
// returning, beside one raw UDP round trip from the same child.
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

struct FirstSendResult {
    double construct = 0;
    double first = 0;
    double later = 0;
    double udp = 0;
};

// Reads a "RESULT" line of first-send (see Peers.cpp).
FirstSendResult readResult(PeerProcess& process, const std::string& what)
{
    std::string result;
    if (!process.expect("RESULT", RESULT_TIMEOUT_MS, result)) {
        failWithoutReply(process, what);
    }
    FirstSendResult figures;
    if (std::sscanf(result.c_str(), "%lf %lf %lf %lf", &figures.construct, &figures.first, &figures.later,
                    &figures.udp) != 4) {
        throw ScenarioFailure(what + " reports '" + result + "'");
    }
    return figures;
}

// Starts a lib-sink peer named targetName and waits until the resolver
// knows it; udpPort gets the port of its raw UDP echo.
void startTarget(PeerProcess& target, const std::string& targetName, std::string& udpPort, const std::string& id)
{
    startPeer(target, {"lib-sink", "name=" + targetName}, READY_TIMEOUT_MS, &udpPort);
    if (!waitUntilResolverKnows(targetName, 10000)) {
        throw ScenarioFailure(id + ": the resolver never learnt the target's name");
    }
}

}  // namespace

void runForkedFirstSend(Context& context)
{
    const std::string targetName = uniqueName("j-target");
    PeerProcess target;
    std::string udpPort;
    startTarget(target, targetName, udpPort, "j");
    PeerProcess parent;
    startPeer(parent, {"fork-parent", "target=" + targetName, "udpport=" + udpPort}, READY_TIMEOUT_MS, nullptr);
    const std::string scenario = "j forked child";
    for (int rep = 1; rep <= context.options.reps; ++rep) {
        if (!parent.send("FORK")) {
            throw ScenarioFailure("j: the forking parent does not listen (" + parent.describeEnd() + ")");
        }
        const FirstSendResult figures = readResult(parent, "j forked child");
        std::string status;
        if (!parent.expect("CHILD", RESULT_TIMEOUT_MS, status)) {
            failWithoutReply(parent, "j forked child's end");
        }
        if (status != "0") {
            throw ScenarioFailure("j: forked child ended with status " + status);
        }
        context.report.add("j", scenario, "first call to sent us", Side::LIBRARY, rep,
                           figures.construct + figures.first);
        context.report.add("j", scenario, "first call to sent us", Side::BASELINE, rep, figures.udp);
        context.report.add("j", scenario, "construct us", Side::LIBRARY, rep, figures.construct);
        context.report.add("j", scenario, "first send us", Side::LIBRARY, rep, figures.first);
        context.report.add("j", scenario, "later send us", Side::LIBRARY, rep, figures.later);
    }
    if (!parent.stop(10000)) {
        throw ScenarioFailure("j: forking parent ended badly (" + parent.describeEnd() + ")");
    }
    if (!target.stop(10000)) {
        throw ScenarioFailure("j: target peer ended badly (" + target.describeEnd() + ")");
    }
}

void runFirstSend(Context& context)
{
    const std::string targetName = uniqueName("g-target");
    PeerProcess target;
    std::string udpPort;
    startTarget(target, targetName, udpPort, "g");
    const std::string scenario = "g fresh process";
    for (int rep = 1; rep <= context.options.reps; ++rep) {
        PeerProcess fresh;
        if (!fresh.start({"first-send", "target=" + targetName, "udpport=" + udpPort})) {
            throw ScenarioFailure("g: cannot start a fresh process");
        }
        const FirstSendResult figures = readResult(fresh, "g fresh process");
        const double construct = figures.construct;
        const double first = figures.first;
        const double later = figures.later;
        const double udp = figures.udp;
        if (!fresh.stop(10000)) {
            throw ScenarioFailure("g: fresh process ended badly (" + fresh.describeEnd() + ")");
        }
        context.report.add("g", scenario, "construct us", Side::LIBRARY, rep, construct);
        context.report.add("g", scenario, "first send us", Side::LIBRARY, rep, first);
        context.report.add("g", scenario, "first send us", Side::BASELINE, rep, udp);
        context.report.add("g", scenario, "first call to sent us", Side::LIBRARY, rep, construct + first);
        context.report.add("g", scenario, "first call to sent us", Side::BASELINE, rep, udp);
        context.report.add("g", scenario, "later send us", Side::LIBRARY, rep, later);
        context.report.add("g", scenario, "later send us", Side::BASELINE, rep, udp);
    }
    if (!target.stop(10000)) {
        throw ScenarioFailure("g: target peer ended badly (" + target.describeEnd() + ")");
    }
}

}  // namespace bench
