// The send operations: build or complete a data message whose source is this
// channel, and hand it to the dispatcher that the locator finds for its
// destination.
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelDispatcher.h"
#include "CommsChannelLocator.h"
#include "DispatcherShare.h"

#include <memory>

namespace {

struct ShareRelease {
    void operator()(DispatcherShare* share) const { share->release(); }
};

}  // namespace

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
    // The send shares the ownership of its dispatcher with the destination's
    // locator entry until sendMsg has returned: a removal of the destination
    // meanwhile (a channel of this process going, or a removal relayed by the
    // resolver) neither deletes it under us nor waits for us while it holds
    // a lock. The share is given back even if an interceptor throws.
    DispatcherShare* share = nullptr;
    CommsChannelDispatcher* dispatcher = CommsChannelLocator::instance()->acquireDispatcher(message.channel(), &share);
    if (dispatcher == nullptr) {
        return 0;
    }
    std::unique_ptr<DispatcherShare, ShareRelease> held(share);
    return dispatcher->sendMsg(this, message);
}
