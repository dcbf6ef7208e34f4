// commschannel list: the resolver's table as the resolver's own --list gets
// it, with each port's process and socket counters from /proc and the queue
// counters the process publishes.
#include "CliCommands.h"
#include "CliSupport.h"
#include "ProcSocketOwners.h"
#include "PublishedCounters.h"
#include "ResolverClient.h"
#include "ResolverList.h"

#include <cstdio>
#include <map>

namespace cli {

int runList(const CliOptions& options)
{
    std::map<std::string, int> channels;
    std::string error;
    if (!resolver::fetchChannels(COMMSCHANNEL_RESOLVER_PORT, &channels, &error)) {
        return fail(COMMAND_LIST, error);
    }
    sweepDeadCounterFiles();
    // withOwners keeps the map's order, which is the names' byte order.
    const std::vector<resolver::ListedChannel> listed = resolver::withOwners(channels);
    std::vector<ListRow> rows;
    for (const resolver::ListedChannel& channel : listed) {
        ListRow row{channel.name, channel.port, channel.pid, resolver::processName(channel.pid),
                    channel.rxQueueBytes, channel.drops};
        const ChannelCounters counters = readChannelCounters(channel.pid, channel.port);
        row.queued = counters.queued;
        row.maxQueued = counters.maxQueued;
        row.stopped = counters.receivingKnown && !counters.receiving;
        rows.push_back(row);
    }
    if (options.json) {
        for (const ListRow& row : rows) {
            std::printf("%s\n", formatListJson(row).c_str());
        }
    } else {
        std::fputs(formatListTable(rows).c_str(), stdout);
    }
    return std::fflush(stdout) == 0 ? EXIT_OK : fail(COMMAND_LIST, "cannot write the listing");
}

}  // namespace cli
