// Sends standard error (descriptor 2) to a private file whose content can
// be read while the recording goes on, e.g. to wait for a report that
// another thread writes. Header only.
//
// Usage:
//   cctest::StderrRecorder errors;
//   ...
//   EXPECT_TRUE(errors.waitFor("expected text"));
//   errors.restore();
#ifndef COMMSCHANNEL_STDERR_RECORDER_H
#define COMMSCHANNEL_STDERR_RECORDER_H

#include "TestUtil.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace cctest {

// Sends standard error to a private file that can be read while recording.
class StderrRecorder {
public:
    StderrRecorder()
    {
        std::fflush(stderr);
        char path[] = "/tmp/cc-stderr-XXXXXX";
        m_file = mkstemp(path);
        unlink(path);
        m_saved = dup(2);
        dup2(m_file, 2);
    }
    ~StderrRecorder()
    {
        restore();
        close(m_file);
    }
    StderrRecorder(const StderrRecorder&) = delete;
    StderrRecorder& operator=(const StderrRecorder&) = delete;

    std::string text() const
    {
        std::string content;
        char buffer[4096];
        off_t offset = 0;
        for (;;) {
            const ssize_t n = pread(m_file, buffer, sizeof buffer, offset);
            if (n <= 0) {
                return content;
            }
            content.append(buffer, static_cast<std::size_t>(n));
            offset += n;
        }
    }
    bool waitFor(const std::string& needle, int timeoutMs = 20000) const
    {
        return waitUntil([this, &needle] { return text().find(needle) != std::string::npos; }, timeoutMs);
    }
    void restore()
    {
        if (m_saved >= 0) {
            std::fflush(stderr);
            dup2(m_saved, 2);
            close(m_saved);
            m_saved = -1;
        }
    }

private:
    int m_file;
    int m_saved;
};

}  // namespace cctest

#endif
