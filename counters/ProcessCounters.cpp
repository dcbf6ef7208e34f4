// The counter file's life: made for the first channel, one slot per
// channel, removed with the last one.
#include "ProcessCounters.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

using counter_table::Slot;
using counter_table::Table;

namespace {

const std::memory_order RELAXED = std::memory_order_relaxed;

void resetSlot(Slot& slot, const std::string& name, int port)
{
    slot.port.store(static_cast<std::uint32_t>(port), RELAXED);
    slot.queued.store(0, RELAXED);
    slot.maxQueued.store(0, RELAXED);
    slot.received.store(0, RELAXED);
    slot.taken.store(0, RELAXED);
    slot.refused.store(0, RELAXED);
    slot.badDatagrams.store(0, RELAXED);
    std::memset(slot.name, 0, sizeof slot.name);
    std::memcpy(slot.name, name.data(), std::min(name.size(), sizeof slot.name));
}

}  // namespace

ProcessCounters& ProcessCounters::process()
{
    // Never destroyed: channels of static objects may still go after exit
    // has begun.
    static ProcessCounters* const counters = new ProcessCounters();
    return *counters;
}

bool ProcessCounters::create()
{
    m_owner = getpid();
    m_path = counter_table::pathFor(static_cast<long>(m_owner));
    // A file left by a former process with the same pid is taken over and
    // emptied. Close-on-exec: a program we start must not inherit it.
    const int fd = open(m_path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    // Readable by every user whatever the umask, so that tools run by
    // anyone can show the counters.
    fchmod(fd, 0644);
    void* mapped = MAP_FAILED;
    if (ftruncate(fd, static_cast<off_t>(sizeof(Table))) == 0) {
        mapped = mmap(nullptr, sizeof(Table), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    close(fd);
    if (mapped == MAP_FAILED) {
        unlink(m_path.c_str());
        return false;
    }
    m_ptable = static_cast<Table*>(mapped);
    if (!m_exitHookSet) {
        m_exitHookSet = std::atexit(&ProcessCounters::removeAtExit) == 0;
    }
    m_ptable->header.version = counter_table::VERSION;
    m_ptable->header.slotCount = static_cast<std::uint32_t>(counter_table::SLOT_COUNT);
    m_ptable->header.slotSize = static_cast<std::uint32_t>(sizeof(Slot));
    m_ptable->header.receiving.store(1, RELAXED);
    // Readers check the magic last written, so they never take a half-made
    // header for a valid one.
    __atomic_store_n(&m_ptable->header.magic, counter_table::MAGIC, __ATOMIC_RELEASE);
    return true;
}

void ProcessCounters::remove()
{
    munmap(m_ptable, sizeof(Table));
    m_ptable = nullptr;
    if (m_owner == getpid()) {
        unlink(m_path.c_str());
    }
}

void ProcessCounters::removeAtExit()
{
    // Only the name goes: threads still running may write their counters
    // into the mapping until the process is gone.
    ProcessCounters& counters = process();
    ScopedLock hold(counters.m_lock);
    if (counters.m_ptable != nullptr && counters.m_owner == getpid()) {
        unlink(counters.m_path.c_str());
    }
}

Slot* ProcessCounters::claim(const std::string& name, int port)
{
    ScopedLock hold(m_lock);
    if (m_ptable == nullptr && !create()) {
        return nullptr;
    }
    for (Slot& slot : m_ptable->slots) {
        if (slot.inUse.load(RELAXED) == 0) {
            resetSlot(slot, name, port);
            slot.inUse.store(1, std::memory_order_release);
            ++m_claimed;
            return &slot;
        }
    }
    if (m_claimed == 0) {
        remove();
    }
    return nullptr;
}

void ProcessCounters::release(Slot* slot)
{
    if (slot == nullptr) {
        return;
    }
    ScopedLock hold(m_lock);
    slot->inUse.store(0, std::memory_order_release);
    if (--m_claimed == 0) {
        remove();
    }
}

void ProcessCounters::setReceiving(bool receiving)
{
    ScopedLock hold(m_lock);
    if (m_ptable != nullptr) {
        m_ptable->header.receiving.store(receiving ? 1 : 0, RELAXED);
    }
}
