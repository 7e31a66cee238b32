#include "overlapped/overlapped_info.h"

#include <cstring>

#include "module/module.h"

namespace {

BYTE* AllocateBuffer(DWORD nSize)
{
    if (g_hModuleHeap == NULL)
        return NULL;
    return static_cast<BYTE*>(HeapAlloc(g_hModuleHeap, 0, nSize));
}

int ReplaceBuffer(COverlappedInfo& info, DWORD nNewSize, BOOL bKeepData)
{
    BYTE* pNew = AllocateBuffer(nNewSize);
    if (pNew == NULL)
        return 0;
    if (bKeepData) {
        DWORD nKeep = nNewSize < info.m_nDataLength ? nNewSize : info.m_nDataLength;
        if (nKeep > 0)
            std::memcpy(pNew, info.m_pBuffer, nKeep);
        info.m_nDataLength = nKeep;
    } else {
        info.m_nDataLength = 0;
    }
    info.m_nBufferSize = nNewSize;
    if (info.m_pBuffer != NULL)
        HeapFree(g_hModuleHeap, 0, info.m_pBuffer);
    info.m_pBuffer = pNew;
    info.m_WSABuf.len = nNewSize;
    info.m_WSABuf.buf = reinterpret_cast<char*>(pNew);
    return 1;
}

}  // namespace

COverlappedInfo::COverlappedInfo()
    : m_nOperateType(0), m_nDataLength(0), m_nBufferSize(0), m_pBuffer(NULL), m_dwFlags(0),
      m_hSocket(INVALID_SOCKET)
{
    std::memset(&m_Overlapped, 0, sizeof(m_Overlapped));
    m_pBuffer = AllocateBuffer(DEFAULT_BUFFER_SIZE);
    m_nBufferSize = m_pBuffer != NULL ? DEFAULT_BUFFER_SIZE : 0;
    m_WSABuf.buf = reinterpret_cast<char*>(m_pBuffer);
    m_WSABuf.len = m_nBufferSize;
}

COverlappedInfo::~COverlappedInfo()
{
    if (m_pBuffer != NULL)
        HeapFree(g_hModuleHeap, 0, m_pBuffer);
    m_pBuffer = NULL;
    m_spSocket.reset();
}

int COverlappedInfo::ResizeBuffer(int nNewSize, BOOL bKeepData)
{
    if (nNewSize < 0)
        return 0;
    return ReplaceBuffer(*this, static_cast<DWORD>(nNewSize), bKeepData);
}

int COverlappedInfo::GrowBuffer(int nGrowBy, BOOL bKeepData)
{
    if (nGrowBy < 1)
        return 0;
    return ReplaceBuffer(*this, m_nBufferSize + static_cast<DWORD>(nGrowBy), bKeepData);
}

int COverlappedInfo::ResetBuffer(BOOL bKeepData)
{
    return ReplaceBuffer(*this, DEFAULT_BUFFER_SIZE, bKeepData);
}
