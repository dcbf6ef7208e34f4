// Decoding of encodings that lie: truncated, garbled, wrong header fields,
// lengths that do not match, trailing bytes, huge counts, and random noise.
// Every decode reads from a heap buffer of exactly the bytes given, so that
// the address sanitizer catches any read beyond them; the answer must be
// null, never a crash or a hang.
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelMessage.h"
#include "CommsChannelMessageCreator.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "CommsChannelUnregisterLocatorMessage.h"

#include "DataSpool.h"
#include "PlatformTestSupport.h"
#include "StderrRecorder.h"

#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using pftest::Bytes;
using pftest::EncodingBuilder;
using pftest::headerLength;
using pftest::patchLength;
using pftest::fileReferenceEncoding;

struct Sample {
    std::string name;
    Bytes encoding;
};

Bytes encodingOf(CommsChannelMessage& message)
{
    int length = 0;
    const char* encoding = message.encode(&length);
    return encoding != nullptr ? Bytes(encoding, encoding + length) : Bytes();
}

// One valid encoding of every message class.
std::vector<Sample> validSamples()
{
    std::vector<Sample> samples;
    {
        CommsChannelDataContainerMessage message;
        message.setChannel("destination");
        message.setSourceChannel("source");
        message.setCallbackChannel("callback");
        message.setProtocol("proto");
        message.setInterface("if");
        message.setRemoteContext("ctx");
        message.setRequestId(77);
        message.setMsgType(3);
        message.setPriority(VIREO_PRIORITY_HIGH);
        message.setData("some data bytes", 15);
        samples.push_back(Sample{"data container", encodingOf(message)});
    }
    {
        CommsChannelDataContainerMessage message;
        samples.push_back(Sample{"empty data container", encodingOf(message)});
    }
    {
        CommsChannelRegisterLocatorMessage message;
        message.setPort(40000);
        samples.push_back(Sample{"register locator", encodingOf(message)});
    }
    {
        CommsChannelUnregisterLocatorMessage message;
        message.setPort(40000);
        samples.push_back(Sample{"unregister locator", encodingOf(message)});
    }
    {
        CommsChannelLocatorUpdateMessage message;
        message.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_ADDED, "one", 1);
        message.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_REMOVED, "two", 2);
        message.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_ADDED, "three", 3);
        samples.push_back(Sample{"locator update", encodingOf(message)});
    }
    {
        CommsChannelLocatorUpdateMessage message;
        samples.push_back(Sample{"empty locator update", encodingOf(message)});
    }
    {
        CommsChannelPortRequestMessage message;
        message.setChannel("wanted");
        message.setRequestId(5);
        samples.push_back(Sample{"port request", encodingOf(message)});
    }
    {
        CommsChannelPortResponseMessage message;
        message.setChannel("wanted");
        message.setRequestId(5);
        message.setPort(40001);
        samples.push_back(Sample{"port response", encodingOf(message)});
    }
    return samples;
}

