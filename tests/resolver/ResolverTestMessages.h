// Building and reading the resolver's datagrams in tests: the encodings a
// locator sends, and the rows or answers that come back.
#ifndef COMMSCHANNEL_RESOLVER_TEST_MESSAGES_H
#define COMMSCHANNEL_RESOLVER_TEST_MESSAGES_H

#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelMessageCreator.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "CommsChannelUnregisterLocatorMessage.h"

#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace resolvertest {

// (update type, name, port), comparable in assertions.
typedef std::tuple<int, std::string, int> Row;

inline std::string encoded(CommsChannelMessage& message)
{
    int length = 0;
    const char* bytes = message.encode(&length);
    return bytes != nullptr ? std::string(bytes, static_cast<std::size_t>(length)) : std::string();
}

inline std::string registerLocator(int port)
{
    CommsChannelRegisterLocatorMessage message;
    message.setPort(port);
    return encoded(message);
}

inline std::string unregisterLocator(int port)
{
    CommsChannelUnregisterLocatorMessage message;
    message.setPort(port);
    return encoded(message);
}

inline std::string update(const std::vector<Row>& rows)
{
    CommsChannelLocatorUpdateMessage message;
    for (const Row& row : rows) {
        message.addChannelEntry(static_cast<CommsChannelLocatorUpdateMessage::eUpdateType>(std::get<0>(row)),
                                std::get<1>(row), std::get<2>(row));
    }
    return encoded(message);
}

inline std::string added(const std::string& name, int port) { return update({Row(0, name, port)}); }
inline std::string removed(const std::string& name, int port) { return update({Row(1, name, port)}); }

inline std::string portRequest(const std::string& name, long requestId)
{
    CommsChannelPortRequestMessage message;
    message.setChannel(name);
    message.setRequestId(requestId);
    return encoded(message);
}

// The rows of a locator update; false when the bytes are not exactly one.
inline bool decodeUpdate(const std::string& bytes, std::vector<Row>* rows)
{
    CommsChannelMessageCreator creator;
    std::unique_ptr<CommsChannelMessage> message(
        creator.decodeMessage(bytes.data(), static_cast<unsigned int>(bytes.size())));
    if (!message || message->type() != COMMS_MSG_LOCATOR_UPDATE) {
        return false;
    }
    const CommsChannelLocatorUpdateMessage& update = static_cast<CommsChannelLocatorUpdateMessage&>(*message);
    rows->clear();
    for (int index = 0; index < update.numChannelEntries(); ++index) {
        CommsChannelLocatorUpdateMessage::eUpdateType type = CommsChannelLocatorUpdateMessage::CHANNEL_ADDED;
        std::string name;
        int port = 0;
        update.getChannelEntry(index, &type, &name, &port);
        rows->push_back(Row(static_cast<int>(type), name, port));
    }
    return true;
}

struct PortAnswer {
    std::string name;
    long requestId;
    int port;
};

// A port response; false when the bytes are not exactly one.
inline bool decodePortAnswer(const std::string& bytes, PortAnswer* answer)
{
    CommsChannelMessageCreator creator;
    std::unique_ptr<CommsChannelMessage> message(
        creator.decodeMessage(bytes.data(), static_cast<unsigned int>(bytes.size())));
    if (!message || message->type() != COMMS_MSG_PORT_RESPONSE) {
        return false;
    }
    CommsChannelPortResponseMessage& response = static_cast<CommsChannelPortResponseMessage&>(*message);
    answer->name = response.channel();
    answer->requestId = response.requestId();
    answer->port = response.port();
    return true;
}

}  // namespace resolvertest

#endif
