// The send operations: build or complete a data message whose source is this
// channel, and hand it to the dispatcher that the locator finds for its
// destination.
#include "ChannelInbox.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelDispatcher.h"
#include "CommsChannelLocator.h"
#include "ProcessRuntime.h"

#include <memory>
#include <optional>

namespace {

// The message that a data overload of sendMsg builds. Each thread keeps one
// and reuses it for its next send, so that once its buffers have grown to
// the names and data a thread sends, a send allocates nothing for them. A
// send made while another send of the same thread is under way (from an
// interceptor) and a send of data that may travel in a spool file get a
// message of their own, as does every send when the thread's is in use.
class OutgoingMessage {
public:
    explicit OutgoingMessage(int dataLength)
    {
        Reusable& reusable = threadReusable();
        if (dataLength <= CCInterProcDispatcher::FILE_THRESHOLD && !reusable.busy) {
            reusable.busy = true;
            // Back to a fresh message's fields; the buffers stay.
            reusable.message = blank();
            m_reused = &reusable;
            m_message = &reusable.message;
        } else {
            m_own.emplace();
            m_message = &*m_own;
        }
    }
    ~OutgoingMessage()
    {
        if (m_reused != nullptr) {
            m_reused->busy = false;
        }
    }
    OutgoingMessage(const OutgoingMessage&) = delete;
    OutgoingMessage& operator=(const OutgoingMessage&) = delete;

    CommsChannelDataContainerMessage& operator*() { return *m_message; }
    CommsChannelDataContainerMessage* operator->() { return m_message; }

private:
    struct Reusable {
        CommsChannelDataContainerMessage message;
        bool busy = false;
    };
    static Reusable& threadReusable()
    {
        static thread_local Reusable reusable;
        return reusable;
    }
    static const CommsChannelDataContainerMessage& blank()
    {
        static const CommsChannelDataContainerMessage empty;
        return empty;
    }

    Reusable* m_reused = nullptr;
    std::optional<CommsChannelDataContainerMessage> m_own;
    CommsChannelDataContainerMessage* m_message = nullptr;
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
    OutgoingMessage message(length);
    message->setChannel(destination);
    message->setData(data, length);
    message->setSourceChannel(m_channelName);
    return send(*message);
}

int CommsChannel::sendMsg(const std::string& destination, const std::string& data)
{
    if (m_channelName.compare("") == 0 || data.c_str() == nullptr || data.length() == 0) {
        return 0;
    }
    OutgoingMessage message(static_cast<int>(data.length()));
    message->setChannel(destination);
    message->setData(data.c_str(), static_cast<int>(data.length()));
    message->setSourceChannel(m_channelName);
    return send(*message);
}

int CommsChannel::send(CommsChannelDataContainerMessage& message)
{
    // The send holds the locator and a share of its dispatcher until
    // sendMsg has returned: the process's last named channel going, or the
    // destination's removal, frees neither under it, and waits for nothing.
    const std::shared_ptr<CommsChannelLocator> locator = ProcessRuntime::process().locator();
    const std::shared_ptr<CommsChannelDispatcher> dispatcher = locator->acquireDispatcher(message.channel());
    if (!dispatcher) {
        return 0;
    }
    const int sent = dispatcher->sendMsg(this, message);
    if (sent == 1) {
        ChannelInbox::noteSend();
    }
    return sent;
}
