// The subcommands of commschannel, one file each. Each takes the parsed
// command line (help and version already handled by main) and returns the
// exit status, having printed a one-line reason on standard error for
// anything but EXIT_OK.
#ifndef COMMSCHANNEL_CLI_COMMANDS_H
#define COMMSCHANNEL_CLI_COMMANDS_H

#include "CliOptions.h"

namespace cli {

int runList(const CliOptions& options);
int runSend(const CliOptions& options);
int runCall(const CliOptions& options);
int runListen(const CliOptions& options);
int runWait(const CliOptions& options);
int runMonitor(const CliOptions& options);
int runStats(const CliOptions& options);

}  // namespace cli

#endif