class MessageDecodingTest : public testing::Test {
protected:
    // decodeMessage(buffer, available) on exactly the given bytes.
    bool decodesBounded(const Bytes& bytes, std::unique_ptr<CommsChannelMessage>* out = nullptr)
    {
        std::unique_ptr<char[]> buffer(new char[bytes.size() > 0 ? bytes.size() : 1]);
        if (!bytes.empty()) {
            std::memcpy(buffer.get(), bytes.data(), bytes.size());
        }
        std::unique_ptr<CommsChannelMessage> message(
            creator.decodeMessage(buffer.get(), static_cast<unsigned int>(bytes.size())));
        const bool decoded = message != nullptr;
        if (out != nullptr) {
            *out = std::move(message);
        }
        return decoded;
    }
    // decodeMessage(buffer) on exactly the given bytes; the caller makes sure
    // that the header's length does not exceed them, as the library's own
    // callers do.
    bool decodesUnbounded(const Bytes& bytes)
    {
        EXPECT_GE(bytes.size(), 8U);
        EXPECT_LE(headerLength(bytes), bytes.size());
        std::unique_ptr<char[]> buffer(new char[bytes.size()]);
        std::memcpy(buffer.get(), bytes.data(), bytes.size());
        std::unique_ptr<CommsChannelMessage> message(creator.decodeMessage(buffer.get()));
        return message != nullptr;
    }
    // Both decoder operations, where the unbounded one may be used.
    bool decodesEitherWay(const Bytes& bytes)
    {
        bool decoded = decodesBounded(bytes);
        if (bytes.size() >= 8 && headerLength(bytes) <= bytes.size()) {
            decoded = decodesUnbounded(bytes) || decoded;
        }
        return decoded;
    }
    static Bytes prefix(const Bytes& bytes, std::size_t length) { return Bytes(bytes.begin(), bytes.begin() + length); }
    // Offset of the field right after the channel name.
    static std::size_t afterChannelName(const Bytes& encoding)
    {
        std::uint32_t nameLength = 0;
        std::memcpy(&nameLength, &encoding[8], 4);
        return 8 + 4 + nameLength;
    }
    CommsChannelMessageCreator creator;
    const std::vector<Sample> samples = validSamples();
};

TEST_F(MessageDecodingTest, EveryValidSampleDecodesBothWays)
{
    for (const Sample& sample : samples) {
        EXPECT_TRUE(decodesBounded(sample.encoding)) << sample.name;
        EXPECT_TRUE(decodesUnbounded(sample.encoding)) << sample.name;
    }
}

TEST_F(MessageDecodingTest, NullBufferGivesNull)
{
    EXPECT_EQ(nullptr, creator.decodeMessage(nullptr));
    EXPECT_EQ(nullptr, creator.decodeMessage(nullptr, 100));
    CommsChannelDataContainerMessage sut;
    EXPECT_EQ(0, sut.decode(nullptr));
    EXPECT_EQ(0, sut.decode(nullptr, 100));
}

TEST_F(MessageDecodingTest, TruncatedAtEveryLengthIsRejected)
{
    for (const Sample& sample : samples) {
        for (std::size_t n = 0; n < sample.encoding.size(); ++n) {
            EXPECT_FALSE(decodesBounded(prefix(sample.encoding, n))) << sample.name << " cut to " << n;
        }
    }
}

TEST_F(MessageDecodingTest, TruncatedWithTheHeaderLengthCutToMatchIsRejected)
{
    for (const Sample& sample : samples) {
        for (std::size_t n = 8; n < sample.encoding.size(); ++n) {
            Bytes cut = prefix(sample.encoding, n);
            patchLength(cut, static_cast<std::uint32_t>(n));
            EXPECT_FALSE(decodesEitherWay(cut)) << sample.name << " cut to " << n;
        }
    }
}

TEST_F(MessageDecodingTest, FewerBytesThanTheHeaderAreRejected)
{
    const Bytes header = samples[2].encoding;
    for (std::size_t n = 0; n < 8; ++n) {
        EXPECT_FALSE(decodesBounded(prefix(header, n))) << n;
        CommsChannelRegisterLocatorMessage sut;
        EXPECT_EQ(0, sut.decode(reinterpret_cast<const char*>(header.data()), static_cast<unsigned int>(n)));
    }
}

TEST_F(MessageDecodingTest, LengthLargerThanTheBufferIsRejected)
{
    for (const Sample& sample : samples) {
        const std::uint32_t size = static_cast<std::uint32_t>(sample.encoding.size());
        const std::uint32_t lies[] = {size + 1, size + 7, size + 1000, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU};
        for (std::uint32_t lie : lies) {
            Bytes lying = sample.encoding;
            patchLength(lying, lie);
            EXPECT_FALSE(decodesBounded(lying)) << sample.name << " claiming " << lie;
        }
    }
}

