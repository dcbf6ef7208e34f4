// The four dispatch strategies.
#include "CommsChannelDispatcher.h"

#include "ChannelInbox.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "LoopbackSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

CCIntraProcDispatcher::CCIntraProcDispatcher(CommsChannel* destination)
    : m_pchannel(destination), m_pinbox(destination != nullptr ? destination->sharedInbox() : nullptr)
{
}

int CCIntraProcDispatcher::sendMsg(CommsChannel* /*sender*/, CommsChannelDataContainerMessage& message)
{
    if (!m_pinbox) {
        return 0;
    }
    return m_pinbox->deliver(message);
}

CCInterProcDispatcher::CCInterProcDispatcher(int port) : m_port(port) {}

int CCInterProcDispatcher::sendMsg(CommsChannel* sender, CommsChannelDataContainerMessage& message)
{
    // Descriptor 0 stands for "no socket" throughout the library.
    if (sender == nullptr || sender->socketHandle() == 0) {
        return 0;
    }
    const sockaddr_in destination = loopbackAddress(m_port & 0xFFFF);

    // Large data travels in a spool file so that the encoding stays within
    // a datagram or two.
    if (message.getDataLength() > FILE_THRESHOLD) {
        message.putDataToFile();
    }
    int length = 0;
    const char* encoding = message.encode(&length);
    if (encoding == nullptr) {
        return 0;
    }
    if (length <= 0) {
        return 1;
    }
    // A long encoding leaves as consecutive datagrams to the same port; the
    // receiver joins them by the total length in the header.
    int sent = 0;
    while (sent < length) {
        const int piece = std::min(length - sent, MAX_PIECE);
        const ssize_t result = sendto(sender->socketHandle(), encoding + sent, static_cast<size_t>(piece), 0,
                                      reinterpret_cast<const sockaddr*>(&destination), sizeof destination);
        if (result == -1) {
            perror("CCInterProcDispatcher::sendMsg(CommsChannelMessage& message) sendto");
            return 0;
        }
        sent += static_cast<int>(result);
    }
    return 1;
}

int CCDistribProcDispatcher::sendMsg(CommsChannel* /*sender*/, CommsChannelDataContainerMessage& /*message*/)
{
    return 0;
}

int CCNullDispatcher::sendMsg(CommsChannel* /*sender*/, CommsChannelDataContainerMessage& message)
{
    const std::string data = message.getData();
    std::printf("CCNullDispatcher::sendMsg(), src_channel=%s, dst_channel=%s, callback_channel=%s, data=%s\n",
                message.sourceChannel().c_str(), message.channel().c_str(), message.callbackChannel().c_str(),
                data.c_str());
    return 0;
}
