// Replay driver: runs every file of the given corpus directories (or the
// given files) through the fuzz target linked with it, in name order, and
// answers 0 when the target returned for all of them. A failed check in the
// target aborts the process, which is how CTest sees a regression.
//
// Usage: fuzz-replay-<target> DIR_OR_FILE...
#include "NamespaceGuard.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

bool isDirectory(const std::string& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Regular files directly in the directory, sorted, so that every run
// replays in the same order.
std::vector<std::string> filesIn(const std::string& directory)
{
    std::vector<std::string> files;
    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr) {
        return files;
    }
    while (dirent* entry = readdir(dir)) {
        const std::string path = directory + "/" + entry->d_name;
        struct stat status;
        if (entry->d_name[0] != '.' && stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
            files.push_back(path);
        }
    }
    closedir(dir);
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv)
{
    // The targets bind the resolver port and send on loopback: never on the
    // host's.
    cctest::requireIsolation(argv[0]);
    // The live-channel target sends to sockets whose owner may be gone.
    std::signal(SIGPIPE, SIG_IGN);
    std::vector<std::string> inputs;
    for (int i = 1; i < argc; ++i) {
        if (isDirectory(argv[i])) {
            const std::vector<std::string> files = filesIn(argv[i]);
            inputs.insert(inputs.end(), files.begin(), files.end());
        } else {
            inputs.push_back(argv[i]);
        }
    }
    if (inputs.empty()) {
        std::fprintf(stderr, "usage: %s DIR_OR_FILE... (no input files found)\n", argv[0]);
        return 2;
    }
    for (const std::string& path : inputs) {
        std::ifstream file(path, std::ios::binary);
        if (!file) {
            std::fprintf(stderr, "cannot read %s\n", path.c_str());
            return 2;
        }
        const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        std::fprintf(stderr, "replaying %s (%zu bytes)\n", path.c_str(), bytes.size());
        // A heap copy of exactly the file's size, as libFuzzer hands it over,
        // so that an over-read shows under AddressSanitizer.
        std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
        std::uint8_t* exact = new std::uint8_t[input.size()];
        std::copy(input.begin(), input.end(), exact);
        LLVMFuzzerTestOneInput(exact, input.size());
        delete[] exact;
    }
    std::fprintf(stderr, "replayed %zu input(s)\n", inputs.size());
    return 0;
}
