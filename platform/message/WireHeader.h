// The 8-byte header that starts every encoding: magic (bytes 0 and 1),
// version (2), type code (3) and the encoding's total length, header
// included, as a 32-bit integer in the host's byte order (bytes 4 to 7).
// Encodings never leave the host that made them, so the length is never
// swapped; this is the one reader of it. Plain functions, any thread.
#ifndef COMMSCHANNEL_WIRE_HEADER_H
#define COMMSCHANNEL_WIRE_HEADER_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace wire_header {

constexpr std::size_t SIZE = 8;
constexpr std::size_t LENGTH_OFFSET = 4;

// The total length stored in bytes 4 to 7, host byte order.
// REQUIRES: header points at SIZE readable bytes.
inline std::uint32_t totalLength(const char* header)
{
    std::uint32_t length;
    std::memcpy(&length, header + LENGTH_OFFSET, sizeof length);
    return length;
}

// True when data holds a whole header whose length covers at least the
// header itself and at most the available bytes: one whole encoding, maybe
// followed by others. Checks the length only, not magic, version or type.
inline bool complete(const char* data, std::size_t available)
{
    if (data == nullptr || available < SIZE) {
        return false;
    }
    const std::uint32_t length = totalLength(data);
    return length >= SIZE && length <= available;
}

}  // namespace wire_header

#endif
