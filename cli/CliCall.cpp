// commschannel call: a request with a fresh request id and this command's
// own channel as callback channel, then the reply that carries that id.
#include "CliCommands.h"
#include "CliSupport.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsException.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>

namespace cli {

namespace {

// Non-zero (0 would mean "any message") and positive in 32 bits: the
// channel keys its waiting receivers by int. The channel is new and ours
// alone, so the id only needs to differ from one call to the next.
long freshRequestId()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const unsigned long mixed = static_cast<unsigned long>(getpid()) * 2654435761UL ^
                                static_cast<unsigned long>(now.tv_nsec) ^ static_cast<unsigned long>(now.tv_sec);
    return static_cast<long>((mixed & 0x7fffffffUL) | 1UL);
}

}  // namespace

int runCall(const CliOptions& options)
{
    if (!nameFitsResolver(COMMAND_CALL, options.name)) {
        return EXIT_USAGE;
    }
    std::string data;
    if (!readData(options, &data)) {
        return fail(COMMAND_CALL, "cannot read DATA from standard input");
    }
    if (!resolverKnows(COMMAND_CALL, options.name)) {
        return EXIT_FAILED;
    }
    CommsChannel caller(temporaryChannelName(COMMAND_CALL));
    const long requestId = freshRequestId();
    CommsChannelDataContainerMessage request;
    request.setChannel(options.name);
    request.setCallbackChannel(caller.channelName());
    request.setMsgType(options.msgType);
    request.setRequestId(requestId);
    request.setData(data.data(), static_cast<int>(data.size()));
    if (sendQuietly(caller, request) != 1) {
        return fail(COMMAND_CALL, "could not send to \"" + escapeBytes(options.name) +
                                      "\" (the name went away, or the socket refused the message)");
    }
    CommsChannelDataContainerMessage reply;
    try {
        if (caller.receiveMsg_ByID_Timed(reply, requestId, options.timeoutMs) != 1) {
            return fail(COMMAND_CALL, "the channel was shut down before a reply came");
        }
    } catch (const CommsException&) {
        return fail(COMMAND_CALL, "no reply from \"" + escapeBytes(options.name) + "\" within " +
                                      std::to_string(options.timeoutMs) + " ms (timed out)");
    }
    const MessageView view = viewOf(reply);
    if (options.json) {
        const std::string line = "{\"source\":" + jsonString(view.source) + ",\"type\":" + std::to_string(view.type) +
                                 ",\"request_id\":" + std::to_string(view.requestId) +
                                 ",\"data\":" + jsonString(view.data) + "}\n";
        std::fwrite(line.data(), 1, line.size(), stdout);
    } else {
        std::fwrite(view.data.data(), 1, view.data.size(), stdout);
        std::fputc('\n', stdout);
    }
    return std::fflush(stdout) == 0 ? EXIT_OK : fail(COMMAND_CALL, "cannot write the reply");
}

}  // namespace cli