TEST_F(MessageDecodingTest, LengthSmallerThanTheBufferIsRejected)
{
    for (const Sample& sample : samples) {
        for (std::uint32_t lie = 0; lie < sample.encoding.size(); ++lie) {
            Bytes lying = sample.encoding;
            patchLength(lying, lie);
            EXPECT_FALSE(decodesEitherWay(lying)) << sample.name << " claiming " << lie;
        }
    }
}

TEST_F(MessageDecodingTest, MessageDecodeIsBoundedByTheBytesAvailable)
{
    Bytes lying = samples[0].encoding;
    patchLength(lying, static_cast<std::uint32_t>(lying.size() + 64));
    CommsChannelDataContainerMessage sut;
    EXPECT_EQ(0, sut.decode(reinterpret_cast<const char*>(lying.data()), static_cast<unsigned int>(lying.size())));
}

TEST_F(MessageDecodingTest, WrongMagicIsRejected)
{
    for (const Sample& sample : samples) {
        const unsigned char badValues[] = {0x00, 0xCD, 0x5E, 0xFF};
        for (unsigned char bad : badValues) {
            Bytes first = sample.encoding;
            first[0] = bad;
            EXPECT_FALSE(decodesEitherWay(first)) << sample.name;
            Bytes second = sample.encoding;
            second[1] = bad == 0x5E ? 0xCC : bad;
            EXPECT_FALSE(decodesEitherWay(second)) << sample.name;
        }
    }
}

TEST_F(MessageDecodingTest, WrongVersionIsRejected)
{
    cctest::StderrRecorder recorder;
    for (const Sample& sample : samples) {
        const unsigned char badVersions[] = {0, 2, 3, 0x81, 0xFF};
        for (unsigned char version : badVersions) {
            Bytes bad = sample.encoding;
            bad[2] = version;
            EXPECT_FALSE(decodesEitherWay(bad)) << sample.name << " version " << int(version);
        }
    }
}

// The line that a decoder writes for an encoding whose version it cannot read.
std::string unreadableVersionLine(int version, int typeCode)
{
    return "CommsChannel: cannot read message encoding version " + std::to_string(version) + " (message type " +
           std::to_string(typeCode) + ")\n";
}

TEST_F(MessageDecodingTest, EveryEncodingButASpoolReferenceIsVersionOne)
{
    for (const Sample& sample : samples) {
        EXPECT_EQ(1, sample.encoding[2]) << sample.name;
    }
}

TEST_F(MessageDecodingTest, UnknownVersionIsRejectedWithOneLineOnStandardErrorPerDecode)
{
    for (const Sample& sample : samples) {
        for (int version : {0, 3, 0x81, 0xFF}) {
            Bytes bad = sample.encoding;
            bad[2] = static_cast<unsigned char>(version);
            const int typeCode = sample.encoding[3];
            cctest::StderrRecorder recorder;
            EXPECT_FALSE(decodesBounded(bad)) << sample.name << " version " << version;
            EXPECT_EQ(unreadableVersionLine(version, typeCode), recorder.text()) << sample.name;
            EXPECT_FALSE(decodesUnbounded(bad)) << sample.name << " version " << version;
            EXPECT_EQ(unreadableVersionLine(version, typeCode) + unreadableVersionLine(version, typeCode),
                      recorder.text())
                << sample.name;
        }
    }
}

TEST_F(MessageDecodingTest, VersionTwoOfAnyTypeButTheDataContainerIsReported)
{
    for (const Sample& sample : samples) {
        if (sample.encoding[3] == 1) {
            continue;
        }
        Bytes bad = sample.encoding;
        bad[2] = 2;
        cctest::StderrRecorder recorder;
        EXPECT_FALSE(decodesBounded(bad)) << sample.name;
        EXPECT_EQ(unreadableVersionLine(2, sample.encoding[3]), recorder.text()) << sample.name;
    }
}

