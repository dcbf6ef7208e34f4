#include "CliSupport.h"

#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "ResolverClient.h"
#include "ResolverUpdates.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <iterator>

namespace cli {

int fail(Command command, const std::string& text)
{
    const std::string prefix =
        command == COMMAND_NONE ? std::string("commschannel") : std::string("commschannel ") + commandName(command);
    std::fprintf(stderr, "%s: %s\n", prefix.c_str(), text.c_str());
    return EXIT_FAILED;
}

bool resolverKnows(Command command, const std::string& name)
{
    // A port request for a name nobody uses still gets an answer (port 0),
    // which is all that the bare check needs.
    const std::string asked = name.empty() ? std::string("commschannel-probe") : name;
    const int port = resolver::queryPort(COMMSCHANNEL_RESOLVER_PORT, asked, RESOLVER_ANSWER_TIMEOUT_MS);
    if (port < 0) {
        fail(command, "no resolver answered at 127.0.0.1:" + std::to_string(COMMSCHANNEL_RESOLVER_PORT) + " within " +
                          std::to_string(RESOLVER_ANSWER_TIMEOUT_MS / 1000) + " s (is commschannel-resolver running?)");
        return false;
    }
    if (!name.empty() && port == 0) {
        fail(command, "no channel named \"" + escapeBytes(name) + "\" is registered");
        return false;
    }
    return true;
}

bool nameFitsResolver(Command command, const std::string& name)
{
    const std::size_t longest = resolver::longestName();
    if (name.size() <= longest) {
        return true;
    }
    fail(command, "name too long: " + std::to_string(name.size()) + " bytes; the resolver carries names of at most " +
                      std::to_string(longest) + " bytes");
    return false;
}

std::string temporaryChannelName(Command command)
{
    static int counter = 0;
    return std::string("commschannel-") + commandName(command) + "-" + std::to_string(getpid()) + "-" +
           std::to_string(++counter);
}

bool readData(const CliOptions& options, std::string* data)
{
    if (!options.dataFromStdin) {
        *data = options.data;
        return true;
    }
    std::cin >> std::noskipws;
    data->assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    return !std::cin.bad();
}

int sendQuietly(CommsChannel& channel, CommsChannelDataContainerMessage& message)
{
    std::fflush(stdout);
    const int savedOut = dup(STDOUT_FILENO);
    const int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (savedOut >= 0 && devNull >= 0) {
        dup2(devNull, STDOUT_FILENO);
    }
    const int result = channel.sendMsg(message);
    std::fflush(stdout);
    if (savedOut >= 0 && devNull >= 0) {
        dup2(savedOut, STDOUT_FILENO);
    }
    if (devNull >= 0) {
        close(devNull);
    }
    if (savedOut >= 0) {
        close(savedOut);
    }
    return result;
}

MessageView viewOf(CommsChannelDataContainerMessage& message)
{
    int length = 0;
    const char* data = message.getData(&length);
    MessageView view;
    view.source = message.sourceChannel();
    view.callback = message.callbackChannel();
    view.type = message.msgType();
    view.requestId = message.requestId();
    view.data = (data != nullptr && length > 0) ? std::string(data, static_cast<std::size_t>(length)) : std::string();
    return view;
}

}  // namespace cli
