#include "RateLimiter.h"

namespace resolver {

RateLimiter::RateLimiter(long long intervalMs)
    : m_intervalMs(intervalMs), m_started(false), m_lastAllowedMs(0), m_suppressed(0)
{
}

bool RateLimiter::allow(long long nowMs, unsigned long* suppressed)
{
    if (m_started && nowMs - m_lastAllowedMs < m_intervalMs) {
        ++m_suppressed;
        return false;
    }
    m_started = true;
    m_lastAllowedMs = nowMs;
    if (suppressed != nullptr) {
        *suppressed = m_suppressed;
    }
    m_suppressed = 0;
    return true;
}

}  // namespace resolver
