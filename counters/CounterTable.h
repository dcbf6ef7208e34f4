// CounterTable: the layout of the file through which a process publishes
// its channels' counters, /dev/shm/commschannel-<pid>. The process maps it
// read-write (ProcessCounters.h); tools map it read-only and show it
// (commschannel list and stats).
//
// The file is a header followed by SLOT_COUNT slots, one per channel of the
// process while the channel lives. Every field that changes after a slot is
// claimed is a 32-bit atomic: 32-bit MIPS has no lock-free 64-bit atomics,
// and a counter that wraps after 2^32 messages is good enough for telling
// who falls behind. Each counter has one writer at a time (the inbox under
// its lock, or the receiver thread), so writers use relaxed loads and stores,
// never read-modify-write instructions, and readers see each value whole but
// not a consistent set of them.
//
// A slot is claimed by writing its fields and then storing 1 into inUse
// (release); a reader loads inUse (acquire) before the rest. The layout is
// the same for every process of one host and architecture; MAGIC and
// VERSION change when it changes.
#ifndef COMMSCHANNEL_COUNTER_TABLE_H
#define COMMSCHANNEL_COUNTER_TABLE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace counter_table {

constexpr std::uint32_t MAGIC = 0x43434354;  // "CCCT"
constexpr std::uint32_t VERSION = 1;
// Channels of one process that get a slot; later ones publish nothing.
constexpr std::size_t SLOT_COUNT = 1024;
// Bytes of a channel's name kept in its slot (tools find a channel by its
// port; the name is there for a human reading a dump).
constexpr std::size_t NAME_BYTES = 64;
// The file name is this prefix followed by the pid in decimal.
constexpr const char* PATH_PREFIX = "/dev/shm/commschannel-";

typedef std::atomic<std::uint32_t> Counter;

// One channel. Aligned to a cache line pair so that two channels' hot
// counters never share a line.
struct alignas(128) Slot {
    Counter inUse;
    Counter port;
    Counter queued;        // messages in the receive queue now
    Counter maxQueued;     // the most ever in it at once
    Counter received;      // encodings read from the socket and delivered
    Counter taken;         // messages taken out by receives
    Counter refused;       // messages the interceptor refused
    Counter badDatagrams;  // datagrams that could not start an encoding
    char name[NAME_BYTES]; // the name's first bytes, NUL-padded
};

struct alignas(128) Header {
    std::uint32_t magic;
    std::uint32_t version;
    std::uint32_t slotCount;
    std::uint32_t slotSize;
    // 1 while the process's receiver thread reads its channels' sockets; 0
    // once a datagram it could not read has ended it.
    Counter receiving;
};

struct Table {
    Header header;
    Slot slots[SLOT_COUNT];
};

static_assert(Counter::is_always_lock_free, "counters must be lock-free to live in shared memory");

// Adds one to a counter that only the caller writes: a load and a store, no
// locked instruction on the message's path.
inline void bump(Counter& counter)
{
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

inline std::string pathFor(long pid) { return PATH_PREFIX + std::to_string(pid); }

}  // namespace counter_table

#endif
