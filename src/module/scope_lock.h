// The scope guard over a critical section: takes the lock, can leave it and
// take it again within its scope, and leaves it at the end of the scope only
// if it still owns it (also when an exception passes).
#ifndef WISOCK_MODULE_SCOPE_LOCK_H
#define WISOCK_MODULE_SCOPE_LOCK_H

#include <winsock2.h>
#include <windows.h>

#include "mfc/ccriticalsection.h"

class CScopeLock {
public:
    explicit CScopeLock(CRITICAL_SECTION* pcs, bool bLockNow = true) : m_pcs(pcs), m_bOwned(false)
    {
        if (bLockNow)
            Lock();
    }
    explicit CScopeLock(CRITICAL_SECTION& cs, bool bLockNow = true) : CScopeLock(&cs, bLockNow) {}
    explicit CScopeLock(CCriticalSection& cs, bool bLockNow = true) : CScopeLock(&cs.m_sect, bLockNow) {}
    ~CScopeLock() { Unlock(); }

    void Lock()
    {
        if (!m_bOwned) {
            EnterCriticalSection(m_pcs);
            m_bOwned = true;
        }
    }
    void Unlock()
    {
        if (m_bOwned) {
            m_bOwned = false;
            LeaveCriticalSection(m_pcs);
        }
    }
    bool IsOwned() const { return m_bOwned; }

private:
    CScopeLock(const CScopeLock&) = delete;
    CScopeLock& operator=(const CScopeLock&) = delete;

    CRITICAL_SECTION* m_pcs;
    bool m_bOwned;
};

#endif
