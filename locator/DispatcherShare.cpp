#include "DispatcherShare.h"

#include "DispatcherDeleters.h"

DispatcherShare::DispatcherShare(CommsChannelDispatcher* dispatcher)
    : m_pdispatcher(dispatcher), m_lock(Semaphore::AVAILABLE, 1, false), m_holders(1), m_psoleHolder(nullptr)
{
}

DispatcherShare::~DispatcherShare() { dispatcher_deleters::destroy(m_pdispatcher); }

void DispatcherShare::acquire()
{
    m_lock.take(-1);
    ++m_holders;
    m_lock.give();
}

void DispatcherShare::release()
{
    m_lock.take(-1);
    --m_holders;
    const bool last = m_holders == 0;
    if (m_holders == 1 && m_psoleHolder != nullptr) {
        // Given under m_lock: the waiter can only give its own share back
        // (and so delete this record) after we have let go of the lock.
        m_psoleHolder->give();
        m_psoleHolder = nullptr;
    }
    m_lock.give();
    if (last) {
        delete this;
    }
}

void DispatcherShare::waitUntilSoleHolder()
{
    Semaphore soleHolder(0, 1, false);
    m_lock.take(-1);
    if (m_holders == 1) {
        m_lock.give();
        return;
    }
    m_psoleHolder = &soleHolder;
    m_lock.give();
    soleHolder.take(-1);
}
