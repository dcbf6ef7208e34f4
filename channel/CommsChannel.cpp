// Construction, socket set-up, shutdown and destruction of a channel, and its
// attachment to the process's locator and receiver.
#include "CommsChannel.h"

#include "ChannelInbox.h"
#include "CommsChannelDataContainerMessage.h"
#include "ProcessCounters.h"
#include "ProcessRuntime.h"

#include "LoopbackSocket.h"

#include <unistd.h>

#include <cstdio>

namespace {

// Both socket buffers are asked for at this size (Linux reports twice it).
const int SOCKET_BUFFER_SIZE = 65535;

}  // namespace

CommsChannel::CommsChannel(const std::string& name)
    : m_channelName(name), m_socketHandle(0), m_port(0), m_ownsSocket(false), m_pinbox(std::make_shared<ChannelInbox>(nullptr))
{
    construct();
}

CommsChannel::CommsChannel(const std::string& name, CCInterceptorDispatcher* interceptor)
    : m_channelName(name), m_socketHandle(0), m_port(0), m_ownsSocket(false), m_pinbox(std::make_shared<ChannelInbox>(interceptor))
{
    construct();
}

void CommsChannel::construct()
{
    // A channel whose socket could not be made is still built, registered
    // and installed: callers learn of the failure only from perror.
    createSocket();
    // The slot is there before any message can arrive, so every one counts.
    m_pinbox->attachCounters(ProcessCounters::process().claim(m_channelName, m_port));
    registerChannel();
    installReceiveChannel();
}

int CommsChannel::createSocket()
{
    // Close-on-exec: a program this process starts must not keep the
    // channel's port bound after the process is gone.
    SocketStep failed = SocketStep::None;
    int tried = -1;
    LoopbackSocket socket = LoopbackSocket::open(0, &failed, 0, &tried);
    // After a failed bind or getsockname the handle keeps the closed number
    // on purpose; the channel never closes it again.
    m_socketHandle = tried;
    if (!socket.valid()) {
        perror(failed == SocketStep::Create ? "Error creating socket"
               : failed == SocketStep::Bind ? "CommsChannel::createSocket bind"
                                            : "CommsChannel::createSocket getsockname");
        return 0;
    }
    m_port = socket.port();
    socket.setBuffers(SOCKET_BUFFER_SIZE);
    m_ownsSocket = true;
    m_socketHandle = socket.release();
    return 1;
}

CommsChannel::~CommsChannel()
{
    m_pinbox->shutdown();
    uninstallReceiveChannel();
    unregisterChannel();
    if (m_ownsSocket) {
        close(m_socketHandle);
    }
    // A send of this process that found the channel before it went may still
    // be delivering; from now on its message is dropped, and the interceptor
    // is never called again. The queued messages go with the last holder of
    // the inbox (normally this channel, now).
    m_pinbox->close();
    // Nothing writes the slot now: the receiver thread has let the channel
    // go and the inbox takes no more deliveries.
    ProcessCounters::process().release(m_pinbox->detachCounters());
}

std::string& CommsChannel::channelName() { return m_channelName; }

int CommsChannel::port() { return m_port; }

int CommsChannel::socketHandle() const { return m_socketHandle; }

void CommsChannel::shutdown() { m_pinbox->shutdown(); }

int CommsChannel::addToMsgQ(CommsChannelDataContainerMessage& message) { return m_pinbox->deliver(message); }

int CommsChannel::registerChannel()
{
    if (m_channelName.compare("") == 0) {
        return 0;
    }
    return ProcessRuntime::process().registerChannel(this);
}

int CommsChannel::unregisterChannel()
{
    if (m_channelName.compare("") == 0) {
        return 0;
    }
    return ProcessRuntime::process().unregisterChannel(this);
}

void CommsChannel::installReceiveChannel() { ProcessRuntime::process().installChannel(this); }

void CommsChannel::uninstallReceiveChannel() { ProcessRuntime::process().uninstallChannel(this); }
