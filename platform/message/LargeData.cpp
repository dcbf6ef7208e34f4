#include "LargeData.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

namespace largedata {

namespace {

const std::uintptr_t HUGE_PAGE = std::uintptr_t(2) << 20;

// Advises the whole 2 MiB pages inside [begin, begin + length).
void adviseHugePages(char* begin, std::size_t length)
{
#ifdef MADV_HUGEPAGE
    const std::uintptr_t start = (reinterpret_cast<std::uintptr_t>(begin) + HUGE_PAGE - 1) & ~(HUGE_PAGE - 1);
    const std::uintptr_t end = (reinterpret_cast<std::uintptr_t>(begin) + length) & ~(HUGE_PAGE - 1);
    if (end > start) {
        // Only advice: where huge pages are not available the buffer simply
        // keeps small pages.
        madvise(reinterpret_cast<void*>(start), end - start, MADV_HUGEPAGE);
    }
#else
    (void)begin;
    (void)length;
#endif
}

}  // namespace

void prepare(std::string& out, std::size_t length)
{
    if (out.capacity() >= length) {
        // The buffer is reused as it is (reserve may shrink on older
        // standard libraries).
        out.clear();
        return;
    }
    if (length < LARGE_DATA_BYTES) {
        out.clear();
        out.reserve(length);
        return;
    }
    // A new buffer, untouched so far, is advised before anything is written.
    std::string().swap(out);
    out.reserve(length);
    adviseHugePages(&out[0], out.capacity());
}

void assign(std::string& out, const char* data, std::size_t length)
{
    prepare(out, length);
    out.append(data, length);
}

}  // namespace largedata
