// The message classes: their fields, their byte encoding and the round trip
// of every class through encode() and CommsChannelMessageCreator.
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelMessage.h"
#include "CommsChannelMessageCreator.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "CommsChannelUnregisterLocatorMessage.h"

#include "PlatformTestSupport.h"
#include "TestUtil.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using pftest::Bytes;
using ExpectedBytes = pftest::EncodingBuilder;

class CommsChannelMessageTest : public testing::Test {
protected:
    // The encoding of message, copied out of the message's own buffer.
    static Bytes encodingOf(CommsChannelMessage& message)
    {
        int length = -1;
        const char* encoding = message.encode(&length);
        EXPECT_NE(nullptr, encoding);
        EXPECT_GT(length, 0);
        if (encoding == nullptr || length <= 0) {
            return Bytes();
        }
        return Bytes(encoding, encoding + length);
    }
    static std::uint32_t headerLength(const Bytes& encoding)
    {
        std::uint32_t length = 0;
        std::memcpy(&length, &encoding[4], sizeof length);
        return length;
    }
    // Decodes from a heap buffer of exactly the encoding's size, so that any
    // read beyond it is caught by the address sanitizer.
    std::unique_ptr<CommsChannelMessage> decode(const Bytes& encoding)
    {
        std::unique_ptr<char[]> buffer(new char[encoding.size()]);
        std::memcpy(buffer.get(), encoding.data(), encoding.size());
        return std::unique_ptr<CommsChannelMessage>(creator.decodeMessage(buffer.get()));
    }
    std::unique_ptr<CommsChannelMessage> decodeBounded(const Bytes& encoding)
    {
        std::unique_ptr<char[]> buffer(new char[encoding.size()]);
        std::memcpy(buffer.get(), encoding.data(), encoding.size());
        return std::unique_ptr<CommsChannelMessage>(
            creator.decodeMessage(buffer.get(), static_cast<unsigned int>(encoding.size())));
    }
    // Encodes message, checks the header, decodes with both decoder
    // operations and answers the decoded object as T (null when it is not).
    template <typename T>
    std::unique_ptr<T> roundTrip(T& message)
    {
        const Bytes encoding = encodingOf(message);
        if (encoding.size() < 8) {
            ADD_FAILURE() << "encoding shorter than its header";
            return nullptr;
        }
        EXPECT_EQ(0xCC, encoding[0]);
        EXPECT_EQ(0x5E, encoding[1]);
        EXPECT_EQ(1, encoding[2]);
        EXPECT_EQ(message.type(), encoding[3]);
        EXPECT_EQ(encoding.size(), headerLength(encoding));
        std::unique_ptr<CommsChannelMessage> bounded = decodeBounded(encoding);
        EXPECT_NE(nullptr, bounded);
        std::unique_ptr<CommsChannelMessage> decoded = decode(encoding);
        if (decoded == nullptr) {
            ADD_FAILURE() << "decodeMessage answered null";
            return nullptr;
        }
        EXPECT_EQ(message.type(), decoded->type());
        EXPECT_EQ(message.channel(), decoded->channel());
        T* typed = dynamic_cast<T*>(decoded.get());
        if (typed == nullptr) {
            ADD_FAILURE() << "decoded message is of another class";
            return nullptr;
        }
        decoded.release();
        return std::unique_ptr<T>(typed);
    }

    static CommsChannelDataContainerMessage fullDataMessage()
    {
        CommsChannelDataContainerMessage message;
        message.setChannel("destination");
        message.setSourceChannel("source");
        message.setCallbackChannel("callback");
        message.setProtocol("proto");
        message.setInterface("eth-if");
        message.setRemoteContext("remote-ctx");
        message.setRequestId(123456);
        message.setMsgType(4);
        message.setPriority(VIREO_PRIORITY_HIGH);
        message.setData("hello\0world", 11);
        return message;
    }

    CommsChannelMessageCreator creator;
};

TEST_F(CommsChannelMessageTest, TypeCodesOfLocatorUpdateAndPortResponseAreFiveAndSeven)
{
    EXPECT_EQ(5, CommsChannelLocatorUpdateMessage().type());
    EXPECT_EQ(7, CommsChannelPortResponseMessage().type());
}

