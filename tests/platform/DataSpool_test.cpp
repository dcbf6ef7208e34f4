// Large data through spool files: putDataToFile, the encoding's reference,
// decoding that brings the data back and removes the file, and the files and
// directories that the decoder refuses to touch.
//
// Every test runs on a private tmpfs mounted on /tmp, so that the spool
// directory starts absent and may be broken on purpose without disturbing
// other tests or the host.
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelMessageCreator.h"
#include "DataContainerFields.h"
#include "DataSpool.h"

#include "ChildProcess.h"
#include "StderrRecorder.h"
#include "PlatformTestSupport.h"
#include "TestUtil.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using pftest::Bytes;
using pftest::fileReferenceEncoding;

// A user id that owns nothing on this machine.
const uid_t FOREIGN_UID = 4242;

std::string hex(const Bytes& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned char byte : bytes) {
        text.push_back(digits[byte >> 4]);
        text.push_back(digits[byte & 0xF]);
    }
    return text;
}

Bytes unhex(const std::string& text)
{
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoi(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

// Deterministic data of the given size, different for every seed.
std::string patternData(std::size_t size, unsigned seed)
{
    std::string data(size, '\0');
    std::uint32_t state = seed * 2654435761U + 1;
    for (std::size_t i = 0; i < size; ++i) {
        state = state * 1664525U + 1013904223U;
        data[i] = static_cast<char>(state >> 24);
    }
    return data;
}

Bytes encodingOf(CommsChannelDataContainerMessage& message)
{
    int length = 0;
    const char* encoding = message.encode(&length);
    return encoding != nullptr ? Bytes(encoding, encoding + length) : Bytes();
}

class DataSpoolTest : public testing::Test {
protected:
    void SetUp() override
    {
        const std::string failure = cctest::mountPrivateTmp(CC_TEST_BINARY_DIR);
        if (!failure.empty()) {
            GTEST_SKIP() << "needs a private /tmp: " << failure;
        }
        mounted = true;
    }
    void TearDown() override
    {
        if (mounted) {
            cctest::unmountPrivateTmp();
        }
    }

    static std::string spoolDir() { return "/tmp/commschannel-spool-" + std::to_string(geteuid()); }
    static std::string spoolPath(const std::string& name) { return spoolDir() + "/" + name; }
    // Every entry of the spool directory, whoever made it.
    static std::vector<std::string> spoolEntries()
    {
        std::vector<std::string> names;
        DIR* dir = opendir(spoolDir().c_str());
        if (dir == nullptr) {
            return names;
        }
        while (dirent* entry = readdir(dir)) {
            const std::string name(entry->d_name);
            if (name != "." && name != "..") {
                names.push_back(name);
            }
        }
        closedir(dir);
        std::sort(names.begin(), names.end());
        return names;
    }
    static void makeSpoolDir(mode_t mode = 0700)
    {
        ASSERT_EQ(0, mkdir(spoolDir().c_str(), 0700));
        ASSERT_EQ(0, chmod(spoolDir().c_str(), mode));
    }
    static void writeFile(const std::string& path, const std::string& content, mode_t mode = 0600)
    {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode);
        ASSERT_GE(fd, 0) << path;
        ASSERT_EQ(static_cast<ssize_t>(content.size()), write(fd, content.data(), content.size()));
        close(fd);
    }
    static bool exists(const std::string& path)
    {
        struct stat info;
        return lstat(path.c_str(), &info) == 0;
    }
    static CommsChannelDataContainerMessage* messageWith(const std::string& data)
    {
        CommsChannelDataContainerMessage* message = new CommsChannelDataContainerMessage();
        message->setChannel("receiver");
        message->setSourceChannel("sender");
        message->setRequestId(31);
        message->setData(data.data(), static_cast<int>(data.size()));
        return message;
    }
    // Decodes from a heap buffer of exactly the encoding's size.
    std::unique_ptr<CommsChannelDataContainerMessage> decode(const Bytes& encoding)
    {
        std::unique_ptr<char[]> buffer(new char[encoding.size() > 0 ? encoding.size() : 1]);
        std::memcpy(buffer.get(), encoding.data(), encoding.size());
        CommsChannelMessage* message =
            creator.decodeMessage(buffer.get(), static_cast<unsigned int>(encoding.size()));
        CommsChannelDataContainerMessage* data = dynamic_cast<CommsChannelDataContainerMessage*>(message);
        if (data == nullptr) {
            delete message;
        }
        return std::unique_ptr<CommsChannelDataContainerMessage>(data);
    }
    // A valid spool file name that no writer of this test made.
    static std::string plantedName(unsigned pid = 1, unsigned long long unique = 0xabcdefULL)
    {
        char name[64];
        std::snprintf(name, sizeof name, "cc-%08x-%016llx", pid, unique);
        return name;
    }
    // Expects that an encoding referring to the planted name is refused.
    void expectReferenceRefused(const std::string& name, std::uint64_t length)
    {
        EXPECT_EQ(nullptr, decode(fileReferenceEncoding(name, length))) << name;
    }

    bool mounted = false;
    CommsChannelMessageCreator creator;
};

TEST_F(DataSpoolTest, DirectoryIsTheFixedPathOfThisUser)
{
    EXPECT_EQ(spoolDir(), spool::directory());
}

TEST_F(DataSpoolTest, NamesFollowingThePatternAreValid)
{
    EXPECT_TRUE(spool::isValidName("cc-00000001-0000000000000000"));
    EXPECT_TRUE(spool::isValidName("cc-abcdef09-0123456789abcdef"));
}

TEST_F(DataSpoolTest, NamesOutsideThePatternAreInvalid)
{
    const std::string invalid[] = {"",
                                   "cc-",
                                   "cc-00000001-000000000000000",
                                   "cc-00000001-00000000000000000",
                                   "cc-0000000A-0000000000000000",
                                   "cc-00000001-000000000000000G",
                                   "cc-00000001_0000000000000000",
                                   "cd-00000001-0000000000000000",
                                   "../00000001-0000000000000000",
                                   "cc-00000001-0000000000/00000",
                                   std::string("cc-00000001-000000000000000\0", 28)};
    for (const std::string& name : invalid) {
        EXPECT_FALSE(spool::isValidName(name)) << "'" << name << "'";
    }
}

TEST_F(DataSpoolTest, PutDataToFileCreatesTheSpoolDirectoryForTheOwnerAndItsGroupOnly)
{
    ASSERT_FALSE(exists(spoolDir()));
    std::unique_ptr<CommsChannelDataContainerMessage> sut(messageWith(patternData(100000, 1)));
    sut->putDataToFile();
    struct stat info;
    ASSERT_EQ(0, lstat(spoolDir().c_str(), &info));
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    EXPECT_EQ(0770U, info.st_mode & 07777);
    EXPECT_EQ(geteuid(), info.st_uid);
    EXPECT_EQ(getegid(), info.st_gid);
}

TEST_F(DataSpoolTest, PutDataToFileWritesTheDataToAFileForTheOwnerAndItsGroupNamedAfterThisProcess)
{
    const std::string data = patternData(100000, 2);
    std::unique_ptr<CommsChannelDataContainerMessage> sut(messageWith(data));
    sut->putDataToFile();
    EXPECT_TRUE(sut->hasDataFile());
    const std::vector<std::string> files = cctest::spoolFilesOfThisProcess();
    ASSERT_EQ(1U, files.size());
    EXPECT_EQ(files, spoolEntries());
    EXPECT_TRUE(spool::isValidName(files[0]));
    struct stat info;
    ASSERT_EQ(0, lstat(spoolPath(files[0]).c_str(), &info));
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_EQ(0640U, info.st_mode & 07777);
    EXPECT_EQ(geteuid(), info.st_uid);
    EXPECT_EQ(data, cctest::readFile(spoolPath(files[0])));
    // The message keeps its data in memory all the same.
    EXPECT_EQ(data, sut->getData());
}

TEST_F(DataSpoolTest, PeekingAnEncodingReadsTheReferenceAndLeavesTheFile)
{
    const std::string data = patternData(100000, 7);
    std::unique_ptr<CommsChannelDataContainerMessage> sut(messageWith(data));
    sut->setSourceChannel("writer");
    sut->setRequestId(42);
    sut->putDataToFile();
    int length = 0;
    const char* encoding = sut->encode(&length);
    ASSERT_NE(nullptr, encoding);
    const std::vector<std::string> files = cctest::spoolFilesOfThisProcess();
    ASSERT_EQ(1U, files.size());

    DataContainerFields fields;
    ASSERT_TRUE(peekDataContainer(encoding, static_cast<std::size_t>(length), &fields));
    EXPECT_TRUE(fields.inFile);
    EXPECT_EQ("writer", fields.sourceChannel);
    EXPECT_EQ(42, fields.requestId);
    EXPECT_EQ(files[0], fields.fileName);
    EXPECT_EQ(data.size(), fields.fileLength);
    EXPECT_EQ(static_cast<std::uint32_t>(geteuid()), fields.fileOwner);
    EXPECT_EQ(spoolPath(files[0]), dataContainerSpoolPath(fields));
    EXPECT_TRUE(fields.data.empty());
    EXPECT_EQ(data, cctest::readFile(spoolPath(files[0])));
    // The file is still there for the real receiver, which takes it.
    CommsChannelDataContainerMessage received;
    ASSERT_EQ(1, received.decode(encoding, static_cast<unsigned int>(length)));
    EXPECT_EQ(data, received.getData());
    EXPECT_TRUE(cctest::spoolFilesOfThisProcess().empty());
    EXPECT_FALSE(peekDataContainer(encoding, static_cast<std::size_t>(length - 1), &fields));
}

TEST_F(DataSpoolTest, EncodingWithAFileCarriesOnlyTheReference)
{
    const std::string data = patternData(1 << 20, 3);
    std::unique_ptr<CommsChannelDataContainerMessage> sut(messageWith(data));
    sut->putDataToFile();
    const std::vector<std::string> files = cctest::spoolFilesOfThisProcess();
    ASSERT_EQ(1U, files.size());
    const Bytes encoding = encodingOf(*sut);
    // Version 2: the reference names its writer.
    const Bytes expected = pftest::EncodingBuilder()
                               .header(1, 2)
                               .str("receiver")
                               .str("sender")
                               .str("")
                               .str("")
                               .str("")
                               .str("")
                               .i64(31)
                               .i32(0)
                               .i32(VIREO_PRIORITY_NORMAL)
                               .u8(1)
                               .str(files[0])
                               .u64(data.size())
                               .u32(static_cast<std::uint32_t>(geteuid()))
                               .bytes();
    EXPECT_EQ(expected, encoding);
    EXPECT_LT(encoding.size(), 200U);
}

TEST_F(DataSpoolTest, DecodeBringsTheDataBackAndRemovesTheFile)
{
    const std::string data = patternData(200000, 4);
    std::unique_ptr<CommsChannelDataContainerMessage> sut(messageWith(data));
    sut->putDataToFile();
    const Bytes encoding = encodingOf(*sut);
    ASSERT_EQ(1U, spoolEntries().size());
    std::unique_ptr<CommsChannelDataContainerMessage> decoded = decode(encoding);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(data, decoded->getData());
    EXPECT_EQ("receiver", decoded->channel());
    EXPECT_EQ("sender", decoded->sourceChannel());
    EXPECT_EQ(31, decoded->requestId());
    EXPECT_FALSE(decoded->hasDataFile());
    EXPECT_TRUE(spoolEntries().empty());
}

TEST_F(DataSpoolTest, DecodeIntoAnExistingMessageBringsTheDataBack)
{
    const std::string data = patternData(70000, 5);
    std::unique_ptr<CommsChannelDataContainerMessage> sender(messageWith(data));
    sender->putDataToFile();
    const Bytes encoding = encodingOf(*sender);
    CommsChannelDataContainerMessage sut;
    EXPECT_EQ(1, sut.decode(reinterpret_cast<const char*>(encoding.data())));
    EXPECT_EQ(data, sut.getData());
    EXPECT_TRUE(spoolEntries().empty());
}

TEST_F(DataSpoolTest, SixtyFourMiBRoundTripIsIntactAndLeavesNoFile)
{
    const std::string data = patternData(64U << 20, 6);
    {
        std::unique_ptr<CommsChannelDataContainerMessage> sut(messageWith(data));
        sut->putDataToFile();
        const Bytes encoding = encodingOf(*sut);
        EXPECT_LT(encoding.size(), 200U);
        sut.reset();
        std::unique_ptr<CommsChannelDataContainerMessage> decoded = decode(encoding);
        ASSERT_NE(nullptr, decoded);
        ASSERT_EQ(data.size(), decoded->getData().size());
        EXPECT_TRUE(data == decoded->getData());
        int length = 0;
        const char* bytes = decoded->getData(&length);
        ASSERT_EQ(static_cast<int>(data.size()), length);
        EXPECT_EQ(0, std::memcmp(data.data(), bytes, data.size()));
    }
    EXPECT_TRUE(spoolEntries().empty());
    EXPECT_TRUE(cctest::spoolFilesOfThisProcess().empty());
}

TEST_F(DataSpoolTest, MessageDestroyedWithoutBeingEncodedRemovesItsFile)
{
    std::unique_ptr<CommsChannelDataContainerMessage> sut(messageWith(patternData(80000, 7)));
    sut->putDataToFile();
    ASSERT_EQ(1U, spoolEntries().size());
    sut.reset();
    EXPECT_TRUE(spoolEntries().empty());
}

TEST_F(DataSpoolTest, FileHandedOutWithAnEncodingOutlivesTheSenderUntilDecoded)
{
    const std::string data = patternData(90000, 8);
    std::unique_ptr<CommsChannelDataContainerMessage> sut(messageWith(data));
    sut->putDataToFile();
    const Bytes encoding = encodingOf(*sut);
    sut.reset();
    // The file now belongs to whoever reads the encoding.
    ASSERT_EQ(1U, spoolEntries().size());
    std::unique_ptr<CommsChannelDataContainerMessage> decoded = decode(encoding);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(data, decoded->getData());
    EXPECT_TRUE(spoolEntries().empty());
}

TEST_F(DataSpoolTest, SetDataAfterPutDataToFileRemovesTheFile)
{
    std::unique_ptr<CommsChannelDataContainerMessage> sut(messageWith(patternData(80000, 9)));
    sut->putDataToFile();
    ASSERT_EQ(1U, spoolEntries().size());
    sut->setData("small", 5);
    EXPECT_FALSE(sut->hasDataFile());
    EXPECT_TRUE(spoolEntries().empty());
    std::unique_ptr<CommsChannelDataContainerMessage> decoded = decode(encodingOf(*sut));
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ("small", decoded->getData());
}

TEST_F(DataSpoolTest, AssigningOverAMessageWithAFileRemovesTheFile)
{
    std::unique_ptr<CommsChannelDataContainerMessage> sut(messageWith(patternData(80000, 10)));
    sut->putDataToFile();
    ASSERT_EQ(1U, spoolEntries().size());
    CommsChannelDataContainerMessage other;
    other.setData("other", 5);
    *sut = other;
    EXPECT_FALSE(sut->hasDataFile());
    EXPECT_TRUE(spoolEntries().empty());
    EXPECT_EQ("other", sut->getData());
}

TEST_F(DataSpoolTest, CopyOfAMessageWithAFileHasNoFileOfItsOwn)
{
    const std::string data = patternData(80000, 11);
    std::unique_ptr<CommsChannelDataContainerMessage> original(messageWith(data));
    original->putDataToFile();
    std::unique_ptr<CommsChannelDataContainerMessage> sut(new CommsChannelDataContainerMessage(*original));
    EXPECT_FALSE(sut->hasDataFile());
    EXPECT_TRUE(original->hasDataFile());
    // The copy's encoding carries the data itself.
    std::unique_ptr<CommsChannelDataContainerMessage> decoded = decode(encodingOf(*sut));
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(data, decoded->getData());
    EXPECT_EQ(1U, spoolEntries().size());
    sut.reset();
    EXPECT_EQ(1U, spoolEntries().size());
    original.reset();
    EXPECT_TRUE(spoolEntries().empty());
}

TEST_F(DataSpoolTest, PutDataToFileTwiceMakesOneFile)
{
    std::unique_ptr<CommsChannelDataContainerMessage> sut(messageWith(patternData(80000, 12)));
    sut->putDataToFile();
    sut->putDataToFile();
    EXPECT_EQ(1U, spoolEntries().size());
}

TEST_F(DataSpoolTest, PutDataToFileWithoutDataMakesNoFile)
{
    CommsChannelDataContainerMessage sut;
    sut.putDataToFile();
    EXPECT_FALSE(sut.hasDataFile());
    EXPECT_TRUE(spoolEntries().empty());
    std::unique_ptr<CommsChannelDataContainerMessage> decoded = decode(encodingOf(sut));
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(0, decoded->getDataLength());
}

TEST_F(DataSpoolTest, SecondEncodeAfterTheFileWasHandedOutCarriesTheDataInline)
{
    const std::string data = patternData(80000, 13);
    std::unique_ptr<CommsChannelDataContainerMessage> sut(messageWith(data));
    sut->putDataToFile();
    const Bytes first = encodingOf(*sut);
    const Bytes second = encodingOf(*sut);
    EXPECT_LT(first.size(), 200U);
    EXPECT_GT(second.size(), data.size());
    EXPECT_EQ(1U, spoolEntries().size());
    std::unique_ptr<CommsChannelDataContainerMessage> fromSecond = decode(second);
    ASSERT_NE(nullptr, fromSecond);
    EXPECT_EQ(data, fromSecond->getData());
    std::unique_ptr<CommsChannelDataContainerMessage> fromFirst = decode(first);
    ASSERT_NE(nullptr, fromFirst);
    EXPECT_EQ(data, fromFirst->getData());
    EXPECT_TRUE(spoolEntries().empty());
}

TEST_F(DataSpoolTest, EverySendOfOneMessageGetsAFileOfItsOwn)
{
    const std::string data = patternData(80000, 14);
    std::unique_ptr<CommsChannelDataContainerMessage> sut(messageWith(data));
    sut->putDataToFile();
    const Bytes first = encodingOf(*sut);
    sut->putDataToFile();
    const Bytes second = encodingOf(*sut);
    EXPECT_NE(first, second);
    EXPECT_EQ(2U, spoolEntries().size());
    std::unique_ptr<CommsChannelDataContainerMessage> a = decode(first);
    std::unique_ptr<CommsChannelDataContainerMessage> b = decode(second);
    ASSERT_NE(nullptr, a);
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(data, a->getData());
    EXPECT_EQ(data, b->getData());
    EXPECT_TRUE(spoolEntries().empty());
}

TEST_F(DataSpoolTest, DecodeOfAnEncodingWhoseFileIsMissingFailsCleanly)
{
    std::unique_ptr<CommsChannelDataContainerMessage> sender(messageWith(patternData(80000, 15)));
    sender->putDataToFile();
    const Bytes encoding = encodingOf(*sender);
    const std::vector<std::string> files = spoolEntries();
    ASSERT_EQ(1U, files.size());
    ASSERT_EQ(0, unlink(spoolPath(files[0]).c_str()));
    EXPECT_EQ(nullptr, decode(encoding));
    CommsChannelDataContainerMessage sut;
    sut.setData("before", 6);
    EXPECT_EQ(0, sut.decode(reinterpret_cast<const char*>(encoding.data())));
    EXPECT_EQ("before", sut.getData());
}

TEST_F(DataSpoolTest, DecodingTheSameEncodingTwiceFailsTheSecondTime)
{
    std::unique_ptr<CommsChannelDataContainerMessage> sender(messageWith(patternData(80000, 16)));
    sender->putDataToFile();
    const Bytes encoding = encodingOf(*sender);
    EXPECT_NE(nullptr, decode(encoding));
    EXPECT_EQ(nullptr, decode(encoding));
}

TEST_F(DataSpoolTest, SpoolReferenceIsVersionTwoAndTheSameMessageInlineIsVersionOne)
{
    const std::string data = patternData(70000, 40);
    std::unique_ptr<CommsChannelDataContainerMessage> sut(messageWith(data));
    sut->putDataToFile();
    const Bytes spooled = encodingOf(*sut);
    const Bytes inlined = encodingOf(*sut);
    ASSERT_GE(spooled.size(), 8U);
    ASSERT_GT(inlined.size(), data.size());
    EXPECT_EQ(2, spooled[2]);
    EXPECT_EQ(1, inlined[2]);
    std::unique_ptr<CommsChannelDataContainerMessage> fromFile = decode(spooled);
    ASSERT_NE(nullptr, fromFile);
    EXPECT_EQ(data, fromFile->getData());
    std::unique_ptr<CommsChannelDataContainerMessage> fromEncoding = decode(inlined);
    ASSERT_NE(nullptr, fromEncoding);
    EXPECT_EQ(data, fromEncoding->getData());
    EXPECT_TRUE(spoolEntries().empty());
}

// Version 1 spool reference, byte by byte as docs/wire-format.md gives it:
// header CC 5E 01 01 and the total length, the six strings (channel first),
// request id, message type, priority, data kind 1, file name and data
// length, and no owner.
Bytes versionOneReference(const std::string& fileName, std::uint64_t length)
{
    Bytes bytes = {0xCC, 0x5E, 0x01, 0x01, 0, 0, 0, 0};
    const auto put = [&bytes](const void* value, std::size_t size) {
        const unsigned char* p = static_cast<const unsigned char*>(value);
        bytes.insert(bytes.end(), p, p + size);
    };
    const auto putString = [&put](const std::string& text) {
        const std::uint32_t size = static_cast<std::uint32_t>(text.size());
        put(&size, 4);
        put(text.data(), text.size());
    };
    putString("receiver");
    putString("sender");
    putString("back");
    putString("proto");
    putString("if");
    putString("ctx");
    const std::int64_t requestId = 31;
    const std::int32_t msgType = 2;
    const std::int32_t priority = VIREO_PRIORITY_HIGH;
    put(&requestId, 8);
    put(&msgType, 4);
    put(&priority, 4);
    bytes.push_back(1);
    putString(fileName);
    put(&length, 8);
    const std::uint32_t total = static_cast<std::uint32_t>(bytes.size());
    std::memcpy(&bytes[4], &total, 4);
    return bytes;
}

TEST_F(DataSpoolTest, VersionOneReferenceIsReadFromThisUsersOwnDirectory)
{
    makeSpoolDir();
    const std::string data = patternData(90000, 41);
    const std::string name = plantedName(77, 0x1234);
    writeFile(spoolPath(name), data);
    const Bytes encoding = versionOneReference(name, data.size());
    EXPECT_EQ(8U + 12 + 10 + 8 + 9 + 6 + 7 + 8 + 4 + 4 + 1 + 32 + 8, encoding.size());
    std::unique_ptr<CommsChannelDataContainerMessage> decoded = decode(encoding);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(data, decoded->getData());
    EXPECT_EQ("receiver", decoded->channel());
    EXPECT_EQ("sender", decoded->sourceChannel());
    EXPECT_EQ("back", decoded->callbackChannel());
    EXPECT_EQ("proto", decoded->protocol());
    EXPECT_EQ("if", decoded->interface());
    EXPECT_EQ("ctx", decoded->remoteContext());
    EXPECT_EQ(31, decoded->requestId());
    EXPECT_EQ(2, decoded->msgType());
    EXPECT_EQ(VIREO_PRIORITY_HIGH, decoded->priority());
    EXPECT_FALSE(exists(spoolPath(name)));
}

TEST_F(DataSpoolTest, VersionOneReferenceDecodesIntoAReceivedMessageAsTheReceiverDoesIt)
{
    makeSpoolDir();
    const std::string data = patternData(65000, 42);
    const std::string name = plantedName(78, 0x5678);
    writeFile(spoolPath(name), data);
    const Bytes encoding = versionOneReference(name, data.size());
    CommsChannelDataContainerMessage sut;
    EXPECT_EQ(1, sut.decode(reinterpret_cast<const char*>(encoding.data())));
    EXPECT_EQ(data, sut.getData());
    EXPECT_TRUE(spoolEntries().empty());
}

TEST_F(DataSpoolTest, VersionOneReferenceToAMissingFileIsReportedWithThisUsersDirectory)
{
    cctest::StderrRecorder recorder;
    makeSpoolDir();
    EXPECT_EQ(nullptr, decode(versionOneReference(plantedName(79, 0x9), 5000)));
    EXPECT_NE(std::string::npos,
              recorder.text().find("cannot read large data file " + spoolPath(plantedName(79, 0x9)) + ": "))
        << recorder.text();
}

TEST_F(DataSpoolTest, SpoolReferenceOfAnUnknownVersionIsReportedAndLeavesItsFile)
{
    std::unique_ptr<CommsChannelDataContainerMessage> sender(messageWith(patternData(80000, 43)));
    sender->putDataToFile();
    Bytes encoding = encodingOf(*sender);
    ASSERT_EQ(1U, spoolEntries().size());
    encoding[2] = 3;
    cctest::StderrRecorder recorder;
    CommsChannelDataContainerMessage sut;
    EXPECT_EQ(0, sut.decode(reinterpret_cast<const char*>(encoding.data())));
    EXPECT_EQ(0, sut.getDataLength());
    EXPECT_EQ("CommsChannel: cannot read message encoding version 3 (message type 1)\n", recorder.text());
    EXPECT_EQ(1U, spoolEntries().size());
}

TEST_F(DataSpoolTest, FileOfAnotherWriterOfTheSameUserIsAccepted)
{
    makeSpoolDir();
    const std::string data = patternData(5000, 17);
    const std::string name = plantedName(1, 0x42);
    writeFile(spoolPath(name), data);
    std::unique_ptr<CommsChannelDataContainerMessage> decoded = decode(fileReferenceEncoding(name, data.size()));
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(data, decoded->getData());
    EXPECT_FALSE(exists(spoolPath(name)));
}

TEST_F(DataSpoolTest, FileNameOutsideThePatternIsNeverOpened)
{
    makeSpoolDir();
    const std::string data = patternData(5000, 18);
    const std::string names[] = {"data.bin", "cc-0000000A-0000000000000000", "cc-00000001-00000000000000001"};
    for (const std::string& name : names) {
        writeFile(spoolPath(name), data);
        expectReferenceRefused(name, data.size());
        EXPECT_EQ(data, cctest::readFile(spoolPath(name))) << name;
    }
}

TEST_F(DataSpoolTest, SymbolicLinkPlantedInTheSpoolDirectoryIsRefused)
{
    makeSpoolDir();
    const std::string data = patternData(5000, 19);
    const std::string target = "/tmp/link-target";
    writeFile(target, data);
    const std::string name = plantedName();
    ASSERT_EQ(0, symlink(target.c_str(), spoolPath(name).c_str()));
    expectReferenceRefused(name, data.size());
    EXPECT_EQ(data, cctest::readFile(target));
}

TEST_F(DataSpoolTest, FifoPlantedInTheSpoolDirectoryIsRefusedWithoutBlocking)
{
    pftest::Watchdog watchdog(120000);
    makeSpoolDir();
    const std::string name = plantedName();
    ASSERT_EQ(0, mkfifo(spoolPath(name).c_str(), 0600));
    std::atomic<int> outcome{-1};
    std::thread decoder([&]() { outcome = decode(fileReferenceEncoding(name, 0)) != nullptr ? 1 : 0; });
    const bool returned = cctest::waitUntil([&]() { return outcome.load() != -1; }, 20000);
    if (!returned) {
        // Releases a decoder stuck opening the FIFO, so that the test ends.
        const int fd = open(spoolPath(name).c_str(), O_WRONLY | O_NONBLOCK);
        if (fd >= 0) {
            close(fd);
        }
    }
    decoder.join();
    EXPECT_TRUE(returned) << "decoding blocked on a FIFO";
    EXPECT_EQ(0, outcome.load());
}

TEST_F(DataSpoolTest, DirectoryUnderAValidNameIsRefused)
{
    makeSpoolDir();
    const std::string name = plantedName();
    ASSERT_EQ(0, mkdir(spoolPath(name).c_str(), 0700));
    expectReferenceRefused(name, 0);
    expectReferenceRefused(name, 4096);
    EXPECT_TRUE(exists(spoolPath(name)));
}

TEST_F(DataSpoolTest, FileOfTheWrongSizeIsRefused)
{
    makeSpoolDir();
    const std::string data = patternData(5000, 20);
    const std::string name = plantedName();
    writeFile(spoolPath(name), data);
    expectReferenceRefused(name, data.size() - 1);
    expectReferenceRefused(name, data.size() + 1);
    expectReferenceRefused(name, 0);
    EXPECT_EQ(data, cctest::readFile(spoolPath(name)));
}

TEST_F(DataSpoolTest, SpoolFileThatGrewAfterEncodingIsRefused)
{
    std::unique_ptr<CommsChannelDataContainerMessage> sender(messageWith(patternData(80000, 21)));
    sender->putDataToFile();
    const Bytes encoding = encodingOf(*sender);
    const std::vector<std::string> files = spoolEntries();
    ASSERT_EQ(1U, files.size());
    const int fd = open(spoolPath(files[0]).c_str(), O_WRONLY | O_APPEND);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(1, write(fd, "+", 1));
    close(fd);
    EXPECT_EQ(nullptr, decode(encoding));
}

TEST_F(DataSpoolTest, FileOfAnotherOwnerIsRefused)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "giving a file to another user needs root";
    }
    makeSpoolDir();
    const std::string data = patternData(5000, 22);
    const std::string name = plantedName();
    writeFile(spoolPath(name), data);
    ASSERT_EQ(0, chown(spoolPath(name).c_str(), FOREIGN_UID, FOREIGN_UID));
    expectReferenceRefused(name, data.size());
    EXPECT_TRUE(exists(spoolPath(name)));
}

