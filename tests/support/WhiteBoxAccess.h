// Views of the library's internal state for the unit tests, through the
// library's own seams: a channel's inbox (CommsChannel::inbox()), the process
// runtime, and the private headers of the library's folders. Nothing here
// reaches private members.
#ifndef COMMSCHANNEL_INSPECTORS_H
#define COMMSCHANNEL_INSPECTORS_H

#include "ChannelInbox.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelDispatcher.h"
#include "CommsChannelLocator.h"
#include "CommsChannelReceiver.h"
#include "ProcessRuntime.h"

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

class CommsChannelInspector {
public:
    // General wake-ups given and not yet taken (each queued message that no
    // by-id waiter claimed, each shutdown).
    static int queueSemaphoreCount(CommsChannel& channel) { return channel.inbox().pendingTokens(); }
    static std::size_t queueLength(CommsChannel& channel) { return channel.inbox().length(); }
    static std::size_t queueLengthLocked(CommsChannel& channel) { return channel.inbox().length(); }
    // Copies of the queued messages, front first.
    static std::vector<CommsChannelDataContainerMessage> queue(CommsChannel& channel)
    {
        std::vector<CommsChannelDataContainerMessage> copies;
        channel.inbox().forEach([&copies](CommsChannelDataContainerMessage& message) { copies.push_back(message); });
        return copies;
    }
    // Addresses of the queued messages, front first: for identity checks
    // only, stale as soon as the queue changes.
    static std::vector<const CommsChannelDataContainerMessage*> queuedObjects(CommsChannel& channel)
    {
        std::vector<const CommsChannelDataContainerMessage*> objects;
        channel.inbox().forEach([&objects](CommsChannelDataContainerMessage& message) { objects.push_back(&message); });
        return objects;
    }
    // Whether a by-id receive waits for requestId right now.
    static bool hasRequestIdEntry(CommsChannel& channel, long requestId) { return channel.inbox().hasWaiter(requestId); }
    // The queue's general receive, as receiveMsg uses it, with a time-out.
    static int getMsgFromQ(CommsChannel& channel, CommsChannelDataContainerMessage& out, int timeout)
    {
        return channel.inbox().takeFront(timeout, &out, nullptr);
    }
    // The queue's by-id receive.
    static int getMsgFromQ_ByID(CommsChannel& channel, CommsChannelDataContainerMessage& out, long requestId,
                                int timeout)
    {
        return channel.inbox().takeById(out, requestId, timeout);
    }
};

// A channel that reports a descriptor of the test's choice through the
// virtual socketHandle(), for the code that reads the descriptor through it
// (the senders and the dispatchers). Its own socket stays open and is closed
// as usual; its receive operations still look at the real one.
class ChannelWithReportedDescriptor : public CommsChannel {
public:
    explicit ChannelWithReportedDescriptor(const std::string& name) : CommsChannel(name) {}
    void reportDescriptor(int descriptor)
    {
        m_reported.store(descriptor);
        m_overridden.store(true);
    }
    void reportOwnDescriptor() { m_overridden.store(false); }
    int socketHandle() const override
    {
        return m_overridden.load() ? m_reported.load() : CommsChannel::socketHandle();
    }

private:
    std::atomic<bool> m_overridden{false};
    std::atomic<int> m_reported{0};
};

class CommsChannelLocatorInspector {
public:
    // The current locator, made if there is none.
    static CommsChannelLocator* current() { return CommsChannelLocator::instance(); }
    // The same with a share of its ownership, so that a test may look at it
    // (hasEnded()) after the runtime let go of it. Makes one if there is none.
    static std::shared_ptr<CommsChannelLocator> shared() { return ProcessRuntime::process().locator(); }
    // The channel of this process registered under name, or null. Looks the
    // name up as a send does (the current locator, made if there is none,
    // waits for the resolver's first update), but never asks the resolver
    // about a name the locator does not know.
    static CommsChannel* localChannel(const std::string& name)
    {
        const std::shared_ptr<CommsChannelLocator> locator = shared();
        if (!locator->knowsName(name)) {
            return nullptr;
        }
        const std::shared_ptr<CommsChannelDispatcher> dispatcher = locator->acquireDispatcher(name);
        const CCIntraProcDispatcher* local = dynamic_cast<const CCIntraProcDispatcher*>(dispatcher.get());
        return local != nullptr ? local->destination() : nullptr;
    }
};

class CommsChannelReceiverInspector {
public:
    static CommsChannelReceiver* current() { return CommsChannelReceiver::instance(); }
    // Channels watched by the current receiver (made if there is none),
    // duplicates counted.
    static int channelCount() { return CommsChannelReceiver::instance()->numReceiveChannels(); }
};

#endif
