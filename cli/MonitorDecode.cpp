#include "MonitorDecode.h"

#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelMessage.h"
#include "CommsChannelMessageCreator.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "CommsChannelUnregisterLocatorMessage.h"
#include "DataContainerFields.h"
#include "WireCodec.h"

#include <memory>

namespace cli {

namespace {

void undecodable(const char* bytes, std::size_t length, const std::string& reason, MonitorEvent* event)
{
    event->kind = "undecodable";
    event->reason = reason;
    event->hasLength = true;
    event->length = length;
    event->hasData = true;
    event->data.assign(bytes, length);
}

void fromDataContainer(const DataContainerFields& fields, MonitorEvent* event)
{
    event->kind = fields.inFile ? "spool" : "data";
    event->hasSource = event->hasChannel = event->hasCallbackAndType = true;
    event->source = fields.sourceChannel;
    event->channel = fields.channel;
    event->callback = fields.callbackChannel;
    event->type = fields.msgType;
    event->hasRequestId = true;
    event->requestId = fields.requestId;
    event->hasLength = true;
    event->length = fields.inFile ? fields.fileLength : fields.data.size();
    if (fields.inFile) {
        event->spoolPath = dataContainerSpoolPath(fields);
    } else {
        event->hasData = true;
        event->data = fields.data;
    }
}

void fromUpdate(const CommsChannelLocatorUpdateMessage& update, MonitorEvent* event)
{
    event->kind = "update";
    event->hasRows = true;
    for (int index = 0; index < update.numChannelEntries(); ++index) {
        CommsChannelLocatorUpdateMessage::eUpdateType change = CommsChannelLocatorUpdateMessage::CHANNEL_ADDED;
        MonitorRow row{true, std::string(), 0};
        update.getChannelEntry(index, &change, &row.name, &row.port);
        row.added = change == CommsChannelLocatorUpdateMessage::CHANNEL_ADDED;
        event->rows.push_back(row);
    }
}

// The resolver's messages: everything but data containers.
void fromResolverMessage(CommsChannelMessage& message, MonitorEvent* event)
{
    switch (message.type()) {
    case COMMS_MSG_REGISTER_LOCATOR:
        event->kind = "register";
        event->hasPort = true;
        event->port = static_cast<CommsChannelRegisterLocatorMessage&>(message).port();
        break;
    case COMMS_MSG_UNREGISTER_LOCATOR:
        event->kind = "unregister";
        event->hasPort = true;
        event->port = static_cast<CommsChannelUnregisterLocatorMessage&>(message).port();
        break;
    case COMMS_MSG_PORT_REQUEST:
        event->kind = "port_request";
        event->hasName = event->hasRequestId = true;
        event->name = message.channel();
        event->requestId = static_cast<CommsChannelPortRequestMessage&>(message).requestId();
        break;
    case COMMS_MSG_PORT_RESPONSE: {
        const CommsChannelPortResponseMessage& response = static_cast<CommsChannelPortResponseMessage&>(message);
        event->kind = "port_response";
        event->hasName = event->hasRequestId = event->hasPort = true;
        event->name = message.channel();
        event->requestId = response.requestId();
        event->port = response.port();
        break;
    }
    default:
        fromUpdate(static_cast<CommsChannelLocatorUpdateMessage&>(message), event);
    }
}

}  // namespace

bool isStatusDatagram(std::size_t length, int sourcePort, int destinationPort)
{
    return length == STATUS_DATAGRAM_BYTES && sourcePort == destinationPort;
}

std::string unframeableReason(const char* bytes, std::size_t length)
{
    if (length < wire::HEADER_SIZE) {
        return std::to_string(length) + " bytes, shorter than the 8-byte header: ends the receiving of its receiver";
    }
    const std::uint32_t total = wire_header::totalLength(bytes);
    if (total < wire::HEADER_SIZE) {
        return "header total length " + std::to_string(total) + " below 8: ends the receiving of its receiver";
    }
    return std::string();
}

void decodeDatagram(const char* bytes, std::size_t length, MonitorEvent* event)
{
    const std::string unframeable = unframeableReason(bytes, length);
    if (!unframeable.empty()) {
        undecodable(bytes, length, unframeable, event);
        return;
    }
    const std::uint32_t total = wire_header::totalLength(bytes);
    if (total > length) {
        undecodable(bytes, length, "header total length " + std::to_string(total) + " above the " +
                                       std::to_string(length) + " bytes of the datagram", event);
        return;
    }
    const int typeCode = wire::peekTypeCode(bytes, total);
    DataContainerFields fields;
    if (typeCode == COMMS_MSG_DATA_CONTAINER && peekDataContainer(bytes, total, &fields)) {
        fromDataContainer(fields, event);
        return;
    }
    CommsChannelMessageCreator creator;
    const std::unique_ptr<CommsChannelMessage> message(
        typeCode == COMMS_MSG_DATA_CONTAINER ? nullptr : creator.decodeMessage(bytes, total));
    if (message) {
        fromResolverMessage(*message, event);
        return;
    }
    undecodable(bytes, length,
                typeCode < 0 ? std::string("no message encoding (wrong magic)")
                             : "malformed encoding of type code " + std::to_string(typeCode), event);
}

}  // namespace cli
