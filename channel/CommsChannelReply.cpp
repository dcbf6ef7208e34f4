// receiveReply: a by-id receive that also ends when the replier is gone.
#include "CommsChannel.h"

#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelLocator.h"
#include "CommsPeerGoneException.h"

#include <functional>

int CommsChannel::receiveReply(CommsChannelDataContainerMessage& reply, long requestId, const std::string& replier,
                               int timeout)
{
    // Only a named channel can have sent the request, and only then does
    // the process have a locator to ask; it lives as long as this channel.
    const bool named = m_channelName.compare("") != 0;
    const std::function<void()> replierStillThere = [named, &replier, requestId]() {
        if (named && !CommsChannelLocator::instanceKnowsName(replier)) {
            throw CommsPeerGoneException(replier, requestId);
        }
    };
    // Request id 0 waits for any message, with the same check between waits.
    return receiveById(reply, requestId, timeout, &replierStillThere);
}
