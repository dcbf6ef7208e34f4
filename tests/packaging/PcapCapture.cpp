#include "PcapCapture.h"

#include <cstring>
#include <vector>

namespace cctest {

namespace {

const std::uint32_t PCAP_MAGIC = 0xa1b2c3d4U; // microsecond time stamps, writer's byte order
const std::uint32_t SNAPLEN = 65535;
const std::uint32_t LINKTYPE_RAW = 101;
const std::size_t IP_HEADER = 20;
const std::size_t UDP_HEADER = 8;

void putBigEndian16(unsigned char* at, std::uint16_t value)
{
    at[0] = static_cast<unsigned char>(value >> 8);
    at[1] = static_cast<unsigned char>(value & 0xff);
}

} // namespace

std::uint16_t ipv4HeaderChecksum(const unsigned char* header, std::size_t length)
{
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i + 1 < length; i += 2) {
        sum += (static_cast<std::uint32_t>(header[i]) << 8) | header[i + 1];
    }
    while (sum >> 16) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<std::uint16_t>(~sum & 0xffff);
}

PcapCapture::PcapCapture(const std::string& path)
    : m_file(std::fopen(path.c_str(), "wb")), m_ok(true), m_packets(0)
{
    if (m_file == nullptr) {
        m_ok = false;
        return;
    }
    const std::uint32_t magic = PCAP_MAGIC;
    const std::uint16_t versionMajor = 2;
    const std::uint16_t versionMinor = 4;
    const std::int32_t thisZone = 0;
    const std::uint32_t sigFigs = 0;
    write(&magic, 4);
    write(&versionMajor, 2);
    write(&versionMinor, 2);
    write(&thisZone, 4);
    write(&sigFigs, 4);
    write(&SNAPLEN, 4);
    write(&LINKTYPE_RAW, 4);
}

PcapCapture::~PcapCapture()
{
    close();
}

void PcapCapture::write(const void* bytes, std::size_t length)
{
    if (m_file != nullptr && std::fwrite(bytes, 1, length, m_file) != length) {
        m_ok = false;
    }
}

void PcapCapture::add(std::uint16_t sourcePort, std::uint16_t destinationPort, const std::string& payload)
{
    const std::size_t packetLength = IP_HEADER + UDP_HEADER + payload.size();
    if (packetLength > SNAPLEN) {
        m_ok = false;
        return;
    }
    std::vector<unsigned char> packet(packetLength, 0);
    unsigned char* ip = packet.data();
    ip[0] = 0x45;                                            // IPv4, 5 words of header
    putBigEndian16(ip + 2, static_cast<std::uint16_t>(packetLength));
    putBigEndian16(ip + 4, static_cast<std::uint16_t>(m_packets + 1)); // identification
    ip[6] = 0x40;                                            // don't fragment
    ip[8] = 64;                                              // time to live
    ip[9] = 17;                                              // UDP
    const unsigned char loopback[4] = {127, 0, 0, 1};
    std::memcpy(ip + 12, loopback, 4);
    std::memcpy(ip + 16, loopback, 4);
    putBigEndian16(ip + 10, ipv4HeaderChecksum(ip, IP_HEADER));
    unsigned char* udp = ip + IP_HEADER;
    putBigEndian16(udp, sourcePort);
    putBigEndian16(udp + 2, destinationPort);
    putBigEndian16(udp + 4, static_cast<std::uint16_t>(UDP_HEADER + payload.size()));
    // A UDP checksum of 0 means "none", as loopback captures commonly show.
    if (!payload.empty()) {
        std::memcpy(udp + UDP_HEADER, payload.data(), payload.size());
    }
    ++m_packets;
    const std::uint32_t seconds = 1700000000U + m_packets / 1000U;
    const std::uint32_t micros = (m_packets % 1000U) * 1000U;
    const std::uint32_t length = static_cast<std::uint32_t>(packetLength);
    write(&seconds, 4);
    write(&micros, 4);
    write(&length, 4);
    write(&length, 4);
    write(packet.data(), packet.size());
}

bool PcapCapture::close()
{
    if (m_file != nullptr) {
        if (std::fclose(m_file) != 0) {
            m_ok = false;
        }
        m_file = nullptr;
    }
    return m_ok;
}

} // namespace cctest
