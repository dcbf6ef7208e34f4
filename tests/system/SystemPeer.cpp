#include "SystemPeer.h"

#include "ChildProcess.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsException.h"
#include "DataSpool.h"
#include "WhiteBoxAccess.h"
#include "LocatorProbe.h"
#include "ReceiverProbe.h"
#include "Semaphore.h"
#include "TestUtil.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <utility>

#ifndef CC_SYSTEM_TIME_SCALE
#define CC_SYSTEM_TIME_SCALE 1
#endif

namespace systest {

int within(int ms) { return ms * CC_SYSTEM_TIME_SCALE; }

std::string checksum(const char* data, std::size_t length)
{
    unsigned long long hash = 14695981039346656037ULL;
    for (std::size_t i = 0; i < length; ++i) {
        hash ^= static_cast<unsigned char>(data[i]);
        hash *= 1099511628211ULL;
    }
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", hash);
    return text;
}

std::string checksum(const std::string& data) { return checksum(data.data(), data.size()); }

std::string patternData(std::size_t length, unsigned int seed)
{
    std::string data(length, '\0');
    unsigned int state = seed * 2654435761U + 1U;
    for (std::size_t i = 0; i < length; ++i) {
        state = state * 1103515245U + 12345U;
        data[i] = static_cast<char>((state >> 16) ^ static_cast<unsigned int>(i));
    }
    return data;
}

std::string describe(CommsChannelDataContainerMessage& message)
{
    const std::string data = message.getData();
    std::ostringstream line;
    line << "MSG src=" << message.sourceChannel() << " dst=" << message.channel()
         << " cb=" << message.callbackChannel() << " proto=" << message.protocol()
         << " iface=" << message.interface() << " ctx=" << message.remoteContext().size() << "/"
         << checksum(message.remoteContext()) << " id=" << message.requestId() << " type=" << message.msgType()
         << " prio=" << static_cast<int>(message.priority()) << " data=" << data.size() << "/" << checksum(data);
    return line.str();
}

std::string describeData(const std::string& data)
{
    return "DATA " + std::to_string(data.size()) + "/" + checksum(data);
}

int encodedLength(const CommsChannelDataContainerMessage& message)
{
    CommsChannelDataContainerMessage copy(message);
    int length = 0;
    return copy.encode(&length) != nullptr ? length : -1;
}

bool padEncodingTo(CommsChannelDataContainerMessage& message, int total)
{
    message.setRemoteContext("");
    const int bare = encodedLength(message);
    if (bare < 0 || bare > total) {
        return false;
    }
    std::string context(static_cast<std::size_t>(total - bare), '\0');
    for (std::size_t i = 0; i < context.size(); ++i) {
        context[i] = static_cast<char>('a' + i % 26);
    }
    message.setRemoteContext(context);
    return encodedLength(message) == total;
}

std::vector<std::string> spoolFilesOf(pid_t pid)
{
    std::vector<std::string> names;
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "cc-%08x-", static_cast<unsigned int>(pid));
    DIR* dir = opendir(spool::directory().c_str());
    if (dir == nullptr) {
        return names;
    }
    while (dirent* entry = readdir(dir)) {
        if (std::strncmp(entry->d_name, prefix, std::strlen(prefix)) == 0) {
            names.push_back(entry->d_name);
        }
    }
    closedir(dir);
    return names;
}

bool waitQueued(CommsChannel& channel, std::size_t n, int timeoutMs)
{
    return cctest::waitUntil([&] { return CommsChannelInspector::queueLengthLocked(channel) >= n; }, timeoutMs);
}

std::vector<std::string> receiveDescribed(CommsChannel& channel, int n, int timeoutMs)
{
    std::vector<std::string> lines;
    for (int i = 0; i < n; ++i) {
        CommsChannelDataContainerMessage message;
        try {
            if (channel.receiveMsg_ByID_Timed(message, 0, timeoutMs) != 1) {
                lines.push_back("FAILED");
                break;
            }
        } catch (const CommsException&) {
            lines.push_back("TIMEOUT");
            break;
        }
        lines.push_back(describe(message));
    }
    return lines;
}

bool locatorKnowsRemote(const std::string& name)
{
    // The name has no channel in this process, so knowing it means having
    // learnt it from the resolver.
    return CommsChannelLocator::instanceKnowsName(name);
}

std::string nullDispatcherLine(const std::string& source, const std::string& destination,
                               const std::string& callback, const std::string& data)
{
    return "CCNullDispatcher::sendMsg(), src_channel=" + source + ", dst_channel=" + destination +
           ", callback_channel=" + callback + ", data=" + data + "\n";
}

