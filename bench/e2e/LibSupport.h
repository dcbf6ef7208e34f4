// Small helpers around the library that several scenarios and peers share:
// unique channel names, questions to the resolver, receives with a deadline,
// and payloads that carry a sequence number and can be checked byte by byte.
#ifndef COMMSCHANNEL_BENCH_LIB_SUPPORT_H
#define COMMSCHANNEL_BENCH_LIB_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <string>

class CommsChannel;
class CommsChannelDataContainerMessage;

namespace bench {

// "bench-<tag>-<pid>-<n>": never used twice on the host during a run, so
// that no stale entry of an earlier peer can answer for a new one.
std::string uniqueName(const std::string& tag);

// Asks the resolver at 127.0.0.1:5000 for the port of name. Returns the
// port, 0 when the resolver does not know the name, -1 when it did not
// answer within timeoutMs.
int resolverPortOf(const std::string& name, int timeoutMs);
// A SOL_SOCKET option (SO_RCVBUF, SO_SNDBUF) of the socket of this
// process's channel name, found by the port the resolver gives for it, as
// the kernel reports it. -1 when the resolver does not know the name or no
// socket of this process is bound to its port.
int channelSocketOption(const std::string& name, int option);
// Asks again until the resolver knows name. False after timeoutMs.
bool waitUntilResolverKnows(const std::string& name, int timeoutMs);

// receiveMsg_ByID_Timed with the time-out as an outcome: false instead of
// CommsException. requestId 0 takes the front of the queue.
bool receiveWithin(CommsChannel& channel, CommsChannelDataContainerMessage& message, long requestId,
                   int timeoutMs);

// size bytes that depend on seed, so that a reply to another request or a
// damaged copy never compares equal.
std::string patterned(std::size_t size, std::uint64_t seed);

// A sequenced message: the number, a fixed marker, then a fill derived
// from the number. length is at least 16.
void writeSequenced(char* buffer, std::size_t length, std::uint64_t sequence);
// False unless the bytes are exactly such a message.
bool readSequenced(const char* buffer, std::size_t length, std::uint64_t& sequence);

}  // namespace bench

#endif
