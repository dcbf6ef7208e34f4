// The receive operations that applications call. A channel whose socket
// descriptor is 0 has no socket: every receive refuses at once.
#include "CommsChannel.h"

#include "ChannelInbox.h"
#include "CommsChannelDataContainerMessage.h"

#include <algorithm>
#include <cstring>

int CommsChannel::receiveMsg(CommsChannelDataContainerMessage& message)
{
    if (m_socketHandle == 0) {
        return 0;
    }
    return m_pinbox->takeFront(-1, &message, nullptr);
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
    if (m_pinbox->takeFront(-1, &local, nullptr) != 1) {
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
    // The same as taking the message and assigning its getData(), except
    // that the bytes move: data's old buffer stays with the queue.
    return m_pinbox->takeFront(-1, nullptr, &data);
}

int CommsChannel::receiveMsg_ByID_Timed(CommsChannelDataContainerMessage& message, long requestId, int timeout)
{
    return receiveById(message, requestId, timeout, nullptr);
}

int CommsChannel::receiveById(CommsChannelDataContainerMessage& message, long requestId, int timeout,
                              const std::function<void()>* check)
{
    if (m_socketHandle == 0) {
        return 0;
    }
    if (requestId == 0) {
        // Request id 0 stands for any message, taken from the front.
        return m_pinbox->takeFront(timeout, &message, nullptr, check);
    }
    return m_pinbox->takeById(message, requestId, timeout, check);
}

bool CommsChannel::isQEmpty() { return m_pinbox->empty(); }
