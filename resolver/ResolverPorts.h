// Ports as the resolver reads them from text and addresses them on the
// loopback interface. Plain functions, usable from any thread.
#ifndef COMMSCHANNEL_RESOLVER_PORTS_H
#define COMMSCHANNEL_RESOLVER_PORTS_H

#include <netinet/in.h>

#include <string>

namespace resolver {

// Parses a decimal port in 1..65535 and nothing else (no sign, no blanks).
// Returns false, leaving *port alone, for anything else.
bool parsePort(const std::string& text, int* port);

// 127.0.0.1 at port (host byte order in, network byte order in the result).
sockaddr_in loopbackAddress(int port);

}  // namespace resolver

#endif
