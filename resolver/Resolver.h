// Resolver: the name service for the CommsChannel processes of one host,
// as pure logic. It keeps the ResolverTable and turns each datagram it is
// given into the datagrams to send back; it never touches a socket, a file
// or a clock of its own, so a test can drive it one step at a time.
// ResolverServer does the I/O around it.
//
// What it answers (all messages are the message library's classes):
//   register locator    remember the sender's port as a locator and answer
//                       it at once with an update listing every channel
//                       (no rows when there is none)
//   locator update      apply each row (0 added, anything else removed; a
//                       removal counts only from the name's owner) and pass
//                       the applied rows on to every registered locator.
//                       A registration that takes a name over from another
//                       process keeps the one it replaced; when the new
//                       owner withdraws the name, it goes back to the
//                       earlier owner if that one's sockets are still bound
//   port request        always answer the sender with a port response: the
//                       same name and request id, the port or 0
//   unregister locator  forget the sender and the channels it owns, and
//                       announce their removal to the other locators
// Anything else, and anything that does not decode as exactly one message,
// is dropped with a rate-limited log line.
//
// Every address is a UDP port on 127.0.0.1; the sender of a datagram is
// known by its source port. One object belongs to one thread.
//
// Log lines name processes by pid. The resolver learns a locator's process
// through the ProcessLookup it is given, when the locator registers, and
// keeps it: the lines about a process that died are written after its
// sockets, and so its entry in /proc, are gone. At notice level (the
// default) it logs a name taken over by another process, the names
// withdrawn because their process died, and registration rows it ignored;
// at info level everything else it does.
//
// Usage:
//   resolver::Resolver sut;
//   std::vector<resolver::Outgoing> replies = sut.handleDatagram(bytes, length, sourcePort);
//   ... send each reply's bytes to 127.0.0.1:reply.port ...
//   if (sut.takeChanged()) ... save sut.table() ...
#ifndef COMMSCHANNEL_RESOLVER_H
#define COMMSCHANNEL_RESOLVER_H

#include "RateLimiter.h"
#include "ResolverClock.h"
#include "ResolverTable.h"
#include "ResolverTakeovers.h"
#include "ResolverUpdates.h"

#include <cstddef>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

class CommsChannelLocatorUpdateMessage;
class CommsChannelPortRequestMessage;

namespace resolver {

// One datagram to send: never empty.
struct Outgoing {
    int port;
    Encoding bytes;
};

// A process as the log names it; pid 0 when unknown.
struct ProcessIdentity {
    int pid;
    std::string name;
};

// Finds the process holding the UDP socket at 127.0.0.1:port. May be slow
// (it reads /proc); called once per locator registration and for log lines
// about senders that are not registered locators.
typedef std::function<ProcessIdentity(int port)> ProcessLookup;

class Resolver {
public:
    // clock times the rate limit of the log lines about dropped datagrams and
    // ignored rows. Without a lookup every process is unidentified.
    explicit Resolver(MillisecondClock clock = monotonicMilliseconds, ProcessLookup lookup = ProcessLookup());

    Resolver(const Resolver&) = delete;
    Resolver& operator=(const Resolver&) = delete;

    // Handles one received datagram of length bytes from 127.0.0.1 at
    // sourcePort. Returns the datagrams to send, in order.
    std::vector<Outgoing> handleDatagram(const char* bytes, std::size_t length, int sourcePort);
    // Finds the processes of the locators registered since the last call
    // (the lookup is slow: it reads every process's descriptors) and writes
    // their registration lines. Call it after the answers of a round have
    // been sent.
    void identifyPending();

    // Withdraws every locator and channel whose port is not in boundPorts
    // (the ports still reachable on 127.0.0.1), with the channels owned by a
    // withdrawn locator, and announces the removed names to the locators
    // that remain. boundPorts must come from a successful scan: an empty set
    // withdraws everything.
    std::vector<Outgoing> withdrawDead(const std::set<int>& boundPorts);

    // Replaces the table with one saved by an earlier resolver, then
    // withdraws what is no longer bound as withdrawDead() does, so that the
    // surviving locators forget names that died while no resolver ran.
    std::vector<Outgoing> restore(const ResolverTable& saved, const std::set<int>& boundPorts);

    const ResolverTable& table() const { return m_table; }

    // True when the table changed since the last call, which clears it.
    bool takeChanged();

    // The process behind a port as log lines name it: "pid 1234 (name)", or
    // "an unidentified process at port N". Remembered for registered
    // locators; otherwise asks the lookup each time.
    std::string describe(int port);

private:
    std::vector<Outgoing> handleRegister(int sourcePort, int announcedPort);
    std::vector<Outgoing> handleUnregister(int sourcePort);
    std::vector<Outgoing> handleUpdate(const CommsChannelLocatorUpdateMessage& update, int sourcePort);
    std::vector<Outgoing> handlePortRequest(CommsChannelPortRequestMessage& request, int sourcePort);
    // One row of an update from the locator at sourcePort. Each returns
    // true, with the row to pass on in *applied, when the table took it.
    bool applyRegistration(const std::string& name, int port, int sourcePort, UpdateRow* applied);
    // Appends the rows to pass on: the removal, and the registration given
    // back to an earlier owner if one is kept.
    void applyRemoval(const std::string& name, int sourcePort, std::vector<UpdateRow>* applied);

    // Removes the channels owned by ownerPort; appends removal rows (and
    // the registrations given back, see giveBack).
    void removeOwnedBy(int ownerPort, std::vector<UpdateRow>* removed);
    // Once name has been removed from the table: gives it back to the
    // registration that the withdrawing owner (at withdrawnBy) had taken it
    // from, if one is kept, and appends that row.
    void giveBack(const std::string& name, int withdrawnBy, std::vector<UpdateRow>* rows);
    // The rows as updates, addressed to every registered locator.
    std::vector<Outgoing> toAllLocators(const std::vector<UpdateRow>& rows) const;
    // Logs a datagram that was not handled, at most once a second.
    void dropped(const std::string& reason, std::size_t length, int sourcePort);
    // Logs a row of an update that was not applied, at most once a second.
    void ignoredRow(const std::string& reason, int sourcePort);
    // Forgets a locator and its remembered process.
    void forgetLocator(int port);

    ResolverTable m_table;
    ResolverTakeovers m_takeovers;  // registrations replaced by a takeover
    bool m_changed;
    MillisecondClock m_clock;
    RateLimiter m_droppedLog;
    RateLimiter m_ignoredRowLog;
    ProcessLookup m_lookup;
    // The process of each registered locator, as found when it registered.
    std::map<int, ProcessIdentity> m_processes;
    std::vector<int> m_pendingIdentify;  // locator ports registered, not yet looked up
    // A registration answered but not yet logged (see identifyPending).
    struct PendingRegistration {
        int port = 0;
        int announcedPort = 0;
        std::size_t channels = 0;
        std::size_t updates = 0;
    };
    std::vector<PendingRegistration> m_pendingLog;
};

}  // namespace resolver

#endif
