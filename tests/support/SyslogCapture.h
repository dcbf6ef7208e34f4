// Catches what this process writes to the system log. Inside the test's
// private mount namespace (isolate.sh) it mounts a tmpfs on /dev and listens
// on a datagram socket at /dev/log, where syslog() writes. The rest of /dev
// is hidden from the test while the capture exists; nothing the library does
// needs it.
#ifndef COMMSCHANNEL_SYSLOG_CAPTURE_H
#define COMMSCHANNEL_SYSLOG_CAPTURE_H

#include <string>
#include <vector>

namespace cctest {

class SyslogCapture {
public:
    SyslogCapture();
    ~SyslogCapture();
    SyslogCapture(const SyslogCapture&) = delete;
    SyslogCapture& operator=(const SyslogCapture&) = delete;

    // False when /dev/log could not be taken over; errorText() says why.
    bool ok() const { return m_fd >= 0; }
    const std::string& errorText() const { return m_error; }
    // Every record received so far, waiting up to settleMs for more to come
    // in after the last one. Records keep their "<priority>" prefix.
    std::vector<std::string> records(int settleMs = 100);
    // Records that contain text.
    std::vector<std::string> recordsContaining(const std::string& text, int settleMs = 100);

private:
    int m_fd;
    bool m_mounted;
    std::string m_error;
    std::vector<std::string> m_records;
};

}  // namespace cctest

#endif
