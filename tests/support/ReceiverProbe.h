// Looks at the receiver from outside, through what the kernel shows of this
// process (the descriptors its epoll set watches, the sockets' pending
// bytes, the process's threads), and small tools for the receiver tests: a
// gate that holds the receiver thread inside a channel's inbox, and a
// channel destruction with a deadline. Header only.
//
// Usage:
//   const int before = cctest::ReceiverProbe::threadCount();
//   CommsChannel* channel = new CommsChannel("");
//   EXPECT_EQ(before + 1, cctest::ReceiverProbe::threadCount());
//   EXPECT_TRUE(cctest::ReceiverProbe::isMonitored(channel->socketHandle()));
#ifndef COMMSCHANNEL_RECEIVER_PROBE_H
#define COMMSCHANNEL_RECEIVER_PROBE_H

#include "CCInterceptorContext.h"
#include "CCInterceptorDispatcher.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelReceiver.h"
#include "WhiteBoxAccess.h"
#include "Semaphore.h"
#include "StderrRecorder.h"
#include "TestUtil.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace cctest {

class ReceiverProbe {
public:
    // The process's current receiver (made if there is none).
    static CommsChannelReceiver* current() { return CommsChannelReceiverInspector::current(); }

    // Threads of this process (see cctest::threadCount).
    static int threadCount() { return cctest::threadCount(); }
    static bool waitForThreadCount(int count, int timeoutMs = 20000)
    {
        return waitUntil([count] { return threadCount() == count; }, timeoutMs);
    }

    // The thread ids of this process.
    static std::vector<int> threadIds()
    {
        std::vector<int> ids;
        DIR* tasks = opendir("/proc/self/task");
        if (tasks == nullptr) {
            return ids;
        }
        while (dirent* entry = readdir(tasks)) {
            if (entry->d_name[0] != '.') {
                ids.push_back(std::atoi(entry->d_name));
            }
        }
        closedir(tasks);
        return ids;
    }
    static bool threadExists(int tid) { return access(("/proc/self/task/" + std::to_string(tid)).c_str(), F_OK) == 0; }
    // The system call a thread is blocked in (-1 when it runs or is gone).
    static long blockedIn(int tid)
    {
        std::ifstream call("/proc/self/task/" + std::to_string(tid) + "/syscall");
        long number = -1;
        if (!(call >> number)) {
            return -1;
        }
        return number;
    }
    // Under user-mode emulation (the MIPS run under qemu on an x86-64
    // host) a thread's system call is the host's, with the host's number:
    // the x86-64 numbers are accepted too. They cannot be mistaken for a
    // native MIPS call, whose numbers start at 4000.
    static constexpr long HOST_EPOLL_WAIT = 232;
    static constexpr long HOST_EPOLL_PWAIT = 281;
    static constexpr long HOST_POLL = 7;
    static constexpr long HOST_PPOLL = 271;

    static bool waitsInEpoll(int tid)
    {
        const long number = blockedIn(tid);
#ifdef SYS_epoll_wait
        if (number == SYS_epoll_wait) {
            return true;
        }
#endif
        return number == SYS_epoll_pwait || number == HOST_EPOLL_WAIT || number == HOST_EPOLL_PWAIT;
    }
    static bool waitsInPoll(int tid)
    {
        const long number = blockedIn(tid);
#ifdef SYS_poll
        if (number == SYS_poll) {
            return true;
        }
#endif
        return number == SYS_ppoll || number == HOST_POLL || number == HOST_PPOLL;
    }
    // The receiver thread: the one thread waiting in epoll_wait, found once
    // it waits there (0 when none was found in time).
    static int receiverThreadId(int timeoutMs = 20000)
    {
        int found = 0;
        waitUntil(
            [&found] {
                int waiting = 0;
                for (int tid : threadIds()) {
                    if (waitsInEpoll(tid)) {
                        found = tid;
                        ++waiting;
                    }
                }
                return waiting == 1;
            },
            timeoutMs);
        return found;
    }

    // The descriptors of this process that are epoll sets (the receiver's).
    static std::vector<int> epollDescriptors()
    {
        std::vector<int> found;
        DIR* fds = opendir("/proc/self/fd");
        if (fds == nullptr) {
            return found;
        }
        while (dirent* entry = readdir(fds)) {
            if (entry->d_name[0] == '.') {
                continue;
            }
            const std::string path = std::string("/proc/self/fd/") + entry->d_name;
            char target[256];
            const ssize_t length = readlink(path.c_str(), target, sizeof target - 1);
            if (length > 0 && std::string(target, static_cast<std::size_t>(length)) == "anon_inode:[eventpoll]") {
                found.push_back(std::atoi(entry->d_name));
            }
        }
        closedir(fds);
        return found;
    }

    // Every descriptor watched by an epoll set of this process.
    static std::set<int> watched()
    {
        std::set<int> fds;
        for (int epollFd : epollDescriptors()) {
            std::ifstream info("/proc/self/fdinfo/" + std::to_string(epollFd));
            std::string word;
            while (info >> word) {
                if (word == "tfd:") {
                    int fd = -1;
                    if (info >> fd) {
                        fds.insert(fd);
                    }
                }
            }
        }
        return fds;
    }
    static bool isMonitored(int fd) { return fd > 0 && watched().count(fd) != 0; }

    // The status socket: the watched descriptor that is no channel's socket.
    // -1 unless there is exactly one such descriptor.
    static int statusSocket(const std::vector<const CommsChannel*>& channels)
    {
        std::set<int> fds = watched();
        for (const CommsChannel* channel : channels) {
            fds.erase(channel->socketHandle());
        }
        return fds.size() == 1 ? *fds.begin() : -1;
    }
    // The port (host byte order) a socket is bound to, 0 on error.
    static int boundPort(int fd)
    {
        sockaddr_in address;
        socklen_t length = sizeof address;
        if (fd < 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            return 0;
        }
        return ntohs(address.sin_port);
    }

    // Bytes of the first datagram waiting on fd (FIONREAD), -1 on error.
    static int pendingBytes(int fd)
    {
        int count = 0;
        return ioctl(fd, FIONREAD, &count) == -1 ? -1 : count;
    }
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
