// CWiTcp write path: Write queues copies of the caller's bytes in blocks and
// asks for FD_WRITE; OnWiWrite sends them on the window thread.
#include "wicomm/wi_tcp.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "module/scope_lock.h"

namespace {

const int kBlockSize = 4096;

SendBlock MakeBlock(int bFirstBlock, const char* pData, int nLength, int nCapacity)
{
    SendBlock block = {bFirstBlock, new char[nCapacity], nLength, nCapacity};
    if (nLength > 0)
        memcpy(block.pData, pData, nLength);
    return block;
}

}  // namespace

int CWiTcp::Write(const void* pData, unsigned long nLength)
{
    if (pData == nullptr || nLength == 0) {
        AsyncSelect();
        return 1;
    }
    // The block arithmetic is in int: a larger write can't be queued.
    if (nLength > (unsigned long)INT_MAX)
        return 0;
    CScopeLock lock(m_csComm);
    if (m_nType != TYPE_CONNECT)
        return 0;
    if (!m_bConnected) {
        SelectEvents(kMaskIdle);
        return 0;
    }
    if (m_nMaxSendBufferSize != 0 && m_nMaxSendBufferSize < m_nSendBufferSize) {
        if (m_nWriteOverFlowProcess == 0) {
            lock.Unlock();
            AsyncSelect();
            return 0;
        }
        if (m_nWriteOverFlowProcess == 1)
            ClearSendBuffer();
    }
    QueueBlocks((const char*)pData, (int)nLength);
    m_nSendBufferSize += nLength;
    lock.Unlock();
    AsyncSelect();
    return 1;
}

// Appends to the last block if it began a write and has room, then adds
// blocks for the rest (4096 each on TLS or when unpacking, else one exact one).
void CWiTcp::QueueBlocks(const char* pData, int nLength)
{
    int bFirstBlock = 1;
    if (!m_listSendBuffer.empty() && m_listSendBuffer.back().bFirstBlock) {
        SendBlock& last = m_listSendBuffer.back();
        int nCopy = std::min(nLength, last.nCapacity - last.nLength);
        if (nCopy > 0) {
            memcpy(last.pData + last.nLength, pData, nCopy);
            last.nLength += nCopy;
            pData += nCopy;
            nLength -= nCopy;
            bFirstBlock = 0;
        }
    }
    if (IsTls() || m_bUnpackingWhenWrite) {
        while (nLength > 0) {
            int nChunk = std::min(nLength, kBlockSize);
            m_listSendBuffer.push_back(MakeBlock(bFirstBlock, pData, nChunk, kBlockSize));
            pData += nChunk;
            nLength -= nChunk;
            bFirstBlock = 0;
        }
        return;
    }
    m_listSendBuffer.push_back(MakeBlock(bFirstBlock, pData, nLength, nLength));
}

void CWiTcp::OnWiWrite(int)
{
    CScopeLock lock(m_csComm);
    if (m_nType != TYPE_CONNECT || m_listSendBuffer.empty()) {
        SelectEvents(kMaskIdle);
        return;
    }
    SendBlock block = m_listSendBuffer.front();
    m_listSendBuffer.pop_front();
    lock.Unlock();
    if (SendQueue(block))
        AsyncSelect();
}

// Offers blocks until the queue is empty or the socket refuses. False when
// the object died in OnWriteComplete, or its connection was released by a
// Cleanup on another thread: nothing more is offered.
bool CWiTcp::SendQueue(SendBlock block)
{
    const bool bTls = IsTls();
    for (;;) {
        int nSent;
        {
            // Each offer runs under the lock with the handles as they are now:
            // a Cleanup on another thread may have ended the connection since
            // the block was taken, and must not shut the TLS handle down
            // under a write.
            CScopeLock lock(m_csComm);
            if (bTls ? m_hSSL == 0 : m_hSocket == INVALID_SOCKET) {
                delete[] block.pData;
                return false;
            }
            nSent = bTls ? OPENSSL_write(m_hSSL, block.pData, block.nLength)
                         : send(m_hSocket, block.pData, block.nLength, 0);
            if (nSent < 0) {
                // Refused (would-block or failure): the same bytes are offered again.
                m_listSendBuffer.push_front(block);
                return true;
            }
        }
        int nTaken = std::min(nSent, block.nLength);
        // The queue is right before the application hears of the send: a
        // message loop inside OnWriteComplete may run another OnWiWrite, which
        // must find the unsent rest first.
        if (nTaken < block.nLength) {
            RequeueRest(block, nTaken);
        } else {
            delete[] block.pData;
            SubtractSent(block.nLength);
        }
        if (!ReportBlockSent(nTaken))
            return false;
        // A partial send must not end the run: FD_WRITE comes again only
        // after a send has failed with WSAEWOULDBLOCK, so the rest is offered
        // at once until the socket refuses. Nothing taken and nothing refused
        // means no progress: the rest waits at the front.
        if (nTaken == 0)
            return true;
        if (!TakeFirstBlock(block))
            return true;
    }
}

// The first queued block, out of the queue; false when the queue is empty.
// A block that went back after a partial send is taken again from here, so a
// ClearSendBuffer in between decides about it as about any queued block.
bool CWiTcp::TakeFirstBlock(SendBlock& block)
{
    CScopeLock lock(m_csComm);
    if (m_listSendBuffer.empty())
        return false;
    block = m_listSendBuffer.front();
    m_listSendBuffer.pop_front();
    return true;
}

// OnWriteComplete; an exception out of it passes on, with the selection armed.
int CWiTcp::ReportBlockSent(int nSent)
{
    try {
        return CallWriteCompleteNotify(nSent, shared_from_this());
    } catch (...) {
        AsyncSelect();
        throw;
    }
}

// The unsent rest moves to the start of the block, which goes back to the front.
void CWiTcp::RequeueRest(SendBlock& block, int nSent)
{
    memmove(block.pData, block.pData + nSent, block.nLength - nSent);
    block.nLength -= nSent;
    CScopeLock lock(m_csComm);
    m_listSendBuffer.push_front(block);
    SubtractSent(nSent);
}

// ClearSendBuffer may have recounted the queue while a block was in flight:
// the count never goes below zero.
void CWiTcp::SubtractSent(int nSent)
{
    CScopeLock lock(m_csComm);
    size_t nBytes = (size_t)nSent;
    m_nSendBufferSize = nBytes < m_nSendBufferSize ? m_nSendBufferSize - nBytes : 0;
}
