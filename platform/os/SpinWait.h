// spin_wait: keeps a thread on its processor for a short while before it
// sleeps, for a wait whose end is due within microseconds (the answer to a
// request just sent). Sleeping and being woken costs tens of microseconds
// on a virtual machine; giving the processor to whatever else is runnable
// for a moment costs next to nothing when the answer comes in time.
//
// Thread safety: any thread; reads the atomic only.
#ifndef COMMSCHANNEL_SPIN_WAIT_H
#define COMMSCHANNEL_SPIN_WAIT_H

#include <atomic>

namespace spin_wait {

// Returns once value differs from seen (true), or after maxMicros (false).
// Yields the processor between looks. Returns false at once on a single
// processor, where nothing could change value while the caller runs.
bool untilChanged(const std::atomic<unsigned>& value, unsigned seen, int maxMicros);

}  // namespace spin_wait

#endif
