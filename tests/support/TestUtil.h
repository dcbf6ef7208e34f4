// Small helpers for the tests: deadlines instead of sleeps, raw datagrams
// from foreign sockets, and the spool files a process left behind.
#ifndef COMMSCHANNEL_TEST_UTIL_H
#define COMMSCHANNEL_TEST_UTIL_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace cctest {

// Polls predicate every few milliseconds until it holds or timeoutMs passes.
// Returns the predicate's last answer.
bool waitUntil(const std::function<bool()>& predicate, int timeoutMs = 10000);

// Milliseconds on the monotonic clock.
long long nowMs();

// Whether the tests run under a user-mode emulator (the MIPS run).
bool runningEmulated();

// The threads of this process, as /proc/self/task lists them. Under
// user-mode emulation the host task of a thread outlives its join for a
// moment, so the count is read once it has held still for 200 ms (at most
// 2 s); natively it is read at once.
int threadCount();

// A UDP socket bound to 127.0.0.1 on a kernel-chosen port, closed on
// destruction. Plays the foreign peer or the fake resolver in tests.
class UdpSocket {
public:
    // port 0: the kernel chooses. Check ok() for a port that was taken.
    explicit UdpSocket(int port = 0);
    ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    bool ok() const { return m_fd > 0; }
    int fd() const { return m_fd; }
    int port() const { return m_port; }
    // Sends one datagram to 127.0.0.1:port. Returns the bytes sent or -1.
    int sendTo(int port, const void* data, std::size_t length);
    int sendTo(int port, const std::string& data) { return sendTo(port, data.data(), data.size()); }
    // Receives one datagram, waiting at most timeoutMs. Returns false on
    // time-out. The sender's port goes to *sourcePort when given.
    bool receive(std::string& out, int timeoutMs, int* sourcePort = nullptr);

private:
    int m_fd;
    int m_port;
};

// Sends one datagram from a fresh socket to 127.0.0.1:port.
int sendRawDatagram(int port, const void* data, std::size_t length);

// Names of spool files written by this process that still exist.
std::vector<std::string> spoolFilesOfThisProcess();

// The whole content of a file ("" when it cannot be read).
std::string readFile(const std::string& path);

// Lines of a file, without their newlines.
std::vector<std::string> readLines(const std::string& path);

// "/logs/CommsChannel.log-<pid of this process>".
std::string diagnosticsLogPath();

// A descriptor number that is not open now (the next one the kernel gives).
int nextFreeDescriptor();

// Mounts a fresh tmpfs on /tmp in this process's mount namespace (made
// private first if the process shares the host's), so that a test can use
// /tmp freely; buildDir, when it lies under /tmp, is bound back so that the
// test's programs stay reachable. Returns "" or why it failed.
std::string mountPrivateTmp(const std::string& buildDir);
// Takes the tmpfs of mountPrivateTmp away again.
void unmountPrivateTmp();

// Makes this (child) process the given user with the given group and no
// supplementary groups; numbers in decimal. False when the system refuses.
bool becomeUser(const std::string& uid, const std::string& gid);

// text with each newline turned into '|', so that it fits on one line of a
// child's report.
std::string oneLine(std::string text);

// Raises the soft limit on open descriptors as far as the hard limit allows;
// false when fewer than wanted can be open.
bool allowDescriptors(unsigned long wanted);

// Opens /dev/null until the next descriptor the kernel gives is above
// lowest; returns the descriptors opened, for the caller to close.
std::vector<int> occupyDescriptorsUpTo(int lowest);

}  // namespace cctest

#endif
