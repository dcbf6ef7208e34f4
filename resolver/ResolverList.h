// commschannel-resolver --list: asks the running resolver for its table the
// way any locator learns it, and prints one line per channel with its port
// and, where /proc tells, the process that holds the port.
//
// The client registers as a locator from a socket of its own, collects the
// update(s) that answer the registration, and unregisters again. Updates
// pushed by other locators in between are applied in order, so the listing
// is the table as it stood when the last update arrived.
//
// Not thread-safe; a short-lived program's single thread.
#ifndef COMMSCHANNEL_RESOLVER_LIST_H
#define COMMSCHANNEL_RESOLVER_LIST_H

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
};

// How long the client waits for the resolver's first update (the
// registration is sent again half-way), the pause after the last update
// that ends the collection, and the longest collection after the first.
const int LIST_ANSWER_TIMEOUT_MS = 2000;
const int LIST_QUIET_GAP_MS = 200;
const int LIST_COLLECT_LIMIT_MS = 5000;

// When the datagram is one locator update, applies its rows in order to
// *channels (name to port; any type but 0 removes) and returns true.
bool applyUpdate(const char* bytes, std::size_t length, std::map<std::string, int>* channels);

// The channels in name order, each with the pid that holds its port.
std::vector<ListedChannel> withOwners(const std::map<std::string, int>& channels);

// A header "NAME PORT PID" and one line per channel in the given order,
// columns aligned, "-" for an unknown pid. Bytes of a name outside
// printable ASCII, and the backslash, are shown as \xNN.
std::string formatChannelList(const std::vector<ListedChannel>& channels);

// Runs the client against 127.0.0.1:resolverPort, printing the listing to
// out. Returns 0, or 1 with a message on err when no resolver answered
// within LIST_ANSWER_TIMEOUT_MS or no socket could be made.
int runList(int resolverPort, std::FILE* out, std::FILE* err);

}  // namespace resolver

#endif
