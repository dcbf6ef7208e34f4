// The tool's read-only side of the counter files.
#include "PublishedCounters.h"

#include "CounterTable.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace cli {

namespace {

const std::memory_order RELAXED = std::memory_order_relaxed;
const char* const FILE_PREFIX = "commschannel-";

// The pid in a file name "commschannel-<decimal pid>", or 0.
long pidOfFileName(const char* name)
{
    const std::size_t prefix = std::strlen(FILE_PREFIX);
    if (std::strncmp(name, FILE_PREFIX, prefix) != 0 || name[prefix] < '1' || name[prefix] > '9') {
        return 0;
    }
    char* end = nullptr;
    errno = 0;
    const long pid = std::strtol(name + prefix, &end, 10);
    return (errno == 0 && *end == '\0') ? pid : 0;
}

bool processGone(long pid) { return kill(static_cast<pid_t>(pid), 0) == -1 && errno == ESRCH; }

bool headerValid(const counter_table::Header& header)
{
    // The magic is written last: once it is seen, the rest of the header is.
    if (__atomic_load_n(&header.magic, __ATOMIC_ACQUIRE) != counter_table::MAGIC) {
        return false;
    }
    return header.version == counter_table::VERSION && header.slotCount == counter_table::SLOT_COUNT &&
           header.slotSize == sizeof(counter_table::Slot);
}

ChannelCounters countersOf(const counter_table::Table& table, int port)
{
    ChannelCounters found;
    for (const counter_table::Slot& slot : table.slots) {
        if (slot.inUse.load(std::memory_order_acquire) != 1 ||
            slot.port.load(RELAXED) != static_cast<std::uint32_t>(port)) {
            continue;
        }
        found.queued = slot.queued.load(RELAXED);
        found.maxQueued = slot.maxQueued.load(RELAXED);
        found.received = slot.received.load(RELAXED);
        found.taken = slot.taken.load(RELAXED);
        found.refused = slot.refused.load(RELAXED);
        found.badDatagrams = slot.badDatagrams.load(RELAXED);
        found.receivingKnown = true;
        found.receiving = table.header.receiving.load(RELAXED) != 0;
        break;
    }
    return found;
}

}  // namespace

ChannelCounters readChannelCounters(int pid, int port, const std::string& directory)
{
    if (pid <= 0 || port <= 0) {
        return ChannelCounters();
    }
    const std::string path = directory + "/" + FILE_PREFIX + std::to_string(pid);
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return ChannelCounters();
    }
    struct stat status;
    void* mapped = MAP_FAILED;
    // A file of another size is not one we know how to read.
    if (fstat(fd, &status) == 0 && status.st_size == static_cast<off_t>(sizeof(counter_table::Table))) {
        mapped = mmap(nullptr, sizeof(counter_table::Table), PROT_READ, MAP_SHARED, fd, 0);
    }
    close(fd);
    if (mapped == MAP_FAILED) {
        return ChannelCounters();
    }
    const counter_table::Table& table = *static_cast<const counter_table::Table*>(mapped);
    const ChannelCounters found = headerValid(table.header) ? countersOf(table, port) : ChannelCounters();
    munmap(mapped, sizeof(counter_table::Table));
    return found;
}

void sweepDeadCounterFiles(const std::string& directory)
{
    DIR* const listing = opendir(directory.c_str());
    if (listing == nullptr) {
        return;
    }
    while (const dirent* entry = readdir(listing)) {
        const long pid = pidOfFileName(entry->d_name);
        if (pid > 0 && processGone(pid)) {
            unlink((directory + "/" + entry->d_name).c_str());
        }
    }
    closedir(listing);
}

}  // namespace cli
