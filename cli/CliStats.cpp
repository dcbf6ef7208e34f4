// commschannel stats: every counter of each channel the resolver knows (or
// of the named ones): what its process publishes, and its socket's queue
// and drops from /proc.
#include "CliCommands.h"
#include "CliSupport.h"
#include "PublishedCounters.h"
#include "ResolverClient.h"
#include "ResolverList.h"
#include "StatsText.h"

#include <cstdio>
#include <map>

namespace cli {

namespace {

// The channels asked for: all of them without NAMEs. A NAME the resolver
// does not know is reported and makes the command fail after the others.
bool selectChannels(const CliOptions& options, const std::map<std::string, int>& known,
                    std::map<std::string, int>* selected)
{
    if (options.names.empty()) {
        *selected = known;
        return true;
    }
    bool allKnown = true;
    for (const std::string& name : options.names) {
        const std::map<std::string, int>::const_iterator found = known.find(name);
        if (found == known.end()) {
            fail(COMMAND_STATS, "no channel named \"" + escapeBytes(name) + "\"");
            allKnown = false;
        } else {
            selected->insert(*found);
        }
    }
    return allKnown;
}

}  // namespace

int runStats(const CliOptions& options)
{
    std::map<std::string, int> channels;
    std::string error;
    if (!resolver::fetchChannels(COMMSCHANNEL_RESOLVER_PORT, &channels, &error)) {
        return fail(COMMAND_STATS, error);
    }
    std::map<std::string, int> selected;
    const bool allKnown = selectChannels(options, channels, &selected);
    sweepDeadCounterFiles();
    std::vector<StatsRow> rows;
    for (const resolver::ListedChannel& channel : resolver::withOwners(selected)) {
        rows.push_back(StatsRow{channel.name, channel.pid, readChannelCounters(channel.pid, channel.port),
                                channel.rxQueueBytes, channel.drops});
    }
    if (options.json) {
        for (const StatsRow& row : rows) {
            std::printf("%s\n", formatStatsJson(row).c_str());
        }
    } else {
        std::fputs(formatStatsTable(rows).c_str(), stdout);
    }
    if (std::fflush(stdout) != 0) {
        return fail(COMMAND_STATS, "cannot write the counters");
    }
    return allKnown ? EXIT_OK : EXIT_FAILED;
}

}  // namespace cli
