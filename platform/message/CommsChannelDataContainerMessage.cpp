#include "CommsChannelDataContainerMessage.h"

#include "DataContainerFields.h"
#include "DataSpool.h"
#include "LargeData.h"
#include "WireCodec.h"

#include <climits>
#include <utility>

namespace {
// How the data travels inside the encoding.
const std::uint8_t DATA_INLINE = 0;
const std::uint8_t DATA_IN_FILE = 1;
// The largest data buffer that a moved-from message keeps for reuse.
const std::size_t REUSABLE_DATA_CAPACITY = 64 * 1024;
}  // namespace

CommsChannelDataContainerMessage::CommsChannelDataContainerMessage()
    : CommsChannelMessage(COMMS_MSG_DATA_CONTAINER),
      m_requestId(0),
      m_msgType(0),
      m_priority(VIREO_PRIORITY_NORMAL),
      m_dataFileHandedOut(false)
{
}

CommsChannelDataContainerMessage::CommsChannelDataContainerMessage(
    const CommsChannelDataContainerMessage& other)
    : CommsChannelMessage(other), m_dataFileHandedOut(false)
{
    copyFields(other);
}

CommsChannelDataContainerMessage& CommsChannelDataContainerMessage::operator=(
    const CommsChannelDataContainerMessage& other)
{
    if (this != &other) {
        dropDataFile();
        CommsChannelMessage::operator=(other);
        copyFields(other);
    }
    return *this;
}

CommsChannelDataContainerMessage::CommsChannelDataContainerMessage(CommsChannelDataContainerMessage&& other)
    : CommsChannelMessage(std::move(other)), m_dataFileHandedOut(false)
{
    moveFields(other);
}

CommsChannelDataContainerMessage& CommsChannelDataContainerMessage::operator=(
    CommsChannelDataContainerMessage&& other)
{
    if (this != &other) {
        dropDataFile();
        CommsChannelMessage::operator=(std::move(other));
        moveFields(other);
    }
    return *this;
}

CommsChannelDataContainerMessage::~CommsChannelDataContainerMessage() { dropDataFile(); }

void CommsChannelDataContainerMessage::moveFields(CommsChannelDataContainerMessage& other)
{
    m_sourceChannel.swap(other.m_sourceChannel);
    m_callbackChannel.swap(other.m_callbackChannel);
    m_protocol.swap(other.m_protocol);
    m_interface.swap(other.m_interface);
    m_remoteContext.swap(other.m_remoteContext);
    m_requestId = other.m_requestId;
    m_msgType = other.m_msgType;
    m_priority = other.m_priority;
    m_data.swap(other.m_data);
    // Whatever this message held before now sits in other; clear it there,
    // with the source's own spool file, which stays the source's to remove.
    other.dropDataFile();
    other.m_sourceChannel.clear();
    other.m_callbackChannel.clear();
    other.m_protocol.clear();
    other.m_interface.clear();
    other.m_remoteContext.clear();
    other.m_data.clear();
    // A moved-from message may be reused (the receive queue recycles its
    // messages); it keeps a small buffer for that, never a large one.
    if (other.m_data.capacity() > REUSABLE_DATA_CAPACITY) {
        other.m_data.shrink_to_fit();
    }
}

void CommsChannelDataContainerMessage::takeData(std::string& out)
{
    dropDataFile();
    out.swap(m_data);
    m_data.clear();
    if (m_data.capacity() > REUSABLE_DATA_CAPACITY) {
        m_data.shrink_to_fit();
    }
}

namespace {
// Writes only what differs: a kept message copied into again and again
// mostly holds the same names, and an unchanged cache line is not taken
// away from the thread that reads the message next.
template <typename T>
void assignChanged(T& to, const T& from)
{
    if (to != from) {
        to = from;
    }
}
}  // namespace

void CommsChannelDataContainerMessage::copyFields(const CommsChannelDataContainerMessage& other)
{
    assignChanged(m_sourceChannel, other.m_sourceChannel);
    assignChanged(m_callbackChannel, other.m_callbackChannel);
    assignChanged(m_protocol, other.m_protocol);
    assignChanged(m_interface, other.m_interface);
    assignChanged(m_remoteContext, other.m_remoteContext);
    assignChanged(m_requestId, other.m_requestId);
    assignChanged(m_msgType, other.m_msgType);
    assignChanged(m_priority, other.m_priority);
    largedata::assign(m_data, other.m_data.data(), other.m_data.size());
}

void CommsChannelDataContainerMessage::dropDataFile()
{
    // Nothing is written when there is nothing to drop (see assignChanged).
    if (!m_dataFile.empty()) {
        if (!m_dataFileHandedOut) {
            spool::discard(m_dataFile);
        }
        m_dataFile.clear();
    }
    if (m_dataFileHandedOut) {
        m_dataFileHandedOut = false;
    }
}

