// Spinning before sleeping, for waits due within microseconds.
#include "SpinWait.h"

#include <sched.h>
#include <unistd.h>

#include <chrono>

namespace spin_wait {

namespace {

bool singleProcessor()
{
    static const bool single = sysconf(_SC_NPROCESSORS_ONLN) <= 1;
    return single;
}

}  // namespace

bool untilChanged(const std::atomic<unsigned>& value, unsigned seen, int maxMicros)
{
    if (singleProcessor()) {
        return false;
    }
    const std::chrono::steady_clock::time_point end =
        std::chrono::steady_clock::now() + std::chrono::microseconds(maxMicros);
    while (value.load(std::memory_order_acquire) == seen) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        sched_yield();
    }
    return true;
}

}  // namespace spin_wait
