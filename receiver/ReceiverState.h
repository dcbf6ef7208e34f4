// Private to receiver/: the module-level state of the receiver, shared by
// CommsChannelReceiver's operations and the receiver thread.
//
// Each receiver instance has a record of its own (ReceiverRecord): its
// thread's id, its stop flag, its status socket, its readiness set and its
// channel list. The record is handed to the instance's thread as the thread
// argument, and the thread touches nothing else of the instance. The
// module-level names below only point at, or mirror, the current instance,
// so that a receiver created while an earlier one is still ending (its
// destructor joining its thread) never shares anything with it.
//
// Thread safety: channelListLock guards the channel lists, the fd index,
// monitorSet and maxSocketPlusOne. It is held by a thread for a whole pass
// over the ready channels (so before any channel's queue lock) and by add and
// remove; it is never held while a status update is sent, nor together with
// instanceLock. The flags and descriptors below are atomics written by one
// thread and read by another.
#ifndef COMMSCHANNEL_RECEIVER_STATE_H
#define COMMSCHANNEL_RECEIVER_STATE_H

#include "CommsChannelReceiver.h"

#include <sys/select.h>

#include <atomic>
#include <cstdint>
#include <unordered_map>
#include <utility>
#include <vector>

class CommsChannel;
class CommsChannelMessage;
class Semaphore;

namespace receiver_state {

// The watched channels of one descriptor, in list order: (the entry's
// sequence number of addition, the channel). A channel added twice stands
// there twice, as in the list.
typedef std::vector<std::pair<std::uint64_t, CommsChannel*> > FdEntries;

// Everything of one receiver instance that its thread uses.
struct ReceiverRecord {
    unsigned long threadId = 0;
    // Set to end this instance's thread; never cleared.
    std::atomic<bool> stop{false};
    // This instance's status socket (-1 when it could not be made, or once
    // a failed read closed it).
    std::atomic<int> statusSocket{-1};
    // Its port, in network byte order as getsockname gives it.
    int statusPort = 0;
    // The epoll set of this instance: the status socket and every watched
    // channel socket. Closed by the destructor after the join.
    int epollFd = -1;
    // The watched channels in order of addition, duplicates allowed; null
    // once the instance is being destroyed. Guarded by channelListLock.
    std::vector<CommsChannel*>* channels = nullptr;
    // Descriptor to its channels, so that a ready descriptor finds its
    // channels without a walk over the whole list. Guarded by channelListLock.
    std::unordered_map<int, FdEntries> byFd;
    std::uint64_t nextSequence = 0;  // guarded by channelListLock
    // Counts changes of the list, so that the thread can tell whether the
    // readiness it saw may be stale (a descriptor number handed to a new
    // channel meanwhile).
    std::atomic<std::uint64_t> generation{0};
    // Set, under channelListLock, by the removal that left the list empty:
    // that caller alone deletes the instance, and nothing is added any more.
    bool ending = false;
    // Status updates being sent through this instance's socket by threads
    // that captured it under channelListLock.
    std::atomic<int> statusSenders{0};
    // The instance this record belongs to.
    CommsChannelReceiver* owner = nullptr;
};

// Process-lifetime locks, never destroyed: a thread may touch them at exit.
Semaphore& instanceLock();
Semaphore& channelListLock();

// The current instance's record, null when there is none. Changed only
// under channelListLock, so a holder of the lock may use it.
extern std::atomic<ReceiverRecord*> currentRecord;

extern std::atomic<int> statusSocket;        // current status socket; 0: none
// The status socket that the current receiver still has to close, -1 when
// none. The thread clears statusSocket when it ends but never closes the
// descriptor: the receiver's destructor closes it after joining the thread,
// so that no application thread can send through a descriptor that has
// been closed (or handed to another socket) meanwhile.
extern std::atomic<int> ownedStatusSocket;
extern std::vector<CommsChannel*>* receiveChannels;  // the current list; guarded by channelListLock
extern std::atomic<bool> stopReceiver;       // mirrors the current record's stop flag
extern fd_set monitorSet;                    // guarded by channelListLock
extern int maxSocketPlusOne;                 // guarded by channelListLock
extern std::atomic<int> statusPort;          // network byte order, as getsockname gives it
extern unsigned long receiverThreadId;       // the current instance's thread

// A removal of the channel whose socket the thread is joining an encoding
// from (waiting for its further datagrams) asks the thread to abandon that
// encoding, so that the removal is not blocked forever by a sender that
// never completes it. -1: none.
extern std::atomic<int> joiningSocket;
extern std::atomic<int> abandonSocket;

// Receiver threads started and joined by the destructor since the process
// began; for diagnostics (each instance's thread is joined exactly once).
extern std::atomic<unsigned long> threadsStarted;
extern std::atomic<unsigned long> threadsJoined;

// The thread's entry; the argument is the instance's ReceiverRecord.
void* runReceiverThread(void* record);
int monitorChannels();
bool receiveStatusUpdate(statusUpdateMsgId& id);
bool getSocketData(int socket, char* buffer, unsigned int length, bool peek);
// getSocketData for a join that already holds received of its length bytes:
// every further datagram is waited for as the next piece.
bool readPieces(int socket, char* buffer, unsigned int received, unsigned int length, bool peek);
bool receiveChannelMessage(int socket, CommsChannelMessage& message);

// The exception text thrown by the thread on a message it cannot read.
extern const char* const RECEIVE_FAILURE;

}  // namespace receiver_state

#endif
