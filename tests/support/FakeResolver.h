// A scripted stand-in for the resolver, bound to 127.0.0.1:5000 in the
// test's private network namespace. It answers like the real one (an update
// listing its known names on registration, a port answer to every request)
// from a table the test controls, records everything it receives, and lets
// the test push datagrams of its own to a locator.
//
// Usage:
//   cctest::FakeResolver fakeResolver;
//   ASSERT_TRUE(fakeResolver.ok());
//   fakeResolver.setPort("remote", 40000);
//   CommsChannel sut("local");                      // registers with it
//   ASSERT_TRUE(fakeResolver.waitForLocator());
#ifndef COMMSCHANNEL_FAKE_RESOLVER_H
#define COMMSCHANNEL_FAKE_RESOLVER_H

#include <atomic>
#include <tuple>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace cctest {

class FakeResolver {
public:
    // What the fake received, decoded.
    struct Received {
        int type;               // message type code, -1 when undecodable
        int sourcePort;
        std::string channel;    // channel() of the message
        long requestId;         // port requests
        int port;               // register / unregister
        // Locator update rows: (update type, name, port).
        std::vector<std::tuple<int, std::string, int>> rows;
    };

    // answerRegistration: reply to a locator's registration with an update
    // (as the real resolver does). answerRequests: reply to port requests.
    explicit FakeResolver(bool answerRegistration = true, bool answerRequests = true);
    ~FakeResolver();
    FakeResolver(const FakeResolver&) = delete;
    FakeResolver& operator=(const FakeResolver&) = delete;

    bool ok() const { return m_fd > 0; }
    // The port answered for name (0 when not set).
    void setPort(const std::string& name, int port);
    // Delays (ms) before answering port requests; 0 answers at once.
    void setAnswerDelay(int delayMs) { m_answerDelayMs = delayMs; }
    void setAnswerRequests(bool answer) { m_answerRequests = answer; }

    // Waits until a locator registered; returns its port (0 on time-out).
    int waitForLocator(int timeoutMs = 10000);
    // Everything received so far.
    std::vector<Received> received();
    // Messages of one type received so far.
    std::vector<Received> receivedOfType(int type);
    // Waits until at least count messages of type have arrived.
    bool waitForType(int type, std::size_t count, int timeoutMs = 10000);

    // Sends raw bytes to a port from the fake's own socket (source: the resolver port).
    int sendRaw(int port, const std::string& bytes);
    // Sends a locator update with the given rows to a locator's port.
    int sendUpdate(int locatorPort, const std::vector<std::tuple<int, std::string, int>>& rows);
    // Sends a port answer.
    int sendPortResponse(int locatorPort, const std::string& name, long requestId, int port);

private:
    void run();

    int m_fd;
    std::atomic<bool> m_stop;
    std::atomic<int> m_answerDelayMs;
    std::atomic<bool> m_answerRegistration;
    std::atomic<bool> m_answerRequests;
    std::mutex m_mutex;
    std::map<std::string, int> m_ports;   // guarded by m_mutex
    std::vector<Received> m_received;     // guarded by m_mutex
    std::thread m_thread;
};

}  // namespace cctest

#endif
