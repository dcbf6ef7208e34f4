// Private to receiver/: what one receiver shares with its own thread.
//
// Each CommsChannelReceiver owns one ReceiverState and hands it to its thread
// as the thread's argument; the thread touches nothing else. A receiver that
// has ended and the one made after it share nothing.
//
// Thread safety: listLock guards the channel list and the descriptor index;
// it is held by the thread for a whole pass over the ready channels (so
// before any channel's inbox lock) and by add and remove, and never while a
// status update is sent. The atomics are written by one side and read by the
// other.
#ifndef COMMSCHANNEL_RECEIVER_STATE_H
#define COMMSCHANNEL_RECEIVER_STATE_H

#include "CommsChannelReceiver.h"
#include "LoopbackSocket.h"
#include "Mutex.h"

#include <atomic>
#include <cstdint>
#include <unordered_map>
#include <utility>
#include <vector>

class CommsChannelMessage;

namespace receiver_state {

// The watched channels of one descriptor, in list order: (the entry's
// sequence number of addition, the channel). A channel added twice stands
// there twice, as in the list.
typedef std::vector<std::pair<std::uint64_t, CommsChannel*> > FdEntries;

struct ReceiverState {
    Mutex listLock;
    std::vector<CommsChannel*> channels;       // in order of addition; guarded by listLock
    std::unordered_map<int, FdEntries> byFd;   // guarded by listLock
    std::uint64_t nextSequence = 0;            // guarded by listLock
    // Counts changes of the list, so that the thread can tell whether the
    // readiness it saw may be stale (a descriptor number handed to a new
    // channel meanwhile).
    std::atomic<std::uint64_t> generation{0};
    // The wake-up socket; closed only after the thread has been joined.
    LoopbackSocket status;
    int epollFd = -1;  // the status socket and every watched channel socket
    unsigned long threadId = 0;
    std::atomic<bool> stop{false};   // set to end the thread; never cleared
    // The thread has ended, by its own stop or by a message it could not
    // read: status updates are no longer sent.
    std::atomic<bool> threadGone{false};
    // The thread has been joined: the receiver has ended. Read without the
    // list lock, which a pass may hold for long.
    std::atomic<bool> ended{false};
    // A removal of the channel whose socket the thread is joining an encoding
    // from asks the thread to give that encoding up, so that the removal is
    // not held up by a sender that never completes it. -1: none.
    std::atomic<int> joiningSocket{-1};
    std::atomic<int> abandonSocket{-1};
    // Read from COMMSCHANNEL_DISCARD_BAD_DATAGRAMS once, before the thread
    // starts: a datagram that cannot start an encoding (or announces more
    // than any encoding can be) is read, counted and thrown away instead of
    // ending the thread. Constant after construction.
    bool discardBadDatagrams = false;
    // The thread's own: the listings due in a pass, and the buffer that
    // encodings up to 64 KiB are read into.
    FdEntries due;
    std::vector<char> scratch;
};

// The thread's entry; the argument is the receiver's ReceiverState.
void* runReceiverThread(void* state);
// One cycle of waiting and reading.
int monitorChannels(ReceiverState& state);
// Drains one status-update datagram.
bool receiveStatusUpdate(ReceiverState& state);
// Reads exactly length bytes from socket, joining datagrams; peek only
// looks. False (the socket closed) when a read fails.
bool getSocketData(int socket, char* buffer, unsigned int length, bool peek);
// Reads one encoding from socket and decodes it into message.
bool receiveChannelMessage(ReceiverState& state, int socket, CommsChannelMessage& message);

// Whether the environment asks for bad datagrams to be discarded
// (COMMSCHANNEL_DISCARD_BAD_DATAGRAMS=1).
bool discardRequested();

// The exception text thrown by the thread on a message it cannot read.
constexpr const char* RECEIVE_FAILURE =
    "CommsChannelReceiver - monitorChannels(), Failed to receive a message correctly";

}  // namespace receiver_state

#endif