TEST_F(MessageDecodingTest, DataMessageOfAnUnknownVersionIsLeftEmptyAsTheReceiverQueuesIt)
{
    // The receiver thread decodes into a fresh message and queues it whether
    // or not the decode succeeded.
    Bytes bad = samples[0].encoding;
    bad[2] = 3;
    cctest::StderrRecorder recorder;
    CommsChannelDataContainerMessage sut;
    EXPECT_EQ(0, sut.decode(reinterpret_cast<const char*>(bad.data())));
    EXPECT_EQ(unreadableVersionLine(3, 1), recorder.text());
    EXPECT_EQ(0, sut.getDataLength());
    EXPECT_EQ("", sut.channel());
    EXPECT_EQ("", sut.sourceChannel());
    EXPECT_EQ(0, sut.requestId());
}

TEST_F(MessageDecodingTest, UnknownVersionIsNotReportedWhenTheRestOfTheHeaderIsWrong)
{
    cctest::StderrRecorder recorder;
    Bytes badMagic = samples[0].encoding;
    badMagic[0] = 0;
    badMagic[2] = 3;
    EXPECT_FALSE(decodesEitherWay(badMagic));
    Bytes unknownType = samples[0].encoding;
    unknownType[2] = 3;
    unknownType[3] = 9;
    EXPECT_FALSE(decodesEitherWay(unknownType));
    // A header that announces more bytes than were received, or fewer than
    // a header holds.
    for (std::uint32_t length : {static_cast<std::uint32_t>(samples[0].encoding.size() + 1), 7U}) {
        Bytes badLength = samples[0].encoding;
        badLength[2] = 3;
        patchLength(badLength, length);
        EXPECT_FALSE(decodesEitherWay(badLength)) << length;
    }
    // The data container's decode does not take encodings of another type.
    Bytes otherType = samples[2].encoding;
    otherType[2] = 3;
    CommsChannelDataContainerMessage sut;
    EXPECT_EQ(0, sut.decode(reinterpret_cast<const char*>(otherType.data())));
    EXPECT_EQ("", recorder.text());
}

TEST_F(MessageDecodingTest, VersionTwoWithInlineDataIsRejectedWithoutAWord)
{
    // Version 2 is the spool reference that names its writer, nothing else.
    Bytes bad = samples[0].encoding;
    bad[2] = 2;
    cctest::StderrRecorder recorder;
    EXPECT_FALSE(decodesEitherWay(bad));
    EXPECT_EQ("", recorder.text());
}

TEST_F(MessageDecodingTest, VersionTwoSpoolReferenceWithoutItsOwnerIsRejected)
{
    Bytes bad = pftest::ownerlessFileReferenceEncoding("cc-00000001-00000000deadbeef", 10);
    bad[2] = 2;
    cctest::StderrRecorder recorder;
    EXPECT_FALSE(decodesEitherWay(bad));
    EXPECT_EQ("", recorder.text());
}

TEST_F(MessageDecodingTest, VersionOneSpoolReferenceFollowedByAnOwnerIsRejected)
{
    // Version 1 has no owner field: four bytes more are bytes left over.
    Bytes bad = fileReferenceEncoding("cc-00000001-00000000deadbeef", 10);
    bad[2] = 1;
    cctest::StderrRecorder recorder;
    EXPECT_FALSE(decodesEitherWay(bad));
    EXPECT_EQ("", recorder.text());
}

TEST_F(MessageDecodingTest, UnknownTypeCodeIsRejected)
{
    for (const Sample& sample : samples) {
        const unsigned char unknown[] = {0, 4, 8, 9, 0x7F, 0x80, 0xFF};
        for (unsigned char code : unknown) {
            Bytes bad = sample.encoding;
            bad[3] = code;
            EXPECT_FALSE(decodesEitherWay(bad)) << sample.name << " type " << int(code);
        }
    }
}

