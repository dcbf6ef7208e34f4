// Fuzz target: the resolver's handling of any datagram, driven in-process
// through resolver::Resolver, the protocol logic without sockets.
//
// Input: a sequence of records, each one step of a fresh resolver:
//   op < 0xF0   a datagram from a locator: the source is one of four ports
//               (op % 4), then a u16 length (little-endian) and the bytes
//   op >= 0xF0  a liveness scan: one mask byte; bit i keeps locator i bound,
//               bit 4 keeps every channel port bound; everything else is
//               withdrawn as dead
// Expectations after every step:
//   - every datagram sent is non-empty, at most one update's size, decodes,
//     and goes to a registered locator (updates) or back to the asker (port
//     responses);
//   - a port request gets exactly one answer, with its name, its request id
//     and the table's port for that name;
//   - a locator update leaves every name it mentions exactly as its rows say
//     (valid additions win, removals count only from the name's owner);
//   - the table never holds an empty name, a name too long to announce, or
//     a port outside 1..65535; after a scan, only bound ports remain.
#include "FuzzSupport.h"

#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelMessageCreator.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "Resolver.h"
#include "ResolverLog.h"
#include "ResolverUpdates.h"

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

using ccfuzz::FuzzInput;

const int LOCATOR_PORTS[4] = {40001, 40002, 40003, 50004};
const unsigned MAX_STEPS = 64;
const std::uint8_t FIRST_SCAN_OP = 0xF0;
const int ADDED = CommsChannelLocatorUpdateMessage::CHANNEL_ADDED;

// Lines are formatted (the formatting is part of what runs on hostile input)
// and then dropped.
class DiscardingSink : public resolver::log::Sink {
public:
    void write(resolver::log::Level /*level*/, const std::string& /*line*/) override {}
};

// A clock that moves on by 300 ms each time it is read, so that the rate
// limit of the log lines both suppresses and lets through, the same way in
// every run.
long long fakeNow = 0;
long long steppingClock()
{
    fakeNow += 300;
    return fakeNow;
}

void checkTable(const resolver::ResolverTable& table)
{
    for (const auto& channel : table.channels()) {
        FUZZ_CHECK(!channel.first.empty(), "empty channel name in the table");
        FUZZ_CHECK(resolver::rowFits(channel.first), "a name too long to announce is in the table");
        FUZZ_CHECK(channel.second.port >= 1 && channel.second.port <= 65535, "channel port out of range");
    }
}

void checkSends(const std::vector<resolver::Outgoing>& sends, const resolver::ResolverTable& table, int source)
{
    CommsChannelMessageCreator creator;
    for (const resolver::Outgoing& send : sends) {
        FUZZ_CHECK(!send.bytes.empty(), "empty datagram");
        FUZZ_CHECK(send.bytes.size() <= resolver::MAX_UPDATE_BYTES, "datagram larger than an update may be");
        std::unique_ptr<CommsChannelMessage> message(
            creator.decodeMessage(send.bytes.data(), static_cast<unsigned int>(send.bytes.size())));
        FUZZ_CHECK(message != nullptr, "the resolver sent something that does not decode");
        FUZZ_CHECK(ccfuzz::declaredLength(send.bytes.data()) == send.bytes.size(), "one encoding per datagram");
        if (message->type() == COMMS_MSG_PORT_RESPONSE) {
            FUZZ_CHECK(send.port == source, "port response to someone who did not ask");
        } else {
            FUZZ_CHECK(message->type() == COMMS_MSG_LOCATOR_UPDATE, "the resolver sent a message of another type");
            FUZZ_CHECK(table.hasLocator(send.port), "update to a port that is not a registered locator");
        }
    }
}

void checkPortRequest(CommsChannelPortRequestMessage& request, const std::vector<resolver::Outgoing>& sends,
                      const resolver::ResolverTable& table)
{
    FUZZ_CHECK(sends.size() == 1, "a port request gets exactly one answer");
    CommsChannelMessageCreator creator;
    std::unique_ptr<CommsChannelMessage> message(creator.decodeMessage(
        sends[0].bytes.data(), static_cast<unsigned int>(sends[0].bytes.size())));
    FUZZ_CHECK(message != nullptr && message->type() == COMMS_MSG_PORT_RESPONSE, "answer is a port response");
    CommsChannelPortResponseMessage& response = static_cast<CommsChannelPortResponseMessage&>(*message);
    FUZZ_CHECK(response.channel() == request.channel(), "answer names another channel");
    FUZZ_CHECK(response.requestId() == request.requestId(), "answer carries another request id");
    FUZZ_CHECK(response.port() == table.portOf(request.channel()), "answer gives another port than the table");
}

