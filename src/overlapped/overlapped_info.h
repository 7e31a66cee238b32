// The record of one overlapped socket operation. Its address is the address
// of its OVERLAPPED, so a pointer handed back by the completion port is cast
// straight to COverlappedInfo*. The buffer lives on the module heap.
#ifndef WISOCK_OVERLAPPED_OVERLAPPED_INFO_H
#define WISOCK_OVERLAPPED_OVERLAPPED_INFO_H

#include <winsock2.h>
#include <windows.h>

#include <memory>

#include "mfc/afx.h"

class COverlappedSocket;

struct WISOCK_API COverlappedInfo {
    // Values of m_nOperateType (0: never armed).
    static const int TYPE_RECV = 1;
    static const int TYPE_SEND = 2;
    static const int TYPE_ACCEPT = 8;
    static const int TYPE_CONNECT = 16;
    static const DWORD DEFAULT_BUFFER_SIZE = 4096;

    OVERLAPPED m_Overlapped;
    std::shared_ptr<COverlappedSocket> m_spSocket;
    int m_nOperateType;
    DWORD m_nDataLength;
    DWORD m_nBufferSize;
    BYTE* m_pBuffer;
    WSABUF m_WSABuf;
    DWORD m_dwFlags;
    SOCKET m_hSocket;

    COverlappedInfo();
    ~COverlappedInfo();

    // Each replaces the buffer; 1, or 0 (record unchanged) if allocation failed.
    int ResizeBuffer(int nNewSize, BOOL bKeepData);
    int GrowBuffer(int nGrowBy, BOOL bKeepData);
    int ResetBuffer(BOOL bKeepData);

private:
    COverlappedInfo(const COverlappedInfo&) = delete;
    COverlappedInfo& operator=(const COverlappedInfo&) = delete;
};

#endif