TEST_F(CommsChannelMessageTest, TypeCodesOfTheOtherClasses)
{
    EXPECT_EQ(1, CommsChannelDataContainerMessage().type());
    EXPECT_EQ(2, CommsChannelRegisterLocatorMessage().type());
    EXPECT_EQ(3, CommsChannelUnregisterLocatorMessage().type());
    EXPECT_EQ(6, CommsChannelPortRequestMessage().type());
}

TEST_F(CommsChannelMessageTest, TypeIsTheSameOnEveryCall)
{
    CommsChannelPortResponseMessage sut;
    EXPECT_EQ(sut.type(), sut.type());
    const Bytes encoding = encodingOf(sut);
    std::unique_ptr<CommsChannelMessage> decoded = decode(encoding);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(7, decoded->type());
    EXPECT_EQ(7, decoded->type());
}

TEST_F(CommsChannelMessageTest, VirtualOperationsAreInTheirSlots)
{
    // Destructor (two entries), encode, decode, an unused slot, channel().
    EXPECT_EQ(2, pftest::vtableIndex(&CommsChannelMessage::encode));
    EXPECT_EQ(3, pftest::vtableIndex(static_cast<int (CommsChannelMessage::*)(const char*)>(
                     &CommsChannelMessage::decode)));
    EXPECT_EQ(5, pftest::vtableIndex(&CommsChannelMessage::channel));
}

TEST_F(CommsChannelMessageTest, HeaderBytesFourToSevenHoldTheTotalLengthInHostOrder)
{
    CommsChannelDataContainerMessage sut = fullDataMessage();
    int length = 0;
    const char* encoding = sut.encode(&length);
    ASSERT_NE(nullptr, encoding);
    std::uint32_t total = 0;
    std::memcpy(&total, encoding + 4, sizeof total);
    EXPECT_EQ(static_cast<std::uint32_t>(length), total);
}

TEST_F(CommsChannelMessageTest, EncodeSetsTheLengthWhateverItHeldBefore)
{
    CommsChannelRegisterLocatorMessage sut;
    int length = 12345;
    ASSERT_NE(nullptr, sut.encode(&length));
    EXPECT_EQ(16, length);
}

TEST_F(CommsChannelMessageTest, EncodingBufferStaysValidUntilTheNextEncode)
{
    CommsChannelPortRequestMessage sut;
    sut.setChannel("first");
    int firstLength = 0;
    const char* first = sut.encode(&firstLength);
    ASSERT_NE(nullptr, first);
    const Bytes firstCopy(first, first + firstLength);
    EXPECT_EQ(firstCopy, Bytes(first, first + firstLength));
    sut.setChannel("second, longer name");
    const Bytes second = encodingOf(sut);
    EXPECT_NE(firstCopy, second);
    std::unique_ptr<CommsChannelMessage> decoded = decode(second);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ("second, longer name", decoded->channel());
}

TEST_F(CommsChannelMessageTest, DataContainerRoundTripsEveryField)
{
    CommsChannelDataContainerMessage sut = fullDataMessage();
    std::unique_ptr<CommsChannelDataContainerMessage> decoded = roundTrip(sut);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ("destination", decoded->channel());
    EXPECT_EQ("source", decoded->sourceChannel());
    EXPECT_EQ("callback", decoded->callbackChannel());
    EXPECT_EQ("proto", decoded->protocol());
    EXPECT_EQ("eth-if", decoded->interface());
    EXPECT_EQ("remote-ctx", decoded->remoteContext());
    EXPECT_EQ(123456, decoded->requestId());
    EXPECT_EQ(4, decoded->msgType());
    EXPECT_EQ(VIREO_PRIORITY_HIGH, decoded->priority());
    EXPECT_EQ(std::string("hello\0world", 11), decoded->getData());
    EXPECT_EQ(11, decoded->getDataLength());
}

TEST_F(CommsChannelMessageTest, EmptyDataContainerRoundTrips)
{
    CommsChannelDataContainerMessage sut;
    std::unique_ptr<CommsChannelDataContainerMessage> decoded = roundTrip(sut);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ("", decoded->channel());
    EXPECT_EQ("", decoded->sourceChannel());
    EXPECT_EQ(0, decoded->requestId());
    EXPECT_EQ(0, decoded->msgType());
    EXPECT_EQ(VIREO_PRIORITY_NORMAL, decoded->priority());
    EXPECT_EQ(0, decoded->getDataLength());
    EXPECT_EQ("", decoded->getData());
}