// The spool directory itself, when it is not what the library makes: the
// data then stays in the encoding and nothing in the directory is read.
class UnusableSpoolDirectoryTest : public DataSpoolTest {
protected:
    void expectDataStaysInline()
    {
        const std::string data = patternData(70000, 30);
        std::unique_ptr<CommsChannelDataContainerMessage> sut(messageWith(data));
        sut->putDataToFile();
        EXPECT_FALSE(sut->hasDataFile());
        const Bytes encoding = encodingOf(*sut);
        EXPECT_GT(encoding.size(), data.size());
        std::unique_ptr<CommsChannelDataContainerMessage> decoded = decode(encoding);
        ASSERT_NE(nullptr, decoded);
        EXPECT_EQ(data, decoded->getData());
    }
    // Plants a valid file in directory and expects a reference to be refused.
    void expectPlantedFileRefused(const std::string& directory)
    {
        const std::string data = patternData(3000, 31);
        const std::string name = plantedName();
        writeFile(directory + "/" + name, data);
        expectReferenceRefused(name, data.size());
        EXPECT_EQ(data, cctest::readFile(directory + "/" + name));
    }
};

TEST_F(UnusableSpoolDirectoryTest, DirectoryOpenToOthersIsNotUsed)
{
    makeSpoolDir(0755);
    expectDataStaysInline();
    expectPlantedFileRefused(spoolDir());
    std::vector<std::string> entries = spoolEntries();
    EXPECT_EQ(1U, entries.size());  // only the planted file
}

