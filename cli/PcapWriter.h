// Writes captured IPv4 packets as a classic pcap file (not pcapng): the
// 24-byte global header in the host's byte order (magic 0xa1b2c3d4, version
// 2.4, snaplen 65535, link type 101 LINKTYPE_RAW), then per packet a 16-byte
// record header (seconds, microseconds, captured length, original length)
// and the packet from its IP header on. Each record is flushed as written,
// so a reader following the file (or a pipe) sees it at once.
// Owns the stream it opened; not thread-safe.
#ifndef COMMSCHANNEL_CLI_PCAP_WRITER_H
#define COMMSCHANNEL_CLI_PCAP_WRITER_H

#include "LoopbackCapture.h"

#include <cstdio>
#include <string>

namespace cli {

const unsigned int PCAP_SNAPLEN = 65535;
const unsigned int PCAP_LINKTYPE_RAW = 101;

class PcapWriter {
public:
    PcapWriter();
    // Flushes and closes the file.
    ~PcapWriter();
    PcapWriter(const PcapWriter&) = delete;
    PcapWriter& operator=(const PcapWriter&) = delete;

    // Creates (or truncates) path, "-" meaning standard output, and writes
    // the global header. False with errno set when that fails.
    bool open(const std::string& path);
    bool isOpen() const { return m_file != nullptr; }
    // Appends one record. False when the write failed.
    bool write(const CapturedPacket& packet);
    // Flushes and closes; false when anything written was lost.
    bool close();

private:
    std::FILE* m_file;
    bool m_ownsFile;
};

}  // namespace cli

#endif
