// Building the locator updates the resolver sends: rows of (update type,
// channel name, port) packed into as few CommsChannelLocatorUpdateMessage
// encodings as the datagram limit allows.
//
// A locator reads each datagram into a buffer of exactly the waiting size and
// decodes it on its own, so every update must be one complete encoding of at
// most MAX_UPDATE_BYTES; a long table is cut into several updates, never one
// encoding into several datagrams.
//
// Stateless functions; safe from any thread.
#ifndef COMMSCHANNEL_RESOLVER_UPDATES_H
#define COMMSCHANNEL_RESOLVER_UPDATES_H

#include <cstddef>
#include <string>
#include <vector>

namespace resolver {

// The largest encoding the resolver sends in one datagram, the same piece
// size the channels use between themselves.
const std::size_t MAX_UPDATE_BYTES = 60000;

struct UpdateRow {
    int type;  // CommsChannelLocatorUpdateMessage::eUpdateType value
    std::string name;
    int port;
};

typedef std::vector<char> Encoding;

// The rows in order, as updates of at most maxBytes encoded each. No rows
// gives one update with no rows (the answer to a locator registering with an
// empty table). A row that does not fit an update of its own is left out;
// rowFits() tells beforehand.
std::vector<Encoding> encodeUpdates(const std::vector<UpdateRow>& rows, std::size_t maxBytes = MAX_UPDATE_BYTES);

// True when an update holding only a row with this name fits maxBytes.
bool rowFits(const std::string& name, std::size_t maxBytes = MAX_UPDATE_BYTES);

// The longest name (in bytes) for which rowFits() holds: the longest name a
// process can register, and so the longest the resolver ever answers for.
// Port requests and answers with such a name are smaller than its update.
std::size_t longestName(std::size_t maxBytes = MAX_UPDATE_BYTES);

}  // namespace resolver

#endif
