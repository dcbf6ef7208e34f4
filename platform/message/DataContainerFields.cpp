#include "DataContainerFields.h"

#include "CommsChannelMessage.h"
#include "DataSpool.h"
#include "WireCodec.h"

#include <climits>
#include <utility>

namespace {
// How the data travels inside the encoding.
const std::uint8_t DATA_INLINE = 0;
const std::uint8_t DATA_IN_FILE = 1;
}  // namespace

bool readDataContainerFields(wire::Reader& reader, DataContainerFields* fields)
{
    DataContainerFields read;
    read.sourceChannel = reader.getString();
    read.callbackChannel = reader.getString();
    read.protocol = reader.getString();
    read.interfaceName = reader.getString();
    read.remoteContext = reader.getString();
    read.requestId = reader.getI64();
    read.msgType = reader.getI32();
    read.priority = reader.getI32();
    const std::uint8_t dataKind = reader.getU8();
    // Version 2 exists only for a spool reference with its writer's uid.
    // A version 1 reference comes from a build that spooled only between
    // processes of one user: its file lies in this user's own directory.
    const bool ownerNamed = reader.version() == wire::VERSION_SPOOL_OWNER;
    if (dataKind == DATA_INLINE && !ownerNamed) {
        read.data = reader.getString();
    } else if (dataKind == DATA_IN_FILE) {
        read.inFile = true;
        read.fileName = reader.getString();
        read.fileLength = reader.getU64();
        read.fileOwner = ownerNamed ? reader.getU32() : static_cast<std::uint32_t>(spool::writerId());
    } else {
        reader.fail();
    }
    // A request id that this host's long cannot hold was not made here.
    if (!reader.complete() || static_cast<std::int64_t>(static_cast<long>(read.requestId)) != read.requestId ||
        read.fileLength > static_cast<std::uint64_t>(INT_MAX)) {
        return false;
    }
    read.channel = std::move(fields->channel);  // the caller's, kept as it was
    *fields = std::move(read);
    return true;
}

bool peekDataContainer(const char* buffer, std::size_t available, DataContainerFields* fields)
{
    if (!wire_header::complete(buffer, available)) {
        return false;
    }
    wire::Reader reader(buffer, wire_header::totalLength(buffer));
    if (!reader.checkHeader(COMMS_MSG_DATA_CONTAINER, wire::VERSION_SPOOL_OWNER)) {
        return false;
    }
    std::string channelName = reader.getString();
    if (!reader.ok() || !readDataContainerFields(reader, fields)) {
        return false;
    }
    fields->channel.swap(channelName);
    return true;
}

std::string dataContainerSpoolPath(const DataContainerFields& fields)
{
    return spool::directoryOf(static_cast<uid_t>(fields.fileOwner)) + "/" + fields.fileName;
}
