// Turns SIGTERM and SIGINT into a readable descriptor (the self-pipe trick),
// so that the resolver's poll loop notices a shutdown request like any other
// event and ends between two datagrams, never inside one. The handler only
// writes one byte to the pipe; all the work happens in the loop.
//
// One object per process, created before the loop starts. Destruction puts
// the previous handlers back and closes the pipe.
#ifndef COMMSCHANNEL_RESOLVER_SHUTDOWN_SIGNALS_H
#define COMMSCHANNEL_RESOLVER_SHUTDOWN_SIGNALS_H

#include <signal.h>

namespace resolver {

class ShutdownSignals {
public:
    ShutdownSignals();
    ~ShutdownSignals();
    ShutdownSignals(const ShutdownSignals&) = delete;
    ShutdownSignals& operator=(const ShutdownSignals&) = delete;

    // False when the pipe or a handler could not be set up (logged).
    bool ok() const { return m_ok; }
    // Becomes readable once a shutdown signal has arrived.
    int descriptor() const { return m_readFd; }
    // Empties the pipe; returns the number of the last signal seen, 0 if none.
    int drain();

private:
    int m_readFd;
    bool m_ok;
    struct sigaction m_previousTerm;
    struct sigaction m_previousInt;
};

}  // namespace resolver

#endif
