// main() of every test program: a registered child process when asked for
// one (see ChildProcess.h), else GoogleTest.
#include "ChildProcess.h"
#include "NamespaceGuard.h"

#include <gtest/gtest.h>

#include <csignal>

int main(int argc, char** argv)
{
    cctest::requireIsolation(argv[0]);
    // A peer that goes away must not kill the test with SIGPIPE.
    std::signal(SIGPIPE, SIG_IGN);
    const int childResult = cctest::runChildIfRequested(argc, argv);
    if (childResult >= 0) {
        return childResult;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
