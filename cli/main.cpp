// commschannel: looks at and talks to the CommsChannel channels of this
// host. See docs/guide.md and "commschannel --help".
#include "CliCommands.h"
#include "CliOptions.h"
#include "CommsChannelVersion.h"

#include <cstdio>
#include <string>

int main(int argc, char** argv)
{
    cli::CliOptions options;
    std::string error;
    if (!cli::parseCliOptions(argc, argv, &options, &error)) {
        const std::string command = options.command == cli::COMMAND_NONE
                                        ? std::string("commschannel")
                                        : std::string("commschannel ") + cli::commandName(options.command);
        std::fprintf(stderr, "%s: %s (try '%s --help')\n", command.c_str(), error.c_str(), command.c_str());
        return cli::EXIT_USAGE;
    }
    if (options.version) {
        std::printf("commschannel %s\n", COMMSCHANNEL_VERSION);
        return cli::EXIT_OK;
    }
    if (options.help) {
        std::fputs(cli::cliUsage(options.command).c_str(), stdout);
        return cli::EXIT_OK;
    }
    switch (options.command) {
    case cli::COMMAND_LIST:
        return cli::runList(options);
    case cli::COMMAND_SEND:
        return cli::runSend(options);
    case cli::COMMAND_CALL:
        return cli::runCall(options);
    case cli::COMMAND_LISTEN:
        return cli::runListen(options);
    case cli::COMMAND_WAIT:
        return cli::runWait(options);
    case cli::COMMAND_MONITOR:
        return cli::runMonitor(options);
    case cli::COMMAND_STATS:
        return cli::runStats(options);
    case cli::COMMAND_NONE:
        break;
    }
    return cli::EXIT_USAGE;
}
