// Private to locator/: the file-scope state shared by the locator object and
// its thread. The locks here live as long as the process: they are never
// destroyed, because the locator thread may still touch them at exit.
#ifndef COMMSCHANNEL_LOCATOR_STATE_H
#define COMMSCHANNEL_LOCATOR_STATE_H

class Semaphore;

namespace locator_state {

// Serialises the creation of the singleton.
Semaphore& instanceLock();
// Guards shutdownRequested and processingMessage. Held only around reads and
// writes of those two flags, never together with any other lock (only taken
// inside instanceLock, in instance()).
Semaphore& shutdownLock();
extern bool shutdownRequested;   // guarded by shutdownLock
// True while the locator thread applies a message to the locator; the
// destructor waits for it to end (processingIdle) before dismantling.
extern bool processingMessage;   // guarded by shutdownLock
Semaphore& processingIdle();

// Set shutdownRequested under the lock. Returns whether the locator thread
// was applying a message at that moment.
bool requestShutdown();
// Reads shutdownRequested under the lock.
bool isShutdownRequested();

// The locator thread's copy of the socket; 0 once the thread has ended. The
// destructor closes the socket after joining the thread.
extern int locatorSocket;
extern unsigned long locatorThreadId;

void* receiveLocatorUpdateMessage(void* unused);

}  // namespace locator_state

#endif
