// The receive queue: producers (addToMsgQ) and the two consumers that the
// receive operations are built on.
#include "CCInterceptorContext.h"
#include "CCInterceptorDispatcher.h"
#include "AnswerExpectation.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsException.h"
#include "ReceiveQueueIndex.h"
#include "Semaphore.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <typeinfo>
#include <utility>

namespace {

// The queue logs a notice each time it reaches this length.
const int QUEUE_WARNING_LENGTH = 50;

// Emptied messages kept per channel for reuse by the next copies.
const std::size_t MAX_SPARED_MESSAGES = 16;

// How often a wait with a check (receiveReply) looks whether to go on.
const int CHECK_SLICE_MS = 100;

// The token-balancing wait of a by-id receive that found its message at once.
const int BALANCE_WAIT = 10;

CommsException timeoutException(int timeout)
{
    return CommsException("CommsChannel 'receive' timed out, timeout duration = " + std::to_string(timeout));
}

void deleteAll(std::list<CommsChannelDataContainerMessage*>& messages)
{
    for (CommsChannelDataContainerMessage* message : messages) {
        delete message;
    }
}

}  // namespace

int CommsChannel::addToMsgQ(CommsChannelDataContainerMessage& message)
{
    return enqueue(nullptr, &message, message.interface());
}

int CommsChannel::queueMessage(CommsChannelDataContainerMessage* message) { return queueMessage(message, nullptr); }

int CommsChannel::queueMessage(CommsChannelDataContainerMessage* message, int* deferredTokens)
{
    // The warning names the interface the message arrived with, even if the
    // interceptor changes the queued message.
    const std::string interfaceName = message->interface();
    return enqueue(message, nullptr, interfaceName, deferredTokens);
}

void CommsChannel::giveQueueTokens(int count)
{
    for (int i = 0; i < count; ++i) {
        m_pqueueSemaphore->give();
    }
}

int CommsChannel::enqueue(CommsChannelDataContainerMessage* owned, const CommsChannelDataContainerMessage* original,
                          const std::string& interfaceName, int* deferredTokens)
{
    // Types outside the table get the lowest priority instead of reading
    // past its end.
    const int msgType = owned != nullptr ? owned->msgType() : original->msgType();
    const VireoThreadPriority priority =
        (msgType >= 0 && static_cast<std::size_t>(msgType) < m_msgTypePriorities.size())
            ? m_msgTypePriorities[static_cast<std::size_t>(msgType)]
            : VIREO_PRIORITY_LOW;

    // Nothing is allocated or freed while the queue is locked: a consumer
    // that waits for the lock would wait for the allocator too, and a
    // producer that has run ahead of its consumer allocates for every send.
    // incoming holds the message to queue, with its list node, when it is
    // not a kept one.
    std::list<CommsChannelDataContainerMessage*> incoming;
    std::list<CommsChannelDataContainerMessage*> discarded;
    if (owned != nullptr) {
        incoming.push_back(owned);
    }
    m_pqueueMutex->take(-1);
    if (owned == nullptr && m_psparedMessages->empty()) {
        m_pqueueMutex->give();
        incoming.push_back(new CommsChannelDataContainerMessage(*original));
        m_pqueueMutex->take(-1);
    }
    // Otherwise the copy goes into a message kept from an earlier receive
    // (its buffers are reused).
    std::list<CommsChannelDataContainerMessage*>* source = &incoming;
    if (incoming.empty()) {
        source = m_psparedMessages;
        *source->front() = *original;
    }
    const std::list<CommsChannelDataContainerMessage*>::iterator node = source->begin();
    CommsChannelDataContainerMessage* copy = *node;
    if (copy->priority() != priority) {
        // A kept message usually has this priority already; an unchanged
        // line stays where the receiving thread last read it.
        copy->setPriority(priority);
    }
    Semaphore* target = m_pqueueSemaphore;
    if (copy->requestId() != 0) {
        // Only a waiter registered for this very id takes the token; the
        // map's entry for 0 (no waiter) and waiters for ids that merely
        // share the low 32 bits never do.
        Semaphore* waiter = requestWaiter(copy->requestId());
        if (waiter != nullptr) {
            target = waiter;
        }
    }

    std::unique_ptr<CCInterceptorContext> context;
    bool keep = true;
    if (m_pinterceptor != nullptr) {
        context.reset(new CCInterceptorContext());
        context->setParams(copy);
        m_pinterceptor->intercept(context.get());
        keep = context->getSendFlag() != 0;
    }
    if (!keep) {
        // A dropped message still gives its token: the woken waiter finds
        // nothing new and returns 0 or scans again.
        discarded.splice(discarded.end(), *source, node);
    } else {
        // Behind every message of the same or a higher priority; the node
        // moves into the queue with its message.
        m_preceiveQueue->splice(m_pqueueIndex->insertPosition(*m_preceiveQueue, priority), *source, node);
        const std::list<CommsChannelDataContainerMessage*>::iterator position = node;
        m_pqueueIndex->inserted(position, priority);

        // Written once on reaching the mark, not again while the queue stays
        // above it.
        const int length = static_cast<int>(m_preceiveQueue->size());
        if (length == QUEUE_WARNING_LENGTH) {
            syslog(LOG_NOTICE,
                   "CommsChannel :: Warning m_preceiveQueue->size() = %d at interface %s in process %d "
                   "with parent process = %d \n",
                   length, interfaceName.c_str(), static_cast<int>(getpid()),
                   static_cast<int>(getppid()));
        }
    }
    if (target == m_pqueueSemaphore && deferredTokens != nullptr) {
        ++*deferredTokens;
    } else if (target != nullptr) {
        target->give();
    }
    m_pqueueMutex->give();
    deleteAll(discarded);
    return 1;
}