TEST_F(CommsChannelMessageTest, DataContainerRoundTripsEveryByteValue)
{
    std::string data;
    for (int i = 0; i < 256 * 4; ++i) {
        data.push_back(static_cast<char>(i & 0xFF));
    }
    CommsChannelDataContainerMessage sut;
    sut.setData(data.data(), static_cast<int>(data.size()));
    std::unique_ptr<CommsChannelDataContainerMessage> decoded = roundTrip(sut);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(data, decoded->getData());
}

TEST_F(CommsChannelMessageTest, DataContainerRoundTripsExtremeRequestIdsAndTypes)
{
    const long ids[] = {0, 1, -1, LONG_MAX, LONG_MIN};
    for (long id : ids) {
        CommsChannelDataContainerMessage sut;
        sut.setRequestId(id);
        sut.setMsgType(INT_MIN);
        std::unique_ptr<CommsChannelDataContainerMessage> decoded = roundTrip(sut);
        ASSERT_NE(nullptr, decoded);
        EXPECT_EQ(id, decoded->requestId());
        EXPECT_EQ(INT_MIN, decoded->msgType());
    }
}

TEST_F(CommsChannelMessageTest, DataContainerRoundTripsInlineDataJustBelowTheDatagramSize)
{
    // Data of 59750 bytes stays in the encoding when not moved to a file.
    const std::string data(59750, 'd');
    CommsChannelDataContainerMessage sut;
    sut.setData(data.data(), static_cast<int>(data.size()));
    std::unique_ptr<CommsChannelDataContainerMessage> decoded = roundTrip(sut);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(data, decoded->getData());
}

TEST_F(CommsChannelMessageTest, DataContainerLayoutIsFieldByFieldInHostOrder)
{
    CommsChannelDataContainerMessage sut;
    sut.setChannel("d");
    sut.setSourceChannel("s");
    sut.setProtocol("p");
    sut.setInterface("i");
    sut.setRemoteContext("r");
    sut.setRequestId(0x01020304L);
    sut.setMsgType(2);
    sut.setPriority(VIREO_PRIORITY_LOW);
    sut.setData("xyz", 3);
    const Bytes expected = ExpectedBytes()
                               .header(1)
                               .str("d")
                               .str("s")
                               .str("")
                               .str("p")
                               .str("i")
                               .str("r")
                               .i64(0x01020304L)
                               .i32(2)
                               .i32(0)
                               .u8(0)
                               .str("xyz")
                               .bytes();
    EXPECT_EQ(expected, encodingOf(sut));
}

TEST_F(CommsChannelMessageTest, RegisterLocatorRoundTripsItsPort)
{
    CommsChannelRegisterLocatorMessage sut;
    sut.setPort(40123);
    std::unique_ptr<CommsChannelRegisterLocatorMessage> decoded = roundTrip(sut);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(40123, decoded->port());
}

TEST_F(CommsChannelMessageTest, RegisterLocatorLayoutIsChannelNameThenPort)
{
    CommsChannelRegisterLocatorMessage sut;
    sut.setPort(0x01020304);
    EXPECT_EQ(ExpectedBytes().header(2).str("").i32(0x01020304).bytes(), encodingOf(sut));
}

TEST_F(CommsChannelMessageTest, UnregisterLocatorRoundTripsItsPort)
{
    CommsChannelUnregisterLocatorMessage sut;
    sut.setPort(65535);
    std::unique_ptr<CommsChannelUnregisterLocatorMessage> decoded = roundTrip(sut);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(65535, decoded->port());
}

TEST_F(CommsChannelMessageTest, UnregisterLocatorLayoutIsChannelNameThenPort)
{
    CommsChannelUnregisterLocatorMessage sut;
    sut.setPort(7);
    EXPECT_EQ(ExpectedBytes().header(3).str("").i32(7).bytes(), encodingOf(sut));
}

