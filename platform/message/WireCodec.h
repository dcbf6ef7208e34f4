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

// Versions, header byte 2: the layout of the body. Every encoding carries
// the oldest version that describes it, so a build that knows only version 1
// still reads every encoding except those that need the newer layout.
//   1: every type's body; a data container's spool reference holds the file
//      name and the data length, and the file lies in the reader's own
//      user's spool directory.
//   2: a data container whose data is in a spool file; the reference also
//      holds the writer's uid, which names the spool directory.
const unsigned char VERSION_1 = 1;
const unsigned char VERSION_SPOOL_OWNER = 2;

// Writes the one line on standard error that tells of an encoding whose
// version this build cannot read (see docs/wire-format.md).
void reportUnreadableVersion(unsigned int version, int typeCode);

// Stores the total length in bytes 4 to 7, in host byte order.
void writeHostOrderLength(char* header, std::uint32_t length);

class Writer {
public:
    // Starts an encoding with a header of the given type code, version 1.
    explicit Writer(int typeCode);
    // Sets the header's version byte.
    void setVersion(unsigned char version);
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
    // True when the header is well formed, of the given type, of a version
    // from 1 to newestVersion, and its length equals the bytes given. A
    // header that is right but for its version is reported on standard
    // error (reportUnreadableVersion).
    bool checkHeader(int typeCode, unsigned char newestVersion);
    // The header's version, once checkHeader() accepted it.
    unsigned char version() const { return m_version; }
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
    unsigned char m_version;
    bool m_ok;
};

// The type code of a complete encoding, or -1 when its magic or its length
// is wrong. Looks only at the header; `available` bounds what may be read.
// The version is left to the decoder of that type, which knows its own.
int peekTypeCode(const char* data, std::size_t available);

}  // namespace wire

#endif
