// Private to locator/: what the locator does with the resolver's datagrams,
// as plain functions on its tables. The locator thread only moves bytes; the
// locator applies what these functions decide under its own locks.
//
// Thread safety: none of its own; callers hold the locator's map lock when
// they pass a map.
#ifndef COMMSCHANNEL_LOCATOR_PROTOCOL_H
#define COMMSCHANNEL_LOCATOR_PROTOCOL_H

#include <cstddef>
#include <map>
#include <memory>
#include <string>

class CommsChannelLocatorEntry;
class CommsChannelLocatorUpdateMessage;
class CommsChannelMessage;

namespace locator_protocol {

typedef std::map<std::string, CommsChannelLocatorEntry*> EntryMap;

// The message one datagram carries, or null when the datagram is shorter
// than the 8-byte header or than the total length its header announces, or
// cannot be decoded. Bytes beyond the announced length are ignored.
std::unique_ptr<CommsChannelMessage> decodeDatagram(const char* datagram, std::size_t length);

// Adds a name learnt from the resolver, or updates the port of a known one;
// a known entry keeps sending through its first dispatcher, to its first
// port.
void learn(EntryMap& remote, const std::string& name, int port);

// Applies every row of an update: additions learn the name, every other
// row type removes it. Rows about this process's own channels land here
// too, where the local entries hide them.
void applyUpdate(EntryMap& remote, const CommsChannelLocatorUpdateMessage& update);

// Deletes every entry and empties the map.
void clear(EntryMap& map);

}  // namespace locator_protocol

#endif