// What the table must say about each name an update mentions, worked out
// from the table before the update and the rows in order. Absent names map
// to a record with port 0.
std::map<std::string, resolver::ChannelRecord> expectedAfterUpdate(const CommsChannelLocatorUpdateMessage& update,
                                                                   const resolver::ResolverTable& before, int source)
{
    std::map<std::string, resolver::ChannelRecord> expected;
    for (int index = 0; index < update.numChannelEntries(); ++index) {
        CommsChannelLocatorUpdateMessage::eUpdateType type = CommsChannelLocatorUpdateMessage::CHANNEL_ADDED;
        std::string name;
        int port = 0;
        update.getChannelEntry(index, &type, &name, &port);
        if (name.empty() || !resolver::rowFits(name)) {
            continue;
        }
        if (expected.count(name) == 0) {
            const resolver::ChannelRecord* record = before.find(name);
            expected[name] = record != nullptr ? *record : resolver::ChannelRecord{0, 0};
        }
        resolver::ChannelRecord& state = expected[name];
        if (type == ADDED) {
            if (port >= 1 && port <= 65535) {
                state = resolver::ChannelRecord{port, source};
            }
        } else if (state.port != 0 && state.ownerPort == source) {
            state = resolver::ChannelRecord{0, 0};
        }
    }
    return expected;
}

void datagramStep(resolver::Resolver& sut, FuzzInput& input, int source)
{
    std::size_t length = 0;
    const std::uint8_t* bytes = input.bytes(input.u16(), &length);
    // The resolver receives into its own buffer: hand it an exact copy.
    std::vector<char> datagram(bytes, bytes + length);
    const char* start = datagram.empty() ? nullptr : datagram.data();

    CommsChannelMessageCreator creator;
    std::unique_ptr<CommsChannelMessage> message(
        start != nullptr && length >= ccfuzz::HEADER_SIZE && ccfuzz::declaredLength(start) == length
            ? creator.decodeMessage(start, static_cast<unsigned int>(length))
            : nullptr);
    const resolver::ResolverTable before = sut.table();

    const std::vector<resolver::Outgoing> sends = sut.handleDatagram(start, length, source);
    checkTable(sut.table());
    checkSends(sends, sut.table(), source);
    if (message == nullptr) {
        FUZZ_CHECK(sut.table() == before, "a datagram that is not one whole message changed the table");
        return;
    }
    if (message->type() == COMMS_MSG_PORT_REQUEST) {
        checkPortRequest(static_cast<CommsChannelPortRequestMessage&>(*message), sends, sut.table());
        FUZZ_CHECK(sut.table() == before, "a port request changed the table");
    } else if (message->type() == COMMS_MSG_LOCATOR_UPDATE) {
        const std::map<std::string, resolver::ChannelRecord> expected =
            expectedAfterUpdate(static_cast<CommsChannelLocatorUpdateMessage&>(*message), before, source);
        for (const auto& name : expected) {
            const resolver::ChannelRecord* record = sut.table().find(name.first);
            if (name.second.port == 0) {
                FUZZ_CHECK(record == nullptr, "a name the update removed is still there");
            } else {
                FUZZ_CHECK(record != nullptr && record->port == name.second.port &&
                               record->ownerPort == name.second.ownerPort,
                           "a name the update added is missing or different");
            }
        }
    } else if (message->type() == COMMS_MSG_REGISTER_LOCATOR) {
        FUZZ_CHECK(sut.table().hasLocator(source), "a registered locator is not in the table");
        FUZZ_CHECK(!sends.empty(), "a registration is answered with at least one update");
    } else if (message->type() == COMMS_MSG_UNREGISTER_LOCATOR) {
        FUZZ_CHECK(!sut.table().hasLocator(source), "an unregistered locator is still in the table");
        FUZZ_CHECK(sut.table().channelsOwnedBy(source).empty(), "an unregistered locator still owns names");
    } else {
        FUZZ_CHECK(sends.empty() && sut.table() == before, "a message not meant for the resolver was acted on");
    }
}

void scanStep(resolver::Resolver& sut, FuzzInput& input)
{
    const std::uint8_t mask = input.u8();
    std::set<int> bound;
    for (int i = 0; i < 4; ++i) {
        if (mask & (1u << i)) {
            bound.insert(LOCATOR_PORTS[i]);
        }
    }
    if (mask & 0x10) {
        for (const auto& channel : sut.table().channels()) {
            bound.insert(channel.second.port);
        }
    }
    const std::vector<resolver::Outgoing> sends = sut.withdrawDead(bound);
    checkTable(sut.table());
    checkSends(sends, sut.table(), 0);
    for (int locator : sut.table().locators()) {
        FUZZ_CHECK(bound.count(locator) != 0, "a dead locator survived the scan");
    }
    for (const auto& channel : sut.table().channels()) {
        FUZZ_CHECK(bound.count(channel.second.port) != 0, "a dead channel survived the scan");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static DiscardingSink sink;
    resolver::log::setSink(&sink);
    resolver::log::setLevel(resolver::log::LEVEL_DEBUG);
    fakeNow = 0;

    resolver::Resolver sut(steppingClock);
    FuzzInput input(data, size);
    for (unsigned step = 0; step < MAX_STEPS && !input.empty(); ++step) {
        const std::uint8_t op = input.u8();
        if (op >= FIRST_SCAN_OP) {
            scanStep(sut, input);
        } else {
            datagramStep(sut, input, LOCATOR_PORTS[op % 4]);
        }
    }
    return 0;
}
