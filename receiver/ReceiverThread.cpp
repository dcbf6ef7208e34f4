// The receiver thread: waits on the status socket and every channel socket,
// reads each arriving encoding (joining the datagrams of a long one), decodes
// it and queues it in the channel whose socket it arrived on.
//
// It waits with epoll rather than select: the cost of a wake-up does not grow
// with the number of idle channels, and descriptors of 1024 and above are
// watched like any other. A ready descriptor finds its channels through the
// instance's descriptor index, never by a walk over the whole list.
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "ReceiverState.h"
#include "Semaphore.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace receiver_state {

const char* const RECEIVE_FAILURE =
    "CommsChannelReceiver - monitorChannels(), Failed to receive a message correctly";

namespace {

// Header bytes that announce the total length of an encoding.
const unsigned int HEADER_SIZE = 8;

// Pause after a failed wait, so that the thread retries without spinning a
// processor.
const int WAIT_RETRY_PAUSE_MS = 10;

// Further datagrams read from a socket in one pass once it was found ready.
const int DRAIN_LIMIT = 32;

// Readiness reports taken per wait; more ready sockets are served next cycle.
const int MAX_EVENTS = 64;

// The record of the instance whose thread this is.
thread_local ReceiverRecord* ownRecord = nullptr;

int ownStatusSocket() { return ownRecord != nullptr ? ownRecord->statusSocket.load() : statusSocket.load(); }

// Whether fd has a datagram waiting right now.
bool readable(int fd)
{
    pollfd watched;
    watched.fd = fd;
    watched.events = POLLIN;
    watched.revents = 0;
    return poll(&watched, 1, 0) > 0 && (watched.revents & POLLIN) != 0;
}

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

// The queue tokens of the messages queued in one channel during a pass,
// given when the pass is done with that channel, however it ends. The
// channel cannot go meanwhile: its removal waits for the list lock.
class DeferredTokens {
public:
    explicit DeferredTokens(CommsChannel* channel) : m_channel(channel), m_count(0) {}
    ~DeferredTokens() { m_channel->giveQueueTokens(m_count); }
    DeferredTokens(const DeferredTokens&) = delete;
    DeferredTokens& operator=(const DeferredTokens&) = delete;

