// Watchdog: one thread that ends the whole benchmark, peers included, when
// a scenario runs past its deadline. It exists so that a hang in the
// library (a lost wake-up, a receive that never returns) turns into a
// failure with a message instead of a stuck CI job.
//
// Usage:
//   Watchdog watchdog;
//   watchdog.arm(300, "c round trips");
//   ...                                  // the scenario
//   watchdog.disarm();
#ifndef COMMSCHANNEL_BENCH_WATCHDOG_H
#define COMMSCHANNEL_BENCH_WATCHDOG_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace bench {

// Exit status of a run that the watchdog ended.
const int WATCHDOG_EXIT = 3;

class Watchdog {
public:
    Watchdog();
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    void arm(int seconds, const std::string& what);
    void disarm();

private:
    void watch();

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_armed;            // guarded by m_mutex
    bool m_quit;             // guarded by m_mutex
    long long m_deadlineNs;  // guarded by m_mutex
    std::string m_what;      // guarded by m_mutex
    std::thread m_thread;
};

}  // namespace bench

#endif
