#include "mfc/afx.h"

CCriticalSection::CCriticalSection() { InitializeCriticalSection(&m_sect); }
CCriticalSection::~CCriticalSection() { DeleteCriticalSection(&m_sect); }

BOOL CCriticalSection::Lock()
{
    EnterCriticalSection(&m_sect);
    return TRUE;
}

BOOL CCriticalSection::Lock(DWORD) { return Lock(); }

BOOL CCriticalSection::Unlock()
{
    LeaveCriticalSection(&m_sect);
    return TRUE;
}
