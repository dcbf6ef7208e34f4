// The inbox: delivery into the priority queue and the two ways of taking a
// message out.
#include "ChannelInbox.h"

#include "CCInterceptorContext.h"
#include "CCInterceptorDispatcher.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsException.h"
#include "CounterTable.h"
#include "ReceiveQueueIndex.h"
#include "ScopedUnlock.h"
#include "SpinWait.h"

#include <cxxabi.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <string>

namespace {

// The queue logs a notice each time it reaches this length.
const std::size_t QUEUE_WARNING_LENGTH = 50;
// Emptied messages kept for reuse by the next copies.
const std::size_t MAX_SPARE_MESSAGES = 16;
// How often a receive with a check looks whether to go on (ms).
const int CHECK_SLICE_MS = 100;
// The token-balancing wait of a by-id receive that found its message at once.
const int BALANCE_WAIT_MS = 10;
// How long a wait that expects an answer keeps its processor (us).
const int ANSWER_SPIN_US = 100;

// Whether the calling thread sent a message since it last began a wait.
thread_local bool answerExpected = false;

bool takeAnswerExpectation()
{
    const bool expected = answerExpected;
    answerExpected = false;
    return expected;
}

// Queue priority of each message type, indexed by msgType(). The mix (types
// 1 and 4 lowest, 2, 5 and 6 highest) is the system's fixed table.
const VireoThreadPriority MSG_TYPE_PRIORITIES[] = {
    VIREO_PRIORITY_NORMAL,  // 0
    VIREO_PRIORITY_LOW,     // 1
    VIREO_PRIORITY_HIGH,    // 2
    VIREO_PRIORITY_NORMAL,  // 3
    VIREO_PRIORITY_LOW,     // 4
    VIREO_PRIORITY_HIGH,    // 5
    VIREO_PRIORITY_HIGH,    // 6
};

CommsException timeoutException(int timeout)
{
    return CommsException("CommsChannel 'receive' timed out, timeout duration = " + std::to_string(timeout));
}

void deleteAll(ChannelInbox::Queue& messages)
{
    for (CommsChannelDataContainerMessage* message : messages) {
        delete message;
    }
}

long long monotonicMs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// The end of a wait of timeout ms: -1 waits without limit, 0 and any other
// negative value only look.
class Deadline {
public:
    explicit Deadline(int timeout)
        : m_unlimited(timeout == -1), m_end(monotonicMs() + (timeout > 0 ? timeout : 0))
    {
    }
    // How long the next wait may last: up to cap ms (cap < 0: no cap), 0
    // once the time is up. -1 for an unlimited wait without a cap.
    int slice(int cap) const
    {
        if (m_unlimited) {
            return cap;
        }
        const long long left = m_end - monotonicMs();
        if (left <= 0) {
            return 0;
        }
        return static_cast<int>(cap >= 0 && left > cap ? cap : left);
    }

private:
    const bool m_unlimited;
    const long long m_end;
};

void reportInterceptorFailure(const char* what)
{
    std::fprintf(stderr, "CommsChannel: the interceptor threw (%s); the message is dropped\n", what);
}

}  // namespace

// A thread waiting for one request id; lives on that thread's stack.
struct ChannelInbox::Waiter {
    ConditionVariable wake;
    bool token = false;  // guarded by the inbox's m_lock
};

ChannelInbox::ChannelInbox(CCInterceptorDispatcher* interceptor)
    : m_pinterceptor(interceptor),
      m_priorities(MSG_TYPE_PRIORITIES, MSG_TYPE_PRIORITIES + sizeof MSG_TYPE_PRIORITIES / sizeof MSG_TYPE_PRIORITIES[0]),
      m_pindex(new ReceiveQueueIndex()), m_tokens(0), m_shutdown(false), m_closed(false), m_length(0), m_wakeUps(0),
      m_pcounters(nullptr)
{
}

ChannelInbox::~ChannelInbox()
{
    deleteAll(m_queue);
    deleteAll(m_spare);
    delete m_pindex;
}

