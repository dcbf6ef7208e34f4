// The receiver thread: waits on the status socket and every channel socket,
// reads each arriving encoding (joining the datagrams of a long one), decodes
// it and queues it in the channel whose socket it arrived on.
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "ReceiverState.h"
#include "Semaphore.h"

#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

namespace receiver_state {

const char* const RECEIVE_FAILURE =
    "CommsChannelReceiver - monitorChannels(), Failed to receive a message correctly";

namespace {

// Header bytes that announce the total length of an encoding.
const unsigned int HEADER_SIZE = 8;

// Pause after a failed select (typically a descriptor that a failed read
// closed), so that the thread retries without spinning a processor.
const int SELECT_RETRY_PAUSE_MS = 10;

// Set when a join was abandoned for a channel being removed: that is not a
// failure of the stream, and the thread carries on.
thread_local bool joinAbandoned = false;

// Gives the list lock back however the pass ends, including the failure
// exception, so that channels can still be removed after the thread died.
class ListLockHolder {
public:
    ListLockHolder() { channelListLock().take(-1); }
    ~ListLockHolder() { channelListLock().give(); }
    ListLockHolder(const ListLockHolder&) = delete;
    ListLockHolder& operator=(const ListLockHolder&) = delete;
};

// Withdraws the status socket when the thread ends, by pthread_exit or by an
// escaping exception alike: statusSocket and statusPort go to 0, so that
// status updates are no longer sent. The descriptor itself is closed by the
// receiver's destructor once this thread has been joined. Only this
// thread's own socket is withdrawn, never that of a receiver created since.
class StatusSocketWithdrawal {
public:
    StatusSocketWithdrawal() : m_socket(statusSocket.load()) {}
    ~StatusSocketWithdrawal()
    {
        int expected = m_socket;
        if (statusSocket.compare_exchange_strong(expected, 0)) {
            statusPort = 0;
        }
    }
    StatusSocketWithdrawal(const StatusSocketWithdrawal&) = delete;
    StatusSocketWithdrawal& operator=(const StatusSocketWithdrawal&) = delete;

private:
    const int m_socket;
};

// Waits until socket has another datagram. False when the channel of that
// socket is being removed, which abandons the encoding being joined.
bool waitForNextPiece(int socket)
{
    joiningSocket = socket;
    bool abandoned = false;
    for (;;) {
        if (abandonSocket == socket) {
            abandoned = true;
            break;
        }
        pollfd watched[2];
        watched[0].fd = socket;
        watched[0].events = POLLIN;
        watched[0].revents = 0;
        watched[1].fd = statusSocket > 0 ? statusSocket.load() : -1;
        watched[1].events = POLLIN;
        watched[1].revents = 0;
        if (poll(watched, 2, -1) < 0 && errno != EINTR) {
            break;
        }
        if (watched[0].revents != 0) {
            break;
        }
        if (watched[1].revents & POLLIN) {
            // Status updates carry nothing but the wake-up, and the list
            // changes they announce are picked up after this pass anyway.
            statusUpdateMsgId ignored = CHANNEL_ADDED;
            receiveStatusUpdate(ignored);
        }
    }
    joiningSocket = -1;
    return !abandoned;
}

}  // namespace

void* runReceiverThread(void* /*unused*/)
{
    StatusSocketWithdrawal withdrawal;
    while (!stopReceiver) {
        monitorChannels();
    }
    pthread_exit(nullptr);
}

int monitorChannels()
{
    fd_set readySet;
    int width;
    channelListLock().take(-1);
    readySet = monitorSet;
    width = maxSocketPlusOne;
    channelListLock().give();

    const int ready = select(width, &readySet, nullptr, nullptr, nullptr);
    if (ready < 0) {
        if (errno == EBADF) {
            poll(nullptr, 0, SELECT_RETRY_PAUSE_MS);
        }
        return ready;
    }
    if (stopReceiver) {
        return 0;
    }
    const int status = statusSocket;
    if (status > 0 && status < FD_SETSIZE && FD_ISSET(status, &readySet)) {
        statusUpdateMsgId id = CHANNEL_ADDED;
        receiveStatusUpdate(id);
        channelListLock().take(-1);
        const bool empty = receiveChannels == nullptr || receiveChannels->empty();
        channelListLock().give();
        if (empty) {
            stopReceiver = true;
        }
        // Ready channel sockets stay readable and are served next cycle,
        // with the rebuilt set.
        return ready;
    }

    ListLockHolder hold;
    if (receiveChannels == nullptr) {
        return ready;
    }
    for (CommsChannel* channel : *receiveChannels) {
        if (channel == nullptr) {
            continue;
        }
        const int fd = channel->socketHandle();
        if (fd <= 0 || fd >= FD_SETSIZE || !FD_ISSET(fd, &readySet)) {
            continue;
        }
        CommsChannelDataContainerMessage message;
        joinAbandoned = false;
        if (!receiveChannelMessage(fd, message)) {
            if (joinAbandoned) {
                continue;
            }
            throw std::string(RECEIVE_FAILURE);
        }
        channel->addToMsgQ(message);
    }
    return ready;
}

bool receiveStatusUpdate(statusUpdateMsgId& /*id*/)
{
    const int fd = statusSocket;
    if (fd == 0) {
        return false;
    }
    int count = 0;
    if (ioctl(fd, FIONREAD, &count) == -1) {
        perror("CommsChannelReceiver::recvStatusUpdate: ioctl failed");
        return false;
    }
    // One byte at least, so that a zero-length datagram is consumed too.
    char* buffer = new char[count > 0 ? static_cast<std::size_t>(count) : 1];
    sockaddr_in source;
    socklen_t sourceLength = sizeof source;
    bool result = true;
    if (recvfrom(fd, buffer, static_cast<std::size_t>(count), 0, reinterpret_cast<sockaddr*>(&source),
                 &sourceLength) == -1) {
        // The variable keeps the old number. The descriptor is closed here
        // only if the destructor has not taken it over for closing.
        int owned = fd;
        if (ownedStatusSocket.compare_exchange_strong(owned, -1)) {
            close(fd);
        }
        result = false;
    }
    delete[] buffer;
    return result;
}

bool getSocketData(int socket, char* buffer, unsigned int length, bool peek)
{
    if (length == 0) {
        return true;
    }
    const int flags = peek ? MSG_PEEK : 0;
    sockaddr_in source;
    socklen_t sourceLength = sizeof source;
    unsigned int received = 0;
    for (;;) {
        // Every datagram after the first belongs to the same long encoding;
        // wait for it in a way that a removal of the channel can interrupt.
        if (!peek && received > 0 && !waitForNextPiece(socket)) {
            joinAbandoned = true;
            return false;
        }
        const ssize_t result = recvfrom(socket, buffer + received, length - received, flags,
                                        reinterpret_cast<sockaddr*>(&source), &sourceLength);
        if (result == -1) {
            // Deliberate: the socket is the channel's own and is closed on a
            // failed read.
            close(socket);
            return false;
        }
        received += static_cast<unsigned int>(result);
        if (received >= length) {
            return true;
        }
    }
}

bool receiveChannelMessage(int socket, CommsChannelMessage& message)
{
    if (statusSocket == 0) {
        return false;
    }
    int count = 0;
    if (ioctl(socket, FIONREAD, &count) == -1) {
        perror("CommsChannelReceiver::receiveChannelMessage: ioctl failed");
        return false;
    }
    if (count < static_cast<int>(HEADER_SIZE)) {
        return false;
    }
    char header[HEADER_SIZE];
    if (!getSocketData(socket, header, HEADER_SIZE, true)) {
        return false;
    }
    uint32_t totalLength;
    std::memcpy(&totalLength, header + 4, sizeof totalLength);
    // An encoding cannot be shorter than its own header: such a length is
    // unreadable like a datagram of fewer than 8 bytes, and is left unread.
    if (totalLength < HEADER_SIZE) {
        return false;
    }
    char* buffer = new (std::nothrow) char[totalLength];
    if (buffer == nullptr) {
        perror("CommsChannelReceiver::receiveChannelMessage: alloc failed");
        close(socket);
        return false;
    }
    if (!getSocketData(socket, buffer, totalLength, false)) {
        delete[] buffer;
        return false;
    }
    message.decode(buffer);
    delete[] buffer;
    return true;
}

}  // namespace receiver_state
