// Helpers around the library; see LibSupport.h.
#include "LibSupport.h"

#include "Baselines.h"
#include "Timing.h"

#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelMessageCreator.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "CommsException.h"

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <vector>

namespace bench {

namespace {

const std::uint64_t SEQUENCE_MARKER = 0x42454e43484d5347ULL;
const int RESOLVER_PORT = 5000;

}  // namespace

std::string uniqueName(const std::string& tag)
{
    static std::atomic<int> counter{0};
    return "bench-" + tag + "-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
}

int resolverPortOf(const std::string& name, int timeoutMs)
{
    const int fd = openUdpSocket(0);
    if (fd < 0) {
        return -1;
    }
    CommsChannelPortRequestMessage request;
    request.setChannel(name);
    request.setRequestId(1);
    int length = 0;
    const char* encoding = request.encode(&length);
    int port = -1;
    if (encoding != nullptr && udpSend(fd, RESOLVER_PORT, encoding, static_cast<std::size_t>(length))) {
        const std::int64_t deadline = nowNs() + static_cast<std::int64_t>(timeoutMs) * 1000000;
        std::vector<char> buffer(65536);
        while (port < 0) {
            const int left = static_cast<int>((deadline - nowNs()) / 1000000);
            if (left <= 0) {
                break;
            }
            const long n = udpReceive(fd, buffer.data(), buffer.size(), left, nullptr);
            if (n < 8) {
                continue;
            }
            CommsChannelMessageCreator creator;
            std::unique_ptr<CommsChannelMessage> answer(
                creator.decodeMessage(buffer.data(), static_cast<unsigned int>(n)));
            CommsChannelPortResponseMessage* response =
                dynamic_cast<CommsChannelPortResponseMessage*>(answer.get());
            if (response != nullptr && response->channel() == name) {
                port = response->port();
            }
        }
    }
    close(fd);
    return port;
}

int channelSocketOption(const std::string& name, int option)
{
    const int port = resolverPortOf(name, 2000);
    return port > 0 ? socketOptionOfPort(port, option) : -1;
}

bool waitUntilResolverKnows(const std::string& name, int timeoutMs)
{
    const std::int64_t deadline = nowNs() + static_cast<std::int64_t>(timeoutMs) * 1000000;
    while (nowNs() < deadline) {
        if (resolverPortOf(name, 500) > 0) {
            return true;
        }
        usleep(5000);
    }
    return false;
}

bool receiveWithin(CommsChannel& channel, CommsChannelDataContainerMessage& message, long requestId,
                   int timeoutMs)
{
    try {
        return channel.receiveMsg_ByID_Timed(message, requestId, timeoutMs) == 1;
    } catch (const CommsException&) {
        return false;
    }
}

std::string patterned(std::size_t size, std::uint64_t seed)
{
    std::string data(size, '\0');
    std::uint64_t state = seed * 0x9e3779b97f4a7c15ULL + 1;
    for (std::size_t i = 0; i < size; ++i) {
        if (i % 8 == 0) {
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
        }
        data[i] = static_cast<char>(state >> ((i % 8) * 8));
    }
    return data;
}

void writeSequenced(char* buffer, std::size_t length, std::uint64_t sequence)
{
    std::memcpy(buffer, &sequence, 8);
    std::memcpy(buffer + 8, &SEQUENCE_MARKER, 8);
    for (std::size_t i = 16; i < length; ++i) {
        buffer[i] = static_cast<char>(sequence + i);
    }
}

bool readSequenced(const char* buffer, std::size_t length, std::uint64_t& sequence)
{
    if (length < 16) {
        return false;
    }
    std::uint64_t marker = 0;
    std::memcpy(&sequence, buffer, 8);
    std::memcpy(&marker, buffer + 8, 8);
    if (marker != SEQUENCE_MARKER) {
        return false;
    }
    for (std::size_t i = 16; i < length; ++i) {
        if (buffer[i] != static_cast<char>(sequence + i)) {
            return false;
        }
    }
    return true;
}

}  // namespace bench
