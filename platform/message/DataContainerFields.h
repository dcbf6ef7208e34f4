// The fields of a data container encoding (type code 1) as they stand in the
// bytes, read without acting on them: a spool reference stays a file name,
// length and owner, and the file is neither opened nor removed. The
// message's own decode() reads the body through readDataContainerFields();
// tools that watch traffic between other processes read whole encodings
// through peekDataContainer(), so that watching never takes a file away
// from the process it was meant for.
//
// Plain functions on caller-owned buffers and structs, any thread.
#ifndef COMMSCHANNEL_DATA_CONTAINER_FIELDS_H
#define COMMSCHANNEL_DATA_CONTAINER_FIELDS_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace wire {
class Reader;
}

struct DataContainerFields {
    std::string channel;
    std::string sourceChannel;
    std::string callbackChannel;
    std::string protocol;
    std::string interfaceName;
    std::string remoteContext;
    std::int64_t requestId = 0;
    std::int32_t msgType = 0;
    std::int32_t priority = 0;
    // Inline data (inFile false), or the spool reference (inFile true).
    bool inFile = false;
    std::string data;
    std::string fileName;
    std::uint64_t fileLength = 0;
    std::uint32_t fileOwner = 0;  // the writer's uid; for a version 1 reference the reader's own
};

// Reads the body after the channel name. True when every field is well
// formed, the reader is complete, the request id fits this host's long and
// a spool length fits an int; *fields is then filled (channel untouched).
bool readDataContainerFields(wire::Reader& reader, DataContainerFields* fields);

// Reads a whole data container encoding of at most `available` bytes (its
// header's total length must fit) without touching any spool file. False for
// anything that decode() would reject before it opens a file.
bool peekDataContainer(const char* buffer, std::size_t available, DataContainerFields* fields);

// Where the spool file of a reference lies: the owner's spool directory and
// the file name.
std::string dataContainerSpoolPath(const DataContainerFields& fields);

#endif
