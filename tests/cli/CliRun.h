// Running the real commschannel program from a test: standard input from a
// string, standard output and error into temporary files that the test
// reads while the program still runs. Used by the program's end-to-end
// tests; one test thread.
#ifndef COMMSCHANNEL_TESTS_CLI_RUN_H
#define COMMSCHANNEL_TESTS_CLI_RUN_H

#include "ChildProcess.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#ifndef COMMSCHANNEL_CLI_PATH
#error "COMMSCHANNEL_CLI_PATH must name the commschannel program"
#endif

namespace cctest {

const int RUN_TIMEOUT_MS = 20000;

// Reads a file through its descriptor without moving the offset that the
// program writing to it shares with us.
inline std::string readDescriptor(int fd)
{
    std::string text;
    char buffer[4096];
    off_t offset = 0;
    ssize_t got;
    while ((got = pread(fd, buffer, sizeof buffer, offset)) > 0) {
        text.append(buffer, static_cast<std::size_t>(got));
        offset += got;
    }
    return text;
}

// One run of commschannel with standard input from a string and standard
// output and error into files. Killed on destruction if still running.
class CliRun {
public:
    explicit CliRun(const std::vector<std::string>& arguments, const std::string& input = std::string())
        : m_in(std::tmpfile()), m_out(std::tmpfile()), m_err(std::tmpfile()), m_pid(-1)
    {
        std::fwrite(input.data(), 1, input.size(), m_in);
        std::fflush(m_in);
        std::rewind(m_in);
        std::vector<std::string> argv{COMMSCHANNEL_CLI_PATH};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        // The child takes descriptors 0, 1 and 2 as they are at the fork.
        std::fflush(stdout);
        std::fflush(stderr);
        const int saved[3] = {dup(0), dup(1), dup(2)};
        dup2(fileno(m_in), 0);
        dup2(fileno(m_out), 1);
        dup2(fileno(m_err), 2);
        m_pid = cctest::spawnProgram(argv);
        for (int fd = 0; fd < 3; ++fd) {
            dup2(saved[fd], fd);
            close(saved[fd]);
        }
    }
    ~CliRun()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            cctest::waitForPid(m_pid, 5000);
        }
        std::fclose(m_in);
        std::fclose(m_out);
        std::fclose(m_err);
    }
    CliRun(const CliRun&) = delete;
    CliRun& operator=(const CliRun&) = delete;

    pid_t pid() const { return m_pid; }
    void signal(int signalNumber) { kill(m_pid, signalNumber); }
    // Exit code, 128 + signal, or -1 on time-out (the program is then killed).
    int wait(int timeoutMs = RUN_TIMEOUT_MS)
    {
        const int status = cctest::waitForPid(m_pid, timeoutMs);
        m_pid = -1;
        return status;
    }
    std::string out() const { return readDescriptor(fileno(m_out)); }
    std::string err() const { return readDescriptor(fileno(m_err)); }

private:
    std::FILE* m_in;
    std::FILE* m_out;
    std::FILE* m_err;
    pid_t m_pid;
};

inline std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace cctest

#endif
