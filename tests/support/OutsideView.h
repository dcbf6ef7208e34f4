// Tools for tests that watch the library only from the outside, through its
// public headers: data encodings built with the message classes, bursts of
// raw datagrams sent in one system call, a look at what still waits on a
// socket without reading it, calls made on a thread with a deadline, and
// scenarios run in a child process that reports its findings line by line
// (so that a call that never returns costs the child, never the test
// program). Header only.
//
// Usage (parent side):
//   cctest::expectChildPasses("myScenario", {}, 30000);
// Usage (child side):
//   CC_CHILD_MAIN(myScenario) {
//       cctest::ChildChecks checks;
//       checks.expect(value == 1, "value is " + std::to_string(value));
//       return checks.finish();            // never returns
//   }
#ifndef COMMSCHANNEL_OUTSIDE_VIEW_H
#define COMMSCHANNEL_OUTSIDE_VIEW_H

#include "ChildProcess.h"
#include "CommsChannelDataContainerMessage.h"
#include "TestUtil.h"

#include <poll.h>
#include <sys/socket.h>
#include <netinet/in.h>
#include <arpa/inet.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace cctest {

// The encoding of a data message as another process would send it.
inline std::string encodeData(const std::string& destination, const std::string& data, long requestId = 0,
                              int msgType = 0)
{
    CommsChannelDataContainerMessage message;
    message.setChannel(destination);
    message.setSourceChannel("outside-peer");
    message.setRequestId(requestId);
    message.setMsgType(msgType);
    message.setData(data.data(), static_cast<int>(data.size()));
    int length = 0;
    const char* encoding = message.encode(&length);
    return encoding != nullptr ? std::string(encoding, static_cast<std::size_t>(length)) : std::string();
}

// The first datagram of an encoding that announces totalLength bytes but
// carries only its own: the receiver must wait for further datagrams.
inline std::string firstPieceOfLongEncoding(std::uint32_t totalLength, std::size_t pieceLength = 64)
{
    std::string piece(pieceLength, 'p');
    const unsigned char magic[4] = {0xCC, 0x5E, 1, 1};
    std::memcpy(&piece[0], magic, sizeof magic);
    std::memcpy(&piece[4], &totalLength, sizeof totalLength);
    return piece;
}

// A data encoding cut in two datagrams, the first firstLength bytes long,
// as a sender in another process splits a long encoding.
inline std::pair<std::string, std::string> splitEncoding(const std::string& destination, const std::string& data,
                                                         std::size_t firstLength)
{
    const std::string whole = encodeData(destination, data);
    return std::make_pair(whole.substr(0, firstLength), whole.substr(firstLength));
}

// Sends every datagram to 127.0.0.1:port from fd in one sendmmsg call, so
// that they are all waiting before a reader can wake. Returns how many went.
inline int sendBurst(int fd, int port, const std::vector<std::string>& datagrams)
{
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    std::vector<iovec> vectors(datagrams.size());
    std::vector<mmsghdr> headers(datagrams.size());
    for (std::size_t i = 0; i < datagrams.size(); ++i) {
        vectors[i].iov_base = const_cast<char*>(datagrams[i].data());
        vectors[i].iov_len = datagrams[i].size();
        std::memset(&headers[i], 0, sizeof headers[i]);
        headers[i].msg_hdr.msg_name = &address;
        headers[i].msg_hdr.msg_namelen = sizeof address;
        headers[i].msg_hdr.msg_iov = &vectors[i];
        headers[i].msg_hdr.msg_iovlen = 1;
    }
    int sent = 0;
    while (sent < static_cast<int>(datagrams.size())) {
        const int count = sendmmsg(fd, headers.data() + sent, static_cast<unsigned int>(datagrams.size()) - sent, 0);
        if (count <= 0) {
            break;
        }
        sent += count;
    }
    return sent;
}

// Whether a datagram waits on fd right now; nothing is read.
inline bool datagramWaiting(int fd)
{
    pollfd watched;
    watched.fd = fd;
    watched.events = POLLIN;
    watched.revents = 0;
    return poll(&watched, 1, 0) > 0 && (watched.revents & POLLIN) != 0;
}

// Reads the next datagram waiting on fd without blocking. False when none.
inline bool takeWaitingDatagram(int fd, std::string& out)
{
    std::vector<char> buffer(70000);
    const ssize_t length = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (length < 0) {
        return false;
    }
    out.assign(buffer.data(), static_cast<std::size_t>(length));
    return true;
}

// The data carried by a data encoding, or "(undecodable)".
inline std::string dataOfEncoding(const std::string& encoding)
{
    if (encoding.size() < 8) {
        return "(undecodable)";
    }
    CommsChannelDataContainerMessage message;
    if (message.decode(encoding.data(), static_cast<unsigned int>(encoding.size())) != 1) {
        return "(undecodable)";
    }
    return message.getData();
}

