// Time for the end-to-end benchmarks: one monotonic clock in nanoseconds,
// and a pacer that releases messages at absolute deadlines, so that a late
// message does not push every later one back (no drift).
#ifndef COMMSCHANNEL_BENCH_TIMING_H
#define COMMSCHANNEL_BENCH_TIMING_H

#include <cstdint>
#include <string>

namespace bench {

// CLOCK_MONOTONIC in nanoseconds.
std::int64_t nowNs();

inline double nsToUs(std::int64_t ns) { return static_cast<double>(ns) / 1e3; }
inline double nsToMs(std::int64_t ns) { return static_cast<double>(ns) / 1e6; }

// Sleeps until the absolute monotonic time deadlineNs (no-op when past).
void sleepUntil(std::int64_t deadlineNs);

// How a pacer waits for a deadline.
enum class Pacing {
    // Sleeps until the deadline. The processor is free meanwhile, as it is
    // with a real producer; a late wake-up sends what is due at once.
    SLEEP,
    // Sleeps until close to the deadline, then spins the last 60 us: exact
    // spacing, but at 20 us or less between messages the sender keeps one
    // processor busy all the time.
    SPIN,
};

// "sleep" or "spin"; false for anything else.
bool parsePacing(const std::string& text, Pacing& pacing);
const char* pacingName(Pacing pacing);

// Releases message i at start + i / rate, with a timer slack of 1 ns (set
// by the constructor for this thread). Rate 0 means unpaced: waitFor()
// returns at once. One thread uses a pacer.
class Pacer {
public:
    Pacer(double ratePerSecond, Pacing pacing);
    void start();
    void waitFor(std::uint64_t index);

private:
    double m_periodNs;
    Pacing m_pacing;
    std::int64_t m_startNs;
};

}  // namespace bench

#endif