bool CommsChannel::takeToken(Semaphore* semaphore, int timeout, bool answerExpected)
{
    // A caller's own kind of semaphore (a request-id semaphore may be one)
    // is always waited on through its take().
    if (answerExpected && typeid(*semaphore) == typeid(Semaphore)) {
        return semaphore->takeExpectingSoon(timeout) != 0;
    }
    return semaphore->take(timeout) != 0;
}

bool CommsChannel::waitInSlices(Semaphore* idSemaphore, int timeout, const std::function<void()>& check,
                                bool answerExpected)
{
    const std::chrono::steady_clock::time_point deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout < 0 ? 0 : timeout);
    for (;;) {
        check();
        int slice = CHECK_SLICE_MS;
        if (timeout != -1) {
            const long long left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                       deadline - std::chrono::steady_clock::now())
                                       .count();
            if (left <= 0) {
                return idSemaphore->take(0) != 0;
            }
            slice = static_cast<int>(std::min<long long>(left, CHECK_SLICE_MS));
        }
        if (takeToken(idSemaphore, slice, answerExpected)) {
            return true;
        }
    }
}

void CommsChannel::registerRequestWaiter(long requestId, Semaphore* semaphore)
{
    // One id has one waiter: the first registration stays and a second one
    // is not entered.
    m_prequestWaiters->insert(std::make_pair(requestId, semaphore));
    m_prequestIdSemaphores->insert(std::make_pair(static_cast<int>(requestId), semaphore));
}

void CommsChannel::unregisterRequestWaiter(long requestId)
{
    // Removes the entry for the id whoever made it.
    m_prequestWaiters->erase(requestId);
    m_prequestIdSemaphores->erase(static_cast<int>(requestId));
    // The placeholder for id 0 is part of the int map for good.
    if (static_cast<int>(requestId) == 0) {
        m_prequestIdSemaphores->insert(std::make_pair(0, static_cast<Semaphore*>(nullptr)));
    }
}

Semaphore* CommsChannel::requestWaiter(long requestId)
{
    std::map<long, Semaphore*>::iterator waiter = m_prequestWaiters->find(requestId);
    return waiter != m_prequestWaiters->end() ? waiter->second : nullptr;
}

