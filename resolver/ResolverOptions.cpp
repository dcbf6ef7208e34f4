#include "ResolverOptions.h"

#include "ResolverPorts.h"

#include <cstdlib>

namespace resolver {

const char DEFAULT_STATE_FILE[] = "/run/commschannel-resolver.state";

bool parseResolverOptions(int argc, const char* const* argv, ResolverOptions* options, std::string* error)
{
    *options = ResolverOptions();
    for (int index = 1; index < argc; ++index) {
        std::string argument = argv[index];
        std::string value;
        bool hasValue = false;
        const std::size_t equals = argument.find('=');
        if (argument.compare(0, 2, "--") == 0 && equals != std::string::npos) {
            value = argument.substr(equals + 1);
            argument.erase(equals);
            hasValue = true;
        }
        const bool takesValue = argument == "--state-file" || argument == "--port";
        if (hasValue && !takesValue) {
            *error = "option " + argument + " takes no value";
            return false;
        }
        if (takesValue && !hasValue) {
            if (index + 1 >= argc) {
                *error = "option " + argument + " needs a value";
                return false;
            }
            value = argv[++index];
        }

        if (argument == "-h" || argument == "--help") {
            options->help = true;
        } else if (argument == "--version") {
            options->version = true;
        } else if (argument == "-v" || argument == "--verbose") {
            options->verbose = true;
        } else if (argument == "--syslog") {
            options->syslog = true;
        } else if (argument == "--list") {
            options->list = true;
        } else if (argument == "--state-file") {
            if (value.empty()) {
                *error = "option --state-file needs a non-empty path";
                return false;
            }
            options->stateFile = value;
        } else if (argument == "--port") {
            if (!parsePort(value, &options->port)) {
                *error = "option --port needs a port number from 1 to 65535, not \"" + value + "\"";
                return false;
            }
        } else if (!argument.empty() && argument[0] == '-') {
            *error = "unknown option " + argument;
            return false;
        } else {
            *error = "unexpected argument \"" + argument + "\"";
            return false;
        }
    }
    return true;
}

std::string resolverUsage()
{
    return "Usage: commschannel-resolver [OPTION]...\n"
           "Resolves CommsChannel channel names to UDP ports for the processes of this host.\n"
           "Runs in the foreground until SIGTERM or SIGINT.\n"
           "\n"
           "  -h, --help             print this help and exit\n"
           "      --version          print the version and exit\n"
           "  -v, --verbose          log every registration, update and port request,\n"
           "                         naming processes by pid, with timestamps on\n"
           "                         standard error\n"
           "      --syslog           log to the system log instead of standard error\n"
           "      --state-file PATH  keep the table in PATH across restarts\n"
           "                         (default " +
           std::string(DEFAULT_STATE_FILE) +
           ")\n"
           "      --port N           listen on 127.0.0.1 port N (default " +
           std::to_string(COMMSCHANNEL_RESOLVER_PORT) +
           ")\n"
           "      --list             print the channels that the running resolver knows\n"
           "                         (name, port, owning process) and exit\n"
           "\n"
           "Exit status: 0 after a clean shutdown or a successful --list, 1 when the\n"
           "port is taken or no resolver answered --list, 2 for a bad command line.\n";
}

}  // namespace resolver
