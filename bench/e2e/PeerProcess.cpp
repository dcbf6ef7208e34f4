// Starting, talking to and ending peer processes; see PeerProcess.h.
#include "PeerProcess.h"

#include "Timing.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace bench {

namespace {

// Pids of running peers, for killAllPeers(). A fixed array of atomics, so
// that a signal handler may walk it; 0 marks a free slot.
const int MAX_PEERS = 64;
std::atomic<pid_t> livePeers[MAX_PEERS];

void remember(pid_t pid)
{
    for (std::atomic<pid_t>& slot : livePeers) {
        pid_t expected = 0;
        if (slot.compare_exchange_strong(expected, pid)) {
            return;
        }
    }
}

void forget(pid_t pid)
{
    for (std::atomic<pid_t>& slot : livePeers) {
        pid_t expected = pid;
        if (slot.compare_exchange_strong(expected, 0)) {
            return;
        }
    }
}

}  // namespace

std::string selfPath()
{
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) {
        return "/proc/self/exe";
    }
    path[n] = '\0';
    return path;
}

void killAllPeers()
{
    for (std::atomic<pid_t>& slot : livePeers) {
        const pid_t pid = slot.load();
        if (pid > 0) {
            kill(pid, SIGKILL);
        }
    }
}

PeerProcess::PeerProcess() : m_pid(-1), m_stdin(-1), m_stdout(-1), m_status(0), m_reaped(false) {}

PeerProcess::~PeerProcess() { stop(2000); }

bool PeerProcess::start(const std::vector<std::string>& args)
{
    int toPeer[2];
    int fromPeer[2];
    // Close-on-exec, so that a later peer never holds another peer's pipes
    // open and every peer sees the end of its own input.
    if (pipe2(toPeer, O_CLOEXEC) != 0) {
        return false;
    }
    if (pipe2(fromPeer, O_CLOEXEC) != 0) {
        close(toPeer[0]);
        close(toPeer[1]);
        return false;
    }
    // Everything the child needs is prepared before the fork: between fork
    // and exec it may only make async-signal-safe calls.
    const std::string self = selfPath();
    std::vector<std::string> argv{self, "--peer"};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> raw;
    for (std::string& arg : argv) {
        raw.push_back(&arg[0]);
    }
    raw.push_back(nullptr);
    const pid_t parent = getpid();

    const pid_t pid = fork();
    if (pid < 0) {
        close(toPeer[0]);
        close(toPeer[1]);
        close(fromPeer[0]);
        close(fromPeer[1]);
        return false;
    }
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(127);
        }
        dup2(toPeer[0], 0);
        dup2(fromPeer[1], 1);
        execv(raw[0], raw.data());
        _exit(127);
    }
    close(toPeer[0]);
    close(fromPeer[1]);
    m_pid = pid;
    m_stdin = toPeer[1];
    m_stdout = fromPeer[0];
    m_buffered.clear();
    m_reaped = false;
    remember(pid);
    return true;
}

bool PeerProcess::expect(const std::string& word, int timeoutMs, std::string& rest)
{
    const std::int64_t deadline = nowNs() + static_cast<std::int64_t>(timeoutMs) * 1000000;
    for (;;) {
        std::size_t end;
        while ((end = m_buffered.find('\n')) != std::string::npos) {
            const std::string line = m_buffered.substr(0, end);
            m_buffered.erase(0, end + 1);
            if (line == word || line.compare(0, word.size() + 1, word + " ") == 0) {
                rest = line.size() > word.size() ? line.substr(word.size() + 1) : "";
                return true;
            }
            std::fprintf(stderr, "peer %d: %s\n", static_cast<int>(m_pid), line.c_str());
        }
        const std::int64_t left = deadline - nowNs();
        if (m_stdout < 0 || left <= 0) {
            return false;
        }
        pollfd watched{m_stdout, POLLIN, 0};
        const int ready = poll(&watched, 1, static_cast<int>(left / 1000000) + 1);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return false;
        }
        char chunk[4096];
        const ssize_t n = read(m_stdout, chunk, sizeof chunk);
        if (n <= 0) {
            return false;
        }
        m_buffered.append(chunk, static_cast<std::size_t>(n));
    }
}

bool PeerProcess::send(const std::string& line)
{
    if (m_stdin < 0) {
        return false;
    }
    const std::string text = line + "\n";
    return write(m_stdin, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool PeerProcess::reap(bool block)
{
    if (m_pid <= 0 || m_reaped) {
        return m_reaped;
    }
    int status = 0;
    const pid_t done = waitpid(m_pid, &status, block ? 0 : WNOHANG);
    if (done == m_pid) {
        m_status = status;
        m_reaped = true;
        forget(m_pid);
    }
    return m_reaped;
}

bool PeerProcess::running() { return m_pid > 0 && !reap(false); }

bool PeerProcess::stop(int graceMs)
{
    if (m_pid <= 0) {
        return false;
    }
    if (m_stdin >= 0) {
        close(m_stdin);
        m_stdin = -1;
    }
    const std::int64_t deadline = nowNs() + static_cast<std::int64_t>(graceMs) * 1000000;
    bool killed = false;
    while (!reap(false)) {
        if (nowNs() >= deadline) {
            kill(m_pid, SIGKILL);
            killed = true;
            reap(true);
            break;
        }
        usleep(2000);
    }
    if (m_stdout >= 0) {
        close(m_stdout);
        m_stdout = -1;
    }
    m_pid = -m_pid;
    return !killed && WIFEXITED(m_status) && WEXITSTATUS(m_status) == 0;
}

std::string PeerProcess::describeEnd() const
{
    if (!m_reaped) {
        return "still running";
    }
    if (WIFEXITED(m_status)) {
        return "exit status " + std::to_string(WEXITSTATUS(m_status));
    }
    if (WIFSIGNALED(m_status)) {
        return "signal " + std::to_string(WTERMSIG(m_status));
    }
    return "unknown end";
}

}  // namespace bench
