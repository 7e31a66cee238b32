// The TLS send path: Send queues records and wakes a worker through the port
// (or, inside the socket's own OnReceive, leaves them to the delivering
// thread); the flush hands one record at a time to OPENSSL_write under the
// socket lock, and after a would-block waits for FD_WRITE.
#include <cstring>
#include <new>

#include "factory/overlapped_socket_factory.h"
#include "module/debug_trace.h"
#include "module/scope_lock.h"
#include "overlapped/socket_notify_call.h"
#include "tls/overlapped_ssl.h"

int COverlappedSSL::Send(const void* pData, int nLength, int nFlags)
{
    WSASetLastError(0);
    if (nLength == 0)
        return 0;
    if (pData == NULL || nLength < 0) {
        WSASetLastError(WSA_INVALID_PARAMETER);
        return 0;
    }
    std::shared_ptr<COverlappedSSL> spSelf = SharedSSL();
    CScopeLock lock(m_csLock);
    if (m_hSocket == INVALID_SOCKET || m_bClosed) {
        WSASetLastError(WSAENOTSOCK);
        return 0;
    }
    const BYTE* pNext = static_cast<const BYTE*>(pData);
    DWORD nRemaining = static_cast<DWORD>(nLength);
    AppendToLastRecord(pNext, nRemaining, nFlags);
    int nError = 0;
    while (nRemaining > 0) {
        COverlappedInfo* pInfo = TakeFreeSendRecord();
        if (pInfo == NULL) {
            nError = WSA_NOT_ENOUGH_MEMORY;
            break;
        }
        DWORD nCopy = nRemaining < pInfo->m_nBufferSize ? nRemaining : pInfo->m_nBufferSize;
        std::memcpy(pInfo->m_pBuffer, pNext, nCopy);
        pInfo->m_nDataLength = nCopy;
        pInfo->m_WSABuf.buf = reinterpret_cast<CHAR*>(pInfo->m_pBuffer);
        pInfo->m_WSABuf.len = nCopy;
        pInfo->m_dwFlags = static_cast<DWORD>(nFlags);
        m_listWaitSend.push_back(pInfo);
        pNext += nCopy;
        nRemaining -= nCopy;
    }
    if (!m_listWaitSend.empty()) {
        // Inside this socket's OnReceive the delivering thread flushes when
        // the notification returns, which spares a hand-off to a worker.
        if (IsDeliveringHere())
            m_bFlushAfterDelivery = TRUE;
        else
            PostSendWakeUp();
    }
    WSASetLastError(nError);
    return nLength - static_cast<int>(nRemaining);
}

void COverlappedSSL::AppendToLastRecord(const BYTE*& pData, DWORD& nRemaining, int nFlags)
{
    if (m_listWaitSend.empty())
        return;
    COverlappedInfo* pLast = m_listWaitSend.back();
    if (pLast->m_dwFlags != static_cast<DWORD>(nFlags) || pLast->m_nDataLength >= pLast->m_nBufferSize)
        return;
    DWORD nRoom = pLast->m_nBufferSize - pLast->m_nDataLength;
    DWORD nCopy = nRemaining < nRoom ? nRemaining : nRoom;
    std::memcpy(pLast->m_pBuffer + pLast->m_nDataLength, pData, nCopy);
    pLast->m_nDataLength += nCopy;
    pLast->m_WSABuf.len += nCopy;
    pData += nCopy;
    nRemaining -= nCopy;
}

COverlappedInfo* COverlappedSSL::TakeFreeSendRecord()
{
    if (!m_vecFreeInfo.empty()) {
        COverlappedInfo* pInfo = m_vecFreeInfo.back();
        m_vecFreeInfo.pop_back();
        return pInfo;
    }
    COverlappedInfo* pInfo = new (std::nothrow) COverlappedInfo;
    if (pInfo == NULL)
        return NULL;
    if (pInfo->m_nBufferSize == 0) {
        delete pInfo;
        return NULL;
    }
    pInfo->m_nOperateType = COverlappedInfo::TYPE_SEND;
    pInfo->m_spSocket = shared_from_this();
    pInfo->m_hSocket = m_hSocket;
    return pInfo;
}