int ChannelInbox::deliver(CommsChannelDataContainerMessage& message) { return enqueue(nullptr, &message); }

int ChannelInbox::deliver(CommsChannelDataContainerMessage* message) { return enqueue(message, nullptr); }

int ChannelInbox::enqueue(CommsChannelDataContainerMessage* owned, CommsChannelDataContainerMessage* original)
{
    const int msgType = owned != nullptr ? owned->msgType() : original->msgType();
    // Types outside the table get the lowest priority instead of reading
    // past its end.
    const VireoThreadPriority priority = (msgType >= 0 && static_cast<std::size_t>(msgType) < m_priorities.size())
                                             ? m_priorities[static_cast<std::size_t>(msgType)]
                                             : VIREO_PRIORITY_LOW;
    // The warning names the interface the message arrived with, even if the
    // interceptor changes the queued message.
    const std::string interfaceName = owned != nullptr ? owned->interface() : original->interface();
    Queue incoming;
    Queue discarded;
    if (owned != nullptr) {
        incoming.push_back(owned);
    }
    {
        ScopedLock hold(m_lock);
        Queue& source = owned != nullptr ? incoming : prepareCopy(*original, incoming);
        const Queue::iterator node = source.begin();
        CommsChannelDataContainerMessage* queued = *node;
        if (m_closed) {
            discarded.splice(discarded.end(), source, node);
        } else {
            if (queued->priority() != priority) {
                queued->setPriority(priority);
            }
            // The token's target is chosen before the interceptor sees (and
            // may change) the message.
            const long requestId = queued->requestId();
            if (admitted(queued)) {
                insert(source, node, priority, interfaceName);
            } else {
                discarded.splice(discarded.end(), source, node);
                if (m_pcounters != nullptr) {
                    counter_table::bump(m_pcounters->refused);
                }
            }
            giveToken(requestId);
        }
    }
    deleteAll(discarded);
    return 1;
}

ChannelInbox::Queue& ChannelInbox::prepareCopy(const CommsChannelDataContainerMessage& original, Queue& incoming)
{
    if (!m_spare.empty()) {
        // A kept message takes the copy: its buffers are reused, and only
        // the fields that differ are written.
        *m_spare.front() = original;
        return m_spare;
    }
    // Nothing is allocated under the lock: a consumer waiting for it would
    // wait for the allocator too.
    ScopedUnlock unlocked(m_lock);
    incoming.push_back(new CommsChannelDataContainerMessage(original));
    return incoming;
}

bool ChannelInbox::admitted(CommsChannelDataContainerMessage* message)
{
    if (m_pinterceptor == nullptr) {
        return true;
    }
    CCInterceptorContext context;
    context.setParams(message);
    try {
        m_pinterceptor->intercept(&context);
    } catch (abi::__forced_unwind&) {
        throw;  // a thread being cancelled must go on unwinding
    } catch (const std::exception& failure) {
        reportInterceptorFailure(failure.what());
        return false;
    } catch (...) {
        reportInterceptorFailure("an exception of unknown type");
        return false;
    }
    return context.getSendFlag() != 0;
}

void ChannelInbox::insert(Queue& source, Queue::iterator node, int priority, const std::string& interfaceName)
{
    // Behind every message of the same or a higher priority; the node moves
    // into the queue with its message.
    m_queue.splice(m_pindex->insertPosition(m_queue, priority), source, node);
    m_pindex->inserted(node, priority);
    const std::size_t length = m_queue.size();
    m_length.store(length, std::memory_order_relaxed);
    publishLength(length);
    warnIfLong(length, interfaceName);
}

void ChannelInbox::publishLength(std::size_t length)
{
    if (m_pcounters == nullptr) {
        return;
    }
    const std::uint32_t now = static_cast<std::uint32_t>(length);
    m_pcounters->queued.store(now, std::memory_order_relaxed);
    if (now > m_pcounters->maxQueued.load(std::memory_order_relaxed)) {
        m_pcounters->maxQueued.store(now, std::memory_order_relaxed);
    }
}