void CommsChannel::takeOut(std::list<CommsChannelDataContainerMessage*>::iterator position,
                           CommsChannelDataContainerMessage& out,
                           std::list<CommsChannelDataContainerMessage*>& discarded)
{
    CommsChannelDataContainerMessage* message = *position;
    m_pqueueIndex->erasing(*m_preceiveQueue, position);
    // The queued message is not needed any more, so its contents move into
    // the caller's message instead of being copied.
    out = std::move(*message);
    recycle(position, discarded);
}

void CommsChannel::takeDataOut(std::list<CommsChannelDataContainerMessage*>::iterator position, std::string& data,
                               std::list<CommsChannelDataContainerMessage*>& discarded)
{
    m_pqueueIndex->erasing(*m_preceiveQueue, position);
    // Its names stay: the next copy into this message overwrites them in
    // place, without allocating.
    (*position)->takeData(data);
    recycle(position, discarded);
}

void CommsChannel::recycle(std::list<CommsChannelDataContainerMessage*>::iterator position,
                           std::list<CommsChannelDataContainerMessage*>& discarded)
{
    if (m_psparedMessages->size() < MAX_SPARED_MESSAGES) {
        m_psparedMessages->splice(m_psparedMessages->begin(), *m_preceiveQueue, position);
    } else {
        discarded.splice(discarded.end(), *m_preceiveQueue, position);
    }
}

int CommsChannel::getMsgFromQ(CommsChannelDataContainerMessage& out, int timeout)
{
    return takeFront(timeout, &out, nullptr);
}

int CommsChannel::getDataFromQ(std::string& data, int timeout) { return takeFront(timeout, nullptr, &data); }

int CommsChannel::takeFront(int timeout, CommsChannelDataContainerMessage* out, std::string* data)
{
    if (!takeToken(m_pqueueSemaphore, timeout, answer_expectation::beginWait()) &&
        timeout != -1) {
        throw timeoutException(timeout);
    }
    if (m_shutdown) {
        return 0;
    }
    // The emptiness test is made under the lock, together with the removal,
    // so that two consumers can never both see the last message.
    m_pqueueMutex->take(-1);
    if (m_preceiveQueue->empty()) {
        m_pqueueMutex->give();
        return 0;
    }
    std::list<CommsChannelDataContainerMessage*> discarded;
    if (out != nullptr) {
        takeOut(m_preceiveQueue->begin(), *out, discarded);
    } else {
        takeDataOut(m_preceiveQueue->begin(), *data, discarded);
    }
    m_pqueueMutex->give();
    deleteAll(discarded);
    return 1;
}

int CommsChannel::getMsgFromQ_ByID(CommsChannelDataContainerMessage& out, long requestId,
                                   Semaphore* idSemaphore, int timeout)
{
    return waitForRequestId(out, requestId, idSemaphore, timeout, nullptr);
}

int CommsChannel::waitForRequestId(CommsChannelDataContainerMessage& out, long requestId, Semaphore* idSemaphore,
                                   int timeout, const std::function<void()>* check)
{
    bool waited = false;
    const bool answerExpected = answer_expectation::beginWait();
    for (;;) {
        m_pqueueMutex->take(-1);
        std::list<CommsChannelDataContainerMessage*>::iterator match = m_preceiveQueue->begin();
        while (match != m_preceiveQueue->end() && (*match)->requestId() != requestId) {
            ++match;
        }
        if (match != m_preceiveQueue->end()) {
            std::list<CommsChannelDataContainerMessage*> discarded;
            takeOut(match, out, discarded);
            m_pqueueMutex->give();
            deleteAll(discarded);
            break;
        }
        m_pqueueMutex->give();
        // Each wait gets the full time-out anew.
        if (check == nullptr) {
            if (!takeToken(idSemaphore, timeout, answerExpected) && timeout != -1) {
                throw timeoutException(timeout);
            }
        } else if (!waitInSlices(idSemaphore, timeout, *check, answerExpected)) {
            throw timeoutException(timeout);
        }
        waited = true;
    }
    if (!waited) {
        // The message was there before we looked, so its token was never
        // taken: it went to our semaphore if the message arrived after we
        // registered, else to the queue semaphore.
        if (!idSemaphore->take(BALANCE_WAIT)) {
            m_pqueueSemaphore->take(-1);
        }
    }
    return 1;
}
