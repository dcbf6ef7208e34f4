// commschannel send: one data message from a temporary channel. Anonymous
// channels cannot send, so the temporary one has a name of its own.
#include "CliCommands.h"
#include "CliSupport.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"

namespace cli {

int runSend(const CliOptions& options)
{
    if (!nameFitsResolver(COMMAND_SEND, options.name)) {
        return EXIT_USAGE;
    }
    std::string data;
    if (!readData(options, &data)) {
        return fail(COMMAND_SEND, "cannot read DATA from standard input");
    }
    // Asked before any channel exists: the library would otherwise wait a
    // long time for a missing resolver, and would report an unknown name only
    // by a line on standard output.
    if (!resolverKnows(COMMAND_SEND, options.name)) {
        return EXIT_FAILED;
    }
    CommsChannel sender(temporaryChannelName(COMMAND_SEND));
    CommsChannelDataContainerMessage message;
    message.setChannel(options.name);
    message.setMsgType(options.msgType);
    message.setRequestId(options.requestId);
    message.setData(data.data(), static_cast<int>(data.size()));
    if (sendQuietly(sender, message) != 1) {
        return fail(COMMAND_SEND, "could not send to \"" + escapeBytes(options.name) +
                                      "\" (the name went away, or the socket refused the message)");
    }
    return EXIT_OK;
}

}  // namespace cli
