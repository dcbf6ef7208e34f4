// The real commschannel-resolver, started for one test. It runs in the
// test's own network namespace (see isolate.sh), so port 5000 is private.
//
// Usage:
//   cctest::ResolverProcess resolver;
//   ASSERT_TRUE(resolver.started());
//   ... channels in this process and in children now resolve names ...
#ifndef COMMSCHANNEL_RESOLVER_PROCESS_H
#define COMMSCHANNEL_RESOLVER_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace cctest {

class ResolverProcess {
public:
    // Starts the resolver with a state file of its own and waits until it
    // answers a port request (up to startTimeoutMs).
    explicit ResolverProcess(const std::vector<std::string>& extraArgs = {}, int startTimeoutMs = 20000);
    // Stops it with SIGTERM (SIGKILL if it lingers) and removes the state file.
    ~ResolverProcess();
    ResolverProcess(const ResolverProcess&) = delete;
    ResolverProcess& operator=(const ResolverProcess&) = delete;

    bool started() const { return m_started; }
    pid_t pid() const { return m_pid; }
    const std::string& stateFile() const { return m_stateFile; }
    // Sends a signal; kill(SIGKILL) plays a crash.
    void sendSignal(int signalNumber);
    // Waits for the process to end: exit code, 128 + signal, or -1 on time-out.
    int wait(int timeoutMs);
    // Starts it again with the same arguments and state file.
    bool restart(int startTimeoutMs = 20000);

    // True when something at the resolver port answers a port request within
    // timeoutMs.
    static bool answers(int timeoutMs);
    // Asks the resolver for the port of name: the port, 0 for an
    // unknown name, -1 when no answer came within timeoutMs.
    static int queryPort(const std::string& name, int timeoutMs = 2000);

private:
    bool start(int startTimeoutMs);

    std::vector<std::string> m_args;
    std::string m_stateFile;
    pid_t m_pid;
    bool m_started;
    bool m_ended;
};

}  // namespace cctest

#endif
