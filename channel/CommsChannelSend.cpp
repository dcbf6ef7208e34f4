// The send operations: build or complete a data message whose source is this
// channel, and hand it to the dispatcher that the locator finds for its
// destination.
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelDispatcher.h"
#include "CommsChannelLocator.h"

int CommsChannel::sendMsg(CommsChannelDataContainerMessage& message)
{
    if (m_channelName.compare("") == 0) {
        return 0;
    }
    // The caller's message keeps the new source after the call.
    message.setSourceChannel(m_channelName);
    return send(message);
}

int CommsChannel::sendMsg(const std::string& destination, char* data, int length)
{
    if (m_channelName.compare("") == 0 || data == nullptr || length < 1) {
        return 0;
    }
    CommsChannelDataContainerMessage message;
    message.setChannel(destination);
    message.setData(data, length);
    message.setSourceChannel(m_channelName);
    return send(message);
}

int CommsChannel::sendMsg(const std::string& destination, const std::string& data)
{
    if (m_channelName.compare("") == 0 || data.c_str() == nullptr || data.length() == 0) {
        return 0;
    }
    CommsChannelDataContainerMessage message;
    message.setChannel(destination);
    message.setData(data.c_str(), static_cast<int>(data.length()));
    message.setSourceChannel(m_channelName);
    return send(message);
}

int CommsChannel::send(CommsChannelDataContainerMessage& message)
{
    // The dispatcher is held for the duration of the send, so that a removal
    // of the destination relayed meanwhile cannot delete it under us.
    CommsChannelLocator* locator = CommsChannelLocator::instance();
    CommsChannelDispatcher* dispatcher = locator->acquireDispatcher(message.channel());
    if (dispatcher == nullptr) {
        return 0;
    }
    const int result = dispatcher->sendMsg(this, message);
    locator->releaseDispatcher(dispatcher);
    return result;
}
