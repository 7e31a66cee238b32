// CCriticalSection: a re-entrant lock over a Win32 critical section.
#ifndef WISOCK_MFC_CCRITICALSECTION_H
#define WISOCK_MFC_CCRITICALSECTION_H

#include <winsock2.h>
#include <windows.h>

#include "module/export.h"

class WISOCK_API CCriticalSection {
public:
    CCriticalSection();
    virtual ~CCriticalSection();

    operator CRITICAL_SECTION*() { return &m_sect; }

    BOOL Lock();
    BOOL Lock(DWORD dwTimeout);   // the time-out is ignored, as in MFC
    BOOL Unlock();

    CRITICAL_SECTION m_sect;

private:
    CCriticalSection(const CCriticalSection&) = delete;
    CCriticalSection& operator=(const CCriticalSection&) = delete;
};

#endif
