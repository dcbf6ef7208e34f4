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

// Opens the spool directory, creating it when missing. Returns a descriptor
// or -1 when it is absent, not a directory, a link, foreign or open to others.
int openDirectory()
{
    const std::string path = directory();
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        return -1;
    }
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    struct stat info;
    if (fstat(fd, &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != geteuid() ||
        (info.st_mode & 077) != 0) {
        close(fd);
        return -1;
    }
    return fd;
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

std::string directory() { return "/tmp/commschannel-spool-" + std::to_string(geteuid()); }

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
    const int dirFd = openDirectory();
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

bool retrieve(const std::string& name, std::uint64_t length, std::string& out)
{
    if (!isValidName(name) || length > static_cast<std::uint64_t>(out.max_size())) {
        return false;
    }
    const int dirFd = openDirectory();
    if (dirFd < 0) {
        return false;
    }
    // O_NONBLOCK keeps a planted FIFO from blocking the open; O_NOFOLLOW
    // refuses a planted link.
    const int fd = openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        close(dirFd);
        return false;
    }
    struct stat info;
    bool ok = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == geteuid() &&
              static_cast<std::uint64_t>(info.st_size) == length;
    std::string data;
    if (ok) {
        largedata::prepare(data, static_cast<std::size_t>(length));
        data.resize(static_cast<std::size_t>(length));
        std::size_t done = 0;
        while (done < data.size()) {
            const ssize_t n = read(fd, &data[done], data.size() - done);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                break;
            }
            done += static_cast<std::size_t>(n);
        }
        ok = done == data.size();
    }
    close(fd);
    if (ok) {
        unlinkat(dirFd, name.c_str(), 0);
        out.swap(data);
    }
    close(dirFd);
    return ok;
}

void discard(const std::string& name)
{
    if (!isValidName(name)) {
        return;
    }
    const int dirFd = openDirectory();
    if (dirFd < 0) {
        return;
    }
    unlinkat(dirFd, name.c_str(), 0);
    close(dirFd);
}

}  // namespace spool