TEST_F(CommsChannelMessageTest, PortRequestRoundTripsNameAndRequestId)
{
    CommsChannelPortRequestMessage sut;
    sut.setChannel("wanted.channel");
    sut.setRequestId(987654);
    std::unique_ptr<CommsChannelPortRequestMessage> decoded = roundTrip(sut);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ("wanted.channel", decoded->channel());
    EXPECT_EQ(987654, decoded->requestId());
}

TEST_F(CommsChannelMessageTest, PortRequestLayoutIsNameThenRequestId)
{
    CommsChannelPortRequestMessage sut;
    sut.setChannel("ab");
    sut.setRequestId(-2);
    EXPECT_EQ(ExpectedBytes().header(6).str("ab").i64(-2).bytes(), encodingOf(sut));
}

TEST_F(CommsChannelMessageTest, PortResponseRoundTripsNameRequestIdAndPort)
{
    CommsChannelPortResponseMessage sut;
    sut.setChannel("answered");
    sut.setRequestId(42);
    sut.setPort(50001);
    std::unique_ptr<CommsChannelPortResponseMessage> decoded = roundTrip(sut);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ("answered", decoded->channel());
    EXPECT_EQ(42, decoded->requestId());
    EXPECT_EQ(50001, decoded->port());
}

TEST_F(CommsChannelMessageTest, PortResponseForAnUnknownNameCarriesPortZero)
{
    CommsChannelPortResponseMessage sut;
    sut.setChannel("nobody");
    sut.setRequestId(3);
    std::unique_ptr<CommsChannelPortResponseMessage> decoded = roundTrip(sut);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(0, decoded->port());
}

TEST_F(CommsChannelMessageTest, PortResponseLayoutIsNameRequestIdThenPort)
{
    CommsChannelPortResponseMessage sut;
    sut.setChannel("n");
    sut.setRequestId(9);
    sut.setPort(1234);
    EXPECT_EQ(ExpectedBytes().header(7).str("n").i64(9).i32(1234).bytes(), encodingOf(sut));
}

TEST_F(CommsChannelMessageTest, LocatorUpdateRoundTripsEveryRow)
{
    CommsChannelLocatorUpdateMessage sut;
    sut.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_ADDED, "alpha", 40001);
    sut.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_REMOVED, "beta", 40002);
    sut.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_ADDED, "", 0);
    std::unique_ptr<CommsChannelLocatorUpdateMessage> decoded = roundTrip(sut);
    ASSERT_NE(nullptr, decoded);
    ASSERT_EQ(3, decoded->numChannelEntries());
    CommsChannelLocatorUpdateMessage::eUpdateType updateType;
    std::string name;
    int port = -1;
    ASSERT_EQ(1, decoded->getChannelEntry(0, &updateType, &name, &port));
    EXPECT_EQ(CommsChannelLocatorUpdateMessage::CHANNEL_ADDED, updateType);
    EXPECT_EQ("alpha", name);
    EXPECT_EQ(40001, port);
    ASSERT_EQ(1, decoded->getChannelEntry(1, &updateType, &name, &port));
    EXPECT_EQ(CommsChannelLocatorUpdateMessage::CHANNEL_REMOVED, updateType);
    EXPECT_EQ("beta", name);
    EXPECT_EQ(40002, port);
    ASSERT_EQ(1, decoded->getChannelEntry(2, &updateType, &name, &port));
    EXPECT_EQ("", name);
    EXPECT_EQ(0, port);
}

TEST_F(CommsChannelMessageTest, LocatorUpdateWithoutRowsRoundTrips)
{
    CommsChannelLocatorUpdateMessage sut;
    std::unique_ptr<CommsChannelLocatorUpdateMessage> decoded = roundTrip(sut);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(0, decoded->numChannelEntries());
}

TEST_F(CommsChannelMessageTest, LocatorUpdateKeepsAnUpdateTypeOtherThanTheTwoNamed)
{
    CommsChannelLocatorUpdateMessage sut;
    sut.addChannelEntry(static_cast<CommsChannelLocatorUpdateMessage::eUpdateType>(9), "odd", 1);
    std::unique_ptr<CommsChannelLocatorUpdateMessage> decoded = roundTrip(sut);
    ASSERT_NE(nullptr, decoded);
    CommsChannelLocatorUpdateMessage::eUpdateType updateType = CommsChannelLocatorUpdateMessage::CHANNEL_ADDED;
    ASSERT_EQ(1, decoded->getChannelEntry(0, &updateType, nullptr, nullptr));
    EXPECT_EQ(9, static_cast<int>(updateType));
}

