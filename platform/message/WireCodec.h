// Private to the message library: bounded writers and readers of the byte
// encoding described in docs/wire-format.md.
//
// Every integer in an encoding is stored in the host's byte order, like the
// length in the header that the channel library reads itself: encodings never
// leave the host that made them. The reader checks every field against the
// bytes that remain and, once anything is out of bounds, stays failed.
#ifndef COMMSCHANNEL_WIRE_CODEC_H
#define COMMSCHANNEL_WIRE_CODEC_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "WireHeader.h"

namespace wire {

// Fixed header: magic (2 bytes), version (1), type code (1), total length (4);
// WireHeader.h reads the length.
const std::size_t HEADER_SIZE = wire_header::SIZE;
const unsigned char MAGIC_0 = 0xCC;
const unsigned char MAGIC_1 = 0x5E;
const unsigned char VERSION = 1;

// Stores the total length in bytes 4 to 7, in host byte order.
void writeHostOrderLength(char* header, std::uint32_t length);

class Writer {
public:
    // Starts an encoding with a header of the given type code.
    explicit Writer(int typeCode);
    void putU8(std::uint8_t value);
    void putI32(std::int32_t value);
    void putU32(std::uint32_t value);
    void putI64(std::int64_t value);
    void putU64(std::uint64_t value);
    // u32 length, then the bytes.
    void putString(const std::string& value);
    void putBytes(const char* data, std::size_t length);
    // Writes the total length into the header. Returns false when the
    // encoding does not fit the 32-bit length field.
    bool finish();
    std::vector<char>& bytes() { return m_bytes; }

private:
    void append(const void* data, std::size_t length);
    std::vector<char> m_bytes;
};

class Reader {
public:
    // Reads the encoding of `length` bytes at `data` (header included).
    Reader(const char* data, std::size_t length);
    // True when the header is well formed, of the given type, and its length
    // equals the bytes given.
    bool checkHeader(int typeCode);
    std::uint8_t getU8();
    std::int32_t getI32();
    std::uint32_t getU32();
    std::int64_t getI64();
    std::uint64_t getU64();
    std::string getString();
    // Points at `length` bytes inside the encoding, or null when fewer remain.
    const char* getBytes(std::size_t length);
    std::size_t remaining() const { return m_ok ? m_length - m_position : 0; }
    // True when nothing failed and every byte was consumed.
    bool complete() const { return m_ok && m_position == m_length; }
    bool ok() const { return m_ok; }
    void fail() { m_ok = false; }

private:
    bool take(void* out, std::size_t length);
    const char* m_data;
    std::size_t m_length;
    std::size_t m_position;
    bool m_ok;
};

// The type code of a complete encoding, or -1 when its header is malformed.
// Looks only at the header; `available` bounds what may be read.
int peekTypeCode(const char* data, std::size_t available);

}  // namespace wire

#endif