void ChannelInbox::warnIfLong(std::size_t length, const std::string& interfaceName)
{
    // Written once on reaching the mark, not again while the queue stays
    // above it.
    if (length == QUEUE_WARNING_LENGTH) {
        syslog(LOG_NOTICE,
               "CommsChannel :: Warning m_preceiveQueue->size() = %d at interface %s in process %d "
               "with parent process = %d \n",
               static_cast<int>(length), interfaceName.c_str(), static_cast<int>(getpid()),
               static_cast<int>(getppid()));
    }
}

void ChannelInbox::noteSend() { answerExpected = true; }

void ChannelInbox::spinForWakeUp()
{
    const unsigned seen = m_wakeUps.load(std::memory_order_relaxed);
    ScopedUnlock unlocked(m_lock);
    spin_wait::untilChanged(m_wakeUps, seen, ANSWER_SPIN_US);
}

void ChannelInbox::giveToken(long requestId)
{
    m_wakeUps.fetch_add(1, std::memory_order_release);
    if (requestId != 0) {
        // Only a waiter registered for this very id takes the token.
        std::map<long, Waiter*>::iterator waiter = m_waiters.find(requestId);
        if (waiter != m_waiters.end()) {
            waiter->second->token = true;
            waiter->second->wake.signal();
            return;
        }
    }
    ++m_tokens;
    m_generalToken.signal();
}

bool ChannelInbox::waitForGeneralToken(int timeout, const Check* check, bool expectSoon)
{
    const Deadline deadline(timeout);
    for (;;) {
        if (expectSoon && m_tokens == 0 && deadline.slice(-1) != 0) {
            expectSoon = false;
            spinForWakeUp();
        }
        if (m_tokens > 0) {
            --m_tokens;
            return true;
        }
        if (check != nullptr) {
            {
                ScopedUnlock unlocked(m_lock);
                (*check)();
            }
            if (m_tokens > 0) {
                --m_tokens;
                return true;
            }
        }
        const int slice = deadline.slice(check != nullptr ? CHECK_SLICE_MS : -1);
        if (slice == 0) {
            return false;
        }
        m_generalToken.waitFor(m_lock, slice);
    }
}

bool ChannelInbox::waitForOwnToken(Waiter& waiter, int timeout, const Check* check, bool expectSoon)
{
    const Deadline deadline(timeout);
    for (;;) {
        if (expectSoon && !waiter.token && deadline.slice(-1) != 0) {
            expectSoon = false;
            spinForWakeUp();
        }
        if (waiter.token) {
            waiter.token = false;
            return true;
        }
        if (check != nullptr) {
            {
                ScopedUnlock unlocked(m_lock);
                (*check)();
            }
            if (waiter.token) {
                waiter.token = false;
                return true;
            }
        }
        const int slice = deadline.slice(check != nullptr ? CHECK_SLICE_MS : -1);
        if (slice == 0) {
            return false;
        }
        waiter.wake.waitFor(m_lock, slice);
    }
}

int ChannelInbox::takeFront(int timeout, CommsChannelDataContainerMessage* out, std::string* data,
                            const Check* check)
{
    Queue discarded;
    int taken = 0;
    const bool expectSoon = takeAnswerExpectation();
    {
        ScopedLock hold(m_lock);
        if (!waitForGeneralToken(timeout, check, expectSoon)) {
            throw timeoutException(timeout);
        }
        // The token is spent even when there is nothing to hand out.
        if (!m_shutdown && !m_queue.empty()) {
            takeOut(m_queue.begin(), out, data, discarded);
            taken = 1;
        }
    }
    deleteAll(discarded);
    return taken;
}