TEST_F(CommsChannelMessageTest, LocatorUpdateWithManyRowsRoundTrips)
{
    CommsChannelLocatorUpdateMessage sut;
    for (int i = 0; i < 2000; ++i) {
        sut.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_ADDED, "channel-" + std::to_string(i),
                            30000 + i);
    }
    std::unique_ptr<CommsChannelLocatorUpdateMessage> decoded = roundTrip(sut);
    ASSERT_NE(nullptr, decoded);
    ASSERT_EQ(2000, decoded->numChannelEntries());
    std::string name;
    int port = 0;
    ASSERT_EQ(1, decoded->getChannelEntry(1999, nullptr, &name, &port));
    EXPECT_EQ("channel-1999", name);
    EXPECT_EQ(31999, port);
}

TEST_F(CommsChannelMessageTest, LocatorUpdateLayoutIsRowCountThenRows)
{
    CommsChannelLocatorUpdateMessage sut;
    sut.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_REMOVED, "x", 5);
    EXPECT_EQ(ExpectedBytes().header(5).str("").u32(1).i32(1).str("x").i32(5).bytes(), encodingOf(sut));
}

TEST_F(CommsChannelMessageTest, GetChannelEntryOutOfRangeAnswersZeroAndTouchesNothing)
{
    CommsChannelLocatorUpdateMessage sut;
    sut.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_ADDED, "only", 1);
    CommsChannelLocatorUpdateMessage::eUpdateType updateType = CommsChannelLocatorUpdateMessage::CHANNEL_REMOVED;
    std::string name = "untouched";
    int port = -7;
    EXPECT_EQ(0, sut.getChannelEntry(1, &updateType, &name, &port));
    EXPECT_EQ(0, sut.getChannelEntry(-1, &updateType, &name, &port));
    EXPECT_EQ(CommsChannelLocatorUpdateMessage::CHANNEL_REMOVED, updateType);
    EXPECT_EQ("untouched", name);
    EXPECT_EQ(-7, port);
}

TEST_F(CommsChannelMessageTest, DecodeFillsAMessageOfTheRightClass)
{
    CommsChannelDataContainerMessage original = fullDataMessage();
    const Bytes encoding = encodingOf(original);
    CommsChannelDataContainerMessage sut;
    CommsChannelMessage& asBase = sut;
    EXPECT_EQ(1, asBase.decode(reinterpret_cast<const char*>(encoding.data())));
    EXPECT_EQ("destination", sut.channel());
    EXPECT_EQ("callback", sut.callbackChannel());
    EXPECT_EQ(std::string("hello\0world", 11), sut.getData());
}

TEST_F(CommsChannelMessageTest, DecodeOfAnotherClassEncodingFailsAndChangesNothing)
{
    CommsChannelPortResponseMessage response;
    response.setChannel("not data");
    const Bytes encoding = encodingOf(response);
    CommsChannelDataContainerMessage sut = fullDataMessage();
    EXPECT_EQ(0, sut.decode(reinterpret_cast<const char*>(encoding.data())));
    EXPECT_EQ("destination", sut.channel());
    EXPECT_EQ(std::string("hello\0world", 11), sut.getData());
}

TEST_F(CommsChannelMessageTest, ChannelReturnsTheDestinationByReference)
{
    CommsChannelDataContainerMessage sut;
    sut.setChannel("first");
    std::string& name = sut.channel();
    EXPECT_EQ("first", name);
    name = "changed";
    EXPECT_EQ("changed", sut.channel());
}

TEST_F(CommsChannelMessageTest, DecodedMessageIsDeletedThroughTheBase)
{
    CommsChannelLocatorUpdateMessage update;
    update.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_ADDED, std::string(1000, 'n'), 1);
    const Bytes encoding = encodingOf(update);
    CommsChannelMessage* decoded = decode(encoding).release();
    ASSERT_NE(nullptr, decoded);
    delete decoded;  // leaks or mismatched deletes show up under the sanitizers
}

