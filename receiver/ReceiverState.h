// Private to receiver/: the module-level state of the receiver, shared by
// CommsChannelReceiver's operations and the receiver thread.
//
// Thread safety: channelListLock guards receiveChannels, monitorSet and
// maxSocketPlusOne. It is held by the thread for a whole pass over the ready
// channels (so before any channel's queue lock) and by add and remove; it is
// never held while a status update is sent, nor together with instanceLock.
// The flags and descriptors below are atomics written by one thread and read
// by another.
#ifndef COMMSCHANNEL_RECEIVER_STATE_H
#define COMMSCHANNEL_RECEIVER_STATE_H

#include "CommsChannelReceiver.h"

#include <sys/select.h>

#include <atomic>
#include <vector>

class CommsChannel;
class CommsChannelMessage;
class Semaphore;

namespace receiver_state {

// Process-lifetime locks, never destroyed: the thread may touch them at exit.
Semaphore& instanceLock();
Semaphore& channelListLock();

extern std::atomic<int> statusSocket;        // 0: none
// The status socket that the current receiver still has to close, -1 when
// none. The thread clears statusSocket when it ends but never closes the
// descriptor: the receiver's destructor closes it after joining the thread,
// so that no application thread can send through a descriptor that has
// been closed (or handed to another socket) meanwhile.
extern std::atomic<int> ownedStatusSocket;
extern std::vector<CommsChannel*>* receiveChannels;  // guarded by channelListLock
extern std::atomic<bool> stopReceiver;
extern fd_set monitorSet;                    // guarded by channelListLock
extern int maxSocketPlusOne;                 // guarded by channelListLock
extern std::atomic<int> statusPort;          // network byte order, as getsockname gives it
extern unsigned long receiverThreadId;

// A removal of the channel whose socket the thread is joining an encoding
// from (waiting for its further datagrams) asks the thread to abandon that
// encoding, so that the removal is not blocked forever by a sender that
// never completes it. -1: none.
extern std::atomic<int> joiningSocket;
extern std::atomic<int> abandonSocket;

void* runReceiverThread(void* unused);
int monitorChannels();
bool receiveStatusUpdate(statusUpdateMsgId& id);
bool getSocketData(int socket, char* buffer, unsigned int length, bool peek);
bool receiveChannelMessage(int socket, CommsChannelMessage& message);

// The exception text thrown by the thread on a message it cannot read.
extern const char* const RECEIVE_FAILURE;

}  // namespace receiver_state

#endif