// Keeps the process's receiver thread busy joining a long encoding on
// channelPort (whose socket is channelFd) until release(): whatever is sent
// to other channels meanwhile is all waiting when the thread looks next, so
// it is read as one burst.
class ReceiverHold {
public:
    ReceiverHold(UdpSocket& peer, int channelPort, int channelFd)
        : m_peer(peer), m_port(channelPort), m_pieces(splitEncoding("", std::string(400, 'h'), 64)), m_held(false)
    {
        m_held = m_peer.sendTo(m_port, m_pieces.first) > 0 &&
                 waitUntil([channelFd] { return !datagramWaiting(channelFd); }, 5000);
        usleep(50 * 1000);
    }
    ~ReceiverHold() { release(); }
    ReceiverHold(const ReceiverHold&) = delete;
    ReceiverHold& operator=(const ReceiverHold&) = delete;

    // Whether the thread took the first piece in.
    bool held() const { return m_held; }
    // Sends the rest of the encoding, which ends the join.
    void release()
    {
        if (!m_pieces.second.empty()) {
            m_peer.sendTo(m_port, m_pieces.second);
            m_pieces.second.clear();
        }
    }

private:
    UdpSocket& m_peer;
    const int m_port;
    std::pair<std::string, std::string> m_pieces;
    bool m_held;
};

// A call run on a thread of its own. If it has not returned by the time the
// object goes, the thread is left behind (detached): only a child process
// that is about to _exit may let that happen.
class TimedCall {
public:
    explicit TimedCall(std::function<int()> call) : m_state(std::make_shared<State>())
    {
        std::shared_ptr<State> state = m_state;
        m_thread = std::thread([state, call] {
            try {
                state->result = call();
            } catch (const std::exception& e) {
                state->threw = true;
                state->what = e.what();
            } catch (...) {
                state->threw = true;
                state->what = "(unknown exception)";
            }
            state->done = true;
        });
    }
    ~TimedCall()
    {
        if (m_state->done) {
            m_thread.join();
        } else {
            m_thread.detach();
        }
    }
    TimedCall(const TimedCall&) = delete;
    TimedCall& operator=(const TimedCall&) = delete;

    bool finishedWithin(int timeoutMs) { return waitUntil([this] { return m_state->done.load(); }, timeoutMs); }
    bool done() const { return m_state->done; }
    int result() const { return m_state->result; }
    bool threw() const { return m_state->threw; }
    const std::string& what() const { return m_state->what; }

private:
    struct State {
        std::atomic<bool> done{false};
        std::atomic<int> result{-1};
        std::atomic<bool> threw{false};
        std::string what;
    };
    std::shared_ptr<State> m_state;
    std::thread m_thread;
};

// The child side of a scenario: each failed expectation becomes a line
// "FAIL <text>"; finish() says "DONE" and ends the process at once, without
// running destructors that could wait for threads still blocked.
class ChildChecks {
public:
    ChildChecks() : m_failed(false) {}
    bool expect(bool condition, const std::string& text)
    {
        if (!condition) {
            m_failed = true;
            childSay("FAIL " + oneLine(text));
        }
        return condition;
    }
    void note(const std::string& text) { childSay("NOTE " + oneLine(text)); }
    [[noreturn]] int finish()
    {
        childSay("DONE");
        std::fflush(stdout);
        std::fflush(stderr);
        _exit(m_failed ? CHILD_FAILED : CHILD_OK);
    }

private:
    bool m_failed;
};

// Runs the child scenario registered under name and turns each "FAIL" line
// of its report into a test failure. A child that neither finishes nor
// reports within timeoutMs fails the test and is killed.
// A scenario child may end with threads of its own still blocked, on
// purpose: it reports and leaves. ThreadSanitizer is told not to count
// those as leaks (the library's own threads are joined, and are checked
// in the test programs themselves).
inline void allowChildThreadsLeftBehind()
{
    const char* current = std::getenv("TSAN_OPTIONS");
    std::string options = current != nullptr ? current : "";
    if (options.find("report_thread_leaks") == std::string::npos) {
        options += options.empty() ? "report_thread_leaks=0" : ":report_thread_leaks=0";
        setenv("TSAN_OPTIONS", options.c_str(), 1);
    }
}

inline void expectChildPasses(const std::string& name, const std::vector<std::string>& args, int timeoutMs)
{
    allowChildThreadsLeftBehind();
    ChildProcess child(name, args);
    const long long deadline = nowMs() + timeoutMs;
    bool finished = false;
    std::string line;
    for (;;) {
        const long long left = deadline - nowMs();
        if (left <= 0 || !child.readLine(line, static_cast<int>(left))) {
            break;
        }
        if (line.compare(0, 5, "FAIL ") == 0) {
            ADD_FAILURE() << name << ": " << line.substr(5);
        } else if (line.compare(0, 5, "NOTE ") == 0) {
            std::printf("[ %s ] %s\n", name.c_str(), line.substr(5).c_str());
        } else if (line == "DONE") {
            finished = true;
            break;
        }
    }
    EXPECT_TRUE(finished) << name << ": the scenario did not finish within " << timeoutMs << " ms";
    const int code = child.wait(finished ? 10000 : 100);
    if (finished) {
        EXPECT_TRUE(code == CHILD_OK || code == CHILD_FAILED) << name << ": child ended with " << code;
    }
}

}  // namespace cctest

#endif
