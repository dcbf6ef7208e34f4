// Helpers shared by the fuzz targets in this folder: a reader that cuts the
// fuzzer's bytes into fields, and the check that turns a broken expectation
// into a crash that libFuzzer (or the replay driver) reports.
//
// Every target is a plain LLVMFuzzerTestOneInput. The same source is linked
// into a libFuzzer binary by clang (tools/run-fuzz.sh) and into a replay
// driver by the normal build (ReplayMain.cpp), so nothing here may depend on
// libFuzzer itself.
#ifndef COMMSCHANNEL_FUZZ_SUPPORT_H
#define COMMSCHANNEL_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// Aborts with the place and the broken expectation. An abort is what the
// fuzzer counts as a finding, so only conditions that the code under test
// promises belong here, never ones that a hostile peer may legitimately
// cause.
#define FUZZ_CHECK(condition, what)                                                           \
    do {                                                                                      \
        if (!(condition)) {                                                                   \
            std::fprintf(stderr, "%s:%d: fuzz check failed: %s (%s)\n", __FILE__, __LINE__, \
                         #condition, what);                                                   \
            std::abort();                                                                     \
        }                                                                                     \
    } while (0)

namespace ccfuzz {

// Reads the fuzzer's input front to back. Multi-byte fields of the input's
// own framing are little-endian on every host, so that a corpus file means
// the same framing everywhere; the message bytes inside it are passed on
// untouched. Reading past the end yields zeros and short byte runs.
class FuzzInput {
public:
    FuzzInput(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size), m_position(0) {}

    bool empty() const { return m_position >= m_size; }
    std::size_t remaining() const { return m_size - m_position; }

    std::uint8_t u8()
    {
        return m_position < m_size ? m_data[m_position++] : 0;
    }
    std::uint16_t u16()
    {
        const std::uint16_t low = u8();
        const std::uint16_t high = u8();
        return static_cast<std::uint16_t>(low | (high << 8));
    }
    // Up to length bytes; *taken says how many there really were.
    const std::uint8_t* bytes(std::size_t length, std::size_t* taken)
    {
        const std::size_t available = remaining();
        *taken = length < available ? length : available;
        const std::uint8_t* start = m_data + m_position;
        m_position += *taken;
        return start;
    }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_position;
};

// Bytes 4 to 7 of an encoding: its total length in host byte order.
// REQUIRES: at least 8 bytes are readable at header.
inline std::uint32_t declaredLength(const void* header)
{
    std::uint32_t length;
    std::memcpy(&length, static_cast<const char*>(header) + 4, sizeof length);
    return length;
}

inline void setDeclaredLength(void* header, std::uint32_t length)
{
    std::memcpy(static_cast<char*>(header) + 4, &length, sizeof length);
}

const std::size_t HEADER_SIZE = 8;

}  // namespace ccfuzz

#endif
