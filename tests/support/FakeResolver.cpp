#include "FakeResolver.h"

#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelMessage.h"
#include "CommsChannelMessageCreator.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "CommsChannelUnregisterLocatorMessage.h"
#include "ResolverPort.h"
#include "TestUtil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>

namespace cctest {
namespace {

int sendEncoded(int fd, int port, CommsChannelMessage& message)
{
    int length = 0;
    const char* encoding = message.encode(&length);
    if (encoding == nullptr) {
        return -1;
    }
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return static_cast<int>(sendto(fd, encoding, static_cast<std::size_t>(length), 0,
                                   reinterpret_cast<sockaddr*>(&address), sizeof address));
}

}  // namespace

FakeResolver::FakeResolver(bool answerRegistration, bool answerRequests)
    : m_fd(-1), m_stop(false), m_answerDelayMs(0), m_answerRegistration(answerRegistration),
      m_answerRequests(answerRequests)
{
    m_fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(COMMSCHANNEL_RESOLVER_PORT));
    if (m_fd < 0 || bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        if (m_fd >= 0) {
            close(m_fd);
        }
        m_fd = -1;
        return;
    }
    // Tests that churn channels from many threads send the fake thousands of
    // rows within moments. A datagram dropped on a full buffer would leave a
    // locator without its first update, or a port requester waiting for
    // ever, so the buffer is made large enough to hold such a burst.
    const int RECEIVE_BUFFER = 8 * 1024 * 1024;
    if (setsockopt(m_fd, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER) != 0) {
        setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER);
    }
    m_thread = std::thread([this] { run(); });
}

FakeResolver::~FakeResolver()
{
    m_stop = true;
    if (m_thread.joinable()) {
        m_thread.join();
    }
    if (m_fd >= 0) {
        close(m_fd);
    }
}

void FakeResolver::setPort(const std::string& name, int port)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_ports[name] = port;
}

void FakeResolver::run()
{
    CommsChannelMessageCreator creator;
    std::vector<char> buffer(70000);
    while (!m_stop) {
        pollfd watched;
        watched.fd = m_fd;
        watched.events = POLLIN;
        watched.revents = 0;
        if (poll(&watched, 1, 20) <= 0) {
            continue;
        }
        sockaddr_in source;
        socklen_t sourceLength = sizeof source;
        const ssize_t n = recvfrom(m_fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&source),
                                   &sourceLength);
        if (n < 0) {
            continue;
        }
        const int sourcePort = ntohs(source.sin_port);
        std::unique_ptr<CommsChannelMessage> message(
            creator.decodeMessage(buffer.data(), static_cast<unsigned int>(n)));
        Received record{-1, sourcePort, "", 0, 0, {}};
        if (message) {
            record.type = message->type();
            record.channel = message->channel();
        }
        if (record.type == COMMS_MSG_PORT_REQUEST) {
            record.requestId = static_cast<CommsChannelPortRequestMessage*>(message.get())->requestId();
        } else if (record.type == COMMS_MSG_REGISTER_LOCATOR) {
            record.port = static_cast<CommsChannelRegisterLocatorMessage*>(message.get())->port();
        } else if (record.type == COMMS_MSG_UNREGISTER_LOCATOR) {
            record.port = static_cast<CommsChannelUnregisterLocatorMessage*>(message.get())->port();
        } else if (record.type == COMMS_MSG_LOCATOR_UPDATE) {
            CommsChannelLocatorUpdateMessage* update = static_cast<CommsChannelLocatorUpdateMessage*>(message.get());
            for (int i = 0; i < update->numChannelEntries(); ++i) {
                CommsChannelLocatorUpdateMessage::eUpdateType type;
                std::string name;
                int port = 0;
                update->getChannelEntry(i, &type, &name, &port);
                record.rows.push_back(std::make_tuple(static_cast<int>(type), name, port));
            }
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_received.push_back(record);
        }
        if (record.type == COMMS_MSG_REGISTER_LOCATOR && m_answerRegistration) {
            std::vector<std::tuple<int, std::string, int>> rows;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                for (const auto& known : m_ports) {
                    rows.push_back(std::make_tuple(0, known.first, known.second));
                }
            }
            sendUpdate(sourcePort, rows);
        } else if (record.type == COMMS_MSG_PORT_REQUEST && m_answerRequests) {
            if (m_answerDelayMs > 0) {
                usleep(static_cast<useconds_t>(m_answerDelayMs) * 1000);
            }
            int port = 0;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                std::map<std::string, int>::iterator it = m_ports.find(record.channel);
                port = it != m_ports.end() ? it->second : 0;
            }
            sendPortResponse(sourcePort, record.channel, record.requestId, port);
        }
    }
}

int FakeResolver::waitForLocator(int timeoutMs)
{
    int port = 0;
    waitUntil([&] {
        std::vector<Received> registrations = receivedOfType(COMMS_MSG_REGISTER_LOCATOR);
        if (!registrations.empty()) {
            port = registrations.back().sourcePort;
        }
        return port != 0;
    }, timeoutMs);
    return port;
}

std::vector<FakeResolver::Received> FakeResolver::received()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received;
}

std::vector<FakeResolver::Received> FakeResolver::receivedOfType(int type)
{
    std::vector<Received> matching;
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const Received& record : m_received) {
        if (record.type == type) {
            matching.push_back(record);
        }
    }
    return matching;
}

bool FakeResolver::waitForType(int type, std::size_t count, int timeoutMs)
{
    return waitUntil([&] { return receivedOfType(type).size() >= count; }, timeoutMs);
}

int FakeResolver::sendRaw(int port, const std::string& bytes)
{
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return static_cast<int>(
        sendto(m_fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&address), sizeof address));
}

int FakeResolver::sendUpdate(int locatorPort, const std::vector<std::tuple<int, std::string, int>>& rows)
{
    CommsChannelLocatorUpdateMessage update;
    for (const auto& row : rows) {
        update.addChannelEntry(static_cast<CommsChannelLocatorUpdateMessage::eUpdateType>(std::get<0>(row)),
                               std::get<1>(row), std::get<2>(row));
    }
    return sendEncoded(m_fd, locatorPort, update);
}

int FakeResolver::sendPortResponse(int locatorPort, const std::string& name, long requestId, int port)
{
    CommsChannelPortResponseMessage response;
    response.setChannel(name);
    response.setRequestId(requestId);
    response.setPort(port);
    return sendEncoded(m_fd, locatorPort, response);
}

}  // namespace cctest
