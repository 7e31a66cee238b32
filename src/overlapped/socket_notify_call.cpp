#include "overlapped/socket_notify_call.h"

#include "module/notify_guard.h"

void CSocketNotifyCall::OnConnect(const SocketNotifyPtr& spNotify, int nErrorCode, const SocketPtr& spSocket)
{
    if (spNotify)
        InvokeGuarded([&] { spNotify->OnConnect(nErrorCode, spSocket); });
}

void CSocketNotifyCall::OnClose(const SocketNotifyPtr& spNotify, int nErrorCode, const SocketPtr& spSocket)
{
    if (spNotify)
        InvokeGuarded([&] { spNotify->OnClose(nErrorCode, spSocket); });
}

void CSocketNotifyCall::OnReceive(const SocketNotifyPtr& spNotify, int nErrorCode, const void* pData, int nLength,
                                  const SocketPtr& spSocket)
{
    if (spNotify)
        InvokeGuarded([&] { spNotify->OnReceive(nErrorCode, pData, nLength, spSocket); });
}

void CSocketNotifyCall::OnSend(const SocketNotifyPtr& spNotify, int nErrorCode, int nLength, const SocketPtr& spSocket)
{
    if (spNotify)
        InvokeGuarded([&] { spNotify->OnSend(nErrorCode, nLength, spSocket); });
}

DWORD CSocketNotifyCall::OnReceiveTimeout(const SocketNotifyPtr& spNotify, const SocketPtr& spSocket)
{
    DWORD dwNext = 0;
    if (spNotify && !InvokeGuarded([&] { dwNext = spNotify->OnReceiveTimeout(spSocket); }))
        dwNext = 0;   // a call that threw counts as having returned 0
    return dwNext;
}

void CSocketNotifyCall::OnDelete(const SocketNotifyPtr& spNotify, COverlappedSocket* pSocket)
{
    if (spNotify)
        InvokeGuarded([&] { spNotify->OnDelete(pSocket); });
}
