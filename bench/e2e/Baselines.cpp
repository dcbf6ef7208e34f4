// Raw baselines; see Baselines.h.
#include "Baselines.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

void StringQueue::push(const std::string& item)
{
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_items.push_back(item);
    }
    m_nonEmpty.notify_one();
}

bool StringQueue::pop(std::string& out, int timeoutMs)
{
    std::unique_lock<std::mutex> hold(m_mutex);
    if (!m_nonEmpty.wait_for(hold, std::chrono::milliseconds(timeoutMs), [this] { return !m_items.empty(); })) {
        return false;
    }
    out = m_items.front();
    m_items.pop_front();
    return true;
}

std::size_t StringQueue::size()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_items.size();
}

namespace {

sockaddr_in loopback(int port)
{
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

}  // namespace

int openUdpSocket(int bufferSize)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        std::perror("bench: socket");
        return -1;
    }
    sockaddr_in address = loopback(0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        std::perror("bench: bind");
        close(fd);
        return -1;
    }
    if (bufferSize > 0) {
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bufferSize, sizeof bufferSize);
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize);
    }
    return fd;
}

int udpPort(int fd)
{
    sockaddr_in address;
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    return ntohs(address.sin_port);
}

int socketOption(int fd, int option)
{
    int value = 0;
    socklen_t length = sizeof value;
    if (getsockopt(fd, SOL_SOCKET, option, &value, &length) != 0) {
        return -1;
    }
    return value;
}

int socketOptionOfPort(int port, int option)
{
    DIR* descriptors = opendir("/proc/self/fd");
    if (descriptors == nullptr) {
        return -1;
    }
    const int listing = dirfd(descriptors);
    int value = -1;
    while (const dirent* entry = readdir(descriptors)) {
        char* end = nullptr;
        const long fd = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || fd == listing) {
            continue;
        }
        int type = 0;
        socklen_t typeLength = sizeof type;
        sockaddr_in address;
        socklen_t length = sizeof address;
        if (getsockopt(static_cast<int>(fd), SOL_SOCKET, SO_TYPE, &type, &typeLength) != 0 || type != SOCK_DGRAM ||
            getsockname(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
            address.sin_family != AF_INET || ntohs(address.sin_port) != port) {
            continue;
        }
        value = socketOption(static_cast<int>(fd), option);
        break;
    }
    closedir(descriptors);
    return value;
}

bool udpSend(int fd, int port, const char* data, std::size_t length)
{
    const sockaddr_in address = loopback(port);
    return sendto(fd, data, length, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
           static_cast<ssize_t>(length);
}

long udpReceive(int fd, char* buffer, std::size_t capacity, int timeoutMs, int* sourcePort)
{
    for (;;) {
        pollfd watched{fd, POLLIN, 0};
        const int ready = poll(&watched, 1, timeoutMs);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return -1;
        }
        sockaddr_in source;
        socklen_t length = sizeof source;
        const ssize_t n = recvfrom(fd, buffer, capacity, 0, reinterpret_cast<sockaddr*>(&source), &length);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n >= 0 && sourcePort != nullptr) {
            *sourcePort = ntohs(source.sin_port);
        }
        return n;
    }
}

bool fileWriteRead(const std::string& path, const std::string& data, std::string& out)
{
    const int writer = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (writer < 0) {
        std::perror(path.c_str());
        return false;
    }
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = write(writer, data.data() + done, data.size() - done);
        if (n <= 0) {
            close(writer);
            unlink(path.c_str());
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    close(writer);
    const int reader = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    bool ok = reader >= 0;
    out.resize(data.size());
    done = 0;
    while (ok && done < out.size()) {
        const ssize_t n = read(reader, &out[done], out.size() - done);
        ok = n > 0;
        done += ok ? static_cast<std::size_t>(n) : 0;
    }
    if (reader >= 0) {
        close(reader);
    }
    unlink(path.c_str());
    return ok;
}

}  // namespace bench