    int* counter() { return &m_count; }

private:
    CommsChannel* const m_channel;
    int m_count;
};

// Withdraws the status socket when the thread ends, by pthread_exit or by an
// escaping exception alike: statusSocket and statusPort go to 0, so that
// status updates are no longer sent. The descriptor itself is closed by the
// receiver's destructor once this thread has been joined. Only this
// thread's own socket is withdrawn, never that of a receiver created since.
class StatusSocketWithdrawal {
public:
    explicit StatusSocketWithdrawal(int ownSocket) : m_socket(ownSocket) {}
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
        const int status = ownStatusSocket();
        watched[1].fd = status > 0 ? status : -1;
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

namespace {

enum ReadOutcome { NOTHING_WAITING, READ_FAILED, READ_OK };

// Encodings up to this size are read into a buffer that the thread keeps,
// instead of a fresh one per message.
const std::size_t SCRATCH_BYTES = 64 * 1024;

// Reads one encoding from socket into message. NOTHING_WAITING when the
// socket holds no datagram at all.
ReadOutcome readEncoding(int socket, CommsChannelMessage& message)
{
    if (statusSocket == 0) {
        return READ_FAILED;
    }
    // One peek tells both whether a datagram waits and how long it is
    // (MSG_TRUNC reports the datagram's full length), and fetches its
    // header. A datagram shorter than the header is left unread.
    char header[HEADER_SIZE];
    const ssize_t pending = recv(socket, header, HEADER_SIZE, MSG_PEEK | MSG_DONTWAIT | MSG_TRUNC);
    if (pending == -1) {
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return NOTHING_WAITING;
        }
        perror("CommsChannelReceiver::receiveChannelMessage: ioctl failed");
        return READ_FAILED;
    }
    if (pending < static_cast<ssize_t>(HEADER_SIZE)) {
        return READ_FAILED;
    }
    uint32_t totalLength;
    std::memcpy(&totalLength, header + 4, sizeof totalLength);
    // An encoding cannot be shorter than its own header: such a length is
    // unreadable like a datagram of fewer than 8 bytes, and is left unread.
    if (totalLength < HEADER_SIZE) {
        return READ_FAILED;
    }
    static thread_local std::vector<char> scratch;
    char* buffer = nullptr;
    if (totalLength <= SCRATCH_BYTES) {
        scratch.resize(SCRATCH_BYTES);
        buffer = scratch.data();
    } else {
        buffer = new (std::nothrow) char[totalLength];
        if (buffer == nullptr) {
            perror("CommsChannelReceiver::receiveChannelMessage: alloc failed");
            close(socket);
            return READ_FAILED;
        }
    }
    const bool read = getSocketData(socket, buffer, totalLength, false);
    if (read) {
        message.decode(buffer);
    }
    if (buffer != scratch.data()) {
        delete[] buffer;
    }
    return read ? READ_OK : READ_FAILED;
}

// Datagrams taken per system call when a burst is drained, and the room for
// each (a UDP datagram never exceeds 64 KiB). The buffers are allocated
// once per thread and only their touched pages become resident.
const unsigned int BURST_SLOTS = 8;
const std::size_t SLOT_BYTES = 64 * 1024;

struct BurstBuffers {
    BurstBuffers() : bytes(new char[BURST_SLOTS * SLOT_BYTES])
    {
        std::memset(headers, 0, sizeof headers);
        for (unsigned int i = 0; i < BURST_SLOTS; ++i) {
            vectors[i].iov_base = bytes.get() + i * SLOT_BYTES;
            vectors[i].iov_len = SLOT_BYTES;
            headers[i].msg_hdr.msg_iov = &vectors[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
    }
    char* slot(unsigned int i) { return bytes.get() + i * SLOT_BYTES; }

    std::unique_ptr<char[]> bytes;
    iovec vectors[BURST_SLOTS];
    mmsghdr headers[BURST_SLOTS];
};

// Reads up to limit further encodings from socket in bursts of datagrams,
// one system call per burst, and queues each in channel, counting the
// queue tokens in *deferredTokens. Returns how many it queued; throws the
// failure string where reading them one by one would have. Unlike the
// first datagram of a pass, which is peeked at, a datagram in a burst that
// cannot start an encoding has been taken off the socket when the thread
// gives up on it.
int drainBursts(int socket, CommsChannel* channel, int limit, int* deferredTokens)
{
    static thread_local BurstBuffers buffers;
    int queued = 0;
    while (queued < limit) {
        if (statusSocket == 0) {
            throw std::string(RECEIVE_FAILURE);
        }
        const unsigned int wanted = std::min<unsigned int>(BURST_SLOTS, static_cast<unsigned int>(limit - queued));
        for (unsigned int i = 0; i < wanted; ++i) {
            buffers.headers[i].msg_hdr.msg_flags = 0;
        }
        const int count = recvmmsg(socket, buffers.headers, wanted, MSG_DONTWAIT, nullptr);
        if (count < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
                break;
            }
            // The same report as a failed look at the pending datagram.
            perror("CommsChannelReceiver::receiveChannelMessage: ioctl failed");
            throw std::string(RECEIVE_FAILURE);
        }
        for (int i = 0; i < count; ++i) {
            const unsigned int length = buffers.headers[i].msg_len;
            const char* datagram = buffers.slot(static_cast<unsigned int>(i));
            uint32_t totalLength = 0;
            if (length >= HEADER_SIZE) {
                std::memcpy(&totalLength, datagram + 4, sizeof totalLength);
            }
            if (length < HEADER_SIZE || totalLength < HEADER_SIZE) {
                throw std::string(RECEIVE_FAILURE);
            }
            CommsChannelDataContainerMessage* message = new CommsChannelDataContainerMessage();
            if (totalLength <= length) {
                // The whole encoding is in this datagram; bytes beyond it are
                // dropped, as a read of exactly its length drops them.
                message->decode(datagram);
            } else {
                // A long encoding: its pieces are the datagrams that follow,
                // first those of this burst, then further ones from the
                // socket, each cut to what the encoding still lacks.
                std::unique_ptr<char[]> joined(new (std::nothrow) char[totalLength]);
                if (!joined) {
                    delete message;
                    perror("CommsChannelReceiver::receiveChannelMessage: alloc failed");
                    close(socket);
                    throw std::string(RECEIVE_FAILURE);
                }
                std::memcpy(joined.get(), datagram, length);
                unsigned int received = length;
                while (received < totalLength && i + 1 < count) {
                    ++i;
                    const unsigned int piece =
                        std::min(buffers.headers[i].msg_len, static_cast<unsigned int>(totalLength - received));
                    std::memcpy(joined.get() + received, buffers.slot(static_cast<unsigned int>(i)), piece);
                    received += piece;
                }
                joinAbandoned = false;
                if (received < totalLength && !readPieces(socket, joined.get(), received, totalLength, false)) {
                    delete message;
                    if (joinAbandoned) {
                        return queued;
                    }
                    throw std::string(RECEIVE_FAILURE);
                }
                message->decode(joined.get());
            }
            channel->queueMessage(message, deferredTokens);
            ++queued;
        }
        if (static_cast<unsigned int>(count) < wanted) {
            // Fewer than asked for: the socket is empty for now.
            break;
        }
    }
    return queued;
}

}  // namespace

void* runReceiverThread(void* argument)
{
    ReceiverRecord* record = static_cast<ReceiverRecord*>(argument);
    ownRecord = record;
    StatusSocketWithdrawal withdrawal(record->statusSocket);
    while (!record->stop) {
        monitorChannels();
    }
    pthread_exit(nullptr);
}

int monitorChannels()
{
    ReceiverRecord* record = ownRecord;
    const std::uint64_t generation = record->generation.load();
    epoll_event events[MAX_EVENTS];
    const int ready = epoll_wait(record->epollFd, events, MAX_EVENTS, -1);
    if (ready < 0) {
        if (errno != EINTR) {
            poll(nullptr, 0, WAIT_RETRY_PAUSE_MS);
        }
        return ready;
    }
    if (record->stop) {
        return 0;
    }
    const int status = record->statusSocket;
    for (int i = 0; i < ready; ++i) {
        if (status <= 0 || events[i].data.fd != status) {
            continue;
        }
        statusUpdateMsgId id = CHANNEL_ADDED;
        receiveStatusUpdate(id);
        channelListLock().take(-1);
        const bool empty = record->channels == nullptr || record->channels->empty();
        channelListLock().give();
        if (empty) {
            record->stop = true;
            if (currentRecord.load() == record) {
                stopReceiver = true;
            }
        }
        // Ready channel sockets stay readable and are served next cycle,
        // with the list as it is after the change.
        return ready;
    }

    ListLockHolder hold;
    if (record->channels == nullptr) {
        return ready;
    }
    // The ready channels, in the order in which they were added to the list.
    static thread_local FdEntries due;
    due.clear();
    for (int i = 0; i < ready; ++i) {
        std::unordered_map<int, FdEntries>::const_iterator entries = record->byFd.find(events[i].data.fd);
        if (entries != record->byFd.end()) {
            due.insert(due.end(), entries->second.begin(), entries->second.end());
        }
    }
    if (due.size() > 1) {
        std::sort(due.begin(), due.end());
    }
    // If the list changed while we waited, a reported descriptor may belong
    // to a channel added since, which has nothing to read: such a first look
    // at a socket is checked. A channel listed twice is still read twice.
    const bool mayBeStale = record->generation.load() != generation;
    static thread_local std::vector<int> looked;
    looked.clear();
    for (const std::pair<std::uint64_t, CommsChannel*>& entry : due) {
        CommsChannel* channel = entry.second;
        const int fd = channel->socketHandle();
        if (fd <= 0) {
            continue;
        }
        if (mayBeStale) {
            const bool firstLook = std::find(looked.begin(), looked.end(), fd) == looked.end();
            looked.push_back(fd);
            if (firstLook && !readable(fd)) {
                continue;
            }
        }
        // The first message's token is given at once (a lone message is not
        // kept waiting); those of the burst drained after it are given
        // together once it is queued (or the pass fails), so that a sleeping
        // application thread is woken about once per burst, not per message.
        DeferredTokens tokens(channel);
        CommsChannelDataContainerMessage* message = new CommsChannelDataContainerMessage();
        joinAbandoned = false;
        if (!receiveChannelMessage(fd, *message)) {
            delete message;
            if (joinAbandoned) {
                continue;
            }
            throw std::string(RECEIVE_FAILURE);
        }
        // The channel takes the decoded message itself: no copy is made.
        channel->queueMessage(message);
        // A burst is drained while we are here, up to a bound, so that the
        // socket's buffer empties at the pace of reading rather than of
        // waking; a datagram that cannot be read ends the thread as above.
        drainBursts(fd, channel, DRAIN_LIMIT, tokens.counter());
    }
    return ready;
}

bool receiveStatusUpdate(statusUpdateMsgId& /*id*/)
{
    const int fd = ownStatusSocket();
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
        // The module variable keeps the old number. The descriptor is closed
        // here, once, and the instance's record forgets it so that the
        // destructor does not close the number again.
        int owned = fd;
        if (ownRecord != nullptr && ownRecord->statusSocket.compare_exchange_strong(owned, -1)) {
            int current = fd;
            ownedStatusSocket.compare_exchange_strong(current, -1);
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
    return readPieces(socket, buffer, 0, length, peek);
}

bool readPieces(int socket, char* buffer, unsigned int received, unsigned int length, bool peek)
{
    const int flags = peek ? MSG_PEEK : 0;
    sockaddr_in source;
    socklen_t sourceLength = sizeof source;
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
    // The socket was reported readable, so an empty socket is a failure
    // like a datagram too short to carry a header.
    return readEncoding(socket, message) == READ_OK;
}

}  // namespace receiver_state
