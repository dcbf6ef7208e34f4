// White-box access to the library's private state, for the unit tests only.
// The library's classes name these inspectors as friends; nothing else uses
// them.
#ifndef COMMSCHANNEL_INSPECTORS_H
#define COMMSCHANNEL_INSPECTORS_H

#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelLocator.h"
#include "CommsChannelLocatorEntry.h"
#include "CommsChannelReceiver.h"
#include "Semaphore.h"

#include <map>
#include <string>
#include <vector>

class CommsChannelInspector {
public:
    static int queueSemaphoreCount(CommsChannel& channel) { return channel.m_pqueueSemaphore->count(); }
    static int queueMutexCount(CommsChannel& channel) { return channel.m_pqueueMutex->count(); }
    static std::size_t queueLength(CommsChannel& channel) { return channel.m_preceiveQueue->size(); }
    // The queue's length read under the queue lock, safe while messages arrive.
    static std::size_t queueLengthLocked(CommsChannel& channel)
    {
        channel.m_pqueueMutex->take(-1);
        const std::size_t length = channel.m_preceiveQueue->size();
        channel.m_pqueueMutex->give();
        return length;
    }
    static const std::list<CommsChannelDataContainerMessage*>& queue(CommsChannel& channel)
    {
        return *channel.m_preceiveQueue;
    }
    static const std::map<int, Semaphore*>& requestIdSemaphores(CommsChannel& channel)
    {
        return *channel.m_prequestIdSemaphores;
    }
    static bool hasRequestIdEntry(CommsChannel& channel, int requestId)
    {
        return channel.m_prequestIdSemaphores->count(requestId) != 0;
    }
    // Enters a waiter's semaphore for requestId, as a by-id receive does.
    static void registerRequestId(CommsChannel& channel, long requestId, Semaphore* semaphore)
    {
        channel.m_pqueueMutex->take(-1);
        channel.registerRequestWaiter(requestId, semaphore);
        channel.m_pqueueMutex->give();
    }
    static void unregisterRequestId(CommsChannel& channel, long requestId)
    {
        channel.m_pqueueMutex->take(-1);
        channel.unregisterRequestWaiter(requestId);
        channel.m_pqueueMutex->give();
    }
    // Locked reads, for tests that look while other threads use the queue.
    static Semaphore* requestIdSemaphoreLocked(CommsChannel& channel, int requestId)
    {
        channel.m_pqueueMutex->take(-1);
        std::map<int, Semaphore*>::const_iterator it = channel.m_prequestIdSemaphores->find(requestId);
        Semaphore* semaphore = it != channel.m_prequestIdSemaphores->end() ? it->second : nullptr;
        channel.m_pqueueMutex->give();
        return semaphore;
    }
    static const std::vector<VireoThreadPriority>& priorities(CommsChannel& channel)
    {
        return channel.m_msgTypePriorities;
    }
    static bool isShutdown(CommsChannel& channel) { return channel.m_shutdown; }
    static CCInterceptorDispatcher* interceptor(CommsChannel& channel) { return channel.m_pinterceptor; }
    static int getMsgFromQ(CommsChannel& channel, CommsChannelDataContainerMessage& out, int timeout)
    {
        return channel.getMsgFromQ(out, timeout);
    }
    static int getMsgFromQ_ByID(CommsChannel& channel, CommsChannelDataContainerMessage& out, long requestId,
                                Semaphore* idSemaphore, int timeout)
    {
        return channel.getMsgFromQ_ByID(out, requestId, idSemaphore, timeout);
    }
    static int createSocket(CommsChannel& channel) { return channel.createSocket(); }
    static int registerChannel(CommsChannel& channel) { return channel.registerChannel(); }
    static int unregisterChannel(CommsChannel& channel) { return channel.unregisterChannel(); }
    static int send(CommsChannel& channel, CommsChannelDataContainerMessage& message) { return channel.send(message); }
    // Replaces the descriptor number the channel believes it has; the old
    // socket is returned so the caller can close it.
    static int swapSocketHandle(CommsChannel& channel, int fd)
    {
        const int old = channel.m_socketHandle;
        channel.m_socketHandle = fd;
        return old;
    }
};

class CommsChannelLocatorInspector {
public:
    static CommsChannelLocator* current() { return __atomic_load_n(&CommsChannelLocator::theInstance, __ATOMIC_ACQUIRE); }
    static long requestId(CommsChannelLocator& locator) { return locator.m_requestId; }
    static int socket(CommsChannelLocator& locator) { return locator.m_socket; }
    static int port(CommsChannelLocator& locator) { return locator.m_port; }
    static bool initialUpdateReceived(CommsChannelLocator& locator) { return locator.m_initialUpdateReceived; }
    static std::map<std::string, CommsChannelLocatorEntry*>& localMap(CommsChannelLocator& locator)
    {
        return *locator.m_plocalMap;
    }
    static std::map<std::string, CommsChannelLocatorEntry*>& remoteMap(CommsChannelLocator& locator)
    {
        return *locator.m_premoteMap;
    }
    static std::size_t outstandingRequests(CommsChannelLocator& locator) { return locator.m_prequestMap->size(); }
    // The same, read under the request lock while requests come and go.
    static std::size_t outstandingRequestsLocked(CommsChannelLocator& locator)
    {
        locator.m_prequestLock->take(-1);
        const std::size_t count = locator.m_prequestMap->size();
        locator.m_prequestLock->give();
        return count;
    }
    static Semaphore& mapLock(CommsChannelLocator& locator) { return *locator.m_pmapLock; }
};

class CommsChannelReceiverInspector {
public:
    static CommsChannelReceiver* current() { return __atomic_load_n(&CommsChannelReceiver::theInstance, __ATOMIC_ACQUIRE); }
};

#endif
