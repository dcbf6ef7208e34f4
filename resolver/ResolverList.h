// commschannel-resolver --list: asks the running resolver for its table
// (ResolverClient.h) and prints one line per channel with its port and,
// where /proc tells, the process that holds the port. The pieces are shared
// with the commschannel tool's list.
//
// Not thread-safe; a short-lived program's single thread.
#ifndef COMMSCHANNEL_RESOLVER_LIST_H
#define COMMSCHANNEL_RESOLVER_LIST_H

#include "ResolverClient.h"

#include <cstddef>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace resolver {

struct ListedChannel {
    std::string name;
    int port;
    int pid;  // 0 when no readable process holds the port
    // From the port's socket line in /proc/net/udp: bytes waiting in its
    // receive buffer and datagrams the kernel dropped on it; -1 when the
    // port has no socket listed.
    long long rxQueueBytes = -1;
    long long drops = -1;
};

// When the datagram is one locator update, applies its rows in order to
// *channels (name to port; any type but 0 removes) and returns true.
bool applyUpdate(const char* bytes, std::size_t length, std::map<std::string, int>* channels);

// The channels in name order, each with the pid that holds its port and
// that socket's receive queue and drop count.
std::vector<ListedChannel> withOwners(const std::map<std::string, int>& channels);

// A header "NAME PORT PID" and one line per channel in the given order,
// columns aligned, "-" for an unknown pid. Bytes of a name outside
// printable ASCII, and the backslash, are shown as \xNN.
std::string formatChannelList(const std::vector<ListedChannel>& channels);

// Runs the client against 127.0.0.1:resolverPort, printing the listing to
// out. Returns 0, or 1 with a message on err when no resolver answered
// (see fetchChannels) or no socket could be made.
int runList(int resolverPort, std::FILE* out, std::FILE* err);

}  // namespace resolver

#endif
