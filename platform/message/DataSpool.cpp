#include "DataSpool.h"

#include "LargeData.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>

namespace spool {
namespace {

const char NAME_PREFIX[] = "cc-";
const std::size_t NAME_LENGTH = 3 + 8 + 1 + 16;

// 32 bits wide: a 64-bit atomic needs libatomic on 32-bit targets such as
// MIPS32, and only the low 24 bits of the counter reach the name anyway.
std::atomic<std::uint32_t> sequence{0};
std::atomic<long> lastSweep{0};

const mode_t DIRECTORY_MODE = 0770;
const mode_t FILE_MODE = 0640;

// A directory that some user may use for spooling: a real directory (never
// followed through a link) owned by owner, with no permission for others.
// Returns a descriptor, or -1 with errno set (EPERM when it is not such a
// directory).
int openDirectoryOf(uid_t owner)
{
    const std::string path = directoryOf(owner);
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    struct stat info;
    if (fstat(fd, &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != owner ||
        (info.st_mode & S_IRWXO) != 0) {
        close(fd);
        errno = EPERM;
        return -1;
    }
    return fd;
}

// This user's directory for writing, created when missing. A new directory
// is opened to the writer's group, whatever the umask; one that exists is
// used as its owner left it, as long as others are shut out.
int openOwnDirectory()
{
    const std::string path = directory();
    const bool created = mkdir(path.c_str(), 0700) == 0;
    if (!created && errno != EEXIST) {
        return -1;
    }
    const int fd = openDirectoryOf(writerId());
    if (fd >= 0 && created) {
        fchmod(fd, DIRECTORY_MODE);
    }
    return fd;
}

// One line on standard error for a file that a message refers to but that
// cannot be read: its data is lost, and the user must be able to see why.
void unreadable(uid_t owner, const std::string& name, const char* reason)
{
    std::fprintf(stderr, "CommsChannelDataContainerMessage::decode: cannot read large data file %s/%s: %s\n",
                 directoryOf(owner).c_str(), name.c_str(), reason);
}

bool isHex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

std::string newName()
{
    static thread_local std::mt19937_64 generator(std::random_device{}());
    const unsigned long long unique =
        (static_cast<unsigned long long>(sequence.fetch_add(1)) << 40) ^ (generator() >> 24);
    char name[NAME_LENGTH + 1];
    std::snprintf(name, sizeof name, "cc-%08x-%016llx",
                  static_cast<unsigned int>(getpid()), unique);
    return name;
}

// Removes orphans at most once a minute per process.
void sweepStale(int directoryFd)
{
    const long now = static_cast<long>(std::time(nullptr));
    long previous = lastSweep.load();
    if (now - previous < 60 || !lastSweep.compare_exchange_strong(previous, now)) {
        return;
    }
    const int scanFd = dup(directoryFd);
    if (scanFd < 0) {
        return;
    }
    DIR* dir = fdopendir(scanFd);
    if (dir == nullptr) {
        close(scanFd);
        return;
    }
    while (dirent* entry = readdir(dir)) {
        const std::string name(entry->d_name);
        struct stat info;
        if (isValidName(name) &&
            fstatat(directoryFd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(info.st_mode) && now - static_cast<long>(info.st_mtime) > STALE_AFTER_SECONDS) {
            unlinkat(directoryFd, name.c_str(), 0);
        }
    }
    closedir(dir);
}

}  // namespace

std::string directory() { return directoryOf(writerId()); }

std::string directoryOf(uid_t owner) { return "/tmp/commschannel-spool-" + std::to_string(owner); }

uid_t writerId() { return geteuid(); }

bool isValidName(const std::string& name)
{
    if (name.size() != NAME_LENGTH || name.compare(0, 3, NAME_PREFIX) != 0 || name[11] != '-') {
        return false;
    }
    for (std::size_t i = 3; i < NAME_LENGTH; ++i) {
        if (i != 11 && !isHex(name[i])) {
            return false;
        }
    }
    return true;
}

std::string store(const char* data, std::size_t length)
{
    const int dirFd = openOwnDirectory();
    if (dirFd < 0) {
        return "";
    }
    sweepStale(dirFd);
    const std::string name = newName();
    const int fd = openat(dirFd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        close(dirFd);
        return "";
    }
    // Readable by the writer's group only once it is ours: the umask must
    // not decide who may receive the data.
    fchmod(fd, FILE_MODE);
    std::size_t written = 0;
    while (written < length) {
        const ssize_t n = write(fd, data + written, length - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        written += static_cast<std::size_t>(n);
    }
    const bool ok = written == length && close(fd) == 0;
    if (!ok) {
        if (written != length) {
            close(fd);
        }
        unlinkat(dirFd, name.c_str(), 0);
    }
    close(dirFd);
    return ok ? name : "";
}

bool retrieve(const std::string& name, uid_t owner, std::uint64_t length, std::string& out)
{
    if (!isValidName(name) || length > static_cast<std::uint64_t>(out.max_size())) {
        return false;
    }
    const int dirFd = openDirectoryOf(owner);
    if (dirFd < 0) {
        const int reason = errno;
        unreadable(owner, name, errno == EPERM ? "the spool directory is not its writer's own" : std::strerror(reason));
        return false;
    }
    // O_NONBLOCK keeps a planted FIFO from blocking the open; O_NOFOLLOW
    // refuses a planted link.
    const int fd = openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        unreadable(owner, name, std::strerror(errno));
        close(dirFd);
        return false;
    }
    struct stat info;
    const char* refusal = nullptr;
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != owner) {
        refusal = "not a regular file of its writer";
    } else if (static_cast<std::uint64_t>(info.st_size) != length) {
        refusal = "its size is not the message's";
    }
    std::string data;
    if (refusal == nullptr) {
        largedata::prepare(data, static_cast<std::size_t>(length));
        data.resize(static_cast<std::size_t>(length));
        std::size_t done = 0;
        while (done < data.size()) {
            const ssize_t n = read(fd, &data[done], data.size() - done);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                refusal = n < 0 ? std::strerror(errno) : "it ended early";
                break;
            }
            done += static_cast<std::size_t>(n);
        }
    }
    close(fd);
    if (refusal == nullptr) {
        // A reader that may not remove it (another user outside the
        // directory's group) leaves it to the writer's sweep.
        unlinkat(dirFd, name.c_str(), 0);
        out.swap(data);
    } else {
        unreadable(owner, name, refusal);
    }
    close(dirFd);
    return refusal == nullptr;
}

void discard(const std::string& name)
{
    if (!isValidName(name)) {
        return;
    }
    const int dirFd = openDirectoryOf(writerId());
    if (dirFd < 0) {
        return;
    }
    unlinkat(dirFd, name.c_str(), 0);
    close(dirFd);
}

}  // namespace spool
