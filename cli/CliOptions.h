// The command line of commschannel: which subcommand, its operands and its
// options. Parsing has no side effects; main() and the subcommands act on
// the result.
//
//   commschannel [--help | --version]
//   commschannel list   [-j]
//   commschannel stats  [NAME...] [-j]
//   commschannel send   NAME DATA [--type N] [--id N]
//   commschannel call   NAME DATA [--type N] [-t MS] [-j]
//   commschannel listen NAME [-n COUNT] [-j]
//   commschannel wait   NAME [-t MS]
//   commschannel monitor [NAME...] [-n COUNT] [-j] [--pcap FILE]
//
// Every subcommand takes -h/--help. Options may stand before, between or
// after the operands; a value follows its option as the next argument or
// after '=' (--type 3, --type=3). "--" ends the options, so that DATA may
// start with '-'; a lone "-" is an operand (DATA from standard input).
#ifndef COMMSCHANNEL_CLI_OPTIONS_H
#define COMMSCHANNEL_CLI_OPTIONS_H

#include <string>
#include <vector>

namespace cli {

// Exit status of every subcommand: done; what was asked did not happen
// (time-out, unknown name, no resolver); the command line was wrong.
const int EXIT_OK = 0;
const int EXIT_FAILED = 1;
const int EXIT_USAGE = 2;

const int DEFAULT_CALL_TIMEOUT_MS = 5000;
const int DEFAULT_WAIT_TIMEOUT_MS = 10000;

enum Command { COMMAND_NONE, COMMAND_LIST, COMMAND_SEND, COMMAND_CALL, COMMAND_LISTEN, COMMAND_WAIT,
              COMMAND_MONITOR, COMMAND_STATS };

struct CliOptions {
    Command command = COMMAND_NONE;
    bool help = false;
    bool version = false;
    bool json = false;
    std::string name;
    // DATA as given; "-" means standard input (dataFromStdin is then set).
    std::string data;
    bool dataFromStdin = false;
    int msgType = 0;
    long requestId = 0;
    int timeoutMs = 0;  // the subcommand's default unless -t was given
    long count = 0;     // 0: no limit
    // monitor and stats: the names to watch or show (empty: all); monitor: the capture file ("":
    // none, "-": standard output).
    std::vector<std::string> names;
    std::string pcapPath;
};

// Reads argv[1..argc-1] into *options, starting from the defaults. Returns
// false with *error set to a one-line reason for an unknown subcommand or
// option, an option the subcommand does not take, a missing or malformed
// value, a missing operand or a stray argument; *options then still tells
// the subcommand, when one was recognised, for the "Try" hint. With
// --help anywhere, operands are not required.
bool parseCliOptions(int argc, const char* const* argv, CliOptions* options, std::string* error);

// The subcommand's name as typed ("list", ...); "" for COMMAND_NONE.
const char* commandName(Command command);

// The --help text of a subcommand, or the overview for COMMAND_NONE; ends in
// a newline.
std::string cliUsage(Command command);

}  // namespace cli

#endif
