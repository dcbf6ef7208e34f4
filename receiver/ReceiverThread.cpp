// The receiver thread: waits on the status socket and every channel socket,
// reads each arriving encoding (joining the datagrams of a long one), decodes
// it and delivers it into the inbox of the channel whose socket it arrived
// on.
//
// It waits with epoll: the cost of a wake-up does not grow with the number
// of idle channels, and descriptors of 1024 and above are watched like any
// other. A ready descriptor finds its channels through the descriptor index.
// Datagrams are read one at a time, each after a look at its header, so that
// one that cannot start an encoding stays unread, and so do those behind it.
#include "ChannelInbox.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CounterTable.h"
#include "ProcessCounters.h"
#include "ReceiverState.h"
#include "WireHeader.h"

#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace receiver_state {

namespace {

// Further encodings read from a socket in one pass once it was found ready,
// so that its buffer empties at the pace of reading rather than of waking.
const int DRAIN_LIMIT = 32;
// Readiness reports taken per wait; more ready sockets are served next cycle.
const int MAX_EVENTS = 64;
// Encodings up to this size are read into a buffer the thread keeps.
const std::size_t SCRATCH_BYTES = 64 * 1024;
// No encoding the library makes is larger: data beyond 59,750 bytes goes by
// file. A header announcing more is discarded when bad datagrams are.
const std::uint32_t MAX_ENCODING_BYTES = 1024 * 1024;

// READ_UNREADABLE: a datagram that cannot start an encoding waits at the
// front of the socket. READ_DISCARDED: such a datagram was read and thrown
// away.
enum ReadOutcome { NOTHING_WAITING, READ_FAILED, READ_ABANDONED, READ_OK, READ_UNREADABLE, READ_DISCARDED };

// Waits until socket has another datagram. False when the channel of that
// socket is being removed, which abandons the encoding being joined.
bool waitForNextPiece(ReceiverState& state, int socket)
{
    state.joiningSocket = socket;
    bool abandoned = false;
    for (;;) {
        if (state.abandonSocket == socket) {
            abandoned = true;
            break;
        }
        pollfd watched[2];
        watched[0].fd = socket;
        watched[0].events = POLLIN;
        watched[0].revents = 0;
        watched[1].fd = state.status.fd();
        watched[1].events = POLLIN;
        watched[1].revents = 0;
        if (poll(watched, 2, -1) < 0 && errno != EINTR) {
            break;
        }
        if (watched[0].revents != 0) {
            break;
        }
        if (watched[1].revents & POLLIN) {
            // The list changes it announces are picked up after this pass.
            receiveStatusUpdate(state);
        }
    }
    state.joiningSocket = -1;
    return !abandoned;
}

// Reads the rest of an encoding whose first received bytes are in buffer.
ReadOutcome readPieces(ReceiverState& state, int socket, char* buffer, unsigned int received,
                       unsigned int length)
{
    while (received < length) {
        // Every datagram after the first belongs to the same long encoding;
        // it is waited for in a way that a removal of the channel can end.
        if (received > 0 && !waitForNextPiece(state, socket)) {
            return READ_ABANDONED;
        }
        const ssize_t result = recv(socket, buffer + received, length - received, 0);
        if (result == -1) {
            // Deliberate: the socket is the channel's own and is closed on
            // a failed read.
            close(socket);
            return READ_FAILED;
        }
        received += static_cast<unsigned int>(result);
    }
    return READ_OK;
}

// Looks at the datagram waiting on socket: its full length (or -1 with
// errno) and its first header bytes.
ssize_t peekHeader(int socket, char* header)
{
    ssize_t pending;
    do {
        pending = recv(socket, header, wire_header::SIZE, MSG_PEEK | MSG_DONTWAIT | MSG_TRUNC);
    } while (pending == -1 && errno == EINTR);
    return pending;
}

// Reads the datagram waiting on socket and throws it away.
ReadOutcome discardDatagram(int socket)
{
    char ignored;
    ssize_t result;
    do {
        result = recv(socket, &ignored, sizeof ignored, MSG_DONTWAIT | MSG_TRUNC);
    } while (result == -1 && errno == EINTR);
    return READ_DISCARDED;
}

// The port that sent the datagram waiting on socket; 0 when none waits.
int senderPort(int socket)
{
    char ignored;
    sockaddr_in sender;
    std::memset(&sender, 0, sizeof sender);
    socklen_t length = sizeof sender;
    if (recvfrom(socket, &ignored, sizeof ignored, MSG_PEEK | MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&sender),
                 &length) == -1) {
        return 0;
    }
    return ntohs(sender.sin_port);
}

