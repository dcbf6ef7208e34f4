// wire_header: the total length in bytes 4 to 7 in the host's byte order,
// and whether the bytes at hand hold a whole encoding.
#include "WireHeader.h"

#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

// A header (magic and type left zero) that claims length, followed by
// padding so that the buffer holds `available` bytes.
std::string headerClaiming(std::uint32_t length, std::size_t available)
{
    std::string bytes(available < wire_header::SIZE ? wire_header::SIZE : available, '\0');
    std::memcpy(&bytes[4], &length, sizeof length);
    bytes.resize(available);
    return bytes;
}

TEST(WireHeaderTest, TotalLengthIsReadInHostByteOrder)
{
    const std::uint32_t length = 0x01020304U;
    const std::string sut = headerClaiming(length, wire_header::SIZE);
    EXPECT_EQ(length, wire_header::totalLength(sut.data()));
    // The same bytes read as a host integer: the check that runs on the
    // big-endian target as well as here.
    std::uint32_t host = 0;
    std::memcpy(&host, sut.data() + 4, sizeof host);
    EXPECT_EQ(host, wire_header::totalLength(sut.data()));
}

TEST(WireHeaderTest, EncodingFillingTheBytesIsComplete)
{
    const std::string sut = headerClaiming(20, 20);
    EXPECT_TRUE(wire_header::complete(sut.data(), sut.size()));
}

TEST(WireHeaderTest, EncodingFollowedByMoreBytesIsComplete)
{
    const std::string sut = headerClaiming(12, 30);
    EXPECT_TRUE(wire_header::complete(sut.data(), sut.size()));
}

TEST(WireHeaderTest, BareHeaderIsComplete)
{
    const std::string sut = headerClaiming(8, 8);
    EXPECT_TRUE(wire_header::complete(sut.data(), sut.size()));
}

TEST(WireHeaderTest, TruncatedEncodingIsIncomplete)
{
    const std::string sut = headerClaiming(21, 20);
    EXPECT_FALSE(wire_header::complete(sut.data(), sut.size()));
}

TEST(WireHeaderTest, LengthShorterThanTheHeaderIsRefused)
{
    const std::string sut = headerClaiming(7, 20);
    EXPECT_FALSE(wire_header::complete(sut.data(), sut.size()));
}

TEST(WireHeaderTest, FewerBytesThanAHeaderAreIncomplete)
{
    const std::string sut = headerClaiming(4, 7);
    EXPECT_FALSE(wire_header::complete(sut.data(), sut.size()));
}

TEST(WireHeaderTest, NullDataIsIncomplete) { EXPECT_FALSE(wire_header::complete(nullptr, 100)); }

}  // namespace
