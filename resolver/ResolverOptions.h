// The command line of commschannel-resolver: what it may say and what it
// means. Parsing has no side effects; main() acts on the result.
#ifndef COMMSCHANNEL_RESOLVER_OPTIONS_H
#define COMMSCHANNEL_RESOLVER_OPTIONS_H

#include <string>

#include "ResolverPort.h"

namespace resolver {

extern const char DEFAULT_STATE_FILE[];

struct ResolverOptions {
    bool help = false;
    bool version = false;
    bool list = false;
    bool verbose = false;
    bool syslog = false;
    std::string stateFile = DEFAULT_STATE_FILE;
    int port = COMMSCHANNEL_RESOLVER_PORT;
};

// Reads argv[1..argc-1] into *options, starting from the defaults. Values
// may follow their option as the next argument or after '='
// (--port 5001, --port=5001). Returns false with *error set to a one-line
// reason for an unknown option, a missing or empty value, a port outside
// 1..65535 or a stray argument; *options is then not to be used.
bool parseResolverOptions(int argc, const char* const* argv, ResolverOptions* options, std::string* error);

// The --help text, ending in a newline.
std::string resolverUsage();

}  // namespace resolver

#endif
