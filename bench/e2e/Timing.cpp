// Clock and pacing; see Timing.h.
#include "Timing.h"

#include <sys/prctl.h>
#include <time.h>

#include <cerrno>

namespace bench {

namespace {

// Below this distance from a deadline the pacer spins instead of sleeping:
// a wake-up from nanosleep is often some tens of microseconds late.
const std::int64_t SPIN_NS = 60000;

timespec toTimespec(std::int64_t ns)
{
    timespec ts;
    ts.tv_sec = static_cast<time_t>(ns / 1000000000);
    ts.tv_nsec = static_cast<long>(ns % 1000000000);
    return ts;
}

}  // namespace

std::int64_t nowNs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void sleepUntil(std::int64_t deadlineNs)
{
    const timespec until = toTimespec(deadlineNs);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

bool parsePacing(const std::string& text, Pacing& pacing)
{
    if (text == "sleep") {
        pacing = Pacing::SLEEP;
    } else if (text == "spin") {
        pacing = Pacing::SPIN;
    } else {
        return false;
    }
    return true;
}

const char* pacingName(Pacing pacing) { return pacing == Pacing::SPIN ? "spin" : "sleep"; }

Pacer::Pacer(double ratePerSecond, Pacing pacing)
    : m_periodNs(ratePerSecond > 0 ? 1e9 / ratePerSecond : 0), m_pacing(pacing), m_startNs(0)
{
    // The default slack of 50 us would make every sleep end late.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
}

void Pacer::start() { m_startNs = nowNs(); }

void Pacer::waitFor(std::uint64_t index)
{
    if (m_periodNs <= 0) {
        return;
    }
    const std::int64_t deadline = m_startNs + static_cast<std::int64_t>(m_periodNs * static_cast<double>(index));
    std::int64_t now = nowNs();
    if (m_pacing == Pacing::SLEEP) {
        if (deadline > now) {
            sleepUntil(deadline);
        }
        return;
    }
    if (deadline - now > SPIN_NS) {
        sleepUntil(deadline - SPIN_NS / 2);
        now = nowNs();
    }
    while (now < deadline) {
        now = nowNs();
    }
}

}  // namespace bench
