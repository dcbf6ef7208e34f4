// Writes the seed corpus of every fuzz target: valid encodings of every
// message class, made by the message library itself, framed the way each
// target reads its input (see the comment at the top of each target).
//
// Usage: fuzz-seed-corpus OUTPUT_DIR
// writes OUTPUT_DIR/<target>/<name> for the targets decoder, resolver,
// locator and channel; the directories must exist. Integers inside the
// encodings are in this host's byte order, so the committed corpus (made on
// x86-64) is little-endian.
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "CommsChannelUnregisterLocatorMessage.h"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

typedef std::vector<char> Bytes;

const int ADDED = CommsChannelLocatorUpdateMessage::CHANNEL_ADDED;
const int REMOVED = CommsChannelLocatorUpdateMessage::CHANNEL_REMOVED;

Bytes encodingOf(CommsChannelMessage& message)
{
    int length = 0;
    const char* bytes = message.encode(&length);
    return bytes != nullptr ? Bytes(bytes, bytes + length) : Bytes();
}

Bytes dataMessage(const std::string& data, long requestId, int msgType)
{
    CommsChannelDataContainerMessage message;
    message.setChannel("server");
    message.setSourceChannel("client");
    message.setCallbackChannel("client-replies");
    message.setProtocol("p");
    message.setInterface("i");
    message.setRemoteContext("r");
    message.setRequestId(requestId);
    message.setMsgType(msgType);
    message.setPriority(VIREO_PRIORITY_HIGH);
    message.setData(data.data(), static_cast<int>(data.size()));
    return encodingOf(message);
}

Bytes registerLocator(int port)
{
    CommsChannelRegisterLocatorMessage message;
    message.setPort(port);
    return encodingOf(message);
}

Bytes unregisterLocator(int port)
{
    CommsChannelUnregisterLocatorMessage message;
    message.setPort(port);
    return encodingOf(message);
}

struct Row {
    int type;
    std::string name;
    int port;
};

Bytes update(const std::vector<Row>& rows)
{
    CommsChannelLocatorUpdateMessage message;
    for (const Row& row : rows) {
        message.addChannelEntry(static_cast<CommsChannelLocatorUpdateMessage::eUpdateType>(row.type), row.name,
                                row.port);
    }
    return encodingOf(message);
}

Bytes portRequest(const std::string& name, long requestId)
{
    CommsChannelPortRequestMessage message;
    message.setChannel(name);
    message.setRequestId(requestId);
    return encodingOf(message);
}

Bytes portResponse(const std::string& name, long requestId, int port)
{
    CommsChannelPortResponseMessage message;
    message.setChannel(name);
    message.setRequestId(requestId);
    message.setPort(port);
    return encodingOf(message);
}

// Framing of the multi-datagram targets: a u16 length, little-endian.
void appendDatagram(Bytes& out, const Bytes& datagram)
{
    out.push_back(static_cast<char>(datagram.size() & 0xFF));
    out.push_back(static_cast<char>((datagram.size() >> 8) & 0xFF));
    out.insert(out.end(), datagram.begin(), datagram.end());
}

// Resolver records: the source locator (0 to 3), then the datagram.
void appendFrom(Bytes& out, int locator, const Bytes& datagram)
{
    out.push_back(static_cast<char>(locator));
    appendDatagram(out, datagram);
}

bool write(const std::string& path, const Bytes& bytes)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!file) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT_DIR\n", argv[0]);
        return 2;
    }
    const std::string out = argv[1];
    bool ok = true;

    const Bytes data = dataMessage("hello", 7, 2);
    const Bytes emptyData = dataMessage("", 0, 0);
    const Bytes added = update({{ADDED, "server", 41000}, {ADDED, "client", 41001}});
    const Bytes removed = update({{REMOVED, "server", 41000}});
    const Bytes emptyUpdate = update({});

    ok &= write(out + "/decoder/data-container", data);
    ok &= write(out + "/decoder/data-container-empty", emptyData);
    ok &= write(out + "/decoder/register-locator", registerLocator(40001));
    ok &= write(out + "/decoder/unregister-locator", unregisterLocator(40001));
    ok &= write(out + "/decoder/locator-update", update({{ADDED, "server", 41000}, {REMOVED, "gone", 41002}}));
    ok &= write(out + "/decoder/locator-update-empty", emptyUpdate);
    ok &= write(out + "/decoder/port-request", portRequest("server", 3));
    ok &= write(out + "/decoder/port-response", portResponse("server", 3, 41000));

    // Two locators meet: register, announce, ask, withdraw, and a scan.
    Bytes session;
    appendFrom(session, 0, registerLocator(40001));
    appendFrom(session, 0, added);
    appendFrom(session, 1, registerLocator(40002));
    appendFrom(session, 1, portRequest("server", 1));
    appendFrom(session, 1, portRequest("nobody", 2));
    appendFrom(session, 1, update({{ADDED, "server", 42000}}));
    appendFrom(session, 0, removed);
    appendFrom(session, 2, data);
    appendFrom(session, 0, unregisterLocator(40001));
    session.push_back(static_cast<char>(0xF0));
    session.push_back(static_cast<char>(0x12));
    ok &= write(out + "/resolver/two-locators", session);
    Bytes everyType;
    appendFrom(everyType, 3, portResponse("server", 3, 41000));
    appendFrom(everyType, 3, emptyUpdate);
    appendFrom(everyType, 3, unregisterLocator(40004));
    ok &= write(out + "/resolver/other-types", everyType);

    Bytes resolverTalk;
    appendDatagram(resolverTalk, emptyUpdate);
    appendDatagram(resolverTalk, added);
    appendDatagram(resolverTalk, portResponse("elsewhere", 1, 43000));
    appendDatagram(resolverTalk, update({{ADDED, "server", 44000}}));
    appendDatagram(resolverTalk, portResponse("unknown", 2, 0));
    appendDatagram(resolverTalk, removed);
    appendDatagram(resolverTalk, registerLocator(40001));
    ok &= write(out + "/locator/updates-and-answers", resolverTalk);

    Bytes oneMessage;
    appendDatagram(oneMessage, data);
    appendDatagram(oneMessage, emptyData);
    ok &= write(out + "/channel/two-messages", oneMessage);
    // One encoding in two datagrams, joined by the receiver.
    Bytes split;
    appendDatagram(split, Bytes(data.begin(), data.begin() + 20));
    appendDatagram(split, Bytes(data.begin() + 20, data.end()));
    ok &= write(out + "/channel/split-encoding", split);
    // Bytes after the announced length are dropped with the datagram.
    Bytes trailing;
    Bytes longer = data;
    longer.insert(longer.end(), {'x', 'y', 'z'});
    appendDatagram(trailing, longer);
    ok &= write(out + "/channel/trailing-bytes", trailing);
    // A resolver message on a channel port decodes as no data message.
    Bytes foreign;
    appendDatagram(foreign, added);
    ok &= write(out + "/channel/foreign-type", foreign);
    // Shorter than a header: the receiver thread ends (known exception).
    Bytes shortDatagram;
    appendDatagram(shortDatagram, Bytes(data.begin(), data.begin() + 5));
    ok &= write(out + "/channel/short-datagram", shortDatagram);
    return ok ? 0 : 1;
}
