#include "CommsChannelMessageCreator.h"

#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "CommsChannelUnregisterLocatorMessage.h"
#include "WireCodec.h"

CommsChannelMessageCreator::CommsChannelMessageCreator() = default;

CommsChannelMessageCreator::~CommsChannelMessageCreator() = default;

CommsChannelMessage* CommsChannelMessageCreator::createForType(int typeCode)
{
    switch (typeCode) {
    case COMMS_MSG_DATA_CONTAINER:
        return new CommsChannelDataContainerMessage();
    case COMMS_MSG_REGISTER_LOCATOR:
        return new CommsChannelRegisterLocatorMessage();
    case COMMS_MSG_UNREGISTER_LOCATOR:
        return new CommsChannelUnregisterLocatorMessage();
    case COMMS_MSG_LOCATOR_UPDATE:
        return new CommsChannelLocatorUpdateMessage();
    case COMMS_MSG_PORT_REQUEST:
        return new CommsChannelPortRequestMessage();
    case COMMS_MSG_PORT_RESPONSE:
        return new CommsChannelPortResponseMessage();
    default:
        return nullptr;
    }
}

CommsChannelMessage* CommsChannelMessageCreator::decodeMessage(const char* buffer)
{
    if (buffer == nullptr) {
        return nullptr;
    }
    return decodeMessage(buffer, wire_header::totalLength(buffer));
}

CommsChannelMessage* CommsChannelMessageCreator::decodeMessage(const char* buffer, unsigned int available)
{
    CommsChannelMessage* message = createForType(wire::peekTypeCode(buffer, available));
    if (message != nullptr && !message->decode(buffer, available)) {
        delete message;
        message = nullptr;
    }
    return message;
}
