// Private to channel/: where a new message goes in a channel's receive queue,
// found without walking the queue.
//
// The queue is ordered by non-increasing priority, first in first out within
// one priority, so a newcomer of priority p belongs right behind the last
// message whose priority is p or higher. The index remembers the last message
// of each of the three priority bands and how many messages each band holds,
// which makes both insertion and removal constant-time whatever the length of
// the queue.
//
// Should the queue ever hold a message whose priority is not one of the three
// bands, or that an interceptor re-prioritised after the position was chosen,
// the index steps aside and the position is found by walking the queue from
// the front, exactly as the ordering rule reads, until the queue is empty
// again.
//
// Not thread-safe: every call is made under the channel's m_pqueueMutex.
#ifndef COMMSCHANNEL_RECEIVE_QUEUE_INDEX_H
#define COMMSCHANNEL_RECEIVE_QUEUE_INDEX_H

#include "CommsChannelDataContainerMessage.h"

#include <cstddef>
#include <list>

class ReceiveQueueIndex {
public:
    typedef std::list<CommsChannelDataContainerMessage*> Queue;

    ReceiveQueueIndex() : m_regular(true), m_tails(), m_counts() {}

    // The position before which a message of this priority is inserted: the
    // first element whose priority is strictly lower, or the end.
    Queue::iterator insertPosition(Queue& queue, int priority)
    {
        if (!m_regular || !isBand(priority)) {
            return walk(queue, priority);
        }
        for (int band = priority; band < BANDS; ++band) {
            if (m_counts[band] != 0) {
                Queue::iterator behind = m_tails[band];
                return ++behind;
            }
        }
        return queue.begin();
    }

    // Records the element just inserted at position; priority is the value
    // the position was chosen for.
    void inserted(Queue::iterator position, int priority)
    {
        const int actual = (*position)->priority();
        if (!m_regular || !isBand(priority) || actual != priority) {
            m_regular = false;
            return;
        }
        m_tails[priority] = position;
        ++m_counts[priority];
    }

    // Must be called before the element at position is erased from queue.
    void erasing(Queue& queue, Queue::iterator position)
    {
        if (m_regular) {
            const int band = (*position)->priority();
            if (!isBand(band) || m_counts[band] == 0) {
                m_regular = false;
            } else {
                --m_counts[band];
                if (m_tails[band] == position && m_counts[band] != 0) {
                    --m_tails[band];
                }
            }
        }
        if (queue.size() == 1) {
            reset();
        }
    }

    void reset()
    {
        m_regular = true;
        for (int band = 0; band < BANDS; ++band) {
            m_counts[band] = 0;
        }
    }

private:
    static const int BANDS = 3;

    static bool isBand(int priority) { return priority >= 0 && priority < BANDS; }

    static Queue::iterator walk(Queue& queue, int priority)
    {
        Queue::iterator position = queue.begin();
        while (position != queue.end() && (*position)->priority() >= priority) {
            ++position;
        }
        return position;
    }

    bool m_regular;
    Queue::iterator m_tails[BANDS];
    std::size_t m_counts[BANDS];
};

#endif
