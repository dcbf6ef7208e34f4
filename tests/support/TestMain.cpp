// main() of every test program: a registered child process when asked for
// one (see ChildProcess.h), else GoogleTest.
#include "ChildProcess.h"
#include "NamespaceGuard.h"

#include <gtest/gtest.h>

#include <csignal>
#include <thread>

namespace {

// ThreadSanitizer starts a thread of its own once a program first starts
// one. Tests that count the process's threads (to see the receiver's and
// the locator's come and go) must not see it appear in the middle, so it is
// made to start before any test runs.
void startSanitizerThreads()
{
#if defined(__SANITIZE_THREAD__)
    std::thread([] {}).join();
#endif
}

}  // namespace

int main(int argc, char** argv)
{
    cctest::requireIsolation(argv[0]);
    // A peer that goes away must not kill the test with SIGPIPE.
    std::signal(SIGPIPE, SIG_IGN);
    startSanitizerThreads();
    const int childResult = cctest::runChildIfRequested(argc, argv);
    if (childResult >= 0) {
        return childResult;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
