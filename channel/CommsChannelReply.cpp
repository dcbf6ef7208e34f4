// receiveReply: a by-id receive that also ends when the replier is gone.
#include "CommsChannel.h"

#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelLocator.h"
#include "CommsPeerGoneException.h"
#include "Semaphore.h"

#include <functional>

int CommsChannel::receiveReply(CommsChannelDataContainerMessage& reply, long requestId, const std::string& replier,
                               int timeout)
{
    if (m_socketHandle == 0) {
        return 0;
    }
    // Only a named channel can have sent the request, and only then does
    // the process have a locator to ask; it lives as long as this channel.
    const bool named = m_channelName.compare("") != 0;
    const std::function<void()> replierStillThere = [named, &replier, requestId]() {
        if (named && !CommsChannelLocator::instanceKnowsName(replier)) {
            throw CommsPeerGoneException(replier, requestId);
        }
    };
    if (requestId == 0) {
        // Any message answers; the check still applies while waiting.
        replierStillThere();
        return receiveMsg_ByID_Timed(reply, 0, timeout);
    }

    Semaphore idSemaphore(0, 1, false);
    m_pqueueMutex->take(-1);
    registerRequestWaiter(requestId, &idSemaphore);
    m_pqueueMutex->give();
    int result = 0;
    try {
        result = waitForRequestId(reply, requestId, &idSemaphore, timeout, &replierStillThere);
    } catch (CommsException&) {
        m_pqueueMutex->take(-1);
        unregisterRequestWaiter(requestId);
        m_pqueueMutex->give();
        throw;
    }
    m_pqueueMutex->take(-1);
    unregisterRequestWaiter(requestId);
    m_pqueueMutex->give();
    return result;
}