TEST_F(UnusableSpoolDirectoryTest, DirectoryThatIsASymbolicLinkIsNotUsed)
{
    const std::string elsewhere = "/tmp/elsewhere";
    ASSERT_EQ(0, mkdir(elsewhere.c_str(), 0700));
    ASSERT_EQ(0, symlink(elsewhere.c_str(), spoolDir().c_str()));
    expectDataStaysInline();
    expectPlantedFileRefused(elsewhere);
}

TEST_F(UnusableSpoolDirectoryTest, DirectoryOfAnotherOwnerIsNotUsed)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "giving a directory to another user needs root";
    }
    makeSpoolDir();
    ASSERT_EQ(0, chown(spoolDir().c_str(), FOREIGN_UID, FOREIGN_UID));
    expectDataStaysInline();
    expectPlantedFileRefused(spoolDir());
}

TEST_F(UnusableSpoolDirectoryTest, RegularFileInPlaceOfTheDirectoryIsNotUsed)
{
    writeFile(spoolDir(), "not a directory");
    expectDataStaysInline();
    EXPECT_EQ("not a directory", cctest::readFile(spoolDir()));
}

TEST_F(DataSpoolTest, ManyThreadsSpoolingAtOnceGetDistinctFiles)
{
    pftest::Watchdog watchdog(120000);
    const int threads = 6;
    const int perThread = 8;
    std::vector<std::vector<Bytes>> encodings(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([t, &encodings]() {
            for (int i = 0; i < perThread; ++i) {
                std::unique_ptr<CommsChannelDataContainerMessage> message(
                    messageWith(patternData(60000 + static_cast<std::size_t>(i), static_cast<unsigned>(100 * t + i))));
                message->putDataToFile();
                encodings[static_cast<std::size_t>(t)].push_back(encodingOf(*message));
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    EXPECT_EQ(static_cast<std::size_t>(threads * perThread), spoolEntries().size());
    std::set<Bytes> distinct;
    for (int t = 0; t < threads; ++t) {
        for (int i = 0; i < perThread; ++i) {
            const Bytes& encoding = encodings[static_cast<std::size_t>(t)][static_cast<std::size_t>(i)];
            distinct.insert(encoding);
            std::unique_ptr<CommsChannelDataContainerMessage> decoded = decode(encoding);
            ASSERT_NE(nullptr, decoded);
            EXPECT_EQ(patternData(60000 + static_cast<std::size_t>(i), static_cast<unsigned>(100 * t + i)),
                      decoded->getData());
        }
    }
    EXPECT_EQ(static_cast<std::size_t>(threads * perThread), distinct.size());
    EXPECT_TRUE(spoolEntries().empty());
}

// Spools data of the given size and seed from a message of its own, prints
// the encoding in hex and leaves the file for the encoding's reader: the
// body of the writer children.
int spoolAndSayEncoding(const std::string& size, const std::string& seed)
{
    const std::string data =
        patternData(static_cast<std::size_t>(std::stoul(size)), static_cast<unsigned>(std::stoul(seed)));
    CommsChannelDataContainerMessage message;
    message.setChannel("receiver");
    message.setData(data.data(), static_cast<int>(data.size()));
    message.putDataToFile();
    if (!message.hasDataFile()) {
        return cctest::CHILD_FAILED;
    }
    int length = 0;
    const char* encoding = message.encode(&length);
    if (encoding == nullptr) {
        return cctest::CHILD_FAILED;
    }
    cctest::childSay("ENCODING " + hex(Bytes(encoding, encoding + length)));
    return cctest::CHILD_OK;
}

// Child: spools the data of size args[0] and seed args[1] and prints the
// encoding in hex, then exits without removing anything.
CC_CHILD_MAIN(spoolWriter) { return spoolAndSayEncoding(args.at(0), args.at(1)); }

TEST_F(DataSpoolTest, FileWrittenByAnotherProcessIsDecodedAndRemoved)
{
    cctest::ChildProcess writer("spoolWriter", {"300000", "40"});
    std::string encodingHex;
    ASSERT_TRUE(writer.waitForPrefix("ENCODING ", &encodingHex, 60000));
    ASSERT_EQ(cctest::CHILD_OK, writer.wait(60000));
    ASSERT_EQ(1U, spoolEntries().size());
    std::unique_ptr<CommsChannelDataContainerMessage> decoded = decode(unhex(encodingHex));
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(patternData(300000, 40), decoded->getData());
    EXPECT_TRUE(spoolEntries().empty());
}

TEST_F(DataSpoolTest, StaleFilesAreRemovedByALaterWriter)
{
    makeSpoolDir();
    const std::string stale = plantedName(7, 1);
    const std::string fresh = plantedName(7, 2);
    const std::string staleForeign = "notes.txt";
    writeFile(spoolPath(stale), "old");
    writeFile(spoolPath(fresh), "new");
    writeFile(spoolPath(staleForeign), "old but not ours");
    const timespec longAgo[2] = {{std::time(nullptr) - spool::STALE_AFTER_SECONDS - 100, 0},
                                 {std::time(nullptr) - spool::STALE_AFTER_SECONDS - 100, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, spoolPath(stale).c_str(), longAgo, 0));
    ASSERT_EQ(0, utimensat(AT_FDCWD, spoolPath(staleForeign).c_str(), longAgo, 0));
    // A fresh process writes, so that its first write does the sweep.
    cctest::ChildProcess writer("spoolWriter", {"1000", "41"});
    std::string encodingHex;
    ASSERT_TRUE(writer.waitForPrefix("ENCODING ", &encodingHex, 60000));
    ASSERT_EQ(cctest::CHILD_OK, writer.wait(60000));
    EXPECT_FALSE(exists(spoolPath(stale)));
    EXPECT_TRUE(exists(spoolPath(fresh)));
    EXPECT_TRUE(exists(spoolPath(staleForeign)));
}

// Large data between processes of different users. Each process takes on
// the user and group it is given before it touches the spool; the parent,
// root in the test's namespaces, plays the part of a receiving root process.

const uid_t WRITER_UID = 4243;
const uid_t OTHER_UID = 4244;
const gid_t SHARED_GID = 5000;

// Child: as user args[0] with group args[1] and a umask that would shut the
// group out, spools data of size args[2] and seed args[3] and prints the
// encoding in hex.
CC_CHILD_MAIN(spoolWriterAs)
{
    if (!cctest::becomeUser(args.at(0), args.at(1))) {
        cctest::childSay("NO USER");
        return cctest::CHILD_FAILED;
    }
    umask(077);
    return spoolAndSayEncoding(args.at(2), args.at(3));
}

// Child: as user args[0] with group args[1], decodes the encoding args[2]
// and says whether the data is that of size args[3] and seed args[4], then
// what it wrote on standard error meanwhile.
CC_CHILD_MAIN(spoolReaderAs)
{
    if (!cctest::becomeUser(args.at(0), args.at(1))) {
        cctest::childSay("NO USER");
        return cctest::CHILD_FAILED;
    }
    const Bytes encoding = unhex(args.at(2));
    std::string errors;
    bool intact = false;
    {
        cctest::StderrRecorder recorder;
        std::unique_ptr<char[]> buffer(new char[encoding.size()]);
        std::memcpy(buffer.get(), encoding.data(), encoding.size());
        CommsChannelMessageCreator creator;
        std::unique_ptr<CommsChannelMessage> message(creator.decodeMessage(buffer.get()));
        const CommsChannelDataContainerMessage* data =
            dynamic_cast<const CommsChannelDataContainerMessage*>(message.get());
        intact = data != nullptr &&
                 data->getData() == patternData(static_cast<std::size_t>(std::stoul(args.at(3))),
                                                static_cast<unsigned>(std::stoul(args.at(4))));
        errors = recorder.text();
    }
    cctest::childSay(intact ? "INTACT" : "NOT INTACT");
    cctest::childSay("STDERR " + cctest::oneLine(errors));
    return cctest::CHILD_OK;
}

class CrossUserSpoolTest : public DataSpoolTest {
protected:
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "processes of other users need root in the test's namespaces";
        }
        DataSpoolTest::SetUp();
    }
    static std::string writerDir() { return spool::directoryOf(WRITER_UID); }
    static std::vector<std::string> writerFiles()
    {
        std::vector<std::string> names;
        DIR* dir = opendir(writerDir().c_str());
        while (dir != nullptr) {
            dirent* entry = readdir(dir);
            if (entry == nullptr) {
                closedir(dir);
                break;
            }
            if (spool::isValidName(entry->d_name)) {
                names.push_back(entry->d_name);
            }
        }
        return names;
    }
    // Spools data as the writer and returns the encoding in hex ("" if not).
    static std::string spoolAs(uid_t uid, gid_t gid, std::size_t size, unsigned seed)
    {
        cctest::ChildProcess writer("spoolWriterAs",
                                    {std::to_string(uid), std::to_string(gid), std::to_string(size), std::to_string(seed)});
        std::string encodingHex;
        if (!writer.waitForPrefix("ENCODING ", &encodingHex, 60000) || writer.wait(60000) != cctest::CHILD_OK) {
            return "";
        }
        return encodingHex;
    }
    struct ReadOutcome {
        bool intact = false;
        std::string errors;
    };
    static ReadOutcome readAs(uid_t uid, gid_t gid, const std::string& encodingHex, std::size_t size, unsigned seed)
    {
        cctest::ChildProcess reader("spoolReaderAs", {std::to_string(uid), std::to_string(gid), encodingHex,
                                                      std::to_string(size), std::to_string(seed)});
        ReadOutcome outcome;
        std::string line;
        if (reader.readLine(line, 60000)) {
            outcome.intact = line == "INTACT";
        }
        reader.waitForPrefix("STDERR ", &outcome.errors, 60000);
        EXPECT_EQ(cctest::CHILD_OK, reader.wait(60000));
        return outcome;
    }
};

TEST_F(CrossUserSpoolTest, RootReceivesLargeDataThatAnotherUserSpooled)
{
    const std::string encodingHex = spoolAs(WRITER_UID, WRITER_UID, 1 << 20, 50);
    ASSERT_FALSE(encodingHex.empty());
    ASSERT_EQ(1U, writerFiles().size());
    std::unique_ptr<CommsChannelDataContainerMessage> decoded = decode(unhex(encodingHex));
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(patternData(1 << 20, 50), decoded->getData());
    EXPECT_TRUE(writerFiles().empty());
}

TEST_F(CrossUserSpoolTest, AProcessOfTheWritersGroupReceivesTheDataAndRemovesTheFile)
{
    const std::string encodingHex = spoolAs(WRITER_UID, SHARED_GID, 300000, 51);
    ASSERT_FALSE(encodingHex.empty());
    ASSERT_EQ(1U, writerFiles().size());
    const ReadOutcome outcome = readAs(OTHER_UID, SHARED_GID, encodingHex, 300000, 51);
    EXPECT_TRUE(outcome.intact);
    EXPECT_EQ("", outcome.errors);
    EXPECT_TRUE(writerFiles().empty());
}

TEST_F(CrossUserSpoolTest, SpoolIsOpenToTheWritersGroupWhateverItsUmaskAndClosedToOthers)
{
    const std::string encodingHex = spoolAs(WRITER_UID, SHARED_GID, 100000, 52);
    ASSERT_FALSE(encodingHex.empty());
    const std::vector<std::string> files = writerFiles();
    ASSERT_EQ(1U, files.size());
    struct stat info;
    ASSERT_EQ(0, lstat(writerDir().c_str(), &info));
    EXPECT_EQ(0770U, info.st_mode & 07777);
    EXPECT_EQ(WRITER_UID, info.st_uid);
    EXPECT_EQ(SHARED_GID, info.st_gid);
    ASSERT_EQ(0, lstat((writerDir() + "/" + files[0]).c_str(), &info));
    EXPECT_EQ(0640U, info.st_mode & 07777);
    EXPECT_EQ(WRITER_UID, info.st_uid);
    EXPECT_EQ(SHARED_GID, info.st_gid);
}

TEST_F(CrossUserSpoolTest, AnotherUserOutsideTheGroupIsToldWhichFileItCannotRead)
{
    const std::string encodingHex = spoolAs(WRITER_UID, WRITER_UID, 200000, 53);
    ASSERT_FALSE(encodingHex.empty());
    const std::vector<std::string> files = writerFiles();
    ASSERT_EQ(1U, files.size());
    const ReadOutcome outcome = readAs(OTHER_UID, OTHER_UID, encodingHex, 200000, 53);
    EXPECT_FALSE(outcome.intact);
    EXPECT_NE(std::string::npos,
              outcome.errors.find("cannot read large data file " + writerDir() + "/" + files[0] + ": "))
        << outcome.errors;
    EXPECT_NE(std::string::npos, outcome.errors.find("Permission denied")) << outcome.errors;
    // The data was not taken by anyone: the file waits for its writer's sweep.
    EXPECT_EQ(files, writerFiles());
}

TEST_F(CrossUserSpoolTest, AFileNobodyCouldReadGoesWithTheWritersNextSweep)
{
    const std::string encodingHex = spoolAs(WRITER_UID, WRITER_UID, 200000, 54);
    ASSERT_FALSE(encodingHex.empty());
    const std::vector<std::string> unread = writerFiles();
    ASSERT_EQ(1U, unread.size());
    EXPECT_FALSE(readAs(OTHER_UID, OTHER_UID, encodingHex, 200000, 54).intact);
    const time_t old = std::time(nullptr) - spool::STALE_AFTER_SECONDS - 1;
    const timespec longAgo[2] = {{old, 0}, {old, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, (writerDir() + "/" + unread[0]).c_str(), longAgo, 0));
    // The writer's next process to spool sweeps it away.
    const std::string next = spoolAs(WRITER_UID, WRITER_UID, 70000, 55);
    ASSERT_FALSE(next.empty());
    const std::vector<std::string> left = writerFiles();
    ASSERT_EQ(1U, left.size());
    EXPECT_NE(unread[0], left[0]);
}

TEST_F(CrossUserSpoolTest, AnEncodingNamingAnotherWriterIsLookedUpOnlyInThatWritersDirectory)
{
    const std::string encodingHex = spoolAs(WRITER_UID, WRITER_UID, 80000, 56);
    ASSERT_FALSE(encodingHex.empty());
    Bytes encoding = unhex(encodingHex);
    // The owner is the encoding's last field: name another user instead.
    const std::uint32_t other = OTHER_UID;
    std::memcpy(&encoding[encoding.size() - 4], &other, 4);
    cctest::StderrRecorder recorder;
    EXPECT_EQ(nullptr, decode(encoding));
    EXPECT_NE(std::string::npos, recorder.text().find(spool::directoryOf(OTHER_UID))) << recorder.text();
    EXPECT_EQ(1U, writerFiles().size());
}

}  // namespace
