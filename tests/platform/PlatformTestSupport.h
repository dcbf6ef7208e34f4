// Helpers shared by the companion-layer tests: a watchdog for tests that
// start threads, the virtual-table slot that a member function occupies, and
// a builder of hand-made encodings.
#ifndef COMMSCHANNEL_PLATFORM_TEST_SUPPORT_H
#define COMMSCHANNEL_PLATFORM_TEST_SUPPORT_H

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace pftest {

// Aborts the test program loudly when a test has not finished within its
// deadline, instead of leaving CI to hang until the CTest time-out.
class Watchdog {
public:
    explicit Watchdog(int timeoutMs = 30000) : m_done(false)
    {
        m_thread = std::thread([this, timeoutMs]() {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (!m_finished.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this]() { return m_done; })) {
                std::fprintf(stderr, "watchdog: the test did not finish within %d ms\n", timeoutMs);
                std::abort();
            }
        });
    }
    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_done = true;
        }
        m_finished.notify_all();
        m_thread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    std::mutex m_mutex;
    std::condition_variable m_finished;
    bool m_done;
    std::thread m_thread;
};

// The zero-based index, in its class's virtual table, of the virtual member
// function that memberFunction points to, or -1 for a non-virtual one. Reads
// the Itanium C++ ABI representation used by g++ on x86-64 and MIPS: a
// pointer to a virtual member function holds 1 + the entry's byte offset.
template <typename MemberFunction>
long vtableIndex(MemberFunction memberFunction)
{
    struct Representation {
        std::uintptr_t pointer;
        std::ptrdiff_t adjustment;
    };
    static_assert(sizeof(MemberFunction) == sizeof(Representation), "unexpected member pointer layout");
    Representation raw;
    std::memcpy(&raw, &memberFunction, sizeof raw);
#if defined(__mips__) || defined(__arm__) || defined(__aarch64__)
    // Here code addresses may be odd (MIPS16, Thumb), so the "virtual" flag
    // is the low bit of the doubled adjustment and the pointer is the
    // entry's plain byte offset.
    if ((raw.adjustment & 1) == 0) {
        return -1;
    }
    return static_cast<long>(raw.pointer / sizeof(void*));
#else
    if ((raw.pointer & 1U) == 0) {
        return -1;
    }
    return static_cast<long>((raw.pointer - 1) / sizeof(void*));
#endif
}

typedef std::vector<unsigned char> Bytes;

// Builds an encoding field by field, every integer in host byte order, as
// the message library lays them out.
class EncodingBuilder {
public:
    EncodingBuilder& u8(std::uint8_t value) { return raw(&value, 1); }
    EncodingBuilder& i32(std::int32_t value) { return raw(&value, 4); }
    EncodingBuilder& u32(std::uint32_t value) { return raw(&value, 4); }
    EncodingBuilder& i64(std::int64_t value) { return raw(&value, 8); }
    EncodingBuilder& u64(std::uint64_t value) { return raw(&value, 8); }
    // u32 length, then the bytes.
    EncodingBuilder& str(const std::string& value)
    {
        u32(static_cast<std::uint32_t>(value.size()));
        return raw(value.data(), value.size());
    }
    // The 8-byte header; bytes() fills in its length.
    EncodingBuilder& header(std::uint8_t typeCode, std::uint8_t version = 1)
    {
        const unsigned char start[4] = {0xCC, 0x5E, version, typeCode};
        raw(start, 4);
        return u32(0);
    }
    EncodingBuilder& raw(const void* data, std::size_t length)
    {
        const unsigned char* p = static_cast<const unsigned char*>(data);
        m_bytes.insert(m_bytes.end(), p, p + length);
        return *this;
    }
    // The bytes, with the total length in header bytes 4 to 7.
    Bytes bytes() const
    {
        Bytes result = m_bytes;
        if (result.size() >= 8) {
            const std::uint32_t length = static_cast<std::uint32_t>(result.size());
            std::memcpy(&result[4], &length, 4);
        }
        return result;
    }

private:
    Bytes m_bytes;
};

// Writes length into header bytes 4 to 7 of encoding, in host byte order.
inline void patchLength(Bytes& encoding, std::uint32_t length)
{
    std::memcpy(&encoding[4], &length, sizeof length);
}

// A data container encoding (type 1, version 2) whose data travels in the
// named spool file of the given length, written by fileOwner.
inline Bytes fileReferenceEncoding(const std::string& fileName, std::uint64_t fileLength,
                                   std::uint32_t fileOwner = static_cast<std::uint32_t>(geteuid()))
{
    return EncodingBuilder()
        .header(1, 2)
        .str("dest")
        .str("src")
        .str("")
        .str("")
        .str("")
        .str("")
        .i64(0)
        .i32(0)
        .i32(1)
        .u8(1)
        .str(fileName)
        .u64(fileLength)
        .u32(fileOwner)
        .bytes();
}

// The same reference in its version 1 form: no owner, the file lies in the
// reader's own spool directory.
inline Bytes ownerlessFileReferenceEncoding(const std::string& fileName, std::uint64_t fileLength)
{
    return EncodingBuilder()
        .header(1, 1)
        .str("dest")
        .str("src")
        .str("")
        .str("")
        .str("")
        .str("")
        .i64(0)
        .i32(0)
        .i32(1)
        .u8(1)
        .str(fileName)
        .u64(fileLength)
        .bytes();
}

// The total length from header bytes 4 to 7.
inline std::uint32_t headerLength(const Bytes& encoding)
{
    std::uint32_t length = 0;
    std::memcpy(&length, &encoding[4], sizeof length);
    return length;
}

}  // namespace pftest

#endif
