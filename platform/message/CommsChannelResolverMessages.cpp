// The messages exchanged between a process's locator and the resolver.
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "CommsChannelUnregisterLocatorMessage.h"
#include "WireCodec.h"

namespace {

// Smallest encoded row: update type, empty name, port.
const std::size_t MIN_ROW_SIZE = 4 + 4 + 4;

// The body after the channel name of register locator, unregister locator,
// port request and port response: a request id (i64) when the message has
// one, then a port (i32) when it has one. Each message names its own
// members here; a null pointer stands for a field it does not have.
struct ResolverFields {
    long* requestId;
    int* port;
};

void encodeFields(wire::Writer& writer, const ResolverFields& fields)
{
    if (fields.requestId != nullptr) {
        writer.putI64(static_cast<std::int64_t>(*fields.requestId));
    }
    if (fields.port != nullptr) {
        writer.putI32(*fields.port);
    }
}

// Stores the fields only when all of them are there, nothing follows them,
// and the request id fits this host's long (a wider one was not made here).
bool decodeFields(wire::Reader& reader, const ResolverFields& fields)
{
    const std::int64_t requestId = fields.requestId != nullptr ? reader.getI64() : 0;
    const std::int32_t port = fields.port != nullptr ? reader.getI32() : 0;
    if (!reader.complete() || static_cast<std::int64_t>(static_cast<long>(requestId)) != requestId) {
        return false;
    }
    if (fields.requestId != nullptr) {
        *fields.requestId = static_cast<long>(requestId);
    }
    if (fields.port != nullptr) {
        *fields.port = port;
    }
    return true;
}

}  // namespace

CommsChannelRegisterLocatorMessage::CommsChannelRegisterLocatorMessage()
    : CommsChannelMessage(COMMS_MSG_REGISTER_LOCATOR), m_port(0) {}
CommsChannelRegisterLocatorMessage::~CommsChannelRegisterLocatorMessage() = default;
void CommsChannelRegisterLocatorMessage::setPort(int port) { m_port = port; }
int CommsChannelRegisterLocatorMessage::port() const { return m_port; }
void CommsChannelRegisterLocatorMessage::encodeBody(wire::Writer& writer)
{
    encodeFields(writer, ResolverFields{nullptr, &m_port});
}
bool CommsChannelRegisterLocatorMessage::decodeBody(wire::Reader& reader)
{
    return decodeFields(reader, ResolverFields{nullptr, &m_port});
}

CommsChannelUnregisterLocatorMessage::CommsChannelUnregisterLocatorMessage()
    : CommsChannelMessage(COMMS_MSG_UNREGISTER_LOCATOR), m_port(0) {}
CommsChannelUnregisterLocatorMessage::~CommsChannelUnregisterLocatorMessage() = default;
void CommsChannelUnregisterLocatorMessage::setPort(int port) { m_port = port; }
int CommsChannelUnregisterLocatorMessage::port() const { return m_port; }
void CommsChannelUnregisterLocatorMessage::encodeBody(wire::Writer& writer)
{
    encodeFields(writer, ResolverFields{nullptr, &m_port});
}
bool CommsChannelUnregisterLocatorMessage::decodeBody(wire::Reader& reader)
{
    return decodeFields(reader, ResolverFields{nullptr, &m_port});
}

CommsChannelPortRequestMessage::CommsChannelPortRequestMessage()
    : CommsChannelMessage(COMMS_MSG_PORT_REQUEST), m_requestId(0) {}
CommsChannelPortRequestMessage::~CommsChannelPortRequestMessage() = default;
void CommsChannelPortRequestMessage::setRequestId(long requestId) { m_requestId = requestId; }
long CommsChannelPortRequestMessage::requestId() const { return m_requestId; }
void CommsChannelPortRequestMessage::encodeBody(wire::Writer& writer)
{
    encodeFields(writer, ResolverFields{&m_requestId, nullptr});
}
bool CommsChannelPortRequestMessage::decodeBody(wire::Reader& reader)
{
    return decodeFields(reader, ResolverFields{&m_requestId, nullptr});
}

CommsChannelPortResponseMessage::CommsChannelPortResponseMessage()
    : CommsChannelMessage(COMMS_MSG_PORT_RESPONSE), m_requestId(0), m_port(0) {}
CommsChannelPortResponseMessage::~CommsChannelPortResponseMessage() = default;
void CommsChannelPortResponseMessage::setRequestId(long requestId) { m_requestId = requestId; }
long CommsChannelPortResponseMessage::requestId() const { return m_requestId; }
void CommsChannelPortResponseMessage::setPort(int port) { m_port = port; }
int CommsChannelPortResponseMessage::port() const { return m_port; }
void CommsChannelPortResponseMessage::encodeBody(wire::Writer& writer)
{
    encodeFields(writer, ResolverFields{&m_requestId, &m_port});
}
bool CommsChannelPortResponseMessage::decodeBody(wire::Reader& reader)
{
    return decodeFields(reader, ResolverFields{&m_requestId, &m_port});
}

CommsChannelLocatorUpdateMessage::CommsChannelLocatorUpdateMessage()
    : CommsChannelMessage(COMMS_MSG_LOCATOR_UPDATE) {}
CommsChannelLocatorUpdateMessage::~CommsChannelLocatorUpdateMessage() = default;

void CommsChannelLocatorUpdateMessage::addChannelEntry(eUpdateType updateType,
                                                       const std::string& channelName, int port)
{
    m_entries.push_back(Entry{updateType, channelName, port});
}

int CommsChannelLocatorUpdateMessage::numChannelEntries() const
{
    return static_cast<int>(m_entries.size());
}

int CommsChannelLocatorUpdateMessage::getChannelEntry(int index, eUpdateType* updateType,
                                                      std::string* channelName, int* port) const
{
    if (index < 0 || static_cast<std::size_t>(index) >= m_entries.size()) {
        return 0;
    }
    const Entry& entry = m_entries[static_cast<std::size_t>(index)];
    if (updateType != nullptr) {
        *updateType = entry.updateType;
    }
    if (channelName != nullptr) {
        *channelName = entry.channelName;
    }
    if (port != nullptr) {
        *port = entry.port;
    }
    return 1;
}

void CommsChannelLocatorUpdateMessage::encodeBody(wire::Writer& writer)
{
    writer.putU32(static_cast<std::uint32_t>(m_entries.size()));
    for (const Entry& entry : m_entries) {
        writer.putI32(static_cast<std::int32_t>(entry.updateType));
        writer.putString(entry.channelName);
        writer.putI32(entry.port);
    }
}

bool CommsChannelLocatorUpdateMessage::decodeBody(wire::Reader& reader)
{
    const std::uint32_t count = reader.getU32();
    // A count that the remaining bytes cannot hold is a lie: refuse it before
    // reserving anything for it.
    if (!reader.ok() || count > reader.remaining() / MIN_ROW_SIZE) {
        return false;
    }
    std::vector<Entry> entries;
    entries.reserve(count);
    for (std::uint32_t i = 0; i < count && reader.ok(); ++i) {
        Entry entry;
        entry.updateType = static_cast<eUpdateType>(reader.getI32());
        entry.channelName = reader.getString();
        entry.port = reader.getI32();
        entries.push_back(entry);
    }
    if (!reader.complete()) {
        return false;
    }
    m_entries.swap(entries);
    return true;
}
