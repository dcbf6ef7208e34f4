// ScopedUnlock: lets go of a held Mutex for its scope and takes it again on
// the way out, also when the scope is left by an exception. For a caller
// that must run something (a check, an allocation) without its lock.
#ifndef COMMSCHANNEL_SCOPED_UNLOCK_H
#define COMMSCHANNEL_SCOPED_UNLOCK_H

#include "Mutex.h"

class ScopedUnlock {
public:
    // REQUIRES: the caller holds mutex.
    explicit ScopedUnlock(Mutex& mutex) : m_mutex(mutex) { m_mutex.unlock(); }
    ~ScopedUnlock() { m_mutex.lock(); }
    ScopedUnlock(const ScopedUnlock&) = delete;
    ScopedUnlock& operator=(const ScopedUnlock&) = delete;

private:
    Mutex& m_mutex;
};

#endif
