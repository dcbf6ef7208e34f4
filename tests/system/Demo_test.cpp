// The ping-pong demo, run as a user runs it: it starts its own resolver in
// this test's network namespace, runs its server as a second process,
// reports latency and leaves no process and no file behind.
#include "ChildProcess.h"
#include "ResolverProcess.h"
#include "SystemPeer.h"
#include "TestUtil.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::string linkTarget(const std::string& path)
{
    char target[256];
    const ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
    if (n <= 0) {
        return "";
    }
    target[n] = '\0';
    return target;
}

// Command lines of the other processes in this test's network namespace.
std::vector<std::string> commandLinesInThisNamespace()
{
    const std::string ownNamespace = linkTarget("/proc/self/ns/net");
    std::vector<std::string> lines;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        return lines;
    }
    while (dirent* entry = readdir(proc)) {
        const int pid = std::atoi(entry->d_name);
        if (pid <= 0 || pid == getpid()) {
            continue;
        }
        const std::string base = "/proc/" + std::string(entry->d_name);
        if (linkTarget(base + "/ns/net") != ownNamespace) {
            continue;
        }
        std::string commandLine = cctest::readFile(base + "/cmdline");
        for (char& c : commandLine) {
            if (c == '\0') {
                c = ' ';
            }
        }
        lines.push_back(commandLine);
    }
    closedir(proc);
    return lines;
}

std::set<std::string> entriesOf(const std::string& directory, const std::string& prefix)
{
    std::set<std::string> names;
    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr) {
        return names;
    }
    while (dirent* entry = readdir(dir)) {
        if (std::strncmp(entry->d_name, prefix.c_str(), prefix.size()) == 0) {
            names.insert(entry->d_name);
        }
    }
    closedir(dir);
    return names;
}

// Spool files whose writer no longer runs.
std::set<std::string> orphanedSpoolFiles()
{
    std::set<std::string> orphans;
    for (const std::string& name :
         entriesOf("/tmp/commschannel-spool-" + std::to_string(geteuid()), "cc-")) {
        const unsigned long writer = std::strtoul(name.substr(3, 8).c_str(), nullptr, 16);
        struct stat info;
        if (stat(("/proc/" + std::to_string(writer)).c_str(), &info) != 0) {
            orphans.insert(name);
        }
    }
    return orphans;
}

// Starts a program with its standard output going to a file.
pid_t spawnWithOutputTo(const std::vector<std::string>& argv, const std::string& outputPath)
{
    std::fflush(stdout);
    const int saved = dup(1);
    const int file = open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (saved < 0 || file < 0) {
        return -1;
    }
    dup2(file, 1);
    const pid_t pid = cctest::spawnProgram(argv);
    dup2(saved, 1);
    close(saved);
    close(file);
    return pid;
}

// Whether the kernel runs the program itself. The demo starts its server
// and the resolver with a plain exec; under user-mode emulation that works
// only when the kernel hands the target's programs to the emulator.
bool kernelRunsDirectly(const std::string& path)
{
    const pid_t pid = fork();
    if (pid == 0) {
        const int devNull = open("/dev/null", O_WRONLY);
        dup2(devNull, 1);
        dup2(devNull, 2);
        execl(path.c_str(), path.c_str(), "--no-such-option", static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid > 0 && cctest::waitForPid(pid, 60000) != 127;
}

TEST(DemoTest, RunsToTheEndPrintsLatencyAndLeavesNothingBehind)
{
    if (!kernelRunsDirectly(CC_DEMO_PATH)) {
        GTEST_SKIP() << "the demo execs its server and the resolver itself, and this kernel cannot run the "
                        "target's programs without the emulator (no binfmt_misc entry)";
    }
    ASSERT_EQ(-1, cctest::ResolverProcess::queryPort("demo-server", 200)) << "a resolver runs already";
    const std::set<std::string> stateDirsBefore = entriesOf("/tmp", "commschannel-demo-");
    const std::set<std::string> orphansBefore = orphanedSpoolFiles();
    const std::string outputPath = "/logs/demo.out";

    const pid_t demo = spawnWithOutputTo({CC_DEMO_PATH, "--resolver", CC_RESOLVER_PATH, "--messages", "200",
                                          "--requests", "100"},
                                         outputPath);
    ASSERT_GT(demo, 0);
    EXPECT_EQ(0, cctest::waitForPid(demo, 110000));

    const std::string output = cctest::readFile(outputPath);
    EXPECT_NE(std::string::npos, output.find("median")) << output;
    EXPECT_NE(std::string::npos, output.find("99th percentile")) << output;
    EXPECT_NE(std::string::npos, output.find("started commschannel-resolver (pid ")) << output;
    EXPECT_NE(std::string::npos, output.find("1 MiB request:    intact")) << output;

    // No resolver and no server of the demo is left.
    EXPECT_EQ(-1, cctest::ResolverProcess::queryPort("demo-server", 200));
    for (const std::string& commandLine : commandLinesInThisNamespace()) {
        EXPECT_EQ(std::string::npos, commandLine.find(CC_DEMO_PATH)) << "left running: " << commandLine;
        EXPECT_EQ(std::string::npos, commandLine.find(CC_RESOLVER_PATH)) << "left running: " << commandLine;
    }
    // Nor its resolver's state directory, nor a spool file.
    EXPECT_EQ(stateDirsBefore, entriesOf("/tmp", "commschannel-demo-"));
    EXPECT_TRUE(systest::spoolFilesOf(demo).empty());
    std::set<std::string> newOrphans;
    for (const std::string& name : orphanedSpoolFiles()) {
        if (orphansBefore.count(name) == 0) {
            newOrphans.insert(name);
        }
    }
    EXPECT_TRUE(newOrphans.empty()) << "spool files left: " << newOrphans.size();
}

}  // namespace
