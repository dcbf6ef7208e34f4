// How commschannel stats prints a channel's counters: an aligned table or
// one JSON object a line. Pure functions, any thread.
#ifndef COMMSCHANNEL_CLI_STATS_TEXT_H
#define COMMSCHANNEL_CLI_STATS_TEXT_H

#include "PublishedCounters.h"

#include <string>
#include <vector>

namespace cli {

struct StatsRow {
    std::string name;
    int pid;                  // 0: unknown
    ChannelCounters counters; // -1 and receivingKnown false: nothing published
    long long rxQueueBytes;   // -1: no socket listed at the port
    long long drops;          // -1: no socket listed at the port
};

// A header and one aligned line per row; unknown values as "-", RECEIVING
// as "yes" or "no".
std::string formatStatsTable(const std::vector<StatsRow>& rows);
// One JSON object: name, pid, queued, max_queued, received, taken, refused,
// bad_datagrams, receiving (true, false, or null when unknown),
// rx_queue_bytes, drops.
std::string formatStatsJson(const StatsRow& row);

}  // namespace cli

#endif
