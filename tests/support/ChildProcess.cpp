#include "ChildProcess.h"

#include "TestUtil.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <sstream>

#ifndef COMMSCHANNEL_TEST_EMULATOR
#define COMMSCHANNEL_TEST_EMULATOR ""
#endif

namespace cctest {
namespace {

std::map<std::string, ChildMain>& registry()
{
    static std::map<std::string, ChildMain> children;
    return children;
}

const char CHILD_FLAG[] = "--cc-child=";

// A descriptor of this program, opened before any test can mount over the
// directory it lives in (spool tests put a tmpfs on /tmp, where a checkout
// may be). Children are started through /proc/self/fd/N, which the kernel
// and the emulator both follow. It is left open across exec on purpose.
int selfDescriptor = -1;

void openSelf()
{
    if (selfDescriptor < 0) {
        selfDescriptor = open("/proc/self/exe", O_RDONLY);
    }
}

std::string selfPath()
{
    openSelf();
    return selfDescriptor >= 0 ? "/proc/self/fd/" + std::to_string(selfDescriptor) : "/proc/self/exe";
}

// The emulator words (e.g. "qemu-mips -L /usr/mips-linux-gnu") followed by
// argv: what exec needs to start a program built for the test target.
std::vector<std::string> withEmulator(const std::vector<std::string>& argv)
{
    std::vector<std::string> full;
    std::istringstream words(COMMSCHANNEL_TEST_EMULATOR);
    std::string word;
    while (words >> word) {
        full.push_back(word);
    }
    full.insert(full.end(), argv.begin(), argv.end());
    return full;
}

[[noreturn]] void execOrDie(const std::vector<std::string>& argv)
{
    std::vector<char*> raw;
    for (const std::string& arg : argv) {
        raw.push_back(const_cast<char*>(arg.c_str()));
    }
    raw.push_back(nullptr);
    execvp(raw[0], raw.data());
    std::perror("exec");
    _exit(127);
}

int decodeStatus(int status)
{
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return -1;
}

}  // namespace

ChildRegistrar::ChildRegistrar(const char* name, ChildMain entry) { registry()[name] = entry; }

int runChildIfRequested(int argc, char** argv)
{
    openSelf();
    if (argc < 2 || std::strncmp(argv[1], CHILD_FLAG, sizeof CHILD_FLAG - 1) != 0) {
        return -1;
    }
    const std::string name = argv[1] + sizeof CHILD_FLAG - 1;
    std::map<std::string, ChildMain>::iterator it = registry().find(name);
    if (it == registry().end()) {
        std::fprintf(stderr, "no child named %s\n", name.c_str());
        return 2;
    }
    std::vector<std::string> args(argv + 2, argv + argc);
    return it->second(args);
}

void childSay(const std::string& line)
{
    std::cout << line << std::endl;
}

bool childHear(std::string& line) { return static_cast<bool>(std::getline(std::cin, line)); }

pid_t spawnProgram(const std::vector<std::string>& argv)
{
    const std::vector<std::string> full = withEmulator(argv);
    const pid_t pid = fork();
    if (pid == 0) {
        execOrDie(full);
    }
    return pid;
}

int waitForPid(pid_t pid, int timeoutMs)
{
    int status = 0;
    const bool ended = waitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeoutMs);
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return -1;
    }
    return decodeStatus(status);
}

ChildProcess::ChildProcess(const std::string& name, const std::vector<std::string>& args)
    : m_pid(-1), m_toChild(-1), m_fromChild(-1), m_reaped(false), m_status(0)
{
    int input[2];
    int output[2];
    if (pipe(input) != 0 || pipe(output) != 0) {
        return;
    }
    std::vector<std::string> argv{selfPath(), CHILD_FLAG + name};
    argv.insert(argv.end(), args.begin(), args.end());
    const std::vector<std::string> full = withEmulator(argv);
    m_pid = fork();
    if (m_pid == 0) {
        dup2(input[0], 0);
        dup2(output[1], 1);
        close(input[0]);
        close(input[1]);
        close(output[0]);
        close(output[1]);
        execOrDie(full);
    }
    close(input[0]);
    close(output[1]);
    m_toChild = input[1];
    m_fromChild = output[0];
}

ChildProcess::~ChildProcess()
{
    if (m_pid > 0 && !m_reaped) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, &m_status, 0);
    }
    if (m_toChild >= 0) {
        close(m_toChild);
    }
    if (m_fromChild >= 0) {
        close(m_fromChild);
    }
}

bool ChildProcess::readLine(std::string& line, int timeoutMs)
{
    const long long deadline = nowMs() + timeoutMs;
    for (;;) {
        const std::string::size_type newline = m_pending.find('\n');
        if (newline != std::string::npos) {
            line = m_pending.substr(0, newline);
            m_pending.erase(0, newline + 1);
            return true;
        }
        const long long left = deadline - nowMs();
        if (left <= 0 || m_fromChild < 0) {
            return false;
        }
        pollfd watched;
        watched.fd = m_fromChild;
        watched.events = POLLIN;
        watched.revents = 0;
        if (poll(&watched, 1, static_cast<int>(left)) <= 0) {
            continue;
        }
        char buffer[4096];
        const ssize_t n = read(m_fromChild, buffer, sizeof buffer);
        if (n <= 0) {
            return false;
        }
        m_pending.append(buffer, static_cast<std::size_t>(n));
    }
}

bool ChildProcess::waitForLine(const std::string& expected, int timeoutMs)
{
    return waitForPrefix(expected, nullptr, timeoutMs);
}

bool ChildProcess::waitForPrefix(const std::string& prefix, std::string* rest, int timeoutMs)
{
    const long long deadline = nowMs() + timeoutMs;
    std::string line;
    while (readLine(line, static_cast<int>(std::max(0LL, deadline - nowMs())))) {
        if (line.compare(0, prefix.size(), prefix) == 0 && (rest != nullptr || line.size() == prefix.size())) {
            if (rest != nullptr) {
                *rest = line.substr(prefix.size());
            }
            return true;
        }
    }
    return false;
}

void ChildProcess::writeLine(const std::string& line)
{
    const std::string text = line + "\n";
    if (m_toChild >= 0 && write(m_toChild, text.data(), text.size()) < 0) {
        std::perror("ChildProcess::writeLine");
    }
}

void ChildProcess::sendSignal(int signalNumber)
{
    if (m_pid > 0 && !m_reaped) {
        kill(m_pid, signalNumber);
    }
}

int ChildProcess::wait(int timeoutMs)
{
    if (m_pid <= 0) {
        return -1;
    }
    if (!m_reaped) {
        // Once reaped, m_status holds the decoded result.
        m_status = waitForPid(m_pid, timeoutMs);
        m_reaped = true;
    }
    return m_status;
}

}  // namespace cctest