TEST_F(MessageDecodingTest, TypeCodeOfAnotherClassWithAnIncompatibleBodyIsRejected)
{
    // Bodies that do not fit the class the type code names.
    struct Case {
        std::size_t sample;
        unsigned char code;
    };
    const Case cases[] = {{0, 5}, {0, 7}, {4, 1}, {4, 7}, {6, 7}, {7, 6}, {2, 7}, {2, 5}, {7, 1}};
    for (const Case& c : cases) {
        Bytes bad = samples[c.sample].encoding;
        bad[3] = c.code;
        EXPECT_FALSE(decodesEitherWay(bad)) << samples[c.sample].name << " as type " << int(c.code);
    }
}

TEST_F(MessageDecodingTest, TrailingGarbageInsideTheDeclaredLengthIsRejected)
{
    for (const Sample& sample : samples) {
        for (std::size_t extra : {1U, 3U, 4U, 12U, 100U}) {
            Bytes padded = sample.encoding;
            padded.insert(padded.end(), extra, '\x5A');
            patchLength(padded, static_cast<std::uint32_t>(padded.size()));
            EXPECT_FALSE(decodesEitherWay(padded)) << sample.name << " + " << extra;
        }
    }
}

TEST_F(MessageDecodingTest, BytesAfterTheDeclaredLengthAreNotPartOfTheEncoding)
{
    // The header's length ends the encoding: what a buffer holds beyond it is
    // never read, so a larger receive buffer changes nothing.
    for (const Sample& sample : samples) {
        Bytes followed = sample.encoding;
        followed.insert(followed.end(), 50, '\xEE');
        EXPECT_TRUE(decodesBounded(followed)) << sample.name;
        EXPECT_TRUE(decodesUnbounded(followed)) << sample.name;
    }
}

TEST_F(MessageDecodingTest, HugeChannelNameLengthIsRejected)
{
    for (const Sample& sample : samples) {
        const std::uint32_t remaining = static_cast<std::uint32_t>(sample.encoding.size() - 12);
        const std::uint32_t lies[] = {remaining + 1, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFF0U, 0xFFFFFFFFU};
        for (std::uint32_t lie : lies) {
            Bytes bad = sample.encoding;
            std::memcpy(&bad[8], &lie, 4);
            EXPECT_FALSE(decodesEitherWay(bad)) << sample.name << " name length " << lie;
        }
    }
}

