// Fuzz target: the message decoder on arbitrary bytes.
//
// The input is one received buffer. It goes through
// CommsChannelMessageCreator::decodeMessage, bounded by the buffer's size and
// (when the header allows it) through the form without a length, and through
// the decode of every message class. Whatever decodes is encoded again, and
// decoding that encoding must give the same fields. Expectations:
//   - the bounded and the unbounded decoder agree;
//   - a class's decode succeeds exactly when the creator made that class,
//     with the same fields, and leaves the message untouched otherwise;
//   - the re-encoding of an inline message is the input's encoding byte for
//     byte, and decodes to the same fields;
//   - copies of a data message carry the same fields.
#include "FuzzSupport.h"
#include "MessageFields.h"

#include "CommsChannelMessageCreator.h"

#include <cstring>
#include <memory>
#include <vector>

namespace {

using ccfuzz::declaredLength;
using ccfuzz::HEADER_SIZE;
using ccfuzz::messageFields;

const int DATA_CONTAINER_TYPE = 1;

// True when the bytes are a data message whose data travels in a spool file
// (data kind 1). Its decode reads and removes that file, so a second decode
// of the same bytes cannot succeed, and its re-encoding carries the data
// inline. The fuzzer cannot make spool files, so in practice this never
// holds; it keeps the checks below honest if it ever does.
bool refersToSpoolFile(const std::uint8_t* data, std::size_t size)
{
    if (size < HEADER_SIZE || data[3] != DATA_CONTAINER_TYPE) {
        return false;
    }
    std::size_t position = HEADER_SIZE;
    for (int field = 0; field < 6; ++field) {
        if (size - position < 4) {
            return false;
        }
        std::uint32_t length;
        std::memcpy(&length, data + position, sizeof length);
        position += 4;
        if (size - position < length) {
            return false;
        }
        position += length;
    }
    position += 8 + 4 + 4;
    return position < size && data[position] == 1;
}

// One fresh object of every message class, filled with values that no
// decode would produce by chance, so that a failed decode that still
// changed something shows.
std::vector<std::unique_ptr<CommsChannelMessage>> prefilledMessages()
{
    std::vector<std::unique_ptr<CommsChannelMessage>> messages;
    CommsChannelDataContainerMessage* data = new CommsChannelDataContainerMessage();
    data->setChannel("before-destination");
    data->setSourceChannel("before-source");
    data->setCallbackChannel("before-callback");
    data->setProtocol("before-protocol");
    data->setInterface("before-interface");
    data->setRemoteContext("before-context");
    data->setRequestId(-77);
    data->setMsgType(13);
    data->setPriority(VIREO_PRIORITY_HIGH);
    data->setData("before-data", 11);
    messages.emplace_back(data);
    CommsChannelRegisterLocatorMessage* reg = new CommsChannelRegisterLocatorMessage();
    reg->setChannel("before");
    reg->setPort(-5);
    messages.emplace_back(reg);
    CommsChannelUnregisterLocatorMessage* unreg = new CommsChannelUnregisterLocatorMessage();
    unreg->setChannel("before");
    unreg->setPort(-6);
    messages.emplace_back(unreg);
    CommsChannelLocatorUpdateMessage* update = new CommsChannelLocatorUpdateMessage();
    update->setChannel("before");
    update->addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_REMOVED, "before-row", -7);
    messages.emplace_back(update);
    CommsChannelPortRequestMessage* request = new CommsChannelPortRequestMessage();
    request->setChannel("before");
    request->setRequestId(-8);
    messages.emplace_back(request);
    CommsChannelPortResponseMessage* response = new CommsChannelPortResponseMessage();
    response->setChannel("before");
    response->setRequestId(-9);
    response->setPort(-10);
    messages.emplace_back(response);
    return messages;
}

