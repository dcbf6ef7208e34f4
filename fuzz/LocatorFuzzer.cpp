// Fuzz target: the locator's handling of any datagram from the resolver
// port. Each datagram is decoded the way the locator thread decodes it (a
// buffer of exactly the datagram's size, decoding bounded by it) and applied
// to the process's locator the way the thread applies it: type 5 to
// processLocatorUpdate, type 7 to processChannelPortResponse, anything else
// ignored. Zero-length datagrams are skipped: the locator thread leaves them
// unread.
//
// Input: up to 32 datagrams, each a u16 length (little-endian) and its bytes.
//
// Beside the locator the target keeps the map it expects: a name learnt
// from an addition row or a non-zero port answer, forgotten on any other
// row; a name already known keeps the port it was first learnt with (the
// locator keeps an entry's first dispatcher). Expectations:
//   - size() equals the expected map's size after every datagram;
//   - getDispatcher(name) of every expected name answers at once with an
//     inter-process dispatcher for the expected port.
// Afterwards every name is removed again, so that each input starts from an
// empty map and replays alike.
//
// The locator sends its registration to 127.0.0.1:5000 and this target holds
// that port itself, silently, so no resolver can answer and change the map
// behind the target's back. If the port is taken, the target refuses to run:
// start it in a network namespace of its own (tests/support/isolate.sh).
#include "FuzzSupport.h"

#include "CommsChannelDispatcher.h"
#include "CommsChannelLocator.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelMessageCreator.h"
#include "CommsChannelPortResponseMessage.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using ccfuzz::FuzzInput;

const unsigned MAX_DATAGRAMS = 32;
const int ADDED = CommsChannelLocatorUpdateMessage::CHANNEL_ADDED;

// Binds 127.0.0.1:5000 for the life of the process.
void holdResolverPort()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(CommsChannelLocator::RESOLVER_PORT);
    if (fd == -1 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1) {
        std::fprintf(stderr,
                     "locator fuzz target: 127.0.0.1:5000 is in use; run it in a network namespace of its own "
                     "(tests/support/isolate.sh)\n");
        std::abort();
    }
}

// The process's locator, with its first update applied, so that lookups
// never wait for the resolver.
CommsChannelLocator& locator()
{
    static CommsChannelLocator* const instance = [] {
        holdResolverPort();
        CommsChannelLocator* created = CommsChannelLocator::instance();
        CommsChannelLocatorUpdateMessage first;
        created->processLocatorUpdate(&first);
        return created;
    }();
    return *instance;
}

void learn(std::map<std::string, int>& expected, const std::string& name, int port)
{
    expected.insert(std::make_pair(name, port));
}

void apply(CommsChannelLocator& sut, CommsChannelMessage& message, std::map<std::string, int>& expected)
{
    if (message.type() == COMMS_MSG_LOCATOR_UPDATE) {
        CommsChannelLocatorUpdateMessage& update = static_cast<CommsChannelLocatorUpdateMessage&>(message);
        sut.processLocatorUpdate(&update);
        for (int index = 0; index < update.numChannelEntries(); ++index) {
            CommsChannelLocatorUpdateMessage::eUpdateType type = CommsChannelLocatorUpdateMessage::CHANNEL_ADDED;
            std::string name;
            int port = 0;
            update.getChannelEntry(index, &type, &name, &port);
            if (type == ADDED) {
                learn(expected, name, port);
            } else {
                expected.erase(name);
            }
        }
    } else if (message.type() == COMMS_MSG_PORT_RESPONSE) {
        CommsChannelPortResponseMessage& response = static_cast<CommsChannelPortResponseMessage&>(message);
        sut.processChannelPortResponse(&response);
        if (response.port() != 0) {
            learn(expected, response.channel(), response.port());
        }
    }
}

void checkLookups(CommsChannelLocator& sut, const std::map<std::string, int>& expected)
{
    FUZZ_CHECK(sut.size() == expected.size(), "size() differs from the names learnt");
    for (const auto& name : expected) {
        CCInterProcDispatcher* dispatcher = dynamic_cast<CCInterProcDispatcher*>(sut.getDispatcher(name.first));
        FUZZ_CHECK(dispatcher != nullptr, "a learnt name has no inter-process dispatcher");
        FUZZ_CHECK(dispatcher->port() == name.second, "a learnt name's dispatcher sends to another port");
    }
}

void forgetAll(CommsChannelLocator& sut, const std::map<std::string, int>& expected)
{
    CommsChannelLocatorUpdateMessage removal;
    for (const auto& name : expected) {
        removal.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_REMOVED, name.first, name.second);
    }
    sut.processLocatorUpdate(&removal);
    FUZZ_CHECK(sut.size() == 0, "names remain after removing every one");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    CommsChannelLocator& sut = locator();
    CommsChannelMessageCreator creator;
    std::map<std::string, int> expected;
    FuzzInput input(data, size);
    for (unsigned count = 0; count < MAX_DATAGRAMS && !input.empty(); ++count) {
        std::size_t length = 0;
        const std::uint8_t* bytes = input.bytes(input.u16(), &length);
        if (length == 0) {
            continue;
        }
        std::unique_ptr<char[]> buffer(new char[length]);
        std::memcpy(buffer.get(), bytes, length);
        std::unique_ptr<CommsChannelMessage> message(
            creator.decodeMessage(buffer.get(), static_cast<unsigned int>(length)));
        buffer.reset();
        if (message != nullptr) {
            apply(sut, *message, expected);
        }
        FUZZ_CHECK(sut.size() == expected.size(), "size() differs from the names learnt");
    }
    checkLookups(sut, expected);
    forgetAll(sut, expected);
    return 0;
}