// Caller holds m_csLock. The record lives inside this object, so its socket
// reference stays set while any wake-up stands in the port; m_nDataLength of
// the record counts them, and the worker drops the reference with the last.
void COverlappedSSL::PostSendWakeUp()
{
    if (!m_SendPostInfo.m_spSocket)
        m_SendPostInfo.m_spSocket = shared_from_this();
    m_SendPostInfo.m_hSocket = m_hSocket;
    ++m_SendPostInfo.m_nDataLength;
    m_spFactory->OperationIssued();
    if (!PostQueuedCompletionStatus(m_spFactory->m_hCompletionPort, 0, static_cast<ULONG_PTR>(m_hSocket),
                                    &m_SendPostInfo.m_Overlapped)) {
        --m_SendPostInfo.m_nDataLength;
        m_spFactory->OperationCompleted();
    }
}

bool COverlappedSSL::TakeSendWakeUp()
{
    std::shared_ptr<COverlappedSocket> spReleased;
    CScopeLock lock(m_csLock);
    if (m_SendPostInfo.m_nDataLength > 0)
        --m_SendPostInfo.m_nDataLength;
    if (!m_bClosed)
        return true;
    if (m_SendPostInfo.m_nDataLength == 0) {
        spReleased.swap(m_SendPostInfo.m_spSocket);   // dropped after the lock
        m_SendPostInfo.m_hSocket = INVALID_SOCKET;
    }
    lock.Unlock();
    return false;
}

int COverlappedSSL::SendBufferedData()
{
    WSASetLastError(0);
    CScopeLock lock(m_csLock);
    if (m_bSending || m_bClosed)
        return 0;
    int nTotal = 0;
    int nError = 0;
    while (!m_listWaitSend.empty() && !m_bClosed) {
        COverlappedInfo* pInfo = m_listWaitSend.front();
        m_listWaitSend.pop_front();
        int nWritten = SendData(pInfo);
        nError = WSAGetLastError();
        if (nWritten < 1 || nError != 0)
            break;
        nTotal += nWritten;
    }
    WSASetLastError(nError);
    return nTotal;
}

int COverlappedSSL::SendData(COverlappedInfo* pInfo)
{
    CScopeLock lock(m_csLock);
    if (m_bClosed) {
        delete pInfo;
        return 0;
    }
    if (m_hSSL == 0) {
        // The handshake hasn't ended: the record stays first in the queue and
        // goes out after it; the library never sees a handle of 0.
        m_listWaitSend.push_front(pInfo);
        WSASetLastError(WSAENOTCONN);
        return 0;
    }
    std::shared_ptr<ISocketNotifyObject> spNotify = m_spNotifyObject;
    int nResult = OPENSSL_write(m_hSSL, pInfo->m_pBuffer, static_cast<int>(pInfo->m_nDataLength));
    int nError = WSAGetLastError();
    if (nResult > 0) {
        m_bSending = 0;
        if (static_cast<DWORD>(nResult) < pInfo->m_nDataLength) {
            pInfo->m_nDataLength -= nResult;
            std::memmove(pInfo->m_pBuffer, pInfo->m_pBuffer + nResult, pInfo->m_nDataLength);
            m_listWaitSend.push_front(pInfo);
        } else {
            m_vecFreeInfo.push_back(pInfo);
        }
        lock.Unlock();   // only this level: the flush keeps the socket lock
        if (m_bNotifySend)
            CSocketNotifyCall::OnSend(spNotify, 0, nResult, shared_from_this());
    } else {
        m_bSending = nError == WSAEWOULDBLOCK ? 1 : 0;
        m_listWaitSend.push_front(pInfo);
        lock.Unlock();
        WiTrace(L"OPENSSL_write return %d, Error = %d, spSocket = %p\n", nResult, nError, this);
    }
    WSASetLastError(nError);
    return nResult > 0 ? nResult : 0;
}

void COverlappedSSL::OnSend(int nErrorCode)
{
    CScopeLock lock(m_csLock);
    if (m_bClosed)
        return;
    if (nErrorCode == 0 || nErrorCode == WSAEWOULDBLOCK || nErrorCode == ERROR_IO_PENDING) {
        m_bSending = 0;
        SendBufferedData();
        return;
    }
    lock.Unlock();
    WiTrace(L"COverlappedSSL::OnSend (Error = %d ), spSocket = %p\n", nErrorCode, this);
    Close();
}
