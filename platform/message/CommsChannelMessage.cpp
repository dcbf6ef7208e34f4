#include "CommsChannelMessage.h"

#include "WireCodec.h"

#include <limits>
#include <utility>

namespace {

// The newest encoding version that the decoder of a type reads: only the
// data container has a second one (see WireCodec.h).
unsigned char newestVersionOf(int typeCode)
{
    return typeCode == COMMS_MSG_DATA_CONTAINER ? wire::VERSION_SPOOL_OWNER : wire::VERSION_1;
}

}  // namespace

CommsChannelMessage::CommsChannelMessage(int typeCode) : m_type(typeCode) {}

CommsChannelMessage::CommsChannelMessage(const CommsChannelMessage& other)
    : m_type(other.m_type), m_channel(other.m_channel)
{
}

CommsChannelMessage& CommsChannelMessage::operator=(const CommsChannelMessage& other)
{
    if (this != &other) {
        if (m_type != other.m_type) {
            m_type = other.m_type;
        }
        if (m_channel != other.m_channel) {
            m_channel = other.m_channel;
        }
    }
    return *this;
}

CommsChannelMessage::CommsChannelMessage(CommsChannelMessage&& other) noexcept
    : m_type(other.m_type), m_channel(std::move(other.m_channel))
{
}

CommsChannelMessage& CommsChannelMessage::operator=(CommsChannelMessage&& other) noexcept
{
    if (this != &other) {
        m_type = other.m_type;
        m_channel = std::move(other.m_channel);
    }
    return *this;
}

CommsChannelMessage::~CommsChannelMessage() = default;

char* CommsChannelMessage::encode(int* length)
{
    if (length != nullptr) {
        *length = 0;
    }
    wire::Writer writer(m_type);
    writer.putString(m_channel);
    encodeBody(writer);
    // The caller's length is an int: an encoding beyond its range cannot be
    // described to the sender and is refused.
    if (!writer.finish() ||
        writer.bytes().size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        return nullptr;
    }
    m_encoding.swap(writer.bytes());
    if (length != nullptr) {
        *length = static_cast<int>(m_encoding.size());
    }
    return m_encoding.data();
}

int CommsChannelMessage::decode(const char* buffer)
{
    if (buffer == nullptr) {
        return 0;
    }
    return decodeBounded(buffer, wire_header::totalLength(buffer));
}

int CommsChannelMessage::decode(const char* buffer, unsigned int available)
{
    if (!wire_header::complete(buffer, available)) {
        return 0;
    }
    return decodeBounded(buffer, wire_header::totalLength(buffer));
}

int CommsChannelMessage::decodeBounded(const char* buffer, unsigned int length)
{
    wire::Reader reader(buffer, length);
    if (!reader.checkHeader(m_type, newestVersionOf(m_type))) {
        return 0;
    }
    std::string channelName = reader.getString();
    if (!reader.ok() || !decodeBody(reader)) {
        return 0;
    }
    m_channel.swap(channelName);
    return 1;
}

std::string& CommsChannelMessage::channel() { return m_channel; }

void CommsChannelMessage::setChannel(const std::string& channelName) { m_channel = channelName; }

int CommsChannelMessage::type() const { return m_type; }