TEST_F(CommsChannelMessageTest, CopyOfDataContainerIsDeep)
{
    CommsChannelDataContainerMessage original = fullDataMessage();
    CommsChannelDataContainerMessage sut(original);
    original.setData("other", 5);
    original.sourceChannel() = "changed";
    original.setChannel("elsewhere");
    EXPECT_EQ(std::string("hello\0world", 11), sut.getData());
    EXPECT_EQ("source", sut.sourceChannel());
    EXPECT_EQ("destination", sut.channel());
    EXPECT_EQ(123456, sut.requestId());
    EXPECT_EQ(VIREO_PRIORITY_HIGH, sut.priority());
}

TEST_F(CommsChannelMessageTest, AssignmentOfDataContainerIsDeepAndSelfSafe)
{
    CommsChannelDataContainerMessage original = fullDataMessage();
    CommsChannelDataContainerMessage sut;
    sut.setData("old", 3);
    sut = original;
    original.setData("z", 1);
    EXPECT_EQ(std::string("hello\0world", 11), sut.getData());
    EXPECT_EQ("remote-ctx", sut.remoteContext());
    EXPECT_EQ(4, sut.msgType());
    CommsChannelDataContainerMessage& self = sut;
    sut = self;
    EXPECT_EQ(std::string("hello\0world", 11), sut.getData());
}

// Every field of actual, one by one, against expected. (The name getters
// hand out references, so neither message can be const.)
void expectSameFields(CommsChannelDataContainerMessage& expected, CommsChannelDataContainerMessage& actual)
{
    EXPECT_EQ(expected.channel(), actual.channel());
    EXPECT_EQ(expected.sourceChannel(), actual.sourceChannel());
    EXPECT_EQ(expected.callbackChannel(), actual.callbackChannel());
    EXPECT_EQ(expected.protocol(), actual.protocol());
    EXPECT_EQ(expected.interface(), actual.interface());
    EXPECT_EQ(expected.remoteContext(), actual.remoteContext());
    EXPECT_EQ(expected.requestId(), actual.requestId());
    EXPECT_EQ(expected.msgType(), actual.msgType());
    EXPECT_EQ(expected.priority(), actual.priority());
    EXPECT_EQ(expected.getData(), actual.getData());
}

TEST_F(CommsChannelMessageTest, AssignmentIntoAKeptMessageTakesEveryFieldWhetherItDiffersOrNot)
{
    // Each field of the target differs from the source in its own way:
    // same length, other length, empty, or already equal.
    CommsChannelDataContainerMessage sut;
    sut.setChannel("destinatioX");
    sut.setSourceChannel("a much longer source name");
    sut.setCallbackChannel("");
    sut.setProtocol("proto");
    sut.setInterface("eth-iX");
    sut.setRemoteContext("r");
    sut.setRequestId(123456);
    sut.setMsgType(9);
    sut.setPriority(VIREO_PRIORITY_LOW);
    sut.setData("other bytes", 11);
    CommsChannelDataContainerMessage original = fullDataMessage();

    sut = original;
    expectSameFields(original, sut);

    // And back to empty names and zero values.
    CommsChannelDataContainerMessage empty;
    sut = empty;
    expectSameFields(empty, sut);
    EXPECT_EQ(0, sut.getDataLength());
}

TEST(CommsChannelMessageSpoolTest, AssignmentOverAMessageWithAPendingSpoolFileRemovesTheFile)
{
    const std::vector<std::string> before = cctest::spoolFilesOfThisProcess();
    CommsChannelDataContainerMessage target;
    target.setData(std::string(70000, 'y').data(), 70000);
    target.putDataToFile();
    ASSERT_TRUE(target.hasDataFile());
    ASSERT_NE(before, cctest::spoolFilesOfThisProcess());

    CommsChannelDataContainerMessage small;
    small.setData("small", 5);
    target = small;
    EXPECT_FALSE(target.hasDataFile());
    EXPECT_EQ("small", target.getData());
    EXPECT_EQ(before, cctest::spoolFilesOfThisProcess());
}

TEST_F(CommsChannelMessageTest, SetDataWithNullOrNonPositiveLengthLeavesNoData)
{
    CommsChannelDataContainerMessage sut;
    sut.setData("abc", 3);
    sut.setData(nullptr, 5);
    EXPECT_EQ(0, sut.getDataLength());
    sut.setData("abc", 3);
    sut.setData("abc", 0);
    EXPECT_EQ(0, sut.getDataLength());
    sut.setData("abc", -4);
    EXPECT_EQ("", sut.getData());
}

