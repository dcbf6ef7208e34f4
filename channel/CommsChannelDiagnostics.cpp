// The diagnostics dump of a channel and its queued messages.
#include "CommsChannel.h"

#include "ChannelInbox.h"
#include "CommsChannelDataContainerMessage.h"

#include <unistd.h>

#include <sstream>

namespace {
const char CHANNEL_SEPARATOR[] = "==========================================================\n";
const char MESSAGE_SEPARATOR[] = "**********************************************************";
}  // namespace

void CommsChannel::info(CommsChannel* channel)
{
    std::ostringstream path;
    path << "/logs/CommsChannel.log-" << getpid();
    std::ofstream file(path.str().c_str(), std::ios::out | std::ios::app);
    if (channel != nullptr) {
        // The stream adds its own "0x" to a pointer, so the address line
        // shows the prefix twice; readers of these logs expect that.
        file << CHANNEL_SEPARATOR;
        file << "Getting all messages for CommsChannel: 0x" << std::hex
             << static_cast<const void*>(channel) << std::dec << std::endl;
        file << "Channel                      =" << channel->channelName() << std::endl;
        file << "Port                         =" << channel->port() << std::endl;
        file << "Socket Handle                =" << channel->socketHandle() << std::endl;
        // Read under the queue's lock: a message being received meanwhile
        // is either shown whole or not at all.
        channel->inbox().forEach(
            [channel, &file](CommsChannelDataContainerMessage& message) { displayInfo(channel, &message, file); });
        file << CHANNEL_SEPARATOR;
    }
    file.close();
}

void CommsChannel::displayInfo(CommsChannel* /*channel*/, CommsChannelDataContainerMessage* message,
                               std::ofstream& file)
{
    const std::string data = message->getData();
    file << MESSAGE_SEPARATOR << std::endl;
    file << "Type                         = CommsChannel" << std::endl;
    file << "channel                      = " << message->channel() << std::endl;
    file << "source channel               = " << message->sourceChannel() << std::endl;
    file << "callback channel             = " << message->callbackChannel() << std::endl;
    file << "protocol                     = " << message->protocol() << std::endl;
    file << "interface                    = " << message->interface() << std::endl;
    file << "request id                   = " << message->requestId() << std::endl;
    file << "remote context               = " << message->remoteContext() << std::endl;
    file << "data                         = " << data << std::endl;
    file << MESSAGE_SEPARATOR << std::endl;
}