TEST_F(MessageDecodingTest, HugeStringLengthInsideTheDataContainerIsRejected)
{
    const Bytes& encoding = samples[0].encoding;
    const std::size_t sourceLengthAt = afterChannelName(encoding);
    for (std::uint32_t lie : {0x00010000U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        Bytes bad = encoding;
        std::memcpy(&bad[sourceLengthAt], &lie, 4);
        EXPECT_FALSE(decodesEitherWay(bad)) << lie;
    }
    // The data's own length field, just before the data bytes.
    const std::size_t dataLengthAt = encoding.size() - 15 - 4;
    for (std::uint32_t lie : {16U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        Bytes bad = encoding;
        std::memcpy(&bad[dataLengthAt], &lie, 4);
        EXPECT_FALSE(decodesEitherWay(bad)) << lie;
    }
}

TEST_F(MessageDecodingTest, HugeRowCountIsRejected)
{
    const Bytes& encoding = samples[4].encoding;  // three rows
    const std::size_t countAt = afterChannelName(encoding);
    for (std::uint32_t lie : {4U, 100U, 0x10000000U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        Bytes bad = encoding;
        std::memcpy(&bad[countAt], &lie, 4);
        EXPECT_FALSE(decodesEitherWay(bad)) << "row count " << lie;
    }
}

TEST_F(MessageDecodingTest, RowCountSmallerThanTheRowsIsRejected)
{
    const Bytes& encoding = samples[4].encoding;  // three rows
    const std::size_t countAt = afterChannelName(encoding);
    for (std::uint32_t lie : {0U, 1U, 2U}) {
        Bytes bad = encoding;
        std::memcpy(&bad[countAt], &lie, 4);
        EXPECT_FALSE(decodesEitherWay(bad)) << "row count " << lie;
    }
}

TEST_F(MessageDecodingTest, HugeRowCountInAHandMadeUpdateIsRejectedWithoutReservingForIt)
{
    // Only the header and the count: nothing to back four billion rows.
    const Bytes bad = EncodingBuilder().header(5).str("").u32(0xFFFFFFFFU).bytes();
    EXPECT_FALSE(decodesEitherWay(bad));
}

TEST_F(MessageDecodingTest, UnknownDataKindIsRejected)
{
    const Bytes& encoding = samples[0].encoding;
    const std::size_t kindAt = encoding.size() - 15 - 4 - 1;
    ASSERT_EQ(0, encoding[kindAt]);
    for (unsigned char kind : {2, 3, 0x80, 0xFF}) {
        Bytes bad = encoding;
        bad[kindAt] = kind;
        EXPECT_FALSE(decodesEitherWay(bad)) << "kind " << int(kind);
    }
}

TEST_F(MessageDecodingTest, FileReferenceOutsideTheSpoolPatternIsRejected)
{
    const std::string names[] = {
        "",
        "/etc/passwd",
        "../../../../etc/passwd",
        "cc-0000000g-0000000000000000",
        "cc-0000ABCD-0000000000000000",
        "cc-00000001-000000000000000",
        "cc-00000001-00000000000000000",
        "cc-00000001_0000000000000000",
        "dd-00000001-0000000000000000",
        "cc-00000001-00000000/0000000",
        std::string("cc-00000001-000000000000000\0", 28),
    };
    struct stat before;
    ASSERT_EQ(0, stat("/etc/passwd", &before));
    for (const std::string& name : names) {
        EXPECT_FALSE(decodesEitherWay(fileReferenceEncoding(name, static_cast<std::uint64_t>(before.st_size))))
            << "'" << name << "'";
    }
    struct stat after;
    EXPECT_EQ(0, stat("/etc/passwd", &after));
}

TEST_F(MessageDecodingTest, FileReferenceWithLengthBeyondIntIsRejected)
{
    for (std::uint64_t length : {0x80000000ULL, 0xFFFFFFFFULL, 0x100000000ULL, ~0ULL}) {
        EXPECT_FALSE(decodesEitherWay(fileReferenceEncoding("cc-00000001-0000000000000000", length))) << length;
    }
}

TEST_F(MessageDecodingTest, FileReferenceToAFileThatDoesNotExistIsRejected)
{
    EXPECT_FALSE(decodesEitherWay(fileReferenceEncoding("cc-00000001-00000000deadbeef", 10)));
}

TEST_F(MessageDecodingTest, FileReferenceThatCannotBeReadIsReportedOnStandardErrorWithThePath)
{
    cctest::StderrRecorder recorder;
    EXPECT_FALSE(decodesEitherWay(fileReferenceEncoding("cc-00000001-00000000deadbeef", 10)));
    EXPECT_NE(std::string::npos, recorder.text().find("cannot read large data file " + spool::directory() +
                                                      "/cc-00000001-00000000deadbeef: "))
        << recorder.text();
}

TEST_F(MessageDecodingTest, FileReferenceOutsideTheNamePatternIsRejectedWithoutAWord)
{
    cctest::StderrRecorder recorder;
    EXPECT_FALSE(decodesEitherWay(fileReferenceEncoding("../../etc/passwd", 10)));
    EXPECT_EQ("", recorder.text());
}

TEST_F(MessageDecodingTest, RequestIdThatThisHostsLongCannotHoldIsRejected)
{
    const std::int64_t wide = static_cast<std::int64_t>(1) << 40;
    const Bytes request = EncodingBuilder().header(6).str("x").i64(wide).bytes();
    const Bytes response = EncodingBuilder().header(7).str("x").i64(wide).i32(1).bytes();
    const Bytes data = EncodingBuilder()
                           .header(1)
                           .str("d")
                           .str("")
                           .str("")
                           .str("")
                           .str("")
                           .str("")
                           .i64(wide)
                           .i32(0)
                           .i32(1)
                           .u8(0)
                           .str("z")
                           .bytes();
    const bool longHoldsIt = sizeof(long) >= 8;
    EXPECT_EQ(longHoldsIt, decodesEitherWay(request));
    EXPECT_EQ(longHoldsIt, decodesEitherWay(response));
    EXPECT_EQ(longHoldsIt, decodesEitherWay(data));
}

TEST_F(MessageDecodingTest, PriorityOutsideTheNamedValuesIsKept)
{
    const Bytes encoding = EncodingBuilder()
                               .header(1)
                               .str("d")
                               .str("")
                               .str("")
                               .str("")
                               .str("")
                               .str("")
                               .i64(0)
                               .i32(0)
                               .i32(1000)
                               .u8(0)
                               .str("z")
                               .bytes();
    std::unique_ptr<CommsChannelMessage> decoded;
    ASSERT_TRUE(decodesBounded(encoding, &decoded));
    CommsChannelDataContainerMessage* data = dynamic_cast<CommsChannelDataContainerMessage*>(decoded.get());
    ASSERT_NE(nullptr, data);
    EXPECT_EQ(1000, static_cast<int>(data->priority()));
    CommsChannelDataContainerMessage copy(*data);
    EXPECT_EQ(encoding, encodingOf(copy));
}

TEST_F(MessageDecodingTest, FailedDecodeLeavesTheMessageUnchanged)
{
    CommsChannelPortResponseMessage sut;
    sut.setChannel("kept");
    sut.setRequestId(11);
    sut.setPort(12);
    Bytes bad = samples[7].encoding;
    bad.push_back(0);
    patchLength(bad, static_cast<std::uint32_t>(bad.size()));
    EXPECT_EQ(0, sut.decode(reinterpret_cast<const char*>(bad.data()), static_cast<unsigned int>(bad.size())));
    EXPECT_EQ("kept", sut.channel());
    EXPECT_EQ(11, sut.requestId());
    EXPECT_EQ(12, sut.port());

    CommsChannelLocatorUpdateMessage update;
    update.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_ADDED, "row", 1);
    Bytes badUpdate = samples[4].encoding;
    badUpdate.resize(badUpdate.size() - 1);
    patchLength(badUpdate, static_cast<std::uint32_t>(badUpdate.size()));
    EXPECT_EQ(0, update.decode(reinterpret_cast<const char*>(badUpdate.data()),
                               static_cast<unsigned int>(badUpdate.size())));
    EXPECT_EQ(1, update.numChannelEntries());
}

// Exercises a decoded message the way its receiver would.
void useDecoded(CommsChannelMessage& message)
{
    EXPECT_EQ(message.type(), message.type());
    const std::string name = message.channel();
    if (CommsChannelDataContainerMessage* data = dynamic_cast<CommsChannelDataContainerMessage*>(&message)) {
        CommsChannelDataContainerMessage copy(*data);
        EXPECT_EQ(data->getData(), copy.getData());
        (void)copy.priority();
        (void)copy.requestId();
    }
    if (CommsChannelLocatorUpdateMessage* update = dynamic_cast<CommsChannelLocatorUpdateMessage*>(&message)) {
        for (int i = 0; i < update->numChannelEntries(); ++i) {
            CommsChannelLocatorUpdateMessage::eUpdateType updateType;
            std::string rowName;
            int port = 0;
            EXPECT_EQ(1, update->getChannelEntry(i, &updateType, &rowName, &port));
        }
    }
    // A decoded message encodes again to something that decodes.
    int length = 0;
    const char* again = message.encode(&length);
    ASSERT_NE(nullptr, again);
    CommsChannelMessageCreator creator;
    std::unique_ptr<CommsChannelMessage> redecoded(creator.decodeMessage(again, static_cast<unsigned int>(length)));
    ASSERT_NE(nullptr, redecoded);
    EXPECT_EQ(message.type(), redecoded->type());
}

TEST_F(MessageDecodingTest, RandomMutationsOfValidEncodingsNeverReadOutOfBounds)
{
    std::mt19937 random(20240611U);
    int decoded = 0;
    int rejected = 0;
    for (int iteration = 0; iteration < 4000; ++iteration) {
        Bytes bytes = samples[random() % samples.size()].encoding;
        const int mutations = 1 + static_cast<int>(random() % 4);
        for (int m = 0; m < mutations; ++m) {
            switch (random() % 6) {
            case 0:  // flip one bit
                if (!bytes.empty()) {
                    bytes[random() % bytes.size()] ^= static_cast<unsigned char>(1U << (random() % 8));
                }
                break;
            case 1:  // overwrite one byte
                if (!bytes.empty()) {
                    bytes[random() % bytes.size()] = static_cast<unsigned char>(random());
                }
                break;
            case 2:  // cut
                bytes.resize(random() % (bytes.size() + 1));
                break;
            case 3:  // extend with noise
                for (unsigned n = random() % 32; n > 0; --n) {
                    bytes.push_back(static_cast<unsigned char>(random()));
                }
                break;
            case 4:  // overwrite a 32-bit field after the header with an extreme value
                if (bytes.size() >= 12) {
                    const std::uint32_t extremes[] = {0, 1, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU,
                                                      static_cast<std::uint32_t>(bytes.size())};
                    const std::uint32_t value = extremes[random() % 6];
                    std::memcpy(&bytes[8 + random() % (bytes.size() - 11)], &value, 4);
                }
                break;
            default:  // lie about the length
                if (bytes.size() >= 8) {
                    patchLength(bytes, static_cast<std::uint32_t>(random() % (bytes.size() + 16)));
                }
                break;
            }
        }
        // Half of the time keep the header's length honest, so that the body
        // checks are reached and not only the header's.
        if (bytes.size() >= 8 && random() % 2 == 0) {
            patchLength(bytes, static_cast<std::uint32_t>(bytes.size()));
        }
        std::unique_ptr<CommsChannelMessage> message;
        if (decodesBounded(bytes, &message)) {
            ++decoded;
            useDecoded(*message);
        } else {
            ++rejected;
        }
        if (bytes.size() >= 8 && headerLength(bytes) <= bytes.size()) {
            decodesUnbounded(bytes);
        }
    }
    // Both outcomes occur: the noise is neither all harmless nor all fatal.
    EXPECT_GT(decoded, 0);
    EXPECT_GT(rejected, 0);
}

TEST_F(MessageDecodingTest, RandomBodiesBehindAValidHeaderNeverReadOutOfBounds)
{
    std::mt19937 random(7U);
    const unsigned char codes[] = {1, 2, 3, 5, 6, 7};
    for (int iteration = 0; iteration < 4000; ++iteration) {
        EncodingBuilder builder;
        builder.header(codes[random() % 6]);
        const unsigned bodyLength = random() % 96;
        for (unsigned i = 0; i < bodyLength; ++i) {
            // Small values make plausible lengths and counts more likely.
            const unsigned char value = static_cast<unsigned char>(random() % 3 == 0 ? random() : random() % 8);
            builder.u8(value);
        }
        std::unique_ptr<CommsChannelMessage> message;
        const Bytes bytes = builder.bytes();
        if (decodesBounded(bytes, &message)) {
            useDecoded(*message);
        }
        decodesUnbounded(bytes);
    }
}

TEST_F(MessageDecodingTest, RandomBytesNeverReadOutOfBounds)
{
    std::mt19937 random(99U);
    for (int iteration = 0; iteration < 4000; ++iteration) {
        Bytes bytes(random() % 64);
        for (unsigned char& byte : bytes) {
            byte = static_cast<unsigned char>(random());
        }
        if (bytes.size() >= 2 && random() % 2 == 0) {
            bytes[0] = 0xCC;
            bytes[1] = 0x5E;
        }
        EXPECT_FALSE(decodesBounded(bytes) && bytes.size() < 8);
    }
}

}  // namespace
