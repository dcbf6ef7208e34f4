#include "ProcNetUdp.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <sstream>

namespace resolver {

namespace {

const char LOOPBACK_LITTLE_ENDIAN[] = "0100007F";
const char LOOPBACK_BIG_ENDIAN[] = "7F000001";
const char ANY_IPV4[] = "00000000";
const char ANY_IPV6[] = "00000000000000000000000000000000";
const char IPV4_MAPPED_PREFIX[] = "0000000000000000";
const char IPV4_MAPPED_MARK_LITTLE_ENDIAN[] = "FFFF0000";
const char IPV4_MAPPED_MARK_BIG_ENDIAN[] = "0000FFFF";

bool isLoopbackIpv4(const std::string& address)
{
    return address == LOOPBACK_LITTLE_ENDIAN || address == LOOPBACK_BIG_ENDIAN;
}

bool reachableAddress(const std::string& address)
{
    if (address.size() == 8) {
        return isLoopbackIpv4(address) || address == ANY_IPV4;
    }
    if (address.size() == 32) {
        if (address == ANY_IPV6) {
            return true;
        }
        const std::string mark = address.substr(16, 8);
        return address.compare(0, 16, IPV4_MAPPED_PREFIX) == 0 &&
               (mark == IPV4_MAPPED_MARK_LITTLE_ENDIAN || mark == IPV4_MAPPED_MARK_BIG_ENDIAN) &&
               isLoopbackIpv4(address.substr(24, 8));
    }
    return false;
}

bool isHex(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789ABCDEFabcdef") == std::string::npos;
}

bool parseLine(const std::string& line, UdpSocketEntry* entry)
{
    std::istringstream in(line);
    const std::vector<std::string> tokens((std::istream_iterator<std::string>(in)),
                                          std::istream_iterator<std::string>());
    // sl, local, remote, st, queues, timer, retransmits, uid, timeout, inode.
    if (tokens.size() < 10 || tokens[0].empty() || tokens[0].back() != ':') {
        return false;
    }
    const std::string& local = tokens[1];
    const std::size_t colon = local.find(':');
    if (colon == std::string::npos) {
        return false;
    }
    const std::string address = local.substr(0, colon);
    const std::string port = local.substr(colon + 1);
    const std::string& inode = tokens[9];
    if (!isHex(address) || !isHex(port) || port.size() > 4 || inode.empty() ||
        inode.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    entry->port = static_cast<int>(std::strtol(port.c_str(), nullptr, 16));
    entry->inode = static_cast<std::uint64_t>(std::strtoull(inode.c_str(), nullptr, 10));
    entry->reachableOnLoopback = reachableAddress(address);
    entry->rxQueueBytes = -1;
    const std::size_t queueColon = tokens[4].find(':');
    if (queueColon != std::string::npos && isHex(tokens[4].substr(queueColon + 1))) {
        entry->rxQueueBytes = std::strtoll(tokens[4].c_str() + queueColon + 1, nullptr, 16);
    }
    entry->drops = -1;
    if (tokens.size() > 12 && !tokens[12].empty() &&
        tokens[12].find_first_not_of("0123456789") == std::string::npos) {
        entry->drops = std::strtoll(tokens[12].c_str(), nullptr, 10);
    }
    return true;
}

// The kernel builds these files while they are read. Between two read()
// calls sockets may come and go, and the kernel's walk to where the last read
// stopped can then skip a line. One large read gets the whole list in one
// walk on any realistic host; the caller also never trusts a single scan to
// declare a port closed (see ResolverServer).
const std::size_t READ_CHUNK = 256 * 1024;

bool readWholeFile(const std::string& path, std::string* text)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    std::vector<char> buffer(READ_CHUNK);
    for (;;) {
        const ssize_t got = read(fd, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            close(fd);
            return false;
        }
        if (got == 0) {
            break;
        }
        text->append(buffer.data(), static_cast<std::size_t>(got));
    }
    close(fd);
    return true;
}

bool appendFile(const std::string& path, std::vector<UdpSocketEntry>* entries)
{
    std::string text;
    if (!readWholeFile(path, &text)) {
        return false;
    }
    const std::vector<UdpSocketEntry> parsed = parseProcNetUdp(text);
    entries->insert(entries->end(), parsed.begin(), parsed.end());
    return true;
}

}  // namespace

std::vector<UdpSocketEntry> parseProcNetUdp(const std::string& text)
{
    std::vector<UdpSocketEntry> entries;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        UdpSocketEntry entry;
        if (parseLine(line, &entry)) {
            entries.push_back(entry);
        }
    }
    return entries;
}

std::set<int> loopbackPorts(const std::vector<UdpSocketEntry>& entries)
{
    std::set<int> ports;
    for (std::vector<UdpSocketEntry>::const_iterator it = entries.begin(); it != entries.end(); ++it) {
        if (it->reachableOnLoopback) {
            ports.insert(it->port);
        }
    }
    return ports;
}

bool readUdpSockets(std::vector<UdpSocketEntry>* entries, const std::string& procRoot)
{
    entries->clear();
    if (!appendFile(procRoot + "/net/udp", entries)) {
        return false;
    }
    // Without IPv6 in the kernel the second file is missing; that is fine.
    appendFile(procRoot + "/net/udp6", entries);
    return true;
}

}  // namespace resolver
