// commschannel-bench-e2e: end-to-end benchmarks of CommsChannel, each
// scenario beside a raw baseline measured in the same run. Started with
// "--peer ROLE ..." it is instead one of the peer processes that the
// scenarios start (see Peers.cpp). tools/run-bench.sh builds it and runs it
// with a resolver of its own; see bench/README.md.
#include "LibSupport.h"
#include "Options.h"
#include "PeerProcess.h"
#include "Report.h"
#include "Scenario.h"
#include "Watchdog.h"

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

namespace {

using namespace bench;

void onSignal(int signalNumber)
{
    killAllPeers();
    _exit(128 + signalNumber);
}

// Scenario f opens about 1,000 channels per process, each with a socket.
void raiseDescriptorLimit()
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < 4096) {
        limit.rlim_cur = limit.rlim_max < 4096 ? limit.rlim_max : 4096;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

struct Entry {
    char id;
    const char* title;
    void (*run)(Context&);
};

const Entry SCENARIOS[] = {
    {'a', "same process, two threads, 64 B", runSameProcessThroughput},
    {'b', "one send into a queue of 0, 1,000, 10,000", runSendIntoFullQueue},
    {'c', "round trips between two processes", runRoundTrips},
    {'d', "paced one-way streams, loss", runStreams},
    {'e', "1 MiB and 64 MiB closed loop", runLargeMessages},
    {'f', "round trips with idle channels open", runIdleChannels},
    {'g', "first send of a fresh process", runFirstSend},
    {'h', "unpaced stream of a fixed count, delivered msgs/s", runUnpacedCount},
    {'i', "round trip by request id beside the plain one", runByIdAgainstPlain},
    {'j', "first send of a child forked by a parent without the library", runForkedFirstSend},
};

// Generous limits: the watchdog is there for hangs, not for slowness.
int deadlineSeconds(char id, const Options& options)
{
    if (options.smoke) {
        return 90;
    }
    if (id == 'h') {
        return 300 + options.reps * 60 + options.streamCount / 1000;
    }
    if (id == 'd') {
        return 300 + static_cast<int>(options.reps * 8 * (options.streamSeconds + 10));
    }
    return 300 + options.reps * 180;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc >= 2 && std::strcmp(argv[1], "--peer") == 0) {
        return runPeer(argc - 2, argv + 2);
    }
    Options options;
    bool stop = false;
    const int parsed = parseOptions(argc, argv, options, stop);
    if (stop) {
        return parsed;
    }

    signal(SIGPIPE, SIG_IGN);
    signal(SIGINT, onSignal);
    signal(SIGTERM, onSignal);
    raiseDescriptorLimit();
    if (resolverPortOf("bench-probe", 2000) < 0) {
        std::fprintf(stderr,
                     "commschannel-bench-e2e: no resolver answers on 127.0.0.1:5000; start commschannel-resolver "
                     "first (tools/run-bench.sh does)\n");
        return 1;
    }
    Report report;
    if (!report.open(options.jsonPath)) {
        std::perror(options.jsonPath.c_str());
        return 1;
    }

    Watchdog watchdog;
    Context context{options, report};
    int failures = 0;
    for (const Entry& scenario : SCENARIOS) {
        if (!options.wants(scenario.id)) {
            continue;
        }
        std::fprintf(stderr, "== %c: %s (%d repetition%s)\n", scenario.id, scenario.title, options.reps,
                     options.reps == 1 ? "" : "s");
        watchdog.arm(deadlineSeconds(scenario.id, options), std::string("scenario ") + scenario.id);
        try {
            scenario.run(context);
        } catch (const std::exception& failure) {
            std::fprintf(stderr, "FAILED %c: %s\n", scenario.id, failure.what());
            ++failures;
        }
        watchdog.disarm();
    }

    std::printf("\n");
    report.printTable(stdout);
    std::printf("\nraw figures (JSON lines): %s\n", options.jsonPath.c_str());
    if (failures != 0) {
        std::printf("%d scenario(s) FAILED\n", failures);
    }
    return failures == 0 ? 0 : 1;
}
