// Reading VmRSS and VmHWM; see ProcessMemory.h.
#include "ProcessMemory.h"

#include <cstdio>
#include <cstring>

namespace bench {

namespace {

long long statusField(const char* key)
{
    std::FILE* status = std::fopen("/proc/self/status", "r");
    if (status == nullptr) {
        return -1;
    }
    char line[256];
    long long kilobytes = -1;
    const std::size_t keyLength = std::strlen(key);
    while (std::fgets(line, sizeof line, status) != nullptr) {
        if (std::strncmp(line, key, keyLength) == 0 && line[keyLength] == ':') {
            std::sscanf(line + keyLength + 1, "%lld", &kilobytes);
            break;
        }
    }
    std::fclose(status);
    return kilobytes < 0 ? -1 : kilobytes * 1024;
}

}  // namespace

bool resetPeakResident()
{
    std::FILE* clear = std::fopen("/proc/self/clear_refs", "w");
    if (clear == nullptr) {
        return false;
    }
    const bool written = std::fputs("5", clear) >= 0;
    return std::fclose(clear) == 0 && written;
}

long long residentBytes() { return statusField("VmRSS"); }

long long peakResidentBytes() { return statusField("VmHWM"); }

}  // namespace bench