TEST_F(CommsChannelMessageTest, SetDataCopiesTheBytes)
{
    char data[] = "mutable";
    CommsChannelDataContainerMessage sut;
    sut.setData(data, 7);
    data[0] = 'X';
    EXPECT_EQ("mutable", sut.getData());
}

TEST_F(CommsChannelMessageTest, GetDataWithLengthAnswersPointerAndLength)
{
    CommsChannelDataContainerMessage sut;
    sut.setData("bytes\0here", 10);
    int length = -1;
    const char* data = sut.getData(&length);
    ASSERT_EQ(10, length);
    EXPECT_EQ(0, std::memcmp("bytes\0here", data, 10));
}

TEST_F(CommsChannelMessageTest, GetDataWithLengthOnEmptyMessageAnswersZero)
{
    CommsChannelDataContainerMessage sut;
    int length = -1;
    EXPECT_NE(nullptr, sut.getData(&length));
    EXPECT_EQ(0, length);
}

TEST_F(CommsChannelMessageTest, TextFieldsAreWritableThroughTheirReferences)
{
    CommsChannelDataContainerMessage sut;
    sut.protocol() = "p2";
    sut.interface() = "if2";
    sut.remoteContext() = "rc2";
    sut.callbackChannel() = "cb2";
    std::unique_ptr<CommsChannelDataContainerMessage> decoded = roundTrip(sut);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ("p2", decoded->protocol());
    EXPECT_EQ("if2", decoded->interface());
    EXPECT_EQ("rc2", decoded->remoteContext());
    EXPECT_EQ("cb2", decoded->callbackChannel());
}

}  // namespace

namespace {

CommsChannelDataContainerMessage filledMessage(const std::string& data)
{
    CommsChannelDataContainerMessage message;
    message.setChannel("to");
    message.setSourceChannel("from");
    message.setCallbackChannel("back");
    message.setProtocol("proto");
    message.setInterface("if");
    message.setRemoteContext("ctx");
    message.setRequestId(42);
    message.setMsgType(5);
    message.setPriority(VIREO_PRIORITY_HIGH);
    message.setData(data.data(), static_cast<int>(data.size()));
    return message;
}

TEST(CommsChannelMessageMoveTest, MoveAssignmentHandsEveryFieldOverAndEmptiesTheSource)
{
    CommsChannelDataContainerMessage source = filledMessage(std::string(100000, 'x'));
    CommsChannelDataContainerMessage target;
    target.setData("old", 3);
    target = std::move(source);
    EXPECT_EQ("to", target.channel());
    EXPECT_EQ("from", target.sourceChannel());
    EXPECT_EQ("back", target.callbackChannel());
    EXPECT_EQ("proto", target.protocol());
    EXPECT_EQ("if", target.interface());
    EXPECT_EQ("ctx", target.remoteContext());
    EXPECT_EQ(42, target.requestId());
    EXPECT_EQ(5, target.msgType());
    EXPECT_EQ(VIREO_PRIORITY_HIGH, target.priority());
    EXPECT_EQ(std::string(100000, 'x'), target.getData());
    EXPECT_EQ(0, source.getDataLength());
    EXPECT_TRUE(source.sourceChannel().empty());
}

TEST(CommsChannelMessageMoveTest, MovingAMessageWithAPendingSpoolFileLeavesNoFileBehind)
{
    const std::vector<std::string> before = cctest::spoolFilesOfThisProcess();
    {
        CommsChannelDataContainerMessage source = filledMessage(std::string(70000, 'y'));
        source.putDataToFile();
        ASSERT_TRUE(source.hasDataFile());
        CommsChannelDataContainerMessage target(std::move(source));
        // Like a copy, the target has no spool file of its own; the source's
        // file went with the source's contents.
        EXPECT_FALSE(target.hasDataFile());
        EXPECT_FALSE(source.hasDataFile());
        EXPECT_EQ(std::string(70000, 'y'), target.getData());
    }
    EXPECT_EQ(before, cctest::spoolFilesOfThisProcess());
}

}  // namespace