// Says on standard error that the thread stops, naming the channel and the
// sender of the datagram that stopped it, and publishes it.
void reportStop(CommsChannel* channel, int socket, ReadOutcome outcome)
{
    const int port = outcome == READ_UNREADABLE ? senderPort(socket) : 0;
    if (outcome == READ_UNREADABLE) {
        std::fprintf(stderr,
                     "CommsChannel: channel '%s' stops receiving: a datagram from port %d cannot start an "
                     "encoding; no channel of process %d receives any more\n",
                     channel->channelName().c_str(), port, static_cast<int>(getpid()));
    } else {
        std::fprintf(stderr,
                     "CommsChannel: channel '%s' stops receiving: its socket could not be read; no channel of "
                     "process %d receives any more\n",
                     channel->channelName().c_str(), static_cast<int>(getpid()));
    }
    ProcessCounters::process().setReceiving(false);
}

void countInto(CommsChannel* channel, counter_table::Counter counter_table::Slot::*counter)
{
    counter_table::Slot* const slot = channel->inbox().counters();
    if (slot != nullptr) {
        counter_table::bump(slot->*counter);
    }
}

// Reads one encoding from socket into message.
ReadOutcome readEncoding(ReceiverState& state, int socket, CommsChannelMessage& message)
{
    char header[wire_header::SIZE];
    const ssize_t pending = peekHeader(socket, header);
    if (pending == -1) {
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return NOTHING_WAITING;
        }
        // A look that fails closes the channel's socket, without a word.
        close(socket);
        return READ_FAILED;
    }
    // A datagram too short to carry a header, or whose header announces
    // less than itself, cannot start an encoding: it stays unread, and ends
    // the thread, unless such datagrams are to be discarded. One announcing
    // more than any encoding would have the thread wait for pieces that
    // never come; it is discarded too then.
    const bool tooShort = pending < static_cast<ssize_t>(wire_header::SIZE);
    const std::uint32_t totalLength = tooShort ? 0 : wire_header::totalLength(header);
    if (tooShort || totalLength < wire_header::SIZE) {
        return state.discardBadDatagrams ? discardDatagram(socket) : READ_UNREADABLE;
    }
    if (state.discardBadDatagrams && totalLength > MAX_ENCODING_BYTES) {
        return discardDatagram(socket);
    }
    std::vector<char>& scratch = state.scratch;
    std::unique_ptr<char[]> large;
    char* buffer = nullptr;
    if (totalLength <= SCRATCH_BYTES) {
        scratch.resize(SCRATCH_BYTES);
        buffer = scratch.data();
    } else {
        large.reset(new (std::nothrow) char[totalLength]);
        if (!large) {
            perror("CommsChannelReceiver::receiveChannelMessage: alloc failed");
            close(socket);
            return READ_FAILED;
        }
        buffer = large.get();
    }
    const ReadOutcome read = readPieces(state, socket, buffer, 0, totalLength);
    if (read == READ_OK) {
        message.decode(buffer);
    }
    return read;
}

// Serves one listing of a ready channel: one encoding, and up to drain more
// while they are waiting. A first look that finds nothing is a failure,
// unless the readiness may have been meant for a former holder of the
// descriptor (forgiveEmpty). Throws the failure text on an unreadable
// datagram.
void serve(ReceiverState& state, CommsChannel* channel, int fd, int drain, bool forgiveEmpty)
{
    for (int read = 0; read <= drain; ++read) {
        std::unique_ptr<CommsChannelDataContainerMessage> message(new CommsChannelDataContainerMessage());
        const ReadOutcome outcome = readEncoding(state, fd, *message);
        if (outcome == READ_OK) {
            // Counted first, so that whoever takes the message sees it
            // counted. The token is given as the message is queued, so a
            // receiver never waits for the rest of the pass.
            countInto(channel, &counter_table::Slot::received);
            channel->inbox().deliver(message.release());
            continue;
        }
        if (outcome == READ_DISCARDED || outcome == READ_UNREADABLE) {
            countInto(channel, &counter_table::Slot::badDatagrams);
        }
        if (outcome == READ_DISCARDED) {
            continue;
        }
        if (outcome == READ_ABANDONED || (outcome == NOTHING_WAITING && (read > 0 || forgiveEmpty))) {
            return;
        }
        reportStop(channel, fd, outcome);
        throw std::string(RECEIVE_FAILURE);
    }
}

