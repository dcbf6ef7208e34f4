// Writes what a capture of the loopback interface holds: a classic pcap file
// with link type LINKTYPE_RAW (101), each record an IPv4 packet (header,
// UDP header, payload) between 127.0.0.1 and 127.0.0.1.
#ifndef COMMSCHANNEL_TESTS_PCAP_CAPTURE_H
#define COMMSCHANNEL_TESTS_PCAP_CAPTURE_H

#include <cstdint>
#include <cstdio>
#include <string>

namespace cctest {

class PcapCapture {
public:
    explicit PcapCapture(const std::string& path);
    ~PcapCapture();
    PcapCapture(const PcapCapture&) = delete;
    PcapCapture& operator=(const PcapCapture&) = delete;

    bool ok() const { return m_file != nullptr && m_ok; }
    // Appends one UDP datagram from sourcePort to destinationPort.
    void add(std::uint16_t sourcePort, std::uint16_t destinationPort, const std::string& payload);
    // Flushes and closes the file; answers whether every write succeeded.
    bool close();

private:
    void write(const void* bytes, std::size_t length);

    std::FILE* m_file;
    bool m_ok;
    std::uint32_t m_packets;
};

// The IPv4 header checksum of `length` bytes (a multiple of 2).
std::uint16_t ipv4HeaderChecksum(const unsigned char* header, std::size_t length);

} // namespace cctest

#endif
