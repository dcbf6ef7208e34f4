// Every field of a message as one string, so that two messages can be
// compared whatever their class. Strings are written with their length in
// front, so that no choice of bytes makes two different messages look alike.
#ifndef COMMSCHANNEL_FUZZ_MESSAGE_FIELDS_H
#define COMMSCHANNEL_FUZZ_MESSAGE_FIELDS_H

#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "CommsChannelUnregisterLocatorMessage.h"

#include <sstream>
#include <string>

namespace ccfuzz {

namespace detail {
inline void put(std::ostringstream& out, const std::string& text) { out << text.size() << ':' << text << ';'; }
}  // namespace detail

inline std::string messageFields(CommsChannelMessage& message)
{
    std::ostringstream out;
    out << "type " << message.type() << ';';
    detail::put(out, message.channel());
    if (CommsChannelDataContainerMessage* data = dynamic_cast<CommsChannelDataContainerMessage*>(&message)) {
        detail::put(out, data->sourceChannel());
        detail::put(out, data->callbackChannel());
        detail::put(out, data->protocol());
        detail::put(out, data->interface());
        detail::put(out, data->remoteContext());
        out << data->requestId() << ';' << data->msgType() << ';' << static_cast<int>(data->priority()) << ';';
        detail::put(out, data->getData());
    } else if (CommsChannelRegisterLocatorMessage* reg = dynamic_cast<CommsChannelRegisterLocatorMessage*>(&message)) {
        out << reg->port() << ';';
    } else if (CommsChannelUnregisterLocatorMessage* unreg =
                   dynamic_cast<CommsChannelUnregisterLocatorMessage*>(&message)) {
        out << unreg->port() << ';';
    } else if (CommsChannelPortRequestMessage* request = dynamic_cast<CommsChannelPortRequestMessage*>(&message)) {
        out << request->requestId() << ';';
    } else if (CommsChannelPortResponseMessage* response =
                   dynamic_cast<CommsChannelPortResponseMessage*>(&message)) {
        out << response->requestId() << ';' << response->port() << ';';
    } else if (CommsChannelLocatorUpdateMessage* update =
                   dynamic_cast<CommsChannelLocatorUpdateMessage*>(&message)) {
        out << update->numChannelEntries() << ';';
        for (int index = 0; index < update->numChannelEntries(); ++index) {
            CommsChannelLocatorUpdateMessage::eUpdateType type = CommsChannelLocatorUpdateMessage::CHANNEL_ADDED;
            std::string name;
            int port = 0;
            update->getChannelEntry(index, &type, &name, &port);
            out << static_cast<int>(type) << ',';
            detail::put(out, name);
            out << port << ';';
        }
    } else {
        out << "unknown class;";
    }
    return out.str();
}

}  // namespace ccfuzz

#endif