void CommsChannelDataContainerMessage::setSourceChannel(const std::string& name) { m_sourceChannel = name; }
void CommsChannelDataContainerMessage::setCallbackChannel(const std::string& name) { m_callbackChannel = name; }
void CommsChannelDataContainerMessage::setProtocol(const std::string& protocol) { m_protocol = protocol; }
void CommsChannelDataContainerMessage::setInterface(const std::string& interfaceName) { m_interface = interfaceName; }
void CommsChannelDataContainerMessage::setRemoteContext(const std::string& context) { m_remoteContext = context; }
void CommsChannelDataContainerMessage::setRequestId(long requestId) { m_requestId = requestId; }
void CommsChannelDataContainerMessage::setMsgType(int msgType) { m_msgType = msgType; }
void CommsChannelDataContainerMessage::setPriority(VireoThreadPriority priority) { m_priority = priority; }

void CommsChannelDataContainerMessage::setData(const char* data, int length)
{
    dropDataFile();
    if (data == nullptr || length < 1) {
        m_data.clear();
    } else {
        largedata::assign(m_data, data, static_cast<std::size_t>(length));
    }
}

std::string& CommsChannelDataContainerMessage::sourceChannel() { return m_sourceChannel; }
std::string& CommsChannelDataContainerMessage::callbackChannel() { return m_callbackChannel; }
std::string& CommsChannelDataContainerMessage::protocol() { return m_protocol; }
std::string& CommsChannelDataContainerMessage::interface() { return m_interface; }
std::string& CommsChannelDataContainerMessage::remoteContext() { return m_remoteContext; }
long CommsChannelDataContainerMessage::requestId() const { return m_requestId; }
int CommsChannelDataContainerMessage::msgType() const { return m_msgType; }
VireoThreadPriority CommsChannelDataContainerMessage::priority() const { return m_priority; }

std::string CommsChannelDataContainerMessage::getData() const
{
    std::string copy;
    largedata::assign(copy, m_data.data(), m_data.size());
    return copy;
}

char* CommsChannelDataContainerMessage::getData(int* length)
{
    if (length != nullptr) {
        *length = getDataLength();
    }
    return &m_data[0];
}

int CommsChannelDataContainerMessage::getDataLength() const
{
    return m_data.size() > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<int>(m_data.size());
}

void CommsChannelDataContainerMessage::putDataToFile()
{
    if (m_data.empty() || (!m_dataFile.empty() && !m_dataFileHandedOut)) {
        return;
    }
    // A file already handed out with an earlier encoding belongs to that
    // encoding's reader; this send gets a file of its own.
    m_dataFile.clear();
    m_dataFileHandedOut = false;
    m_dataFile = spool::store(m_data.data(), m_data.size());
}

bool CommsChannelDataContainerMessage::hasDataFile() const
{
    return !m_dataFile.empty() && !m_dataFileHandedOut;
}

void CommsChannelDataContainerMessage::encodeBody(wire::Writer& writer)
{
    writer.putString(m_sourceChannel);
    writer.putString(m_callbackChannel);
    writer.putString(m_protocol);
    writer.putString(m_interface);
    writer.putString(m_remoteContext);
    writer.putI64(static_cast<std::int64_t>(m_requestId));
    writer.putI32(static_cast<std::int32_t>(m_msgType));
    writer.putI32(static_cast<std::int32_t>(m_priority));
    if (hasDataFile()) {
        // The reference names the writer's uid, which version 1 has no room
        // for: a build that reads only version 1 then says so instead of
        // looking for the file in its own user's directory.
        writer.setVersion(wire::VERSION_SPOOL_OWNER);
        writer.putU8(DATA_IN_FILE);
        writer.putString(m_dataFile);
        writer.putU64(static_cast<std::uint64_t>(m_data.size()));
        writer.putU32(static_cast<std::uint32_t>(spool::writerId()));
        m_dataFileHandedOut = true;
    } else {
        writer.putU8(DATA_INLINE);
        writer.putString(m_data);
    }
}

bool CommsChannelDataContainerMessage::decodeBody(wire::Reader& reader)
{
    DataContainerFields fields;
    if (!readDataContainerFields(reader, &fields)) {
        return false;
    }
    // The file is read last, once everything else is known to be sound, so a
    // malformed encoding never consumes somebody's file.
    if (fields.inFile &&
        !spool::retrieve(fields.fileName, static_cast<uid_t>(fields.fileOwner), fields.fileLength, fields.data)) {
        return false;
    }
    dropDataFile();
    m_sourceChannel.swap(fields.sourceChannel);
    m_callbackChannel.swap(fields.callbackChannel);
    m_protocol.swap(fields.protocol);
    m_interface.swap(fields.interfaceName);
    m_remoteContext.swap(fields.remoteContext);
    m_requestId = static_cast<long>(fields.requestId);
    m_msgType = fields.msgType;
    m_priority = static_cast<VireoThreadPriority>(fields.priority);
    m_data.swap(fields.data);
    return true;
}
