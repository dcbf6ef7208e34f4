// Threader: starts and joins threads for the CommsChannel library. A Threader
// object holds no state of its own: the library makes a temporary one for
// each spawn or wait, so any number may exist, on any thread.
//
// A thread started here runs its entry function inside a guard: an exception
// that escapes the entry function is reported on standard error with its
// text (never in the system log) and ends that thread only; the process goes
// on.
// The forced unwinding of pthread_exit passes through untouched.
#ifndef COMMSCHANNEL_THREADER_H
#define COMMSCHANNEL_THREADER_H

#include <string>

// Scheduling class asked for a thread. Threads run under the default
// time-sharing policy; the value is recorded as the thread's nice hint only
// where the system allows it and is otherwise advisory.
enum TarnThreadPriority {
    TARN_PRIORITY_LOW = 0,
    TARN_PRIORITY_NORMAL = 1,
    TARN_PRIORITY_HIGH = 2
};

class Threader {
public:
    typedef void* (*EntryFunction)(void*);

    Threader();
    ~Threader();

    Threader(const Threader&) = delete;
    Threader& operator=(const Threader&) = delete;

    // Starts entry(argument) on a new thread. The thread id is stored through
    // threadIdOut before the new thread can be joined, so another thread may
    // wait for it as soon as spawn returns. name (at most 15 bytes are used)
    // labels the thread for debuggers when not empty. stackSize is the stack
    // in bytes, 0 for the system default. Returns 1 on success, 0 when the
    // thread could not be started (then *threadIdOut is set to 0).
    int spawn(unsigned long* threadIdOut, EntryFunction entry, void* argument,
              std::string name, TarnThreadPriority priority, int stackSize);

    // Blocks until the thread has ended and releases it. Harmless for an id
    // that was already waited for, for an unknown id and for the calling
    // thread itself (which returns at once). Several threads may wait for the
    // same id; all return once it has ended.
    void waitForThreadCompletion(unsigned long threadId);
};

#endif
