// A barrier that lets a group of threads pass only together, round after
// round. Header only.
#ifndef COMMSCHANNEL_TEST_ROUND_BARRIER_H
#define COMMSCHANNEL_TEST_ROUND_BARRIER_H

#include <condition_variable>
#include <mutex>

namespace cctest {

class RoundBarrier {
public:
    explicit RoundBarrier(int parties) : m_parties(parties) {}

    // Returns once every party has arrived in this round.
    void arriveAndWait()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const long round = m_round;
        if (++m_arrived == m_parties) {
            m_arrived = 0;
            ++m_round;
            m_changed.notify_all();
            return;
        }
        m_changed.wait(lock, [this, round] { return m_round != round; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    const int m_parties;
    int m_arrived = 0;
    long m_round = 0;
};

}  // namespace cctest

#endif
