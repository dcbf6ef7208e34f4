// The process runtime, and the two singleton views it stands behind.
#include "ProcessRuntime.h"

#include "CommsChannel.h"
#include "CommsChannelLocator.h"
#include "CommsChannelReceiver.h"

ProcessRuntime& ProcessRuntime::process()
{
    // Never destroyed: channels of static objects may still go after exit
    // has begun, and threads may still be ending.
    static ProcessRuntime* const runtime = new ProcessRuntime();
    return *runtime;
}

const std::shared_ptr<CommsChannelLocator>& ProcessRuntime::currentLocator()
{
    if (!m_locator || m_locator->hasEnded()) {
        // An ended locator has shut down already; sends still inside it keep
        // it until they return.
        m_locator = std::make_shared<CommsChannelLocator>();
    }
    return m_locator;
}

std::shared_ptr<CommsChannelLocator> ProcessRuntime::locator()
{
    ScopedLock hold(m_locatorLock);
    return currentLocator();
}

int ProcessRuntime::registerChannel(CommsChannel* channel)
{
    ScopedLock hold(m_locatorLock);
    return currentLocator()->registerChannel(channel);
}

int ProcessRuntime::unregisterChannel(CommsChannel* channel)
{
    // Held while a removal ends the locator, so that a channel registering
    // meanwhile goes to the next locator rather than to the ending one.
    ScopedLock hold(m_locatorLock);
    return currentLocator()->unregisterChannel(channel);
}

CommsChannelReceiver& ProcessRuntime::currentReceiver()
{
    if (!m_receiver || m_receiver->hasEnded()) {
        std::unique_ptr<CommsChannelReceiver> fresh(new CommsChannelReceiver());
        std::unique_ptr<CommsChannelReceiver> ended;
        {
            ScopedLock view(m_receiverViewLock);
            ended = std::move(m_receiver);
            m_receiver = std::move(fresh);
        }
        // The ended receiver's thread has been joined; it goes now.
    }
    return *m_receiver;
}

CommsChannelReceiver* ProcessRuntime::receiver()
{
    {
        // A look that never waits for a removal under way (which may wait
        // for the receiver thread, which may be the caller).
        ScopedLock view(m_receiverViewLock);
        if (m_receiver && !m_receiver->hasEnded()) {
            return m_receiver.get();
        }
    }
    ScopedLock hold(m_receiverLock);
    return &currentReceiver();
}

void ProcessRuntime::installChannel(CommsChannel* channel)
{
    ScopedLock hold(m_receiverLock);
    currentReceiver().addReceiveChannel(channel);
}

void ProcessRuntime::uninstallChannel(CommsChannel* channel)
{
    // Held while the last removal joins the receiver thread, which never
    // takes this lock.
    ScopedLock hold(m_receiverLock);
    currentReceiver().removeReceiveChannel(channel);
}

bool CommsChannelLocator::instanceKnowsName(const std::string& channelName)
{
    return ProcessRuntime::process().locator()->knowsName(channelName);
}

CommsChannelLocator* CommsChannelLocator::instance() { return ProcessRuntime::process().locator().get(); }

CommsChannelReceiver* CommsChannelReceiver::instance() { return ProcessRuntime::process().receiver(); }
