// The scenarios of the end-to-end benchmark. Each one measures the library
// and its raw baseline in turn, repetition by repetition (library, baseline,
// library, ...), and adds every figure to the report. A scenario that
// cannot run to its end (a peer dies, a reply is missing or damaged)
// throws ScenarioFailure; slowness alone is never a failure.
#ifndef COMMSCHANNEL_BENCH_SCENARIO_H
#define COMMSCHANNEL_BENCH_SCENARIO_H

#include "Options.h"
#include "Report.h"

#include <stdexcept>
#include <string>

namespace bench {

class ScenarioFailure : public std::runtime_error {
public:
    explicit ScenarioFailure(const std::string& what) : std::runtime_error(what) {}
};

struct Context {
    const Options& options;
    Report& report;
};

// a: one sending and one receiving thread in one process, 64-byte messages.
void runSameProcessThroughput(Context& context);
// b: one send into a queue that already holds 0, 1,000 and 10,000 messages.
void runSendIntoFullQueue(Context& context);
// c: round trips to another process, plain and by request id.
void runRoundTrips(Context& context);
// d: paced one-way streams from another process, lost messages counted.
void runStreams(Context& context);
// e: 1 MiB and 64 MiB messages in a closed loop, time and peak memory.
void runLargeMessages(Context& context);
// f: the plain round trip with many idle channels open in each process.
void runIdleChannels(Context& context);
// g: the first send from a freshly started process.
void runFirstSend(Context& context);
// h: an unpaced stream of a fixed count from another process, messages
// delivered per second.
void runUnpacedCount(Context& context);
// i: the 64-byte round trip by request id beside the plain one.
void runByIdAgainstPlain(Context& context);
// j: the first send from a child forked by a parent that never used the
// library.
void runForkedFirstSend(Context& context);

// The peer side: "<program> --peer ROLE key=value..." (see Peers.cpp).
int runPeer(int argc, char** argv);

}  // namespace bench

#endif
