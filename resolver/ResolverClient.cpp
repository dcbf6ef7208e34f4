#include "ResolverClient.h"

#include "CommsChannelMessageCreator.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "CommsChannelUnregisterLocatorMessage.h"
#include "LoopbackSocket.h"
#include "ResolverClock.h"
#include "ResolverList.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <vector>

namespace resolver {

namespace {

const std::size_t RECEIVE_BUFFER_BYTES = 65536;


// A socket bound to 127.0.0.1 on a port the kernel chooses, closed when the
// object goes, that speaks to the resolver in whole messages.
class ClientSocket {
public:
    ClientSocket() : m_error(0) { m_socket = LoopbackSocket::open(0, &m_error); }
    ClientSocket(const ClientSocket&) = delete;
    ClientSocket& operator=(const ClientSocket&) = delete;

    bool ok() const { return m_socket.valid(); }
    // errno of the failed open when !ok().
    int error() const { return m_error; }
    int port() const { return m_socket.port(); }

    bool send(int port, CommsChannelMessage& message)
    {
        int length = 0;
        const char* bytes = message.encode(&length);
        return bytes != nullptr && length > 0 &&
               m_socket.sendTo(port, bytes, static_cast<std::size_t>(length)) == length;
    }

    // Waits until deadlineMs for a datagram from fromPort. Returns its
    // length, or -1 at the deadline. Datagrams from other ports are dropped.
    long receiveFrom(int fromPort, long long deadlineMs, std::vector<char>* buffer)
    {
        for (;;) {
            const long long wait = deadlineMs - monotonicMilliseconds();
            if (wait <= 0) {
                return -1;
            }
            pollfd descriptor;
            descriptor.fd = m_socket.fd();
            descriptor.events = POLLIN;
            descriptor.revents = 0;
            if (poll(&descriptor, 1, static_cast<int>(wait)) <= 0) {
                continue;
            }
            sockaddr_in source;
            socklen_t sourceLength = sizeof source;
            const ssize_t received = recvfrom(m_socket.fd(), buffer->data(), buffer->size(), MSG_DONTWAIT,
                                              reinterpret_cast<sockaddr*>(&source), &sourceLength);
            if (received >= 0 && sourceLength >= sizeof source && ntohs(source.sin_port) == fromPort) {
                return static_cast<long>(received);
            }
        }
    }

private:
    int m_error;
    LoopbackSocket m_socket;
};

}  // namespace

bool fetchChannels(int resolverPort, std::map<std::string, int>* channels, std::string* error)
{
    ClientSocket client;
    if (!client.ok()) {
        *error = std::string("cannot open a UDP socket on 127.0.0.1: ") + std::strerror(client.error());
        return false;
    }
    CommsChannelRegisterLocatorMessage registration;
    registration.setPort(client.port());
    client.send(resolverPort, registration);

    std::vector<char> buffer(RECEIVE_BUFFER_BYTES);
    const long long start = monotonicMilliseconds();
    bool answered = false;
    bool resent = false;
    while (!answered) {
        // UDP may lose the registration or its answer; one more try half-way.
        const long long deadline = start + (resent ? LIST_ANSWER_TIMEOUT_MS : LIST_ANSWER_TIMEOUT_MS / 2);
        const long length = client.receiveFrom(resolverPort, deadline, &buffer);
        if (length >= 0) {
            answered = applyUpdate(buffer.data(), static_cast<std::size_t>(length), channels);
        } else if (!resent) {
            client.send(resolverPort, registration);
            resent = true;
        } else {
            *error = "no resolver answered at 127.0.0.1:" + std::to_string(resolverPort) + " within " +
                     std::to_string(LIST_ANSWER_TIMEOUT_MS / 1000) + " s";
            return false;
        }
    }
    // A large table comes in several updates, back to back; a short pause
    // means the answer is complete. On a busy host other locators' changes
    // may keep arriving, so the collection also has an end of its own.
    const long long collectionEnd = monotonicMilliseconds() + LIST_COLLECT_LIMIT_MS;
    for (;;) {
        const long long deadline = std::min(monotonicMilliseconds() + LIST_QUIET_GAP_MS, collectionEnd);
        const long length = client.receiveFrom(resolverPort, deadline, &buffer);
        if (length < 0) {
            break;
        }
        applyUpdate(buffer.data(), static_cast<std::size_t>(length), channels);
    }
    CommsChannelUnregisterLocatorMessage unregistration;
    unregistration.setPort(client.port());
    client.send(resolverPort, unregistration);
    return true;
}

int queryPort(int resolverPort, const std::string& name, int timeoutMs)
{
    ClientSocket client;
    if (!client.ok()) {
        return -1;
    }
    // Any id will do: only this socket gets the answer. One that differs per
    // call keeps a late answer to an earlier call from being taken for ours.
    static std::atomic<long> nextRequestId{1};
    const long requestId = nextRequestId.fetch_add(1);
    CommsChannelPortRequestMessage request;
    request.setRequestId(requestId);
    request.setChannel(name);
    std::vector<char> buffer(RECEIVE_BUFFER_BYTES);
    const long long deadline = monotonicMilliseconds() + timeoutMs;
    long long nextSend = monotonicMilliseconds();
    CommsChannelMessageCreator creator;
    for (;;) {
        // Asked again now and then: a resolver that is just starting has
        // not bound its port yet, and the kernel drops what comes before.
        const long long now = monotonicMilliseconds();
        if (now >= deadline) {
            return -1;
        }
        if (now >= nextSend) {
            client.send(resolverPort, request);
            nextSend = now + WAIT_REGISTRATION_INTERVAL_MS;
        }
        const long length = client.receiveFrom(resolverPort, std::min(deadline, nextSend), &buffer);
        if (length < 0) {
            continue;
        }
        std::unique_ptr<CommsChannelMessage> message(
            creator.decodeMessage(buffer.data(), static_cast<unsigned int>(length)));
        if (!message || message->type() != COMMS_MSG_PORT_RESPONSE) {
            continue;
        }
        CommsChannelPortResponseMessage& response = static_cast<CommsChannelPortResponseMessage&>(*message);
        if (response.requestId() == requestId && response.channel() == name) {
            return response.port();
        }
    }
}

bool waitForName(int resolverPort, const std::string& name, int timeoutMs)
{
    ClientSocket client;
    if (!client.ok()) {
        return false;
    }
    CommsChannelRegisterLocatorMessage registration;
    registration.setPort(client.port());
    std::vector<char> buffer(RECEIVE_BUFFER_BYTES);
    std::map<std::string, int> channels;
    const long long deadline = monotonicMilliseconds() + timeoutMs;
    long long nextRegistration = monotonicMilliseconds();
    bool answered = false;
    bool found = false;
    while (!found) {
        const long long now = monotonicMilliseconds();
        if (!answered && now >= nextRegistration) {
            client.send(resolverPort, registration);
            nextRegistration = now + WAIT_REGISTRATION_INTERVAL_MS;
        }
        if (now >= deadline) {
            break;
        }
        const long long until = answered ? deadline : std::min(deadline, nextRegistration);
        const long length = client.receiveFrom(resolverPort, until, &buffer);
        if (length < 0) {
            continue;
        }
        if (applyUpdate(buffer.data(), static_cast<std::size_t>(length), &channels)) {
            answered = true;
            found = channels.count(name) != 0;
        }
    }
    // Sent also when no answer came: a resolver that started just now may
    // have registered us after all.
    CommsChannelUnregisterLocatorMessage unregistration;
    unregistration.setPort(client.port());
    client.send(resolverPort, unregistration);
    return found;
}

}  // namespace resolver
