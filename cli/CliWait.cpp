// commschannel wait: returns as soon as the resolver knows a name. It
// follows the resolver's pushed updates as a locator does, so a name that
// appears is seen at once, without polling.
#include "CliCommands.h"
#include "CliSupport.h"
#include "ResolverClient.h"

namespace cli {

int runWait(const CliOptions& options)
{
    if (!nameFitsResolver(COMMAND_WAIT, options.name)) {
        return EXIT_USAGE;
    }
    bool found = false;
    if (options.timeoutMs == 0) {
        found = resolver::queryPort(COMMSCHANNEL_RESOLVER_PORT, options.name, RESOLVER_ANSWER_TIMEOUT_MS) > 0;
    } else {
        found = resolver::waitForName(COMMSCHANNEL_RESOLVER_PORT, options.name, options.timeoutMs);
    }
    if (!found) {
        return fail(COMMAND_WAIT, "\"" + escapeBytes(options.name) + "\" was not registered within " +
                                      std::to_string(options.timeoutMs) + " ms (timed out)");
    }
    return EXIT_OK;
}

}  // namespace cli
