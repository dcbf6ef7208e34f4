// The benchmark's watchdog; see Watchdog.h.
#include "Watchdog.h"

#include "PeerProcess.h"
#include "Timing.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace bench {

Watchdog::Watchdog() : m_armed(false), m_quit(false), m_deadlineNs(0), m_thread([this] { watch(); }) {}

Watchdog::~Watchdog()
{
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_quit = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

void Watchdog::arm(int seconds, const std::string& what)
{
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_armed = true;
        m_deadlineNs = nowNs() + static_cast<long long>(seconds) * 1000000000;
        m_what = what;
    }
    m_changed.notify_all();
}

void Watchdog::disarm()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_armed = false;
}

void Watchdog::watch()
{
    std::unique_lock<std::mutex> hold(m_mutex);
    while (!m_quit) {
        if (m_armed && nowNs() >= m_deadlineNs) {
            std::fprintf(stderr, "commschannel-bench-e2e: %s did not finish in time; stopping the run\n",
                         m_what.c_str());
            std::fflush(stderr);
            killAllPeers();
            _exit(WATCHDOG_EXIT);
        }
        m_changed.wait_for(hold, std::chrono::milliseconds(100));
    }
}

}  // namespace bench