int ChannelInbox::takeById(CommsChannelDataContainerMessage& out, long requestId, int timeout, const Check* check)
{
    Waiter waiter;
    Queue discarded;
    const bool expectSoon = takeAnswerExpectation();
    {
        ScopedLock hold(m_lock);
        // One id has one waiter: a second registration is not entered, and
        // that caller is then never woken by a message.
        m_waiters.insert(std::make_pair(requestId, &waiter));
        // However the wait ends, the id's registration goes, whoever made it.
        struct Unregister {
            std::map<long, Waiter*>& waiters;
            long id;
            ~Unregister() { waiters.erase(id); }
        } unregister{m_waiters, requestId};
        bool waited = false;
        for (;;) {
            const Queue::iterator match = findRequest(requestId);
            if (match != m_queue.end()) {
                takeOut(match, &out, nullptr, discarded);
                break;
            }
            // Each wait gets the full time-out anew.
            if (!waitForOwnToken(waiter, timeout, check, expectSoon)) {
                throw timeoutException(timeout);
            }
            waited = true;
        }
        if (!waited) {
            balanceFoundAtOnce(waiter, timeout);
        }
    }
    deleteAll(discarded);
    return 1;
}

void ChannelInbox::balanceFoundAtOnce(Waiter& waiter, int timeout)
{
    // The message was there before we looked, so its token was never taken:
    // it came to us if the message arrived after we registered, else it went
    // to the general receivers. The short wait is the system's fixed way of
    // telling the two apart. A general token that another receiver took
    // already is not waited for beyond the caller's own time-out: the
    // message is ours either way.
    if (!waitForOwnToken(waiter, BALANCE_WAIT_MS, nullptr)) {
        waitForGeneralToken(timeout, nullptr);
    }
}

ChannelInbox::Queue::iterator ChannelInbox::findRequest(long requestId)
{
    Queue::iterator match = m_queue.begin();
    while (match != m_queue.end() && (*match)->requestId() != requestId) {
        ++match;
    }
    return match;
}

void ChannelInbox::takeOut(Queue::iterator position, CommsChannelDataContainerMessage* out, std::string* data,
                           Queue& discarded)
{
    m_pindex->erasing(m_queue, position);
    if (out != nullptr) {
        // The queued message is not needed any more: its contents move.
        *out = std::move(**position);
    } else {
        // Its names stay for the next copy into it; only the data moves.
        (*position)->takeData(*data);
    }
    if (m_spare.size() < MAX_SPARE_MESSAGES) {
        m_spare.splice(m_spare.begin(), m_queue, position);
    } else {
        discarded.splice(discarded.end(), m_queue, position);
    }
    m_length.store(m_queue.size(), std::memory_order_relaxed);
    if (m_pcounters != nullptr) {
        publishLength(m_queue.size());
        counter_table::bump(m_pcounters->taken);
    }
}

void ChannelInbox::shutdown()
{
    ScopedLock hold(m_lock);
    m_shutdown = true;
    m_wakeUps.fetch_add(1, std::memory_order_release);
    ++m_tokens;
    m_generalToken.signal();
}

void ChannelInbox::close()
{
    ScopedLock hold(m_lock);
    m_closed = true;
}

void ChannelInbox::attachCounters(counter_table::Slot* slot)
{
    ScopedLock hold(m_lock);
    m_pcounters = slot;
}

counter_table::Slot* ChannelInbox::detachCounters()
{
    ScopedLock hold(m_lock);
    counter_table::Slot* const slot = m_pcounters;
    m_pcounters = nullptr;
    return slot;
}

std::size_t ChannelInbox::length()
{
    ScopedLock hold(m_lock);
    return m_queue.size();
}

int ChannelInbox::pendingTokens()
{
    ScopedLock hold(m_lock);
    return m_tokens;
}

bool ChannelInbox::hasWaiter(long requestId)
{
    ScopedLock hold(m_lock);
    return m_waiters.count(requestId) != 0;
}

void ChannelInbox::forEach(const std::function<void(CommsChannelDataContainerMessage&)>& visit)
{
    ScopedLock hold(m_lock);
    for (CommsChannelDataContainerMessage* message : m_queue) {
        visit(*message);
    }
}
