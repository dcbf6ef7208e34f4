// RateLimiter: lets one log line through per interval and counts the ones
// it holds back, so that a peer sending garbage in a loop cannot flood the
// log while the count still says how much was dropped.
//
// Time is given by the caller, which keeps the class free of clocks and lets
// tests step it. One object belongs to one thread.
#ifndef COMMSCHANNEL_RESOLVER_RATE_LIMITER_H
#define COMMSCHANNEL_RESOLVER_RATE_LIMITER_H

namespace resolver {

class RateLimiter {
public:
    explicit RateLimiter(long long intervalMs);

    // True when a line may be written at nowMs: the first call, or one at
    // least intervalMs after the last line allowed. On true, *suppressed
    // receives the number of calls refused since that last line (0 for the
    // first) and the count starts again; on false the call is counted and
    // *suppressed is left alone.
    bool allow(long long nowMs, unsigned long* suppressed);

private:
    const long long m_intervalMs;
    bool m_started;
    long long m_lastAllowedMs;
    unsigned long m_suppressed;
};

}  // namespace resolver

#endif
