// The send path: Send copies into 4096-byte records, at most one WSASend is
// outstanding, the rest wait in m_listWaitSend; the worker drains the list
// through SendBufferedData.
#include "overlapped/overlapped_socket.h"

#include <cstring>
#include <new>

#include "factory/overlapped_socket_factory.h"
#include "module/scope_lock.h"

// Caller holds m_csLock. A record from the free vector, or a new one; NULL
// (and *pbNoMemory) if memory ran out.
COverlappedInfo* COverlappedSocket::TakeSendRecord(int* pbNoMemory)
{
    *pbNoMemory = 0;
    if (!m_vecFreeInfo.empty()) {
        COverlappedInfo* pInfo = m_vecFreeInfo.back();
        m_vecFreeInfo.pop_back();
        return pInfo;
    }
    COverlappedInfo* pInfo = new (std::nothrow) COverlappedInfo;
    if (pInfo == NULL || pInfo->m_nBufferSize == 0) {
        delete pInfo;
        *pbNoMemory = 1;
        return NULL;
    }
    ArmRecord(*pInfo, COverlappedInfo::TYPE_SEND);
    return pInfo;
}

// Caller holds m_csLock. Hands the record to WSASend; 1 if accepted (done or
// pending), else 0 with the error left in WSAGetLastError.
int COverlappedSocket::IssueSend(COverlappedInfo* pInfo, int nFlags)
{
    DWORD dwSent = 0;
    OperationIssued();
    if (WSASend(m_hSocket, &pInfo->m_WSABuf, 1, &dwSent, static_cast<DWORD>(nFlags), &pInfo->m_Overlapped, NULL) ==
            0 ||
        WSAGetLastError() == WSA_IO_PENDING) {
        m_bSending = 1;
        return 1;
    }
    int nError = WSAGetLastError();
    OperationNotStarted();   // no completion will come for it
    m_bSending = 0;
    WSASetLastError(nError);
    return 0;
}

int COverlappedSocket::Send(const void* pData, int nLength, int nFlags)
{
    WSASetLastError(0);
    if (nLength == 0)
        return 0;
    if (pData == NULL || nLength < 0) {   // a negative length is refused like a missing buffer
        WSASetLastError(WSA_INVALID_PARAMETER);
        return 0;
    }
    std::shared_ptr<COverlappedSocket> spSelf = shared_from_this();
    CScopeLock lock(m_csLock);
    if (m_hSocket == INVALID_SOCKET) {
        WSASetLastError(WSAENOTSOCK);
        return 0;
    }
    const BYTE* pNext = static_cast<const BYTE*>(pData);
    DWORD nRemaining = static_cast<DWORD>(nLength);
    int nError = 0;

    if (!m_listWaitSend.empty()) {
        COverlappedInfo* pLast = m_listWaitSend.back();
        if (pLast->m_dwFlags == static_cast<DWORD>(nFlags) && pLast->m_nDataLength < pLast->m_nBufferSize) {
            DWORD nCopy = pLast->m_nBufferSize - pLast->m_nDataLength;
            if (nCopy > nRemaining)
                nCopy = nRemaining;
            std::memcpy(pLast->m_pBuffer + pLast->m_nDataLength, pNext, nCopy);
            pLast->m_nDataLength += nCopy;
            pLast->m_WSABuf.len += nCopy;
            pNext += nCopy;
            nRemaining -= nCopy;
        }
    }
    while (nRemaining > 0) {
        int bNoMemory = 0;
        COverlappedInfo* pInfo = TakeSendRecord(&bNoMemory);
        if (pInfo == NULL) {
            nError = WSA_NOT_ENOUGH_MEMORY;
            break;
        }
        DWORD nCopy = pInfo->m_nBufferSize < nRemaining ? pInfo->m_nBufferSize : nRemaining;
        std::memcpy(pInfo->m_pBuffer, pNext, nCopy);
        pInfo->m_nDataLength = nCopy;
        pInfo->m_WSABuf.buf = reinterpret_cast<char*>(pInfo->m_pBuffer);
        pInfo->m_WSABuf.len = nCopy;
        pInfo->m_dwFlags = static_cast<DWORD>(nFlags);
        if (m_bSending || !m_listWaitSend.empty()) {
            m_listWaitSend.push_back(pInfo);
        } else if (!IssueSend(pInfo, nFlags)) {
            nError = WSAGetLastError();   // the bytes still count as taken over
            m_listWaitSend.push_back(pInfo);
        }
        pNext += nCopy;
        nRemaining -= nCopy;
    }
    lock.Unlock();
    WSASetLastError(nError);
    return nLength - static_cast<int>(nRemaining);
}

int COverlappedSocket::SendBufferedData()
{
    WSASetLastError(0);
    CScopeLock lock(m_csLock);
    if (m_bSending || m_listWaitSend.empty())
        return 0;
    COverlappedInfo* pInfo = m_listWaitSend.front();
    if (!IssueSend(pInfo, static_cast<int>(pInfo->m_dwFlags)))
        return 0;   // stays first in the list; the error stays set
    m_listWaitSend.pop_front();
    return static_cast<int>(pInfo->m_nDataLength);
}

void CALLBACK COverlappedSocket::SendBufferedDataAPCProc(ULONG_PTR dwParam)
{
    std::shared_ptr<COverlappedSocket>* pHeld = reinterpret_cast<std::shared_ptr<COverlappedSocket>*>(dwParam);
    std::shared_ptr<COverlappedSocket> spSocket;
    if (pHeld != NULL)
        spSocket = *pHeld;
    if (spSocket && !spSocket->IsClose())
        spSocket->SendBufferedData();
    delete pHeld;
    spSocket.reset();
}
