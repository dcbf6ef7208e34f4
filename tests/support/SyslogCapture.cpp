#include "SyslogCapture.h"

#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace cctest {

SyslogCapture::SyslogCapture() : m_fd(-1), m_mounted(false)
{
    if (mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") != 0) {
        m_error = std::string("mount tmpfs on /dev: ") + std::strerror(errno);
        return;
    }
    m_mounted = true;
    m_fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, "/dev/log", sizeof address.sun_path - 1);
    if (m_fd < 0 || bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        m_error = std::string("bind /dev/log: ") + std::strerror(errno);
        if (m_fd >= 0) {
            close(m_fd);
        }
        m_fd = -1;
        return;
    }
    // syslog() connects lazily and keeps its connection: make it connect
    // again, to us.
    closelog();
}

SyslogCapture::~SyslogCapture()
{
    closelog();
    if (m_fd >= 0) {
        close(m_fd);
    }
    if (m_mounted) {
        umount2("/dev", MNT_DETACH);
    }
}

std::vector<std::string> SyslogCapture::records(int settleMs)
{
    if (m_fd < 0) {
        return m_records;
    }
    pollfd watched;
    watched.fd = m_fd;
    watched.events = POLLIN;
    for (;;) {
        watched.revents = 0;
        if (poll(&watched, 1, settleMs) <= 0) {
            break;
        }
        char buffer[8192];
        const ssize_t n = recv(m_fd, buffer, sizeof buffer, 0);
        if (n <= 0) {
            break;
        }
        m_records.push_back(std::string(buffer, static_cast<std::size_t>(n)));
    }
    return m_records;
}

std::vector<std::string> SyslogCapture::recordsContaining(const std::string& text, int settleMs)
{
    std::vector<std::string> matching;
    for (const std::string& record : records(settleMs)) {
        if (record.find(text) != std::string::npos) {
            matching.push_back(record);
        }
    }
    return matching;
}

}  // namespace cctest
