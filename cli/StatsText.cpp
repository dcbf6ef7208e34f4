#include "StatsText.h"

#include "CliText.h"

namespace cli {

namespace {

std::string receivingText(const ChannelCounters& counters)
{
    return !counters.receivingKnown ? "-" : counters.receiving ? "yes" : "no";
}

std::string receivingJson(const ChannelCounters& counters)
{
    return !counters.receivingKnown ? "null" : counters.receiving ? "true" : "false";
}

}  // namespace

std::string formatStatsTable(const std::vector<StatsRow>& rows)
{
    const std::vector<std::string> headers{"NAME",    "PID", "QUEUED",    "MAXQ",     "RECEIVED", "TAKEN",
                                           "REFUSED", "BAD", "RECEIVING", "RX_QUEUE", "DROPS"};
    std::vector<std::vector<std::string>> cells;
    for (const StatsRow& row : rows) {
        const ChannelCounters& counters = row.counters;
        cells.push_back({escapeBytes(row.name), row.pid > 0 ? std::to_string(row.pid) : "-",
                         knownOrDash(counters.queued), knownOrDash(counters.maxQueued),
                         knownOrDash(counters.received), knownOrDash(counters.taken), knownOrDash(counters.refused),
                         knownOrDash(counters.badDatagrams), receivingText(counters), knownOrDash(row.rxQueueBytes),
                         knownOrDash(row.drops)});
    }
    return formatTable(headers, cells);
}

std::string formatStatsJson(const StatsRow& row)
{
    const ChannelCounters& counters = row.counters;
    return "{\"name\":" + jsonString(row.name) + ",\"pid\":" + std::to_string(row.pid) +
           ",\"queued\":" + std::to_string(counters.queued) + ",\"max_queued\":" + std::to_string(counters.maxQueued) +
           ",\"received\":" + std::to_string(counters.received) + ",\"taken\":" + std::to_string(counters.taken) +
           ",\"refused\":" + std::to_string(counters.refused) +
           ",\"bad_datagrams\":" + std::to_string(counters.badDatagrams) + ",\"receiving\":" +
           receivingJson(counters) + ",\"rx_queue_bytes\":" + std::to_string(row.rxQueueBytes) +
           ",\"drops\":" + std::to_string(row.drops) + "}";
}

}  // namespace cli
