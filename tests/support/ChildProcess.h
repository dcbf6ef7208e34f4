// Other processes for multi-process tests. The test program runs itself
// again with --cc-child=NAME and becomes the child registered under NAME
// (fork, then exec: the library's singletons and threads never survive a
// bare fork). Parent and child talk in lines: the child's standard output
// and standard input are pipes to the parent.
//
// Usage:
//   CC_CHILD_MAIN(echoServer) {              // in a test file
//       CommsChannel server(args.at(0));
//       cctest::childSay("READY");
//       ...
//       return 0;                             // the child's exit code
//   }
//   cctest::ChildProcess child("echoServer", {"server"});
//   ASSERT_TRUE(child.waitForLine("READY", 10000));
//   EXPECT_EQ(0, child.wait(10000));
#ifndef COMMSCHANNEL_CHILD_PROCESS_H
#define COMMSCHANNEL_CHILD_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace cctest {

typedef int (*ChildMain)(const std::vector<std::string>& args);

// Registers a child entry point under a name; used by CC_CHILD_MAIN.
struct ChildRegistrar {
    ChildRegistrar(const char* name, ChildMain entry);
};

// Runs the child registered under name when argv asks for it. Returns -1
// when argv does not name a child, else the child's exit code.
int runChildIfRequested(int argc, char** argv);

// Writes one line to standard output and flushes it (child side).
void childSay(const std::string& line);
// Reads one line from standard input (child side). False at end of input.
bool childHear(std::string& line);

// Exit codes with a meaning of their own in children.
const int CHILD_OK = 0;
const int CHILD_FAILED = 3;
const int CHILD_TIMED_OUT = 4;

class ChildProcess {
public:
    ChildProcess(const std::string& name, const std::vector<std::string>& args);
    // Kills the child with SIGKILL if it still runs, and reaps it.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return m_pid; }
    // Reads the child's next output line. False at end of output or time-out.
    bool readLine(std::string& line, int timeoutMs);
    // Reads lines until one equals expected. False at end or time-out.
    bool waitForLine(const std::string& expected, int timeoutMs);
    // Reads lines until one starts with prefix; the rest goes to *rest.
    bool waitForPrefix(const std::string& prefix, std::string* rest, int timeoutMs);
    void writeLine(const std::string& line);
    void sendSignal(int signalNumber);
    // Waits for the child to end. Returns its exit code, 128 + signal when a
    // signal ended it, or -1 on time-out (the child is then killed).
    int wait(int timeoutMs);

private:
    pid_t m_pid;
    int m_toChild;
    int m_fromChild;
    std::string m_pending;
    bool m_reaped;
    int m_status;
};

// Starts an arbitrary program (under the target's emulator when the tests
// run emulated), with standard output and error inherited. Returns its pid.
pid_t spawnProgram(const std::vector<std::string>& argv);
// Waits for a pid with a deadline: exit code, 128 + signal, or -1 on time-out.
int waitForPid(pid_t pid, int timeoutMs);

}  // namespace cctest

#define CC_CHILD_MAIN(name)                                                         \
    static int name##_childMain(const std::vector<std::string>& args);              \
    static ::cctest::ChildRegistrar name##_childRegistrar(#name, name##_childMain); \
    static int name##_childMain(const std::vector<std::string>& args)

#endif