// A class's own decode must agree with what the creator made of the bytes.
// unbounded: the exact copy for decode(buffer), or null when the header's
// length cannot be trusted to stay inside the input.
void checkEveryClass(const std::uint8_t* data, std::size_t size, const char* unbounded,
                     CommsChannelMessage* created)
{
    const std::string createdFields = created != nullptr ? messageFields(*created) : std::string();
    for (std::unique_ptr<CommsChannelMessage>& message : prefilledMessages()) {
        const std::string before = messageFields(*message);
        const bool matchesCreated = created != nullptr && created->type() == message->type();
        const int bounded = message->decode(reinterpret_cast<const char*>(data), static_cast<unsigned int>(size));
        FUZZ_CHECK((bounded == 1) == matchesCreated, "class decode and creator disagree");
        FUZZ_CHECK(messageFields(*message) == (bounded == 1 ? createdFields : before),
                   "class decode gave other fields, or a failed decode changed the message");
        if (unbounded != nullptr) {
            const int plain = message->decode(unbounded);
            FUZZ_CHECK(plain == bounded, "decode(buffer) and decode(buffer, available) disagree");
            FUZZ_CHECK(messageFields(*message) == (bounded == 1 ? createdFields : before),
                       "decode(buffer) gave other fields, or a failed decode changed the message");
        }
    }
}

void checkRoundTrip(CommsChannelMessage& decoded, const std::uint8_t* data, bool viaSpool)
{
    CommsChannelMessageCreator creator;
    const std::string fields = messageFields(decoded);
    int length = 0;
    const char* encoding = decoded.encode(&length);
    FUZZ_CHECK(encoding != nullptr && length >= static_cast<int>(HEADER_SIZE), "a decoded message does not encode");
    FUZZ_CHECK(declaredLength(encoding) == static_cast<std::uint32_t>(length), "header length of a re-encoding");
    if (!viaSpool) {
        FUZZ_CHECK(static_cast<std::uint32_t>(length) == declaredLength(data) &&
                       std::memcmp(encoding, data, static_cast<std::size_t>(length)) == 0,
                   "re-encoding differs from the decoded bytes");
    }
    // The encoding lives in the message: decode a copy of it of exactly its size.
    std::vector<char> copy(encoding, encoding + length);
    std::unique_ptr<CommsChannelMessage> again(creator.decodeMessage(copy.data(), static_cast<unsigned int>(copy.size())));
    FUZZ_CHECK(again != nullptr, "a re-encoding does not decode");
    FUZZ_CHECK(messageFields(*again) == fields, "decoding the re-encoding gave other fields");

    if (CommsChannelDataContainerMessage* dataMessage = dynamic_cast<CommsChannelDataContainerMessage*>(&decoded)) {
        CommsChannelDataContainerMessage copied(*dataMessage);
        FUZZ_CHECK(messageFields(copied) == fields, "copy constructor");
        CommsChannelDataContainerMessage assigned;
        assigned = *dataMessage;
        FUZZ_CHECK(messageFields(assigned) == fields, "assignment");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    CommsChannelMessageCreator creator;
    std::unique_ptr<CommsChannelMessage> bounded(
        creator.decodeMessage(reinterpret_cast<const char*>(data), static_cast<unsigned int>(size)));

    // The forms without a length trust the header: give them a buffer of
    // exactly the declared length (at least the 8 header bytes), and only
    // when the input holds that many, so that any read past the encoding's
    // end lands outside the allocation.
    std::unique_ptr<char[]> exact;
    if (size >= HEADER_SIZE && declaredLength(data) <= size) {
        const std::size_t length = declaredLength(data) < HEADER_SIZE ? HEADER_SIZE : declaredLength(data);
        exact.reset(new char[length]);
        std::memcpy(exact.get(), data, length);
        std::unique_ptr<CommsChannelMessage> unbounded(creator.decodeMessage(exact.get()));
        FUZZ_CHECK((unbounded != nullptr) == (bounded != nullptr), "decodeMessage with and without length disagree");
        if (bounded != nullptr) {
            FUZZ_CHECK(messageFields(*unbounded) == messageFields(*bounded), "decodeMessage forms give other fields");
        }
    } else {
        FUZZ_CHECK(bounded == nullptr, "decoded an encoding that claims more bytes than it has");
    }

    const bool viaSpool = refersToSpoolFile(data, size);
    if (!viaSpool) {
        checkEveryClass(data, size, exact.get(), bounded.get());
    }
    if (bounded != nullptr) {
        checkRoundTrip(*bounded, data, viaSpool);
    }
    return 0;
}
