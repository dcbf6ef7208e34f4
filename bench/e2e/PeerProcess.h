// PeerProcess: a second copy of this program, started with fork and exec of
// /proc/self/exe and the switch "--peer ROLE ...", never with fork alone:
// the library's singletons and threads do not survive a fork.
//
// The parent talks to a peer through two pipes: it writes command lines to
// the peer's standard input and reads the peer's report lines ("READY ...",
// "DONE ...") from its standard output. Every read has a deadline. The peer
// dies with the parent (PR_SET_PDEATHSIG) and has an alarm of its own, so a
// lost benchmark leaves no process behind. The object belongs to one thread.
//
// Usage:
//   PeerProcess peer;
//   peer.start({"udp-echo"});
//   std::string port;
//   peer.expect("READY", 5000, port);   // "READY 40123" -> port "40123"
//   ...
//   peer.stop(2000);                    // closes stdin, waits, kills if needed
#ifndef COMMSCHANNEL_BENCH_PEER_PROCESS_H
#define COMMSCHANNEL_BENCH_PEER_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

// The path of this program, from /proc/self/exe.
std::string selfPath();

// Kills every peer still running (SIGKILL). Async-signal-safe: the watchdog
// and the signal handlers call it.
void killAllPeers();

class PeerProcess {
public:
    PeerProcess();
    ~PeerProcess();  // stop(2000)
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;

    // Starts "<self> --peer <args...>". False when fork or pipe fail.
    bool start(const std::vector<std::string>& args);

    // Waits up to timeoutMs for a line that starts with word; rest gets what
    // follows the word and one blank. Lines with another first word are
    // copied to standard error. False on time-out or end of output.
    bool expect(const std::string& word, int timeoutMs, std::string& rest);

    // Writes one line to the peer's standard input.
    bool send(const std::string& line);

    // True while the process has not exited.
    bool running();

    // Closes the peer's standard input (its signal to finish), waits up to
    // graceMs for it to exit, then kills it. True when it exited by itself
    // with status 0.
    bool stop(int graceMs);

    // How the peer ended, for error messages ("exit status 3", "signal 9").
    std::string describeEnd() const;

private:
    bool reap(bool block);

    pid_t m_pid;
    int m_stdin;
    int m_stdout;
    std::string m_buffered;
    int m_status;
    bool m_reaped;
};

}  // namespace bench

#endif
