// Reading the kernel's list of UDP sockets (/proc/net/udp and udp6) to learn
// which ports can still be reached at 127.0.0.1. A process killed outright
// never says goodbye; its sockets, though, vanish from these files at once,
// which is how the resolver notices that its names are gone.
//
// The files belong to the network namespace of the reading process, which is
// the one the resolver serves.
//
// Each line of the files reads
//
//   sl: local_address rem_address st tx_queue:rx_queue tr:tm retrnsmt uid timeout inode ref pointer drops
//
// local_address is "ADDRESS:PORT" in hex. The port is a plain number. The
// address is the in-memory (network order) value printed as host-order
// 32-bit words, so 127.0.0.1 reads 0100007F on a little-endian kernel and
// 7F000001 on a big-endian one. A program under qemu-user reads the host
// kernel's file whatever its own byte order, so both spellings are accepted.
// rx_queue is the hex count of bytes waiting in the socket's receive buffer
// (as the kernel charges them, headers included); drops is the decimal count
// of datagrams the kernel threw away for that socket, mostly because its
// receive buffer was full.
//
// Stateless functions; safe from any thread.
#ifndef COMMSCHANNEL_PROC_NET_UDP_H
#define COMMSCHANNEL_PROC_NET_UDP_H

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace resolver {

struct UdpSocketEntry {
    int port;
    std::uint64_t inode;
    // Bound to 127.0.0.1 or to the wildcard address (IPv4, or IPv6 "::" and
    // ::ffff:127.0.0.1): a datagram sent to 127.0.0.1 at the port reaches it.
    bool reachableOnLoopback;
    // Bytes waiting to be read, and datagrams dropped; -1 when the line
    // lacks the field.
    long long rxQueueBytes;
    long long drops;
};

// The socket lines of one file's text. The header line and lines that do not
// parse are skipped.
std::vector<UdpSocketEntry> parseProcNetUdp(const std::string& text);

// The ports of the entries that are reachable on loopback.
std::set<int> loopbackPorts(const std::vector<UdpSocketEntry>& entries);

// Reads <procRoot>/net/udp and, when it exists, <procRoot>/net/udp6. False
// when the IPv4 file cannot be read: the caller then knows nothing and must
// not take any port for closed.
bool readUdpSockets(std::vector<UdpSocketEntry>* entries, const std::string& procRoot = "/proc");

}  // namespace resolver

#endif
