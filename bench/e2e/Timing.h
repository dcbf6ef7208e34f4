// Time for the end-to-end benchmarks: one monotonic clock in nanoseconds,
// and a pacer that releases messages at absolute deadlines, so that a late
// message does not push every later one back (no drift).
#ifndef COMMSCHANNEL_BENCH_TIMING_H
#define COMMSCHANNEL_BENCH_TIMING_H

#include <cstdint>

namespace bench {

// CLOCK_MONOTONIC in nanoseconds.
std::int64_t nowNs();

inline double nsToUs(std::int64_t ns) { return static_cast<double>(ns) / 1e3; }
inline double nsToMs(std::int64_t ns) { return static_cast<double>(ns) / 1e6; }

// Sleeps until the absolute monotonic time deadlineNs (no-op when past).
void sleepUntil(std::int64_t deadlineNs);

// Releases message i at start + i / rate. Far from a deadline it sleeps
// (with a timer slack of 1 ns, set by the constructor for this thread) and
// spins the last stretch, so that rates of 100,000 per second and more keep
// their spacing. Rate 0 means unpaced: waitFor() returns at once.
// One thread uses a pacer.
class Pacer {
public:
    explicit Pacer(double ratePerSecond);
    void start();
    void waitFor(std::uint64_t index);

private:
    double m_periodNs;
    std::int64_t m_startNs;
};

}  // namespace bench

#endif
