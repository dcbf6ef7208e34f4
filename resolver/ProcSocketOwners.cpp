#include "ProcSocketOwners.h"

#include "ProcNetUdp.h"

#include <dirent.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

namespace resolver {

namespace {

bool allDigits(const char* text)
{
    return *text != '\0' && std::strspn(text, "0123456789") == std::strlen(text);
}

// Names of the entries of a directory that are decimal numbers, in any
// order. Empty when the directory cannot be read (a process that ended, or
// one we may not look into).
std::vector<std::string> numericEntries(const std::string& path)
{
    std::vector<std::string> names;
    DIR* directory = opendir(path.c_str());
    if (directory == nullptr) {
        return names;
    }
    while (dirent* entry = readdir(directory)) {
        if (allDigits(entry->d_name)) {
            names.push_back(entry->d_name);
        }
    }
    closedir(directory);
    return names;
}

bool readLink(const std::string& path, std::string* target)
{
    char buffer[128];
    const ssize_t length = readlink(path.c_str(), buffer, sizeof buffer);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof buffer) {
        return false;
    }
    target->assign(buffer, static_cast<std::size_t>(length));
    return true;
}

}  // namespace

bool parseSocketLink(const std::string& link, std::uint64_t* inode)
{
    static const char PREFIX[] = "socket:[";
    const std::size_t prefixLength = sizeof PREFIX - 1;
    if (link.size() < prefixLength + 2 || link.compare(0, prefixLength, PREFIX) != 0 || link.back() != ']') {
        return false;
    }
    const std::string digits = link.substr(prefixLength, link.size() - prefixLength - 1);
    if (!allDigits(digits.c_str()) || digits.size() > 20) {
        return false;
    }
    *inode = static_cast<std::uint64_t>(std::strtoull(digits.c_str(), nullptr, 10));
    return true;
}

std::map<std::uint64_t, int> findSocketOwners(const std::set<std::uint64_t>& inodes, const std::string& procRoot)
{
    std::map<std::uint64_t, int> owners;
    if (inodes.empty()) {
        return owners;
    }
    const std::vector<std::string> pids = numericEntries(procRoot);
    for (std::vector<std::string>::const_iterator pid = pids.begin(); pid != pids.end(); ++pid) {
        // The walk takes a millisecond or more. It runs right after a new
        // process registered, which is then resolving its first names on
        // this host's few processors: let anything runnable go first.
        sched_yield();
        const std::string fdDirectory = procRoot + "/" + *pid + "/fd";
        const std::vector<std::string> descriptors = numericEntries(fdDirectory);
        const int pidValue = std::atoi(pid->c_str());
        for (std::vector<std::string>::const_iterator fd = descriptors.begin(); fd != descriptors.end(); ++fd) {
            std::string link;
            std::uint64_t inode = 0;
            if (!readLink(fdDirectory + "/" + *fd, &link) || !parseSocketLink(link, &inode) ||
                inodes.count(inode) == 0) {
                continue;
            }
            std::map<std::uint64_t, int>::iterator known = owners.find(inode);
            if (known == owners.end()) {
                owners.insert(std::make_pair(inode, pidValue));
            } else if (pidValue < known->second) {
                known->second = pidValue;
            }
        }
    }
    return owners;
}

int findPortOwner(int port, const std::string& procRoot)
{
    std::vector<UdpSocketEntry> sockets;
    if (port <= 0 || !readUdpSockets(&sockets, procRoot)) {
        return 0;
    }
    std::set<std::uint64_t> inodes;
    for (std::vector<UdpSocketEntry>::const_iterator it = sockets.begin(); it != sockets.end(); ++it) {
        if (it->reachableOnLoopback && it->port == port) {
            inodes.insert(it->inode);
        }
    }
    const std::map<std::uint64_t, int> owners = findSocketOwners(inodes, procRoot);
    int pid = 0;
    for (std::map<std::uint64_t, int>::const_iterator it = owners.begin(); it != owners.end(); ++it) {
        if (pid == 0 || it->second < pid) {
            pid = it->second;
        }
    }
    return pid;
}

std::string processName(int pid, const std::string& procRoot)
{
    if (pid <= 0) {
        return std::string();
    }
    std::ifstream file(procRoot + "/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

}  // namespace resolver
