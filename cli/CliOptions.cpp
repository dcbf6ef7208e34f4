#include "CliOptions.h"

#include "CommandLine.h"

#include <climits>
#include <vector>

namespace cli {

namespace {

struct CommandInfo {
    Command command;
    const char* name;
    int operands;         // NAME, or NAME and DATA; ANY_NAMES: any number of NAMEs
    const char* options;  // the short letters and value options it takes
};

const int ANY_NAMES = -1;

// Which options each subcommand takes: j (-j/--json), y (--type), i (--id),
// t (-t/--timeout), n (-n/--count), p (--pcap).
const CommandInfo COMMANDS[] = {
    {COMMAND_LIST, "list", 0, "j"},
    {COMMAND_SEND, "send", 2, "yi"},
    {COMMAND_CALL, "call", 2, "yjt"},
    {COMMAND_LISTEN, "listen", 1, "jn"},
    {COMMAND_WAIT, "wait", 1, "t"},
    {COMMAND_MONITOR, "monitor", ANY_NAMES, "jnp"},
    {COMMAND_STATS, "stats", ANY_NAMES, "j"},
};

const CommandInfo* findCommand(const std::string& name)
{
    for (const CommandInfo& info : COMMANDS) {
        if (name == info.name) {
            return &info;
        }
    }
    return nullptr;
}

// The option letter of an argument, or 0 when it is no option we know.
char optionLetter(const std::string& argument)
{
    if (argument == "-j" || argument == "--json") {
        return 'j';
    }
    if (argument == "--type") {
        return 'y';
    }
    if (argument == "--id") {
        return 'i';
    }
    if (argument == "-t" || argument == "--timeout") {
        return 't';
    }
    if (argument == "-n" || argument == "--count") {
        return 'n';
    }
    if (argument == "--pcap") {
        return 'p';
    }
    return 0;
}

bool setValue(char letter, const std::string& option, const std::string& value, CliOptions* options,
              std::string* error)
{
    long long number = 0;
    switch (letter) {
    case 'y':
        if (!command_line::parseDecimal(value, 0, INT_MAX, &number)) {
            *error = "option " + option + " needs a message type from 0 to " + std::to_string(INT_MAX) +
                     ", not \"" + value + "\"";
            return false;
        }
        options->msgType = static_cast<int>(number);
        return true;
    case 'i':
        if (!command_line::parseDecimal(value, 0, LONG_MAX, &number)) {
            *error = "option " + option + " needs a request id from 0 to " + std::to_string(LONG_MAX) + ", not \"" +
                     value + "\"";
            return false;
        }
        options->requestId = static_cast<long>(number);
        return true;
    case 't': {
        const long long minimum = options->command == COMMAND_WAIT ? 0 : 1;
        if (!command_line::parseDecimal(value, minimum, INT_MAX, &number)) {
            *error = "option " + option + " needs milliseconds from " + std::to_string(minimum) + " to " +
                     std::to_string(INT_MAX) + ", not \"" + value + "\"";
            return false;
        }
        options->timeoutMs = static_cast<int>(number);
        return true;
    }
    case 'n':
        if (!command_line::parseDecimal(value, 1, LONG_MAX, &number)) {
            *error = "option " + option + " needs a count of at least 1, not \"" + value + "\"";
            return false;
        }
        options->count = static_cast<long>(number);
        return true;
    case 'p':
        if (value.empty()) {
            *error = "option " + option + " needs a FILE (- for standard output)";
            return false;
        }
        options->pcapPath = value;
        return true;
    default:
        return false;
    }
}

// Reads the option at argv[*index], and its value when it takes one (which
// may advance *index past it).
bool parseOption(const CommandInfo& info, int argc, const char* const* argv, int* index, CliOptions* options,
                 std::string* error)
{
    command_line::OptionArgument argument = command_line::splitOption(argv[*index]);
    const char letter = optionLetter(argument.option);
    if (letter == 0) {
        *error = "unknown option " + argument.option;
        return false;
    }
    if (std::string(info.options).find(letter) == std::string::npos) {
        *error = std::string(info.name) + " takes no option " + argument.option;
        return false;
    }
    if (letter == 'j') {
        if (!command_line::refuseValue(argument, error)) {
            return false;
        }
        options->json = true;
        return true;
    }
    return command_line::takeValue(argc, argv, index, &argument, error) &&
           setValue(letter, argument.option, argument.value, options, error);
}

// Checks the operands against what the subcommand needs and stores them.
bool assignOperands(const CommandInfo& info, const std::vector<std::string>& operands, CliOptions* options,
                    std::string* error)
{
    if (info.operands == ANY_NAMES) {
        for (const std::string& name : operands) {
            if (name.empty()) {
                *error = "a channel NAME must not be empty";
                return false;
            }
        }
        options->names = operands;
        return true;
    }
    if (static_cast<int>(operands.size()) > info.operands) {
        *error = "unexpected argument \"" + operands[static_cast<std::size_t>(info.operands)] + "\"";
        return false;
    }
    if (static_cast<int>(operands.size()) < info.operands) {
        *error = operands.empty() ? "missing channel NAME" : "missing DATA (give - to read it from standard input)";
        return false;
    }
    if (info.operands >= 1) {
        options->name = operands[0];
        if (options->name.empty()) {
            *error = "the channel NAME must not be empty";
            return false;
        }
    }
    if (info.operands >= 2) {
        options->data = operands[1];
        options->dataFromStdin = options->data == "-";
    }
    return true;
}

bool parseCommandArguments(const CommandInfo& info, int first, int argc, const char* const* argv,
                           CliOptions* options, std::string* error)
{
    std::vector<std::string> operands;
    bool optionsEnded = false;
    for (int index = first; index < argc; ++index) {
        const std::string argument = argv[index];
        if (optionsEnded || argument == "-" || argument.empty() || argument[0] != '-') {
            operands.push_back(argument);
        } else if (argument == "--") {
            optionsEnded = true;
        } else if (argument == "-h" || argument == "--help") {
            options->help = true;
        } else if (!parseOption(info, argc, argv, &index, options, error)) {
            return false;
        }
    }
    // With --help the operands may be missing; the help is all that is asked.
    return options->help || assignOperands(info, operands, options, error);
}

const char* listUsage()
{
    return "Usage: commschannel list [-j]\n"
           "Prints every channel name the resolver knows, sorted by name: its port, the\n"
           "pid and name of the process holding the port, the messages in the channel's\n"
           "queue now and the most ever (as its process publishes them), the bytes\n"
           "waiting in the socket's receive buffer and the datagrams the kernel dropped\n"
           "on it. A \"!\" after a name: that process's receiving has stopped.\n"
           "\n"
           "  -j, --json   one JSON object a line: name, port, pid, process, queued,\n"
           "               max_queued, rx_queue_bytes, drops (pid 0, process \"\" and -1\n"
           "               when unknown)\n"
           "  -h, --help   print this help\n"
           "\n"
           "Exit status: 0 listed, 1 no resolver answered, 2 bad command line.\n";
}

const char* statsUsage()
{
    return "Usage: commschannel stats [NAME...] [-j]\n"
           "Prints every counter of each channel the resolver knows (or of the NAMEs),\n"
           "sorted by name: its process, the messages queued now and the most ever,\n"
           "those its receiver thread received from other processes, those taken by\n"
           "receives, those the interceptor refused, the datagrams it could not read,\n"
           "whether the process still receives, and the socket's receive buffer bytes\n"
           "and kernel drops. \"-\" where the process publishes nothing (another\n"
           "user's process, an older library).\n"
           "\n"
           "  -j, --json   one JSON object a line: name, pid, queued, max_queued,\n"
           "               received, taken, refused, bad_datagrams, receiving (true,\n"
           "               false; null when unknown), rx_queue_bytes, drops (-1 when\n"
           "               unknown)\n"
           "  -h, --help   print this help\n"
           "\n"
           "Exit status: 0 shown, 1 no resolver answered or a NAME is unknown, 2 bad\n"
           "command line.\n";
}

const char* sendUsage()
{
    return "Usage: commschannel send NAME DATA [--type N] [--id N]\n"
           "Sends one data message to the channel NAME from a temporary channel.\n"
           "DATA is the argument itself, or standard input when DATA is -.\n"
           "\n"
           "      --type N   the message type (default 0); it sets the message's\n"
           "                 priority in the receiving queue\n"
           "      --id N     the request id (default 0: none)\n"
           "  -h, --help     print this help\n"
           "\n"
           "Exit status: 0 sent, 1 NAME unknown, no resolver or the send failed,\n"
           "2 bad command line.\n";
}

const char* callUsage()
{
    return "Usage: commschannel call NAME DATA [--type N] [-t MS] [-j]\n"
           "Sends DATA to the channel NAME with a fresh request id and this command's\n"
           "own channel as callback channel, waits for the reply carrying that request\n"
           "id and prints the reply's data followed by a newline. DATA is the argument,\n"
           "or standard input when DATA is -.\n"
           "\n"
           "      --type N        the message type of the request (default 0)\n"
           "  -t, --timeout MS    how long to wait for the reply (default 5000)\n"
           "  -j, --json          print the reply as a JSON object: source, type,\n"
           "                      request_id, data\n"
           "  -h, --help          print this help\n"
           "\n"
           "Exit status: 0 replied, 1 NAME unknown, no resolver, the send failed or no\n"
           "reply within the time-out, 2 bad command line.\n";
}

const char* listenUsage()
{
    return "Usage: commschannel listen NAME [-n COUNT] [-j]\n"
           "Creates a channel named NAME and prints every message that arrives: source,\n"
           "type, request id, length and data (bytes outside printable ASCII escaped\n"
           "as \\xNN). Stops after COUNT messages, or on SIGINT or SIGTERM.\n"
           "\n"
           "  -n, --count COUNT   stop after COUNT messages\n"
           "  -j, --json          one JSON object a line: source, callback, type,\n"
           "                      request_id, length, data\n"
           "  -h, --help          print this help\n"
           "\n"
           "Exit status: 0 stopped as asked, 1 no resolver, 2 bad command line.\n";
}

const char* waitUsage()
{
    return "Usage: commschannel wait NAME [-t MS]\n"
           "Waits until the resolver knows the channel NAME; returns at once if it\n"
           "already does. Also waits for a resolver that is still starting.\n"
           "\n"
           "  -t, --timeout MS   how long to wait (default 10000; 0 asks once)\n"
           "  -h, --help         print this help\n"
           "\n"
           "Exit status: 0 NAME is registered, 1 time-out, 2 bad command line.\n";
}

const char* monitorUsage()
{
    return "Usage: commschannel monitor [NAME...] [-n COUNT] [-j] [--pcap FILE]\n"
           "Prints every message that crosses the loopback interface between channels\n"
           "and between processes and the resolver, one a line: time, kind, ports,\n"
           "source, channel, callback, type, request id, length and data (escaped as\n"
           "listen prints it). Kinds: data, spool, register, unregister,\n"
           "port_request, port_response, update, status, undecodable. A message split\n"
           "over several datagrams is printed once, joined, with pieces=N. With NAMEs,\n"
           "only messages from or to those channels and the resolver's traffic about\n"
           "them. Needs root. Writes \"listening on lo\" on standard error once\n"
           "capturing; stops after COUNT messages, or on SIGINT or SIGTERM.\n"
           "\n"
           "  -n, --count COUNT   stop after COUNT messages\n"
           "  -j, --json          one JSON object a line: time, kind, source, channel,\n"
           "                      callback, type, request_id, length, data, src_port,\n"
           "                      dst_port, and where the kind has them spool_path,\n"
           "                      pieces, name, port, rows, reason\n"
           "      --pcap FILE     also write the datagrams shown to FILE as a pcap\n"
           "                      capture (raw IPv4) for tcpdump or Wireshark; - is\n"
           "                      standard output, which then carries nothing else\n"
           "  -h, --help          print this help\n"
           "\n"
           "Exit status: 0 stopped as asked, 1 not root or no capture possible,\n"
           "2 bad command line.\n";
}

const char* overviewUsage()
{
    return "Usage: commschannel COMMAND [ARGUMENT]...\n"
           "Looks at and talks to the CommsChannel channels of this host.\n"
           "\n"
           "Commands:\n"
           "  list                         the names the resolver knows, with their\n"
           "                               processes and queues\n"
           "  stats [NAME...]              every counter of each channel\n"
           "  send NAME DATA               send one message\n"
           "  call NAME DATA               send a request and print the reply\n"
           "  listen NAME                  create a channel and print what arrives\n"
           "  wait NAME                    wait until a name is registered\n"
           "  monitor [NAME...]            print the messages between processes (root)\n"
           "\n"
           "  -h, --help                   print this help (or COMMAND --help)\n"
           "      --version                print the version\n"
           "\n"
           "Exit status: 0 done, 1 what was asked did not happen (time-out, unknown\n"
           "name, no resolver), 2 bad command line.\n";
}

}  // namespace

bool parseCliOptions(int argc, const char* const* argv, CliOptions* options, std::string* error)
{
    *options = CliOptions();
    if (argc < 2) {
        *error = "missing command";
        return false;
    }
    const std::string first = argv[1];
    if (first == "-h" || first == "--help") {
        options->help = true;
        return true;
    }
    if (first == "--version") {
        options->version = true;
        return true;
    }
    const CommandInfo* info = findCommand(first);
    if (info == nullptr) {
        *error = (!first.empty() && first[0] == '-') ? "unknown option " + first : "unknown command \"" + first + "\"";
        return false;
    }
    options->command = info->command;
    options->timeoutMs = info->command == COMMAND_WAIT ? DEFAULT_WAIT_TIMEOUT_MS : DEFAULT_CALL_TIMEOUT_MS;
    return parseCommandArguments(*info, 2, argc, argv, options, error);
}

const char* commandName(Command command)
{
    for (const CommandInfo& info : COMMANDS) {
        if (info.command == command) {
            return info.name;
        }
    }
    return "";
}

std::string cliUsage(Command command)
{
    switch (command) {
    case COMMAND_LIST:
        return listUsage();
    case COMMAND_SEND:
        return sendUsage();
    case COMMAND_CALL:
        return callUsage();
    case COMMAND_LISTEN:
        return listenUsage();
    case COMMAND_WAIT:
        return waitUsage();
    case COMMAND_MONITOR:
        return monitorUsage();
    case COMMAND_STATS:
        return statsUsage();
    case COMMAND_NONE:
        break;
    }
    return overviewUsage();
}

}  // namespace cli
