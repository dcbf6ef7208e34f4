// What several subcommands of commschannel share: the one-line failure
// message, the check that the resolver answers and knows a name, temporary
// channel names, DATA from standard input and sending without the library's
// line about unknown names on standard output.
//
// Single-threaded helpers for the tool's main thread.
#ifndef COMMSCHANNEL_CLI_SUPPORT_H
#define COMMSCHANNEL_CLI_SUPPORT_H

#include "CliOptions.h"
#include "CliText.h"

#include <string>

#include "ResolverPort.h"

class CommsChannel;
class CommsChannelDataContainerMessage;

namespace cli {

// How long a subcommand gives the resolver to answer one question.
const int RESOLVER_ANSWER_TIMEOUT_MS = 2000;

// "commschannel <command>: <text>" on standard error. Returns EXIT_FAILED.
int fail(Command command, const std::string& text);

// Makes sure that a resolver answers, so that the library's first name
// resolution does not sit out its long wait for one, and, when name is not
// empty, that it knows name. On failure prints why (fail()) and returns
// false.
bool resolverKnows(Command command, const std::string& name);

// True when the resolver can carry name (see resolver::longestName());
// otherwise prints "name too long" with the limit and returns false. A
// longer name could never be registered, nor asked about: its datagram
// would not fit.
bool nameFitsResolver(Command command, const std::string& name);

// A channel name that no other process uses: the command, the pid and a
// counter.
std::string temporaryChannelName(Command command);

// The DATA operand, or all of standard input when it is "-". False when
// standard input cannot be read.
bool readData(const CliOptions& options, std::string* data);

// channel.sendMsg(message) with standard output sent to /dev/null for the
// duration, so that the library's report of an undeliverable message never
// mixes with this tool's output. Returns what sendMsg returned.
int sendQuietly(CommsChannel& channel, CommsChannelDataContainerMessage& message);

// The fields of a received message that the tool prints.
MessageView viewOf(CommsChannelDataContainerMessage& message);

}  // namespace cli

#endif
