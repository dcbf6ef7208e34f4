// Looks at the receiver's module state under its list lock, and small tools
// for the receiver tests: a gate that holds the receiver thread inside a
// channel's queue, a diversion of status updates to a test socket, and a
// channel destruction with a deadline. Header only.
#ifndef COMMSCHANNEL_RECEIVER_PROBE_H
#define COMMSCHANNEL_RECEIVER_PROBE_H

#include "CCInterceptorContext.h"
#include "CCInterceptorDispatcher.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelReceiver.h"
#include "WhiteBoxAccess.h"
#include "ReceiverState.h"
#include "Semaphore.h"
#include "StderrRecorder.h"
#include "TestUtil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace cctest {

class ReceiverProbe {
public:
    static CommsChannelReceiver* current() { return CommsChannelReceiverInspector::current(); }

    // The watched channels, in list order (empty when there is no list).
    static std::vector<CommsChannel*> channels()
    {
        std::vector<CommsChannel*> copy;
        receiver_state::channelListLock().take(-1);
        if (receiver_state::receiveChannels != nullptr) {
            copy = *receiver_state::receiveChannels;
        }
        receiver_state::channelListLock().give();
        return copy;
    }

    static int maxSocketPlusOne()
    {
        receiver_state::channelListLock().take(-1);
        const int value = receiver_state::maxSocketPlusOne;
        receiver_state::channelListLock().give();
        return value;
    }

    static bool isMonitored(int fd)
    {
        receiver_state::channelListLock().take(-1);
        const bool watched = FD_ISSET(fd, &receiver_state::monitorSet);
        receiver_state::channelListLock().give();
        return watched;
    }

    static int statusSocket() { return receiver_state::statusSocket.load(); }
    // As getsockname gave it: network byte order.
    static int statusPort() { return receiver_state::statusPort.load(); }
    static bool stopRequested() { return receiver_state::stopReceiver.load(); }

    // Bytes of the first datagram waiting on fd (FIONREAD), -1 on error.
    static int pendingBytes(int fd)
    {
        int count = 0;
        return ioctl(fd, FIONREAD, &count) == -1 ? -1 : count;
    }

    // The receiver thread has ended: it closes and clears the status socket
    // on its way out.
    static bool waitForThreadEnd(int timeoutMs = 20000)
    {
        return waitUntil([] { return statusSocket() == 0; }, timeoutMs);
    }
};

// While it lives, status updates go to a test socket instead of the
// receiver's own status socket, so that the test can read them. The thread
// is not woken in the meantime.
class StatusUpdateDiversion {
public:
    explicit StatusUpdateDiversion(int hostOrderPort) : m_saved(receiver_state::statusPort.load())
    {
        receiver_state::statusPort = static_cast<int>(htons(static_cast<uint16_t>(hostOrderPort)));
    }
    ~StatusUpdateDiversion() { receiver_state::statusPort = m_saved; }
    StatusUpdateDiversion(const StatusUpdateDiversion&) = delete;
    StatusUpdateDiversion& operator=(const StatusUpdateDiversion&) = delete;

private:
    int m_saved;
};

// An interceptor that holds the thread queuing a message until the test
// opens it (or a minute passes, so that a failing test cannot hang).
class GateInterceptor : public CCInterceptorDispatcher {
public:
    int intercept(CCInterceptorContext* /*context*/) override
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_entered;
        m_changed.notify_all();
        m_changed.wait_for(lock, std::chrono::seconds(60), [this] { return m_open; });
        return 1;
    }
    void open()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    int entered()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_entered;
    }
    bool waitEntered(int count, int timeoutMs = 20000)
    {
        return waitUntil([this, count] { return entered() >= count; }, timeoutMs);
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
    int m_entered = 0;
};

// Deletes the channel on a thread of its own. False when that did not end
// within the deadline (the thread is then left behind).
inline bool destroyWithin(CommsChannel* channel, int timeoutMs = 20000)
{
    std::shared_ptr<std::atomic<bool>> done = std::make_shared<std::atomic<bool>>(false);
    std::thread destroyer([channel, done] {
        delete channel;
        *done = true;
    });
    if (waitUntil([done] { return done->load(); }, timeoutMs)) {
        destroyer.join();
        return true;
    }
    destroyer.detach();
    return false;
}

// Waits until the channel's queue holds at least count messages.
inline bool waitForQueued(CommsChannel& channel, std::size_t count = 1, int timeoutMs = 20000)
{
    return waitUntil([&channel, count] { return CommsChannelInspector::queueLengthLocked(channel) >= count; },
                     timeoutMs);
}

inline std::string encodingOf(CommsChannelMessage& message)
{
    int length = 0;
    const char* encoding = message.encode(&length);
    return encoding != nullptr ? std::string(encoding, static_cast<std::size_t>(length)) : std::string();
}

// The encoding of a data message addressed to destination carrying data.
inline std::string dataEncoding(const std::string& destination, const std::string& data)
{
    CommsChannelDataContainerMessage message;
    message.setChannel(destination);
    message.setSourceChannel("peer");
    message.setData(data.data(), static_cast<int>(data.size()));
    return encodingOf(message);
}

}  // namespace cctest

#endif
