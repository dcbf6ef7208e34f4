#include "ResolverList.h"

#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelMessageCreator.h"
#include "ProcNetUdp.h"
#include "ProcSocketOwners.h"
#include "ResolverClient.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <set>

namespace resolver {

namespace {

std::string printableName(const std::string& name)
{
    static const char HEX[] = "0123456789abcdef";
    std::string out;
    for (std::string::const_iterator it = name.begin(); it != name.end(); ++it) {
        const unsigned char byte = static_cast<unsigned char>(*it);
        if (byte > ' ' && byte < 0x7f && byte != '\\') {
            out += static_cast<char>(byte);
        } else {
            out += "\\x";
            out += HEX[byte >> 4];
            out += HEX[byte & 0x0f];
        }
    }
    return out;
}

std::string padded(const std::string& text, std::size_t width)
{
    return text.size() < width ? text + std::string(width - text.size(), ' ') : text;
}

}  // namespace

bool applyUpdate(const char* bytes, std::size_t length, std::map<std::string, int>* channels)
{
    CommsChannelMessageCreator creator;
    std::unique_ptr<CommsChannelMessage> message(creator.decodeMessage(bytes, static_cast<unsigned int>(length)));
    if (!message || message->type() != COMMS_MSG_LOCATOR_UPDATE) {
        return false;
    }
    const CommsChannelLocatorUpdateMessage& update = static_cast<CommsChannelLocatorUpdateMessage&>(*message);
    for (int index = 0; index < update.numChannelEntries(); ++index) {
        CommsChannelLocatorUpdateMessage::eUpdateType type = CommsChannelLocatorUpdateMessage::CHANNEL_ADDED;
        std::string name;
        int port = 0;
        update.getChannelEntry(index, &type, &name, &port);
        if (type == CommsChannelLocatorUpdateMessage::CHANNEL_ADDED) {
            (*channels)[name] = port;
        } else {
            channels->erase(name);
        }
    }
    return true;
}

std::vector<ListedChannel> withOwners(const std::map<std::string, int>& channels)
{
    std::vector<UdpSocketEntry> sockets;
    std::map<int, std::uint64_t> inodeOfPort;
    std::map<int, UdpSocketEntry> socketOfPort;
    if (readUdpSockets(&sockets)) {
        for (std::vector<UdpSocketEntry>::const_iterator it = sockets.begin(); it != sockets.end(); ++it) {
            if (it->reachableOnLoopback) {
                inodeOfPort[it->port] = it->inode;
                socketOfPort[it->port] = *it;
            }
        }
    }
    std::set<std::uint64_t> wanted;
    for (std::map<std::string, int>::const_iterator it = channels.begin(); it != channels.end(); ++it) {
        std::map<int, std::uint64_t>::const_iterator inode = inodeOfPort.find(it->second);
        if (inode != inodeOfPort.end()) {
            wanted.insert(inode->second);
        }
    }
    const std::map<std::uint64_t, int> owners = findSocketOwners(wanted);
    std::vector<ListedChannel> listed;
    for (std::map<std::string, int>::const_iterator it = channels.begin(); it != channels.end(); ++it) {
        int pid = 0;
        std::map<int, std::uint64_t>::const_iterator inode = inodeOfPort.find(it->second);
        if (inode != inodeOfPort.end()) {
            std::map<std::uint64_t, int>::const_iterator owner = owners.find(inode->second);
            pid = owner != owners.end() ? owner->second : 0;
        }
        ListedChannel channel{it->first, it->second, pid};
        std::map<int, UdpSocketEntry>::const_iterator socket = socketOfPort.find(it->second);
        if (socket != socketOfPort.end()) {
            channel.rxQueueBytes = socket->second.rxQueueBytes;
            channel.drops = socket->second.drops;
        }
        listed.push_back(channel);
    }
    return listed;
}

std::string formatChannelList(const std::vector<ListedChannel>& channels)
{
    std::vector<std::string> names;
    std::vector<std::string> ports;
    std::size_t nameWidth = 4;
    std::size_t portWidth = 4;
    for (std::vector<ListedChannel>::const_iterator it = channels.begin(); it != channels.end(); ++it) {
        names.push_back(printableName(it->name));
        ports.push_back(std::to_string(it->port));
        nameWidth = std::max(nameWidth, names.back().size());
        portWidth = std::max(portWidth, ports.back().size());
    }
    std::string out = padded("NAME", nameWidth) + "  " + padded("PORT", portWidth) + "  PID\n";
    for (std::size_t i = 0; i < channels.size(); ++i) {
        const std::string pid = channels[i].pid > 0 ? std::to_string(channels[i].pid) : "-";
        out += padded(names[i], nameWidth) + "  " + padded(ports[i], portWidth) + "  " + pid + "\n";
    }
    return out;
}

int runList(int resolverPort, std::FILE* out, std::FILE* err)
{
    std::map<std::string, int> channels;
    std::string error;
    if (!fetchChannels(resolverPort, &channels, &error)) {
        std::fprintf(err, "commschannel-resolver: %s\n", error.c_str());
        return 1;
    }
    const std::string listing = formatChannelList(withOwners(channels));
    std::fputs(listing.c_str(), out);
    std::fflush(out);
    return 0;
}

}  // namespace resolver
