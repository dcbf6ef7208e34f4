// The resident memory of this process, from /proc/self/status, and the reset
// of its high-water mark (write "5" to /proc/self/clear_refs, Linux 4.0+).
#ifndef COMMSCHANNEL_BENCH_PROCESS_MEMORY_H
#define COMMSCHANNEL_BENCH_PROCESS_MEMORY_H

namespace bench {

// Sets VmHWM back to the current VmRSS. False when the kernel refuses.
bool resetPeakResident();
// VmRSS and VmHWM in bytes; -1 when unreadable.
long long residentBytes();
long long peakResidentBytes();

}  // namespace bench

#endif