std::vector<std::string> words(const std::string& line)
{
    std::istringstream in(line);
    std::vector<std::string> result;
    std::string word;
    while (in >> word) {
        result.push_back(word);
    }
    return result;
}

}  // namespace systest

namespace {

using systest::words;

// The channels of the peer, oldest first.
class PeerChannels {
public:
    ~PeerChannels() { closeAll(); }

    CommsChannel& open(const std::string& name)
    {
        m_channels.emplace_back(name, std::unique_ptr<CommsChannel>(new CommsChannel(name)));
        return *m_channels.back().second;
    }

    CommsChannel* find(const std::string& name)
    {
        for (auto& entry : m_channels) {
            if (entry.first == name) {
                return entry.second.get();
            }
        }
        return nullptr;
    }

    bool close(const std::string& name)
    {
        for (auto it = m_channels.begin(); it != m_channels.end(); ++it) {
            if (it->first == name) {
                m_channels.erase(it);
                return true;
            }
        }
        return false;
    }

    void closeAll()
    {
        while (!m_channels.empty()) {
            m_channels.pop_back();
        }
    }

    CommsChannel* first() { return m_channels.empty() ? nullptr : m_channels.front().second.get(); }

    std::vector<const CommsChannel*> all()
    {
        std::vector<const CommsChannel*> channels;
        for (auto& entry : m_channels) {
            channels.push_back(entry.second.get());
        }
        return channels;
    }

private:
    std::vector<std::pair<std::string, std::unique_ptr<CommsChannel>>> m_channels;
};

void answer(CommsChannel& channel, CommsChannelDataContainerMessage& request)
{
    CommsChannelDataContainerMessage reply;
    reply.setChannel(request.callbackChannel());
    reply.setCallbackChannel(channel.channelName());
    reply.setRequestId(request.requestId());
    const std::string data = request.getData();
    reply.setData(data.data(), static_cast<int>(data.size()));
    channel.sendMsg(reply);
}

// One received message, or false after saying "TIMEOUT".
bool receiveOne(CommsChannel& channel, CommsChannelDataContainerMessage& message)
{
    try {
        if (channel.receiveMsg_ByID_Timed(message, 0, systest::PEER_RECEIVE_TIMEOUT_MS) == 1) {
            return true;
        }
    } catch (const CommsException&) {
    }
    cctest::childSay("TIMEOUT");
    return false;
}

}  // namespace

