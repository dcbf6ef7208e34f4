// Command line parsing; see Options.h.
#include "Options.h"

#include <cstdio>
#include <cstdlib>

namespace bench {

namespace {

const char USAGE[] =
    "usage: commschannel-bench-e2e [OPTION]...\n"
    "End-to-end benchmarks of CommsChannel, each beside a raw baseline measured in\n"
    "the same run. Needs a resolver answering on 127.0.0.1:5000.\n"
    "  --reps N           repetitions of every figure (default 5)\n"
    "  --only LETTERS     scenarios to run, e.g. c,d (default a..j)\n"
    "  --json FILE        raw figures as JSON lines (default bench-results.jsonl)\n"
    "  --smoke            every scenario once with tiny counts (a few seconds)\n"
    "  --count N          a: messages per repetition (default 200000)\n"
    "  --sends N          b: timed sends per queue depth (default 2000)\n"
    "  --round-trips N    c, f, i: round trips per repetition (default 2000)\n"
    "  --seconds S        d: length of each stream (default 2)\n"
    "  --rates LIST       d: stream rates in msgs/s, 0 for unpaced\n"
    "                     (default 10000,50000,100000,0)\n"
    "  --pacing MODE      d: how the sender waits for each message's time:\n"
    "                     sleep (default) or spin (exact spacing, but one\n"
    "                     processor busy at 50000 msgs/s and more)\n"
    "  --stream-count N   h: messages of the unpaced stream (default 200000)\n"
    "  -h, --help         this text\n";

bool positive(const char* text, double& value)
{
    char* end = nullptr;
    value = std::strtod(text, &end);
    return end != text && *end == '\0' && value > 0;
}

// A comma-separated list of rates, each 0 or more.
bool parseRates(const char* text, std::vector<double>& rates)
{
    std::vector<double> parsed;
    const char* cursor = text;
    for (;;) {
        char* end = nullptr;
        const double rate = std::strtod(cursor, &end);
        if (end == cursor || rate < 0 || (*end != ',' && *end != '\0')) {
            return false;
        }
        parsed.push_back(rate);
        if (*end == '\0') {
            break;
        }
        cursor = end + 1;
    }
    rates = parsed;
    return true;
}

}  // namespace

int parseOptions(int argc, char** argv, Options& options, bool& stop)
{
    stop = false;
    bool smoke = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        double value = 0;
        if (arg == "-h" || arg == "--help") {
            std::fputs(USAGE, stdout);
            stop = true;
            return 0;
        } else if (arg == "--smoke") {
            smoke = true;
        } else if (arg == "--only" && hasValue) {
            options.only.clear();
            for (const char* c = argv[++i]; *c != '\0'; ++c) {
                if (*c >= 'a' && *c <= 'j') {
                    options.only += *c;
                } else if (*c != ',') {
                    std::fprintf(stderr, "commschannel-bench-e2e: unknown scenario '%c'\n%s", *c, USAGE);
                    stop = true;
                    return 2;
                }
            }
        } else if (arg == "--rates" && hasValue) {
            if (!parseRates(argv[++i], options.streamRates)) {
                std::fprintf(stderr, "commschannel-bench-e2e: bad rates '%s'\n%s", argv[i], USAGE);
                stop = true;
                return 2;
            }
        } else if (arg == "--pacing" && hasValue) {
            if (!parsePacing(argv[++i], options.pacing)) {
                std::fprintf(stderr, "commschannel-bench-e2e: bad pacing '%s'\n%s", argv[i], USAGE);
                stop = true;
                return 2;
            }
        } else if (arg == "--json" && hasValue) {
            options.jsonPath = argv[++i];
        } else if ((arg == "--reps" || arg == "--count" || arg == "--sends" || arg == "--round-trips" ||
                    arg == "--seconds" || arg == "--stream-count") &&
                   hasValue && positive(argv[i + 1], value)) {
            ++i;
            if (arg == "--reps") {
                options.reps = static_cast<int>(value);
            } else if (arg == "--count") {
                options.throughputCount = static_cast<int>(value);
            } else if (arg == "--sends") {
                options.sendSamples = static_cast<int>(value);
            } else if (arg == "--round-trips") {
                options.roundTrips = static_cast<int>(value);
            } else if (arg == "--stream-count") {
                options.streamCount = static_cast<int>(value);
            } else {
                options.streamSeconds = value;
            }
        } else {
            std::fprintf(stderr, "commschannel-bench-e2e: bad argument '%s'\n%s", arg.c_str(), USAGE);
            stop = true;
            return 2;
        }
    }
    if (smoke) {
        // Every path once, at counts that finish in seconds; figures from a
        // smoke run say nothing about speed.
        options.smoke = true;
        options.reps = 1;
        options.throughputCount = 2000;
        options.sendSamples = 50;
        options.roundTrips = 20;
        options.streamSeconds = 0.2;
        options.streamCount = 2000;
        options.largeRoundsSmall = 1;
        options.largeRoundsBig = 1;
    }
    if (options.reps < 1) {
        options.reps = 1;
    }
    return 0;
}

}  // namespace bench
