#include "ResolverOptions.h"

#include "CommandLine.h"
#include "ResolverPorts.h"

#include <cstdlib>

namespace resolver {

const char DEFAULT_STATE_FILE[] = "/run/commschannel-resolver.state";

namespace {

bool takesValue(const std::string& option) { return option == "--state-file" || option == "--port"; }

// Applies one option, its value already taken. False with *error set for an
// option we do not know or a value that will not do.
bool applyOption(const std::string& option, const std::string& value, ResolverOptions* options,
                 std::string* error)
{
    if (option == "-h" || option == "--help") {
        options->help = true;
    } else if (option == "--version") {
        options->version = true;
    } else if (option == "-v" || option == "--verbose") {
        options->verbose = true;
    } else if (option == "--syslog") {
        options->syslog = true;
    } else if (option == "--list") {
        options->list = true;
    } else if (option == "--state-file") {
        if (value.empty()) {
            *error = "option --state-file needs a non-empty path";
            return false;
        }
        options->stateFile = value;
    } else if (option == "--port") {
        if (!parsePort(value, &options->port)) {
            *error = "option --port needs a port number from 1 to 65535, not \"" + value + "\"";
            return false;
        }
    } else if (!option.empty() && option[0] == '-') {
        *error = "unknown option " + option;
        return false;
    } else {
        *error = "unexpected argument \"" + option + "\"";
        return false;
    }
    return true;
}

}  // namespace

bool parseResolverOptions(int argc, const char* const* argv, ResolverOptions* options, std::string* error)
{
    *options = ResolverOptions();
    for (int index = 1; index < argc; ++index) {
        command_line::OptionArgument argument = command_line::splitOption(argv[index]);
        // The value is settled before the option is looked up, so that
        // "--bogus=1" hears that it takes no value, as any flag would.
        const bool valueOk = takesValue(argument.option)
                                 ? command_line::takeValue(argc, argv, &index, &argument, error)
                                 : command_line::refuseValue(argument, error);
        if (!valueOk || !applyOption(argument.option, argument.value, options, error)) {
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
