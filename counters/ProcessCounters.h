// ProcessCounters: the process's side of the counter file
// (/dev/shm/commschannel-<pid>, layout in CounterTable.h). It creates the
// file when the first slot is claimed, hands out one slot per channel, and
// removes the file when the last slot is released, or when the process
// exits (channels that live until exit are common). A process killed
// outright leaves its file behind; the tools remove files whose process is
// gone.
//
// Ownership: the one instance is made on first use and never destroyed.
// Slots belong to the file's mapping: a slot pointer is valid from claim()
// until the matching release(), and must not be touched after it.
//
// Thread safety: every operation may be called from any thread; m_lock
// guards the mapping and the count of claimed slots and is taken by nothing
// on a message's path (the writers of a slot's counters hold their own
// locks or are the receiver thread). It is taken with the receiver's list
// lock held (setReceiving), never the other way round.
#ifndef COMMSCHANNEL_PROCESS_COUNTERS_H
#define COMMSCHANNEL_PROCESS_COUNTERS_H

#include "CounterTable.h"
#include "Mutex.h"

#include <sys/types.h>

#include <cstddef>
#include <string>

class ProcessCounters {
public:
    // The process's instance; made on first use, never destroyed.
    static ProcessCounters& process();

    ProcessCounters(const ProcessCounters&) = delete;
    ProcessCounters& operator=(const ProcessCounters&) = delete;

    // A zeroed slot for the channel listening at port, published at once,
    // or null when the file cannot be made or every slot is taken (the
    // channel then publishes nothing). Makes the file for the first slot.
    counter_table::Slot* claim(const std::string& name, int port);
    // Frees slot (null is ignored); removes the file with the last one.
    // REQUIRES: nobody writes into slot any more.
    void release(counter_table::Slot* slot);
    // Publishes whether the receiver thread reads the sockets; ignored
    // while no file exists.
    void setReceiving(bool receiving);

private:
    ProcessCounters() = default;

    // REQUIRES: m_lock held. Creates and maps the file; false on failure.
    bool create();
    // REQUIRES: m_lock held.
    void remove();
    // Removes the file at exit, in the process that made it only (a child
    // forked without exec shares the mapping but not the file's pid).
    static void removeAtExit();

    Mutex m_lock;
    counter_table::Table* m_ptable = nullptr;  // mapped file; guarded by m_lock
    std::size_t m_claimed = 0;                 // guarded by m_lock
    std::string m_path;                        // guarded by m_lock
    pid_t m_owner = 0;                         // who made the file; guarded by m_lock
    bool m_exitHookSet = false;                // guarded by m_lock
};

#endif
