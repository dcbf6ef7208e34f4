#include "TestUtil.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

namespace cctest {

namespace {

std::string linkTarget(const char* path)
{
    char target[256];
    const ssize_t n = readlink(path, target, sizeof target - 1);
    return n > 0 ? std::string(target, static_cast<std::size_t>(n)) : std::string();
}

}  // namespace

long long nowMs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool waitUntil(const std::function<bool()>& predicate, int timeoutMs)
{
    const long long deadline = nowMs() + timeoutMs;
    for (;;) {
        if (predicate()) {
            return true;
        }
        if (nowMs() >= deadline) {
            return predicate();
        }
        usleep(2000);
    }
}

UdpSocket::UdpSocket(int port) : m_fd(-1), m_port(0)
{
    m_fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (m_fd < 0) {
        return;
    }
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    socklen_t length = sizeof address;
    if (bind(m_fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        close(m_fd);
        m_fd = -1;
        return;
    }
    m_port = ntohs(address.sin_port);
}

UdpSocket::~UdpSocket()
{
    if (m_fd >= 0) {
        close(m_fd);
    }
}

int UdpSocket::sendTo(int port, const void* data, std::size_t length)
{
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return static_cast<int>(
        sendto(m_fd, data, length, 0, reinterpret_cast<sockaddr*>(&address), sizeof address));
}

bool UdpSocket::receive(std::string& out, int timeoutMs, int* sourcePort)
{
    pollfd watched;
    watched.fd = m_fd;
    watched.events = POLLIN;
    watched.revents = 0;
    if (poll(&watched, 1, timeoutMs) <= 0) {
        return false;
    }
    std::vector<char> buffer(70000);
    sockaddr_in source;
    socklen_t sourceLength = sizeof source;
    const ssize_t n = recvfrom(m_fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&source),
                               &sourceLength);
    if (n < 0) {
        return false;
    }
    out.assign(buffer.data(), static_cast<std::size_t>(n));
    if (sourcePort != nullptr) {
        *sourcePort = ntohs(source.sin_port);
    }
    return true;
}

int sendRawDatagram(int port, const void* data, std::size_t length)
{
    UdpSocket sender;
    return sender.sendTo(port, data, length);
}

std::vector<std::string> spoolFilesOfThisProcess()
{
    std::vector<std::string> names;
    const std::string directory = "/tmp/commschannel-spool-" + std::to_string(geteuid());
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "cc-%08x-", static_cast<unsigned int>(getpid()));
    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr) {
        return names;
    }
    while (dirent* entry = readdir(dir)) {
        if (std::strncmp(entry->d_name, prefix, std::strlen(prefix)) == 0) {
            names.push_back(entry->d_name);
        }
    }
    closedir(dir);
    return names;
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path.c_str(), std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

std::vector<std::string> readLines(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream in(path.c_str());
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

std::string diagnosticsLogPath() { return "/logs/CommsChannel.log-" + std::to_string(getpid()); }

int nextFreeDescriptor()
{
    const int fd = dup(2);
    if (fd >= 0) {
        close(fd);
    }
    return fd;
}

std::string mountPrivateTmp(const std::string& buildDir)
{
    const std::string own = linkTarget("/proc/self/ns/mnt");
    const std::string init = linkTarget("/proc/1/ns/mnt");
    if (own.empty() || own == init) {
        if (unshare(CLONE_NEWNS) != 0) {
            return std::string("unshare(CLONE_NEWNS): ") + std::strerror(errno);
        }
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return std::string("making / private: ") + std::strerror(errno);
        }
    }
    // The build tree (this program, its libraries, the programs it starts)
    // may itself live under /tmp: keep a handle on the host's /tmp in the
    // private /logs and bind the build tree back after the tmpfs hides it.
    const std::string hostTmp = "/logs/.host-tmp";
    const bool rebind = buildDir.compare(0, 5, "/tmp/") == 0;
    if (rebind && (mkdir(hostTmp.c_str(), 0700) != 0 && errno != EEXIST)) {
        return "mkdir " + hostTmp + ": " + std::strerror(errno);
    }
    if (rebind && mount("/tmp", hostTmp.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        return "bind /tmp to " + hostTmp + ": " + std::strerror(errno);
    }
    if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) {
        return std::string("mount tmpfs on /tmp: ") + std::strerror(errno);
    }
    if (rebind) {
        for (std::size_t slash = buildDir.find('/', 1);; slash = buildDir.find('/', slash + 1)) {
            mkdir(buildDir.substr(0, slash).c_str(), 0755);
            if (slash == std::string::npos) {
                break;
            }
        }
        const std::string source = hostTmp + buildDir.substr(4);
        if (mount(source.c_str(), buildDir.c_str(), nullptr, MS_BIND, nullptr) != 0) {
            return "bind the build tree back: " + std::string(std::strerror(errno));
        }
    }
    return "";
}

void unmountPrivateTmp() { umount2("/tmp", MNT_DETACH); }

bool becomeUser(const std::string& uid, const std::string& gid)
{
    const gid_t group = static_cast<gid_t>(std::stoul(gid));
    const uid_t user = static_cast<uid_t>(std::stoul(uid));
    return setgroups(0, nullptr) == 0 && setgid(group) == 0 && setuid(user) == 0 && geteuid() == user;
}

std::string oneLine(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', '|');
    return text;
}

bool allowDescriptors(unsigned long wanted)
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return false;
    }
    if (limit.rlim_cur < wanted) {
        limit.rlim_cur = std::min(static_cast<rlim_t>(wanted), limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
        getrlimit(RLIMIT_NOFILE, &limit);
    }
    return limit.rlim_cur >= wanted;
}

std::vector<int> occupyDescriptorsUpTo(int lowest)
{
    std::vector<int> opened;
    while (nextFreeDescriptor() <= lowest) {
        const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            break;
        }
        opened.push_back(fd);
    }
    return opened;
}

}  // namespace cctest

namespace cctest {

#ifndef COMMSCHANNEL_TEST_EMULATOR
#define COMMSCHANNEL_TEST_EMULATOR ""
#endif

bool runningEmulated() { return std::string(COMMSCHANNEL_TEST_EMULATOR).find_first_not_of(' ') != std::string::npos; }

namespace {

int tasksNow()
{
    int count = 0;
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        return -1;
    }
    while (dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] != '.') {
            ++count;
        }
    }
    closedir(tasks);
    return count;
}

}  // namespace

int threadCount()
{
    int count = tasksNow();
    if (!runningEmulated()) {
        return count;
    }
    const long long end = nowMs() + 2000;
    long long stableSince = nowMs();
    while (nowMs() < end && nowMs() - stableSince < 200) {
        usleep(10 * 1000);
        const int now = tasksNow();
        if (now != count) {
            count = now;
            stableSince = nowMs();
        }
    }
    return count;
}

}  // namespace cctest
