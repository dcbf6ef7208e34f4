// Finding the process that holds a socket: every open descriptor of a
// process shows in /proc/<pid>/fd as a symbolic link, and a socket's link
// reads "socket:[<inode>]", the inode that /proc/net/udp lists for it.
//
// Only processes whose descriptors the caller may read are seen; others are
// skipped without a word, so an owner is "where known". A socket shared by
// several processes (inherited across fork) is credited to the lowest pid.
//
// Stateless functions; safe from any thread.
#ifndef COMMSCHANNEL_PROC_SOCKET_OWNERS_H
#define COMMSCHANNEL_PROC_SOCKET_OWNERS_H

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace resolver {

// True for a link text "socket:[<decimal inode>]", whose inode goes to
// *inode.
bool parseSocketLink(const std::string& link, std::uint64_t* inode);

// Maps each wanted inode to the pid of a process holding it, scanning
// <procRoot>/<pid>/fd. Inodes that no readable process holds are absent.
std::map<std::uint64_t, int> findSocketOwners(const std::set<std::uint64_t>& inodes,
                                              const std::string& procRoot = "/proc");

// The pid of a process holding the UDP socket reachable at 127.0.0.1:port,
// or 0 when none is listed or none we may look into holds it. Reads the
// whole socket list and every readable process's descriptors: for logs and
// tools, not for a hot path.
int findPortOwner(int port, const std::string& procRoot = "/proc");

// The command name of a process (<procRoot>/<pid>/comm without its newline),
// or "" when the process is gone or unreadable.
std::string processName(int pid, const std::string& procRoot = "/proc");

}  // namespace resolver

#endif
