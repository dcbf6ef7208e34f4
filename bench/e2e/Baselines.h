// The raw mechanisms that each scenario is compared with, in the same run:
// a locked queue of strings between two threads, plain UDP sockets on
// 127.0.0.1, and a file in /tmp. They do the same copies as the library's
// path would at least have to do, and nothing more.
#ifndef COMMSCHANNEL_BENCH_BASELINES_H
#define COMMSCHANNEL_BENCH_BASELINES_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>

namespace bench {

// StringQueue: std::mutex + std::condition_variable around a deque of
// strings; push copies in, pop copies out. Any number of threads.
class StringQueue {
public:
    void push(const std::string& item);
    // Waits up to timeoutMs for an item. False on time-out.
    bool pop(std::string& out, int timeoutMs);
    std::size_t size();

private:
    std::mutex m_mutex;
    std::condition_variable m_nonEmpty;
    std::deque<std::string> m_items;  // guarded by m_mutex
};

// A UDP socket bound to 127.0.0.1 on a port the kernel picks, close-on-exec.
// bufferSize > 0 sets SO_RCVBUF and SO_SNDBUF as the library does for its
// channel sockets. -1 on failure (after perror).
int openUdpSocket(int bufferSize);
// The port a socket is bound to, in host order; 0 on failure.
int udpPort(int fd);
// The value of a SOL_SOCKET option (SO_RCVBUF, SO_SNDBUF) of fd, as the
// kernel reports it (twice the size that was set). -1 on failure.
int socketOption(int fd, int option);
// The same for the UDP socket of this process that is bound to port on
// 127.0.0.1, found among its open descriptors. -1 when there is none.
int socketOptionOfPort(int port, int option);
// Sends one datagram to 127.0.0.1:port. True when all bytes went out.
bool udpSend(int fd, int port, const char* data, std::size_t length);
// Receives one datagram, waiting up to timeoutMs (-1: no limit). Returns
// its length, or -1 on time-out or error. sourcePort (may be null) gets the
// sender's port.
long udpReceive(int fd, char* buffer, std::size_t capacity, int timeoutMs, int* sourcePort);

// Writes data to a new file under /tmp and reads it back into out (which
// is resized to fit). The file is removed. False on any failure.
bool fileWriteRead(const std::string& path, const std::string& data, std::string& out);

}  // namespace bench

#endif
