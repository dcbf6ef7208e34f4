#include "PcapWriter.h"

#include <algorithm>
#include <cstdint>

namespace cli {

namespace {

struct GlobalHeader {
    std::uint32_t magic;
    std::uint16_t versionMajor;
    std::uint16_t versionMinor;
    std::int32_t thisZone;
    std::uint32_t sigFigs;
    std::uint32_t snapLength;
    std::uint32_t linkType;
};

struct RecordHeader {
    std::uint32_t seconds;
    std::uint32_t microseconds;
    std::uint32_t capturedLength;
    std::uint32_t originalLength;
};

static_assert(sizeof(GlobalHeader) == 24 && sizeof(RecordHeader) == 16, "pcap headers have no padding");

}  // namespace

PcapWriter::PcapWriter() : m_file(nullptr), m_ownsFile(false) {}

PcapWriter::~PcapWriter() { close(); }

bool PcapWriter::open(const std::string& path)
{
    m_ownsFile = path != "-";
    m_file = m_ownsFile ? std::fopen(path.c_str(), "wbe") : stdout;
    if (m_file == nullptr) {
        return false;
    }
    const GlobalHeader header{0xa1b2c3d4u, 2, 4, 0, 0, PCAP_SNAPLEN, PCAP_LINKTYPE_RAW};
    return std::fwrite(&header, sizeof header, 1, m_file) == 1 && std::fflush(m_file) == 0;
}

bool PcapWriter::write(const CapturedPacket& packet)
{
    if (m_file == nullptr) {
        return false;
    }
    const std::uint32_t length = static_cast<std::uint32_t>(packet.ip.size());
    const std::uint32_t captured = std::min<std::uint32_t>(length, PCAP_SNAPLEN);
    const RecordHeader record{static_cast<std::uint32_t>(packet.time.tv_sec),
                              static_cast<std::uint32_t>(packet.time.tv_usec), captured, length};
    return std::fwrite(&record, sizeof record, 1, m_file) == 1 &&
           std::fwrite(packet.ip.data(), 1, captured, m_file) == captured && std::fflush(m_file) == 0;
}

bool PcapWriter::close()
{
    if (m_file == nullptr) {
        return true;
    }
    bool ok = std::fflush(m_file) == 0;
    if (m_ownsFile) {
        ok = std::fclose(m_file) == 0 && ok;
    }
    m_file = nullptr;
    return ok;
}

}  // namespace cli
