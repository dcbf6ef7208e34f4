// ResolverServer: the resolver process around the Resolver logic. It owns
// the UDP socket on 127.0.0.1:<port>, feeds every datagram to the Resolver
// and sends what it returns, scans /proc/net/udp every SCAN_INTERVAL_MS to
// withdraw the names of processes that died without a word, and keeps the
// table in the state file.
//
// One thread does everything: poll() waits on the socket and on the shutdown
// signal pipe with a time-out that ends at the next scan. Apart from writing
// the state file nothing else waits: reads stop when the socket is empty,
// and a send that would block is dropped and logged.
//
// Usage (main.cpp):
//   resolver::ResolverServer server(options);
//   if (!server.open()) return 1;      // port taken: reported already
//   return server.run();               // until SIGTERM or SIGINT
#ifndef COMMSCHANNEL_RESOLVER_SERVER_H
#define COMMSCHANNEL_RESOLVER_SERVER_H

#include "LoopbackSocket.h"
#include "RateLimiter.h"
#include "Resolver.h"
#include "ResolverOptions.h"

#include <set>
#include <string>
#include <vector>

namespace resolver {

class ResolverServer {
public:
    // Time between two scans of /proc/net/udp. A port must be missing from
    // two scans in a row before its names are withdrawn, so a dead process
    // is noticed within two intervals plus the time of a scan.
    static const int SCAN_INTERVAL_MS = 300;

    explicit ResolverServer(const ResolverOptions& options);
    // Closes the socket.
    ~ResolverServer() = default;
    ResolverServer(const ResolverServer&) = delete;
    ResolverServer& operator=(const ResolverServer&) = delete;

    // Binds 127.0.0.1:<port>. False, with the reason logged at error level,
    // when the port is taken (another resolver runs) or no socket can be
    // made. Touches neither the state file nor anything else before that,
    // so a refused second instance leaves the running one's file alone.
    bool open();

    // REQUIRES: open() returned true.
    // Restores the state file, prints the start-up line and serves until
    // SIGTERM or SIGINT. Returns the exit status: 0 after a signal, 1 when
    // the signal handling could not be set up.
    int run();

private:
    void restoreState();
    // Both append the datagrams to send to *outgoing.
    void receiveBatch(std::vector<Outgoing>* outgoing);
    void scan(std::vector<Outgoing>* outgoing);
    void sendAll(const std::vector<Outgoing>& datagrams);
    void saveIfDue(bool force);
    // Ports reachable on 127.0.0.1 now, or false when /proc cannot be read.
    bool scanPorts(std::set<int>* ports);

    const ResolverOptions m_options;
    LoopbackSocket m_socket;  // non-blocking; valid once open() succeeded
    Resolver m_resolver;
    // Ports seen by the previous scan; see SCAN_INTERVAL_MS.
    std::set<int> m_previousScan;
    bool m_saveDue;
    bool m_saveFailing;
    bool m_scanFailing;
    RateLimiter m_sendErrorLog;
    std::vector<char> m_buffer;
};

}  // namespace resolver

#endif
