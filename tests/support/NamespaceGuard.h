// Refuses to let a test program run outside the namespaces that the
// project's launcher (tests/support/isolate.sh) gives it. Tests bind the
// fixed resolver port 5000, mount over /logs and /dev/log, narrow the local
// port range and close standard input: none of that may ever reach the host.
//
// isolate.sh records the network and mount namespaces it made in the
// environment; a program whose own namespaces are not those (or that was
// started without the launcher at all) stops at once with a message that
// says how to run it. Header only; call it first thing in main().
#ifndef COMMSCHANNEL_NAMESPACE_GUARD_H
#define COMMSCHANNEL_NAMESPACE_GUARD_H

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace cctest {

inline std::string namespaceOf(const char* kind)
{
    char target[PATH_MAX];
    const std::string link = std::string("/proc/self/ns/") + kind;
    const ssize_t length = readlink(link.c_str(), target, sizeof target - 1);
    return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : std::string();
}

// Exits with status 2 unless this process runs in the network and mount
// namespaces that isolate.sh made for it. program names the program in the
// message.
inline void requireIsolation(const char* program)
{
    const char* net = std::getenv("COMMSCHANNEL_TEST_NETNS");
    const char* mnt = std::getenv("COMMSCHANNEL_TEST_MNTNS");
    const std::string ownNet = namespaceOf("net");
    const std::string ownMnt = namespaceOf("mnt");
    // A test may make a further mount namespace of its own inside the one
    // the launcher made; that is still not the host's.
    const std::string hostMnt = [] {
        char target[PATH_MAX];
        const ssize_t length = readlink("/proc/1/ns/mnt", target, sizeof target - 1);
        return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : std::string();
    }();
    const bool ownMountNamespace = mnt != nullptr && (ownMnt == mnt || (!hostMnt.empty() && ownMnt != hostMnt));
    if (net != nullptr && !ownNet.empty() && ownNet == net && ownMountNamespace) {
        return;
    }
    std::fprintf(stderr,
                 "%s: refusing to run outside a private network and mount namespace: this test binds port "
                 "5000 and mounts over /logs and /dev/log.\n"
                 "Run it through the project's launcher, e.g.:\n"
                 "  tests/support/isolate.sh %s [ARGS...]\n"
                 "or through ctest, which does so for every test.\n",
                 program, program);
    std::exit(2);
}

}  // namespace cctest

#endif
