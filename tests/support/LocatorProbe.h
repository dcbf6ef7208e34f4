// Looks at the current locator's maps under its map lock, runs a possibly
// blocking getDispatcher on a thread of its own, and watches locator threads
// start and be joined, for the locator tests. Header only.
//
// Usage:
//   EXPECT_TRUE(cctest::waitUntil([] { return cctest::LocatorProbe::remotePort("x") == 40000; }));
//   cctest::PendingResolution resolution("x");
//   ASSERT_TRUE(resolution.waitDone(20000));
//   EXPECT_EQ(expected, resolution.result());
#ifndef COMMSCHANNEL_LOCATOR_PROBE_H
#define COMMSCHANNEL_LOCATOR_PROBE_H

#include "CommsChannelDispatcher.h"
#include "CommsChannelLocator.h"
#include "CommsChannelLocatorEntry.h"
#include "LocatorState.h"
#include "WhiteBoxAccess.h"
#include "Semaphore.h"
#include "TestUtil.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace cctest {

class LocatorProbe {
public:
    typedef std::map<std::string, CommsChannelLocatorEntry*> EntryMap;

    // The locator of this process, null when none exists.
    static CommsChannelLocator* current() { return CommsChannelLocatorInspector::current(); }

    // -1 when the name is not in the remote map (or there is no locator).
    static int remotePort(const std::string& name)
    {
        int port = -1;
        withMaps([&](EntryMap& /*local*/, EntryMap& remote) {
            EntryMap::iterator it = remote.find(name);
            if (it != remote.end()) {
                port = it->second->port();
            }
        });
        return port;
    }
    static bool remoteHas(const std::string& name) { return remotePort(name) != -1; }

    static CommsChannelDispatcher* remoteDispatcher(const std::string& name)
    {
        CommsChannelDispatcher* dispatcher = nullptr;
        withMaps([&](EntryMap& /*local*/, EntryMap& remote) {
            EntryMap::iterator it = remote.find(name);
            if (it != remote.end()) {
                dispatcher = it->second->dispatcher();
            }
        });
        return dispatcher;
    }

    // The local entry's channel handle and dispatcher (null when absent).
    static CommsChannel* localHandle(const std::string& name)
    {
        CommsChannel* handle = nullptr;
        withMaps([&](EntryMap& local, EntryMap& /*remote*/) {
            EntryMap::iterator it = local.find(name);
            if (it != local.end()) {
                handle = it->second->channelHandle();
            }
        });
        return handle;
    }
    static CommsChannelDispatcher* localDispatcher(const std::string& name)
    {
        CommsChannelDispatcher* dispatcher = nullptr;
        withMaps([&](EntryMap& local, EntryMap& /*remote*/) {
            EntryMap::iterator it = local.find(name);
            if (it != local.end()) {
                dispatcher = it->second->dispatcher();
            }
        });
        return dispatcher;
    }

    static std::size_t localCount()
    {
        std::size_t count = 0;
        withMaps([&](EntryMap& local, EntryMap& /*remote*/) { count = local.size(); });
        return count;
    }
    static std::size_t remoteCount()
    {
        std::size_t count = 0;
        withMaps([&](EntryMap& /*local*/, EntryMap& remote) { count = remote.size(); });
        return count;
    }

    // Runs body with both maps while holding the locator's map lock.
    template <typename Body>
    static void withMaps(Body body)
    {
        CommsChannelLocator* locator = current();
        if (locator == nullptr) {
            return;
        }
        Semaphore& lock = CommsChannelLocatorInspector::mapLock(*locator);
        lock.take(-1);
        body(CommsChannelLocatorInspector::localMap(*locator), CommsChannelLocatorInspector::remoteMap(*locator));
        lock.give();
    }
};

// getDispatcher(name) on the current locator, run on a thread of its own so
// that a test can watch it block. A resolution still blocked when the test
// ends is left behind (detached) rather than hanging the test.
class PendingResolution {
public:
    explicit PendingResolution(const std::string& name) : m_state(std::make_shared<State>())
    {
        std::shared_ptr<State> state = m_state;
        m_thread = std::thread([state, name] {
            state->result = CommsChannelLocator::instance()->getDispatcher(name);
            state->done = true;
        });
    }
    ~PendingResolution()
    {
        if (m_state->done) {
            m_thread.join();
        } else {
            m_thread.detach();
        }
    }
    PendingResolution(const PendingResolution&) = delete;
    PendingResolution& operator=(const PendingResolution&) = delete;

    bool done() const { return m_state->done; }
    bool waitDone(int timeoutMs)
    {
        std::shared_ptr<State> state = m_state;
        return waitUntil([state] { return state->done.load(); }, timeoutMs);
    }
    // Still blocked after holdMs.
    bool staysBlocked(int holdMs = 300) { return !waitDone(holdMs); }
    CommsChannelDispatcher* result() const { return m_state->result; }

private:
    struct State {
        std::atomic<bool> done{false};
        std::atomic<CommsChannelDispatcher*> result{nullptr};
    };
    std::shared_ptr<State> m_state;
    std::thread m_thread;
};

// Records, for as long as it exists, the serial of every locator whose thread
// was started and of every locator whose thread was joined. One at a time.
//
// Usage:
//   cctest::LocatorThreadWatch watch;
//   ... channels come and go ...
//   EXPECT_EQ(watch.started(), watch.joined());
class LocatorThreadWatch {
public:
    LocatorThreadWatch()
    {
        locator_state::threadStartedObserver = &onStarted;
        locator_state::threadJoinedObserver = &onJoined;
    }
    ~LocatorThreadWatch()
    {
        locator_state::threadStartedObserver = nullptr;
        locator_state::threadJoinedObserver = nullptr;
        std::lock_guard<std::mutex> lock(mutex());
        log(false).clear();
        log(true).clear();
    }
    LocatorThreadWatch(const LocatorThreadWatch&) = delete;
    LocatorThreadWatch& operator=(const LocatorThreadWatch&) = delete;

    // Serials in the order of the events.
    std::vector<unsigned long> started() { return copy(false); }
    std::vector<unsigned long> joined() { return copy(true); }

private:
    static std::mutex& mutex()
    {
        static std::mutex* lock = new std::mutex();
        return *lock;
    }
    static std::vector<unsigned long>& log(bool joins)
    {
        static std::vector<unsigned long>* startLog = new std::vector<unsigned long>();
        static std::vector<unsigned long>* joinLog = new std::vector<unsigned long>();
        return joins ? *joinLog : *startLog;
    }
    static void onStarted(unsigned long serial)
    {
        std::lock_guard<std::mutex> lock(mutex());
        log(false).push_back(serial);
    }
    static void onJoined(unsigned long serial)
    {
        std::lock_guard<std::mutex> lock(mutex());
        log(true).push_back(serial);
    }
    static std::vector<unsigned long> copy(bool joins)
    {
        std::lock_guard<std::mutex> lock(mutex());
        return log(joins);
    }
};

}  // namespace cctest

#endif
