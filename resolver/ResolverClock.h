// The monotonic millisecond clock of the resolver. Components that measure
// time take a MillisecondClock so that tests can hand them a fake one and
// step time instead of sleeping.
#ifndef COMMSCHANNEL_RESOLVER_CLOCK_H
#define COMMSCHANNEL_RESOLVER_CLOCK_H

#include <ctime>

namespace resolver {

typedef long long (*MillisecondClock)();

// Milliseconds on CLOCK_MONOTONIC. Never goes back; unrelated to the date.
inline long long monotonicMilliseconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace resolver

#endif
