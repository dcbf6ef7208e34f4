// The command line of commschannel-bench-e2e (the benchmark side; the peer
// side, "--peer ROLE ...", is read by runPeer).
#ifndef COMMSCHANNEL_BENCH_OPTIONS_H
#define COMMSCHANNEL_BENCH_OPTIONS_H

#include "Timing.h"

#include <string>
#include <vector>

namespace bench {

struct Options {
    int reps = 5;
    bool smoke = false;
    std::string only = "abcdefghij";  // scenario letters to run
    std::string jsonPath = "bench-results.jsonl";
    int throughputCount = 200000;   // a: messages per repetition
    int sendSamples = 2000;         // b: timed sends per queue depth
    int roundTrips = 2000;          // c, f: round trips per repetition
    double streamSeconds = 2.0;     // d: length of each stream
    std::vector<double> streamRates = {10000, 50000, 100000, 0};  // d: msgs/s, 0 unpaced
    Pacing pacing = Pacing::SLEEP;  // d: how the senders wait between messages
    int streamCount = 200000;       // h: messages of the unpaced fixed-count stream
    int largeRoundsSmall = 20;      // e: 1 MiB round trips per repetition
    int largeRoundsBig = 3;         // e: 64 MiB round trips per repetition

    bool wants(char scenario) const { return only.find(scenario) != std::string::npos; }
};

// Parses argv into options. When stop comes back true the program ends with
// the returned status: 0 after --help, 2 for a bad command line (the usage
// is printed either way).
int parseOptions(int argc, char** argv, Options& options, bool& stop);

}  // namespace bench

#endif
