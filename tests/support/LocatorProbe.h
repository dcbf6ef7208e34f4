// Looks at the current locator from outside: its maps through its own dump
// (dumpLocatorMap) and knowsName, its socket through what the kernel shows of
// this process; runs a possibly blocking getDispatcher on a thread of its
// own, for the locator tests. Header only.
//
// The dump takes no lock: read it only while nothing reaches the locator
// (after a marker row was applied, say); wait for a name with knows(), which
// does lock.
//
// Usage:
//   EXPECT_TRUE(cctest::waitUntil([] { return cctest::LocatorProbe::knows("x"); }));
//   EXPECT_EQ(40000, cctest::LocatorProbe::remotePort("x"));
//   cctest::PendingResolution resolution("x");
//   ASSERT_TRUE(resolution.waitDone(20000));
//   EXPECT_EQ(expected, resolution.result());
#ifndef COMMSCHANNEL_LOCATOR_PROBE_H
#define COMMSCHANNEL_LOCATOR_PROBE_H

#include "CommsChannelDispatcher.h"
#include "CommsChannelLocator.h"
#include "ReceiverProbe.h"
#include "WhiteBoxAccess.h"
#include "TestUtil.h"

#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace cctest {

class LocatorProbe {
public:
    // One entry as dumpLocatorMap prints it.
    struct Entry {
        std::string name;
        int port;
        std::string handle;  // "0" for a name learnt from the resolver
        bool local() const { return handle != "0"; }
    };

    // The current locator (made if there is none or the last one ended).
    static CommsChannelLocator* current() { return CommsChannelLocatorInspector::current(); }

    // Whether the current locator knows the name, locally or remotely.
    static bool knows(const std::string& name) { return current()->knowsName(name); }

    // Every entry of the current locator's dump, local map first.
    static std::vector<Entry> entries()
    {
        std::ostringstream text;
        std::streambuf* saved = std::cout.rdbuf(text.rdbuf());
        const std::ios::fmtflags flags = std::cout.flags();
        std::cout << std::dec;
        current()->dumpLocatorMap();
        std::cout.flags(flags);
        std::cout.rdbuf(saved);
        std::vector<Entry> found;
        std::istringstream lines(text.str());
        std::string line;
        Entry entry{"", 0, ""};
        while (std::getline(lines, line)) {
            const std::string namePrefix = "Channel Name = \"";
            const std::string portPrefix = "Channel Port = ";
            const std::string handlePrefix = "Channel handle = ";
            if (line.compare(0, namePrefix.size(), namePrefix) == 0) {
                entry.name = line.substr(namePrefix.size(), line.size() - namePrefix.size() - 1);
            } else if (line.compare(0, portPrefix.size(), portPrefix) == 0) {
                entry.port = std::atoi(line.c_str() + portPrefix.size());
            } else if (line.compare(0, handlePrefix.size(), handlePrefix) == 0) {
                entry.handle = line.substr(handlePrefix.size());
                found.push_back(entry);
            }
        }
        return found;
    }

    // -1 when the name is not in the remote map.
    static int remotePort(const std::string& name)
    {
        for (const Entry& entry : entries()) {
            if (!entry.local() && entry.name == name) {
                return entry.port;
            }
        }
        return -1;
    }
    static bool remoteHas(const std::string& name) { return remotePort(name) != -1; }

    // The local entry's channel handle (null when absent).
    static CommsChannel* localHandle(const std::string& name)
    {
        for (const Entry& entry : entries()) {
            if (entry.local() && entry.name == name) {
                return reinterpret_cast<CommsChannel*>(std::strtoull(entry.handle.c_str(), nullptr, 16));
            }
        }
        return nullptr;
    }

    static std::size_t localCount()
    {
        std::size_t count = 0;
        for (const Entry& entry : entries()) {
            count += entry.local() ? 1 : 0;
        }
        return count;
    }
    static std::size_t remoteCount()
    {
        std::size_t count = 0;
        for (const Entry& entry : entries()) {
            count += entry.local() ? 0 : 1;
        }
        return count;
    }

    // The UDP sockets of this process bound to 127.0.0.1 that the receiver
    // does not watch and that are not the resolver's port: the locator's
    // socket, and whatever sockets the test opened itself (pass those as
    // others).
    static std::vector<int> unwatchedSockets(const std::vector<int>& others = std::vector<int>())
    {
        const std::set<int> watched = ReceiverProbe::watched();
        std::vector<int> found;
        DIR* fds = opendir("/proc/self/fd");
        if (fds == nullptr) {
            return found;
        }
        const int own = dirfd(fds);
        while (dirent* entry = readdir(fds)) {
            if (entry->d_name[0] == '.') {
                continue;
            }
            const int fd = std::atoi(entry->d_name);
            int type = 0;
            socklen_t typeLength = sizeof type;
            sockaddr_in address;
            socklen_t length = sizeof address;
            if (fd == own || watched.count(fd) != 0 ||
                getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &typeLength) != 0 || type != SOCK_DGRAM ||
                getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
                address.sin_family != AF_INET || address.sin_addr.s_addr != htonl(INADDR_LOOPBACK) ||
                ntohs(address.sin_port) == CommsChannelLocator::RESOLVER_PORT) {
                continue;
            }
            bool other = false;
            for (int fdOfTest : others) {
                other = other || fdOfTest == fd;
            }
            if (!other) {
                found.push_back(fd);
            }
        }
        closedir(fds);
        return found;
    }
    // The locator's socket: -1 unless exactly one socket qualifies.
    static int socket(const std::vector<int>& others = std::vector<int>())
    {
        const std::vector<int> found = unwatchedSockets(others);
        return found.size() == 1 ? found[0] : -1;
    }
    static int port(const std::vector<int>& others = std::vector<int>())
    {
        return ReceiverProbe::boundPort(socket(others));
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

}  // namespace cctest

#endif
