// VireoException and CommsException: the text, serialisation and its
// refusals, and use through every base.
#include "VireoException.h"

#include "CommsException.h"
#include "PlatformTestSupport.h"

#include <exception>
#include <string>

#include <gtest/gtest.h>

namespace {

const char TIMEOUT_TEXT[] = "CommsChannel 'receive' timed out, timeout duration = 250";

// Deserialises serialized into an exception that holds "unchanged" first.
struct DeserializeResult {
    bool accepted;
    std::string text;
};

DeserializeResult deserializeInto(const std::string& serialized)
{
    VireoException sut("unchanged");
    std::string input = serialized;
    const bool accepted = sut.deserialize(input);
    return DeserializeResult{accepted, sut.what()};
}

TEST(VireoException, WhatReturnsTheText)
{
    VireoException sut("something broke");
    EXPECT_STREQ("something broke", sut.what());
}

TEST(VireoException, DefaultConstructedHasEmptyText)
{
    VireoException sut;
    EXPECT_STREQ("", sut.what());
}

TEST(VireoException, CopyAndAssignmentKeepTheText)
{
    VireoException original("first");
    VireoException copy(original);
    VireoException assigned("second");
    assigned = original;
    EXPECT_STREQ("first", copy.what());
    EXPECT_STREQ("first", assigned.what());
}

TEST(VireoException, SerializeWritesPrefixLengthAndText)
{
    EXPECT_EQ("VireoException:5:hello", VireoException("hello").serialize());
    EXPECT_EQ("VireoException:0:", VireoException("").serialize());
}

TEST(VireoException, SerializeDeserializeRoundTripsTexts)
{
    const std::string texts[] = {"", "x", "with:colons:inside", "line\nbreaks\r\n", std::string("nul\0byte", 8),
                                 std::string(100000, 'q'), "VireoException:3:abc"};
    for (const std::string& text : texts) {
        std::string serialized = VireoException(text).serialize();
        VireoException sut("before");
        ASSERT_TRUE(sut.deserialize(serialized)) << serialized.substr(0, 40);
        EXPECT_EQ(text, std::string(sut.what(), text.size()));
        EXPECT_EQ(serialized, sut.serialize());
    }
}

TEST(VireoException, DeserializeRejectsMalformedStringsAndKeepsTheText)
{
    const std::string malformed[] = {
        "",
        "VireoException",
        "VireoException:",
        "VireoException::",
        "VireoException::abc",
        "VireoException:3",
        "VireoException:3abc",
        "VireoException:-3:abc",
        "VireoException:+3:abc",
        "VireoException: 3:abc",
        "VireoException:3 :abc",
        "VireoException:0x3:abc",
        "VireoException:4:abc",
        "VireoException:2:abc",
        "VireoException:99999999999999999999999999:abc",
        "VireoException:18446744073709551619:abc",
        "vireoexception:3:abc",
        "CommsException:3:abc",
        "XVireoException:3:abc",
        " VireoException:3:abc",
        std::string("VireoException:3:ab", 19),
    };
    for (const std::string& serialized : malformed) {
        const DeserializeResult result = deserializeInto(serialized);
        EXPECT_FALSE(result.accepted) << "'" << serialized << "'";
        EXPECT_EQ("unchanged", result.text) << "'" << serialized << "'";
    }
}

TEST(VireoException, DeserializeReachedThroughTheSerializableInterface)
{
    VireoException sut("old");
    VireoSerializable& serializable = sut;
    EXPECT_EQ("VireoException:3:old", serializable.serialize());
    std::string serialized = VireoException("new text").serialize();
    ASSERT_TRUE(serializable.deserialize(serialized));
    EXPECT_STREQ("new text", sut.what());
    EXPECT_EQ(serialized, serializable.serialize());
}

TEST(VireoException, VirtualOperationsAreInTheirSlots)
{
    // Destructor (two entries), what(), serialize(), deserialize().
    EXPECT_EQ(2, pftest::vtableIndex(&VireoException::what));
    EXPECT_EQ(3, pftest::vtableIndex(&VireoException::serialize));
    EXPECT_EQ(4, pftest::vtableIndex(&VireoException::deserialize));
    // The second base part: destructor (two entries), serialize(), deserialize().
    EXPECT_EQ(2, pftest::vtableIndex(&VireoSerializable::serialize));
    EXPECT_EQ(3, pftest::vtableIndex(&VireoSerializable::deserialize));
}

TEST(CommsException, WhatReturnsTheText)
{
    CommsException sut(TIMEOUT_TEXT);
    EXPECT_STREQ(TIMEOUT_TEXT, sut.what());
}

TEST(CommsException, UsableThroughVireoExceptionAndStdException)
{
    CommsException sut(TIMEOUT_TEXT);
    VireoException& asVireo = sut;
    std::exception& asStd = sut;
    EXPECT_STREQ(TIMEOUT_TEXT, asVireo.what());
    EXPECT_STREQ(TIMEOUT_TEXT, asStd.what());
}

TEST(CommsException, CaughtAsVireoException)
{
    try {
        throw CommsException(TIMEOUT_TEXT);
    } catch (const VireoException& caught) {
        EXPECT_STREQ(TIMEOUT_TEXT, caught.what());
        return;
    }
    FAIL() << "not caught as VireoException";
}

TEST(CommsException, CaughtAsStdException)
{
    try {
        throw CommsException(TIMEOUT_TEXT);
    } catch (const std::exception& caught) {
        EXPECT_STREQ(TIMEOUT_TEXT, caught.what());
        return;
    }
    FAIL() << "not caught as std::exception";
}

TEST(CommsException, CopyKeepsTheText)
{
    CommsException original(TIMEOUT_TEXT);
    CommsException copy(original);
    EXPECT_STREQ(TIMEOUT_TEXT, copy.what());
}

TEST(CommsException, SerializeDeserializeRoundTripsThroughTheBase)
{
    CommsException original(TIMEOUT_TEXT);
    std::string serialized = original.serialize();
    CommsException sut("placeholder");
    VireoException& asVireo = sut;
    ASSERT_TRUE(asVireo.deserialize(serialized));
    EXPECT_STREQ(TIMEOUT_TEXT, sut.what());
}

TEST(CommsException, SerializeReachedThroughTheSecondBasePart)
{
    CommsException sut(TIMEOUT_TEXT);
    VireoSerializable& serializable = sut;
    EXPECT_EQ(std::string("VireoException:") + std::to_string(sizeof TIMEOUT_TEXT - 1) + ":" + TIMEOUT_TEXT,
              serializable.serialize());
    std::string malformed = "VireoException:1:too long";
    EXPECT_FALSE(serializable.deserialize(malformed));
    EXPECT_STREQ(TIMEOUT_TEXT, sut.what());
}

}  // namespace
