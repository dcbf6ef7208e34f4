#include "WireCodec.h"

#include <cstdio>
#include <cstring>
#include <limits>

namespace wire {

void writeHostOrderLength(char* header, std::uint32_t length)
{
    std::memcpy(header + wire_header::LENGTH_OFFSET, &length, sizeof length);
}

Writer::Writer(int typeCode) : m_bytes(HEADER_SIZE, 0)
{
    m_bytes[0] = static_cast<char>(MAGIC_0);
    m_bytes[1] = static_cast<char>(MAGIC_1);
    m_bytes[2] = static_cast<char>(VERSION_1);
    m_bytes[3] = static_cast<char>(typeCode);
}

void Writer::setVersion(unsigned char version) { m_bytes[2] = static_cast<char>(version); }

void Writer::append(const void* data, std::size_t length)
{
    const char* bytes = static_cast<const char*>(data);
    m_bytes.insert(m_bytes.end(), bytes, bytes + length);
}

void Writer::putU8(std::uint8_t value) { append(&value, sizeof value); }
void Writer::putI32(std::int32_t value) { append(&value, sizeof value); }
void Writer::putU32(std::uint32_t value) { append(&value, sizeof value); }
void Writer::putI64(std::int64_t value) { append(&value, sizeof value); }
void Writer::putU64(std::uint64_t value) { append(&value, sizeof value); }

void Writer::putString(const std::string& value)
{
    putU32(static_cast<std::uint32_t>(value.size()));
    append(value.data(), value.size());
}

void Writer::putBytes(const char* data, std::size_t length) { append(data, length); }

bool Writer::finish()
{
    if (m_bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
        return false;
    }
    writeHostOrderLength(m_bytes.data(), static_cast<std::uint32_t>(m_bytes.size()));
    return true;
}

Reader::Reader(const char* data, std::size_t length)
    : m_data(data), m_length(length), m_position(0), m_version(0), m_ok(data != nullptr)
{
}

bool Reader::checkHeader(int typeCode, unsigned char newestVersion)
{
    if (!m_ok || m_length < HEADER_SIZE) {
        m_ok = false;
        return false;
    }
    const unsigned char* header = reinterpret_cast<const unsigned char*>(m_data);
    if (header[0] != MAGIC_0 || header[1] != MAGIC_1 || header[3] != static_cast<unsigned char>(typeCode) ||
        wire_header::totalLength(m_data) != m_length) {
        m_ok = false;
        return false;
    }
    // Everything else says this is an encoding of the type: one whose
    // version is not known here comes from another build, and whoever runs
    // the two must learn why its content is lost.
    if (header[2] < VERSION_1 || header[2] > newestVersion) {
        reportUnreadableVersion(header[2], typeCode);
        m_ok = false;
        return false;
    }
    m_version = header[2];
    m_position = HEADER_SIZE;
    return true;
}

bool Reader::take(void* out, std::size_t length)
{
    if (!m_ok || m_length - m_position < length) {
        m_ok = false;
        return false;
    }
    std::memcpy(out, m_data + m_position, length);
    m_position += length;
    return true;
}

std::uint8_t Reader::getU8()
{
    std::uint8_t value = 0;
    take(&value, sizeof value);
    return value;
}

std::int32_t Reader::getI32()
{
    std::int32_t value = 0;
    take(&value, sizeof value);
    return value;
}

std::uint32_t Reader::getU32()
{
    std::uint32_t value = 0;
    take(&value, sizeof value);
    return value;
}

std::int64_t Reader::getI64()
{
    std::int64_t value = 0;
    take(&value, sizeof value);
    return value;
}

std::uint64_t Reader::getU64()
{
    std::uint64_t value = 0;
    take(&value, sizeof value);
    return value;
}

std::string Reader::getString()
{
    const std::uint32_t length = getU32();
    const char* bytes = getBytes(length);
    return bytes != nullptr ? std::string(bytes, length) : std::string();
}

const char* Reader::getBytes(std::size_t length)
{
    if (!m_ok || m_length - m_position < length) {
        m_ok = false;
        return nullptr;
    }
    const char* bytes = m_data + m_position;
    m_position += length;
    return bytes;
}

void reportUnreadableVersion(unsigned int version, int typeCode)
{
    std::fprintf(stderr, "CommsChannel: cannot read message encoding version %u (message type %d)\n", version,
                 typeCode);
}

int peekTypeCode(const char* data, std::size_t available)
{
    if (!wire_header::complete(data, available)) {
        return -1;
    }
    const unsigned char* header = reinterpret_cast<const unsigned char*>(data);
    if (header[0] != MAGIC_0 || header[1] != MAGIC_1) {
        return -1;
    }
    return header[3];
}

}  // namespace wire
