// ProcessRuntime: the one owner of a process's locator and receiver.
//
// The locator lives while the process has named channels, the receiver while
// it has channels at all; both are created on demand and shut down by the
// call that removes their last channel (CommsChannelLocator::unregisterChannel,
// CommsChannelReceiver::removeReceiveChannel). The runtime holds the current
// one of each through a shared_ptr and replaces one that has ended by a fresh
// one the next time it is wanted. A send holds its own reference for its
// duration, so an ended locator is freed only once no send is inside it;
// nothing ever waits for that.
//
// CommsChannelLocator::instance() and CommsChannelReceiver::instance() are
// views of the runtime: they return the current object without a reference.
//
// Thread safety: every operation may be called from any thread. m_locatorLock
// serialises the creation, registrations and removals of the locator (a
// removal that ends it holds it until the locator has shut down);
// m_receiverLock does the same for the receiver, and m_receiverViewLock
// guards only the look at which receiver is current. None is held while
// another runtime lock is taken except the view lock inside m_receiverLock,
// and the locator and receiver threads take none of them.
#ifndef COMMSCHANNEL_PROCESS_RUNTIME_H
#define COMMSCHANNEL_PROCESS_RUNTIME_H

#include "Mutex.h"

#include <memory>
#include <string>

class CommsChannel;
class CommsChannelLocator;
class CommsChannelReceiver;

class ProcessRuntime {
public:
    // The process's runtime; made on first use and kept for the process's
    // life.
    static ProcessRuntime& process();

    ProcessRuntime(const ProcessRuntime&) = delete;
    ProcessRuntime& operator=(const ProcessRuntime&) = delete;

    // The current locator, made if there is none or the last one ended.
    std::shared_ptr<CommsChannelLocator> locator();
    int registerChannel(CommsChannel* channel);
    int unregisterChannel(CommsChannel* channel);

    // The current receiver, made (with its thread) if there is none or the
    // last one ended.
    CommsChannelReceiver* receiver();
    void installChannel(CommsChannel* channel);
    void uninstallChannel(CommsChannel* channel);

private:
    ProcessRuntime() = default;

    // REQUIRES: m_locatorLock is held.
    const std::shared_ptr<CommsChannelLocator>& currentLocator();
    // REQUIRES: m_receiverLock is held.
    CommsChannelReceiver& currentReceiver();

    Mutex m_locatorLock;
    std::shared_ptr<CommsChannelLocator> m_locator;  // guarded by m_locatorLock
    Mutex m_receiverLock;
    // Written under both locks, read under either: the view lock is held
    // only for a look, never while anything waits.
    Mutex m_receiverViewLock;
    std::unique_ptr<CommsChannelReceiver> m_receiver;
};

#endif
