// Ports as the resolver reads them from text (the command line and the state
// file). A plain function, usable from any thread; loopbackAddress() in
// LoopbackSocket.h addresses them.
#ifndef COMMSCHANNEL_RESOLVER_PORTS_H
#define COMMSCHANNEL_RESOLVER_PORTS_H

#include <string>

namespace resolver {

// Parses a decimal port in 1..65535 and nothing else (no sign, no blanks).
// Returns false, leaving *port alone, for anything else.
bool parsePort(const std::string& text, int* port);

}  // namespace resolver

#endif
