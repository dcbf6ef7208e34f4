// Helpers shared by the channel tests: building data messages in one line,
// running a call that may block on a thread of its own, a watchdog that
// fails a hanging test loudly, an interceptor that records and can drop, and
// a channel built while descriptors have run out.
#ifndef COMMSCHANNEL_CHANNEL_TEST_HELPERS_H
#define COMMSCHANNEL_CHANNEL_TEST_HELPERS_H

#include "CCInterceptorContext.h"
#include "CCInterceptorDispatcher.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsException.h"
#include "TestUtil.h"

#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace channeltest {

// How long a call that should stay blocked is watched before it counts as
// blocked.
const int STILL_BLOCKED_MS = 300;
// Deadline for anything that should happen "at once"; generous, because
// the suite also runs under emulation.
const int DEADLINE_MS = 20000;

inline CommsChannelDataContainerMessage message(const std::string& data, int msgType = 0, long requestId = 0)
{
    CommsChannelDataContainerMessage built;
    built.setData(data.data(), static_cast<int>(data.size()));
    built.setMsgType(msgType);
    built.setRequestId(requestId);
    return built;
}

// Fails the test loudly (abort with a message) when it is still running
// after timeoutMs, instead of leaving CI hanging.
class Watchdog {
public:
    explicit Watchdog(int timeoutMs = 50000)
        : m_disarmed(false), m_thread([this, timeoutMs] { watch(timeoutMs); })
    {
    }
    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_disarmed = true;
        }
        m_wake.notify_all();
        m_thread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    void watch(int timeoutMs)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_wake.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return m_disarmed; })) {
            std::fprintf(stderr, "watchdog: test still running after %d ms, aborting\n", timeoutMs);
            std::fflush(stderr);
            std::abort();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_disarmed;
    std::thread m_thread;
};

// Runs a call that may block on a thread of its own. The test must make the
// call return before the AsyncCall goes out of scope (the destructor joins).
class AsyncCall {
public:
    explicit AsyncCall(std::function<int()> call)
        : m_done(false), m_result(-1), m_threw(false),
          m_thread([this, call] {
              try {
                  m_result = call();
              } catch (const CommsException& e) {
                  m_threw = true;
                  m_exceptionText = e.what();
              } catch (...) {
                  m_threw = true;
                  m_exceptionText = "<not a CommsException>";
              }
              m_done = true;
          })
    {
    }
    ~AsyncCall() { m_thread.join(); }
    AsyncCall(const AsyncCall&) = delete;
    AsyncCall& operator=(const AsyncCall&) = delete;

    bool finishedWithin(int timeoutMs = DEADLINE_MS)
    {
        return cctest::waitUntil([this] { return m_done.load(); }, timeoutMs);
    }
    // Watches the call for a while; true when it has not returned.
    bool stillBlocked(int watchMs = STILL_BLOCKED_MS)
    {
        usleep(static_cast<useconds_t>(watchMs) * 1000);
        return !m_done;
    }
    bool done() const { return m_done; }
    // Valid once done().
    int result() const { return m_result; }
    bool threw() const { return m_threw; }
    const std::string& exceptionText() const { return m_exceptionText; }

private:
    std::atomic<bool> m_done;
    int m_result;
    bool m_threw;
    std::string m_exceptionText;
    std::thread m_thread;
};

// Records the data of every message it is shown (the queued copy) and
// drops those whose data starts with "drop".
class RecordingInterceptor : public CCInterceptorDispatcher {
public:
    int intercept(CCInterceptorContext* context) override
    {
        CommsChannelDataContainerMessage* seen = context->getParams();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_seen.push_back(seen);
        m_seenData.push_back(seen != nullptr ? seen->getData() : std::string());
        m_seenPriorities.push_back(seen != nullptr ? seen->priority() : VIREO_PRIORITY_LOW);
        if (seen != nullptr && seen->getData().compare(0, 4, "drop") == 0) {
            context->setSendFlag(0);
        }
        if (m_rewriteInterface && seen != nullptr) {
            seen->setInterface("rewritten");
        }
        return 1;
    }
    void rewriteInterface() { m_rewriteInterface = true; }
    std::vector<CommsChannelDataContainerMessage*> seen()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_seen;
    }
    std::vector<std::string> seenData()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_seenData;
    }
    std::vector<VireoThreadPriority> seenPriorities()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_seenPriorities;
    }

private:
    std::mutex m_mutex;
    std::atomic<bool> m_rewriteInterface{false};
    std::vector<CommsChannelDataContainerMessage*> m_seen;
    std::vector<std::string> m_seenData;
    std::vector<VireoThreadPriority> m_seenPriorities;
};

// Constructs a channel while this process may open no further descriptor,
// so that its socket() fails. What the construction wrote to standard error
// goes to *reported. Null when the descriptor limit could not be changed.
inline std::unique_ptr<CommsChannel> constructWithoutDescriptors(const std::string& name, std::string* reported)
{
    rlimit original;
    if (getrlimit(RLIMIT_NOFILE, &original) != 0) {
        return nullptr;
    }
    rlimit exhausted = original;
    exhausted.rlim_cur = static_cast<rlim_t>(cctest::nextFreeDescriptor());
    testing::internal::CaptureStderr();
    if (setrlimit(RLIMIT_NOFILE, &exhausted) != 0) {
        *reported = testing::internal::GetCapturedStderr();
        return nullptr;
    }
    std::unique_ptr<CommsChannel> channel(new CommsChannel(name));
    const bool restored = setrlimit(RLIMIT_NOFILE, &original) == 0;
    *reported = testing::internal::GetCapturedStderr();
    return restored ? std::move(channel) : nullptr;
}

}  // namespace channeltest

#endif