// The listings of the ready descriptors, in list order.
// REQUIRES: the list lock is held.
const FdEntries& dueChannels(ReceiverState& state, const epoll_event* events, int ready)
{
    FdEntries& due = state.due;
    due.clear();
    for (int i = 0; i < ready; ++i) {
        const std::unordered_map<int, FdEntries>::const_iterator entries = state.byFd.find(events[i].data.fd);
        if (entries != state.byFd.end()) {
            due.insert(due.end(), entries->second.begin(), entries->second.end());
        }
    }
    std::sort(due.begin(), due.end());
    return due;
}

// Serves every due listing. A channel listed several times reads one
// encoding per listing and drains only at its last one, so that each
// listing finds a datagram whenever enough are waiting.
// REQUIRES: the list lock is held.
void servePass(ReceiverState& state, const FdEntries& due, bool mayBeStale)
{
    std::vector<int> looked;
    for (std::size_t i = 0; i < due.size(); ++i) {
        CommsChannel* channel = due[i].second;
        const int fd = channel->socketHandle();
        if (fd <= 0) {
            continue;
        }
        bool laterListing = false;
        for (std::size_t j = i + 1; j < due.size() && !laterListing; ++j) {
            laterListing = due[j].second->socketHandle() == fd;
        }
        const bool firstLook = std::find(looked.begin(), looked.end(), fd) == looked.end();
        looked.push_back(fd);
        serve(state, channel, fd, laterListing ? 0 : DRAIN_LIMIT, mayBeStale && firstLook);
    }
}

// Whether the status socket is among the ready descriptors.
bool statusReady(const ReceiverState& state, const epoll_event* events, int ready)
{
    for (int i = 0; i < ready; ++i) {
        if (state.status.valid() && events[i].data.fd == state.status.fd()) {
            return true;
        }
    }
    return false;
}

}  // namespace

namespace {

// Marks the thread gone however it ends: by pthread_exit or by the
// failure text thrown on a message it cannot read.
class ThreadGoneMark {
public:
    explicit ThreadGoneMark(ReceiverState& state) : m_state(state) {}
    ~ThreadGoneMark() { m_state.threadGone = true; }
    ThreadGoneMark(const ThreadGoneMark&) = delete;
    ThreadGoneMark& operator=(const ThreadGoneMark&) = delete;

private:
    ReceiverState& m_state;
};

}  // namespace

void* runReceiverThread(void* argument)
{
    ReceiverState& state = *static_cast<ReceiverState*>(argument);
    ThreadGoneMark mark(state);
    while (!state.stop) {
        monitorChannels(state);
    }
    pthread_exit(nullptr);
}

int monitorChannels(ReceiverState& state)
{
    const std::uint64_t generation = state.generation.load();
    epoll_event events[MAX_EVENTS];
    const int ready = epoll_wait(state.epollFd, events, MAX_EVENTS, -1);
    if (ready < 0 || state.stop) {
        return ready;
    }
    if (statusReady(state, events, ready)) {
        receiveStatusUpdate(state);
        ScopedLock hold(state.listLock);
        if (state.channels.empty()) {
            state.stop = true;
        }
        // Ready channel sockets stay readable and are served next cycle,
        // with the list as it is after the change.
        return ready;
    }
    ScopedLock hold(state.listLock);
    // If the list changed while we waited, a reported descriptor may belong
    // to a channel added since, with nothing to read.
    servePass(state, dueChannels(state, events, ready), state.generation.load() != generation);
    return ready;
}

bool receiveStatusUpdate(ReceiverState& state)
{
    if (!state.status.valid()) {
        return false;
    }
    // The content is deliberately ignored; a zero-length datagram is
    // consumed too.
    char ignored[16];
    return recv(state.status.fd(), ignored, sizeof ignored, MSG_DONTWAIT) != -1;
}

bool getSocketData(int socket, char* buffer, unsigned int length, bool peek)
{
    unsigned int received = 0;
    while (received < length) {
        const ssize_t result = recv(socket, buffer + received, length - received, peek ? MSG_PEEK : 0);
        if (result == -1) {
            close(socket);
            return false;
        }
        received += static_cast<unsigned int>(result);
    }
    return true;
}

bool discardRequested()
{
    const char* const value = std::getenv("COMMSCHANNEL_DISCARD_BAD_DATAGRAMS");
    return value != nullptr && std::strcmp(value, "1") == 0;
}

bool receiveChannelMessage(ReceiverState& state, int socket, CommsChannelMessage& message)
{
    return readEncoding(state, socket, message) == READ_OK;
}

}  // namespace receiver_state
