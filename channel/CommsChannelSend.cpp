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
    CommsChannelDispatcher* dispatcher = CommsChannelLocator::instance()->getDispatcher(message.channel());
    if (dispatcher == nullptr) {
        return 0;
    }
    return dispatcher->sendMsg(this, message);
}