CC_CHILD_MAIN(peer)
{
    PeerChannels channels;
    for (const std::string& name : args) {
        channels.open(name);
    }
    cctest::childSay("READY " + std::to_string(channels.first() != nullptr ? channels.first()->port() : 0));
    // The receiver thread, once PORTS has found it.
    int receiverThread = 0;
    int receiverStatusPort = 0;

    std::vector<CommsChannelDataContainerMessage> kept;
    std::string line;
    while (cctest::childHear(line)) {
        const std::vector<std::string> w = words(line);
        if (w.empty()) {
            continue;
        }
        const std::string& command = w[0];
        if (command == "QUIT") {
            break;
        }
        if (command == "PORTS") {
            const int locatorPort = cctest::LocatorProbe::port();
            const int statusPort = cctest::ReceiverProbe::boundPort(cctest::ReceiverProbe::statusSocket(channels.all()));
            // Looked for again only for a new receiver (a new status
            // socket): the thread of the same receiver may have ended since,
            // on a stray datagram, and is then not waited for.
            if (receiverThread == 0 || statusPort != receiverStatusPort) {
                receiverThread = cctest::ReceiverProbe::receiverThreadId(systest::PEER_RECEIVE_TIMEOUT_MS);
                receiverStatusPort = statusPort;
            }
            cctest::childSay("PORTS " + std::to_string(channels.first() != nullptr ? channels.first()->port() : 0) +
                             " " + std::to_string(locatorPort) + " " + std::to_string(statusPort));
            continue;
        }
        if (command == "OPEN" && w.size() == 2) {
            CommsChannel& channel = channels.open(w[1]);
            cctest::childSay("OPENED " + w[1] + " " + std::to_string(channel.port()));
            continue;
        }
        if (command == "SPAWN") {
            // A program that outlives this process, started as an
            // application starts a helper: fork, then exec.
            const pid_t helper = fork();
            if (helper == 0) {
                execl("/bin/sleep", "sleep", "60", static_cast<char*>(nullptr));
                _exit(127);
            }
            cctest::childSay("SPAWNED " + std::to_string(helper));
            continue;
        }
        if (command == "RECEIVERENDED") {
            const int tid = receiverThread;
            const bool ended =
                tid != 0 && cctest::waitUntil([tid] { return !cctest::ReceiverProbe::threadExists(tid); },
                                              systest::PEER_RECEIVE_TIMEOUT_MS);
            cctest::childSay(ended ? "RECEIVER ENDED" : "TIMEOUT");
            continue;
        }
        if (command == "JOINING") {
            const int fd = channels.first() != nullptr ? channels.first()->socketHandle() : -1;
            // The first piece has been read, and the thread waits in the
            // poll that waits for the next one.
            const int tid = receiverThread;
            const bool joining = tid != 0 && cctest::waitUntil(
                                                 [fd, tid] {
                                                     return cctest::ReceiverProbe::pendingBytes(fd) == 0 &&
                                                            cctest::ReceiverProbe::waitsInPoll(tid);
                                                 },
                                                 systest::PEER_RECEIVE_TIMEOUT_MS);
            cctest::childSay(joining ? "JOINING" : "TIMEOUT");
            continue;
        }
        if (command == "FORGET" && w.size() == 2) {
            const bool forgotten = cctest::waitUntil([&] { return !systest::locatorKnowsRemote(w[1]); },
                                                     systest::PEER_RECEIVE_TIMEOUT_MS);
            cctest::childSay(forgotten ? "FORGOTTEN " + w[1] : "TIMEOUT");
            continue;
        }
        if (command == "CLOSE" && w.size() == 2) {
            cctest::childSay((channels.close(w[1]) ? "CLOSED " : "NOCHANNEL ") + w[1]);
            continue;
        }
        CommsChannel* channel = w.size() >= 2 ? channels.find(w[1]) : nullptr;
        if (channel == nullptr) {
            cctest::childSay("NOCHANNEL " + line);
            continue;
        }
        const int n = w.size() >= 3 ? std::atoi(w[2].c_str()) : 0;
        if (command == "RECV") {
            for (const std::string& described :
                 systest::receiveDescribed(*channel, n, systest::PEER_RECEIVE_TIMEOUT_MS)) {
                cctest::childSay(described);
            }
        } else if (command == "RECVSTR") {
            for (int i = 0; i < n; ++i) {
                std::string data;
                cctest::childSay(channel->receiveMsg(data) == 1 ? systest::describeData(data) : "FAILED");
            }
        } else if (command == "RECVBUF") {
            std::vector<char> buffer(1 << 20);
            for (int i = 0; i < n; ++i) {
                int length = static_cast<int>(buffer.size());
                cctest::childSay(channel->receiveMsg(buffer.data(), &length) == 1
                                     ? systest::describeData(std::string(buffer.data(), length))
                                     : "FAILED");
            }
        } else if (command == "WAITQ") {
            const bool queued =
                systest::waitQueued(*channel, static_cast<std::size_t>(n), systest::PEER_RECEIVE_TIMEOUT_MS);
            cctest::childSay(queued ? "QUEUED " + std::to_string(n) : "TIMEOUT");
        } else if (command == "ECHO") {
            for (int i = 0; i < n; ++i) {
                CommsChannelDataContainerMessage request;
                if (!receiveOne(*channel, request)) {
                    break;
                }
                answer(*channel, request);
                cctest::childSay("ECHOED " + std::to_string(request.requestId()));
            }
        } else if (command == "COLLECT") {
            bool complete = true;
            for (int i = 0; i < n && complete; ++i) {
                CommsChannelDataContainerMessage request;
                complete = receiveOne(*channel, request);
                if (complete) {
                    kept.push_back(request);
                }
            }
            if (complete) {
                cctest::childSay("COLLECTED");
            }
        } else if (command == "REPLY") {
            for (std::size_t i = 2; i < w.size(); ++i) {
                const long id = std::atol(w[i].c_str());
                for (CommsChannelDataContainerMessage& request : kept) {
                    if (request.requestId() == id) {
                        answer(*channel, request);
                    }
                }
            }
            cctest::childSay("REPLIED");
        } else if (command == "BLAST" && w.size() == 4) {
            int ones = 0;
            int zeros = 0;
            for (int i = 0; i < std::atoi(w[3].c_str()); ++i) {
                const int result = channel->sendMsg(w[2], "blast " + std::to_string(i));
                ones += result == 1 ? 1 : 0;
                zeros += result == 0 ? 1 : 0;
            }
            cctest::childSay("BLASTED " + std::to_string(ones) + " " + std::to_string(zeros));
        } else if (command == "SEND" && w.size() == 5) {
            const std::string data = systest::patternData(static_cast<std::size_t>(std::atol(w[3].c_str())),
                                                          static_cast<unsigned int>(std::atol(w[4].c_str())));
            cctest::childSay("SENT " + std::to_string(channel->sendMsg(w[2], data)));
        } else {
            cctest::childSay("UNKNOWN " + line);
        }
    }
    channels.closeAll();
    cctest::childSay("BYE");
    return cctest::CHILD_OK;
}
