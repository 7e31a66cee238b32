// One running receive time-out: when to look at a socket again.
#ifndef WISOCK_FACTORY_RECV_TIMER_REQUEST_H
#define WISOCK_FACTORY_RECV_TIMER_REQUEST_H

#include <winsock2.h>
#include <windows.h>

#include <memory>

#include "module/export.h"

class COverlappedSocket;

struct WISOCK_API CRecvTimerRequest {
    DWORD m_dwStartTick;
    DWORD m_dwExpireTick;
    DWORD m_dwTimeout;
    std::shared_ptr<COverlappedSocket> m_spSocket;

    // What the walk of a pass does with this entry. Ticks wrap at 2^32.
    enum EDue {
        DUE,          // look at the socket's silence
        STOP_WALK,    // no wrap since the last pass and the entry lies ahead: so do all later keys
        NOT_DUE       // the counter wrapped; this entry isn't due yet
    };
    // dwNow: the tick now; dwLastPass: the tick at the start of the previous pass.
    EDue CheckDue(DWORD dwNow, DWORD dwLastPass) const;
    // The socket has been silent for at least dwTimeout (both read as signed).
    static BOOL IsSilent(DWORD dwNow, DWORD dwLastReceive, DWORD dwTimeout);
};

#endif
