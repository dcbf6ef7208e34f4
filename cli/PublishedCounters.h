// Reading what a process publishes about its channels: the counter file
// /dev/shm/commschannel-<pid> (layout in counters/CounterTable.h), mapped
// read-only for one look, and the removal of the files that processes
// killed outright left behind.
//
// Stateless functions for the tool's single thread.
#ifndef COMMSCHANNEL_CLI_PUBLISHED_COUNTERS_H
#define COMMSCHANNEL_CLI_PUBLISHED_COUNTERS_H

#include <cstdint>
#include <string>

namespace cli {

// One channel's counters as last published. Every number is -1 when the
// process publishes nothing for the channel (no file, no slot for its port,
// a file we may not read): then receivingKnown is false too.
struct ChannelCounters {
    long long queued = -1;
    long long maxQueued = -1;
    long long received = -1;
    long long taken = -1;
    long long refused = -1;
    long long badDatagrams = -1;
    bool receivingKnown = false;
    bool receiving = false;
};

// The counters of the channel at port in process pid, read from the file
// in directory (normally /dev/shm).
ChannelCounters readChannelCounters(int pid, int port, const std::string& directory = "/dev/shm");

// Removes every commschannel-<pid> file in directory whose process no
// longer exists. Files we may not remove stay, without a word.
void sweepDeadCounterFiles(const std::string& directory = "/dev/shm");

}  // namespace cli

#endif
