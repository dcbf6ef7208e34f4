// The receive operations that applications call. A channel whose socket
// descriptor is 0 has no socket: every receive refuses at once.
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsException.h"
#include "Semaphore.h"

#include <algorithm>
#include <cstring>

int CommsChannel::receiveMsg(CommsChannelDataContainerMessage& message)
{
    if (m_socketHandle == 0) {
        return 0;
    }
    return getMsgFromQ(message, -1);
}

int CommsChannel::receiveMsg(CommsChannelDataContainerMessage& message, long requestId)
{
    return receiveMsg_ByID_Timed(message, requestId, -1);
}

int CommsChannel::receiveMsg(char* buffer, int* length)
{
    if (m_socketHandle == 0) {
        return 0;
    }
    CommsChannelDataContainerMessage local;
    if (getMsgFromQ(local, -1) != 1) {
        return 0;
    }
    int dataLength = 0;
    const char* data = local.getData(&dataLength);
    const int copied = std::max(0, std::min(dataLength, *length));
    if (copied > 0) {
        std::memcpy(buffer, data, static_cast<std::size_t>(copied));
    }
    *length = copied;
    return 1;
}

int CommsChannel::receiveMsg(std::string& data)
{
    if (m_socketHandle == 0) {
        return 0;
    }
    // The same as taking the message and assigning its getData(), without
    // copying the bytes or building a message.
    return getDataFromQ(data, -1);
}

int CommsChannel::receiveMsg_ByID_Timed(CommsChannelDataContainerMessage& message, long requestId,
                                        int timeout)
{
    if (m_socketHandle == 0) {
        return 0;
    }
    if (requestId == 0) {
        return getMsgFromQ(message, timeout);
    }
    Semaphore idSemaphore(0, 1, false);
    // One id has one waiter: a second registration of the same id is not
    // entered, and that caller's semaphore is then never given.
    m_pqueueMutex->take(-1);
    registerRequestWaiter(requestId, &idSemaphore);
    m_pqueueMutex->give();

    int result = 0;
    try {
        result = getMsgFromQ_ByID(message, requestId, &idSemaphore, timeout);
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

bool CommsChannel::isQEmpty() { return m_preceiveQueue->empty(); }
