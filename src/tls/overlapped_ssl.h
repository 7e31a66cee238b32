// COverlappedSSL: the TLS socket of a completion-port factory of kind 1.
//
// TCP set-up (Bind, Connect, Listen, the accept pool) is that of
// COverlappedSocket. After the accept or connect completes, a worker runs the
// TLS handshake; from then on the TLS library does all socket reads and
// writes. Incoming data is announced by FD_READ on one WSAEventSelect event,
// watched by a one-shot registered wait that is re-armed from a work item;
// outgoing data is queued by Send and flushed on a worker, or on FD_WRITE
// after a would-block. What Send queues from inside the socket's own
// OnReceive goes out on that thread as soon as OnReceive returns.
#ifndef WISOCK_TLS_OVERLAPPED_SSL_H
#define WISOCK_TLS_OVERLAPPED_SSL_H

#include <memory>

#include "overlapped/overlapped_socket.h"
#include "tls/tls_library.h"

class COverlappedSocketFactory;

class WISOCK_API COverlappedSSL : public COverlappedSocket {
    DECLARE_DYNAMIC(COverlappedSSL)

    friend class COverlappedSocketFactory;

protected:
    COverlappedSSL();

public:
    virtual ~COverlappedSSL();

    virtual void Close();
    virtual int Send(const void* pData, int nLength, int nFlags);

protected:
    virtual int PrepareRecv();
    virtual int SendBufferedData();

    int SendData(COverlappedInfo* pInfo);

    // Network events, dispatched by WaitNetworkCallback in this order.
    void OnReceive(int nErrorCode);
    void OnSend(int nErrorCode);
    void OnClose(int nErrorCode);

    void WaitForNetworkEvent();
    static DWORD WINAPI WaitForNetworkEventThread(void* pContext);
    static void CALLBACK WaitNetworkCallback(void* pContext, BOOLEAN bTimedOut);
    static DWORD WINAPI CloseNetworkWaitObjectThread(void* pContext);

    static DWORD WINAPI WorkThread(void* pParam);

    HSSL m_hSSL;
    int m_nReadFailCount;
    WSAEVENT m_hNetworkEvent;
    HANDLE m_hNetworkWaitObject;
    BOOL m_bReceiving;
    // Wake-up record that Send posts to the port. It carries no payload: its
    // m_nDataLength counts the wake-ups standing in the port, and its
    // m_spSocket is kept until the last of them has been taken (the record
    // lives inside this object).
    COverlappedInfo m_SendPostInfo;
    int m_nReadEventCount;

private:
    std::shared_ptr<COverlappedSSL> SharedSSL();
    // Send path (caller holds m_csLock).
    void AppendToLastRecord(const BYTE*& pData, DWORD& nRemaining, int nFlags);
    COverlappedInfo* TakeFreeSendRecord();
    void PostSendWakeUp();
    // Worker: takes one wake-up off the count; false if the socket is closed.
    bool TakeSendWakeUp();
    // Receive path (caller holds m_csLock).
    bool ReadPass(int& nError);
    bool HasMoreToRead();
    bool IsDeliveringHere() const;
    void Deliver(const std::shared_ptr<ISocketNotifyObject>& spNotify, const std::shared_ptr<COverlappedSocket>& spSelf);
    // Worker.
    void OnPortCompletion(COverlappedInfo* pInfo);
    bool OnPortFailure(COverlappedInfo* pInfo, int nErrorCode, int nWSAGetLastError, CString& strTrace);
    void StartHandshake(COverlappedInfo* pInfo);
    static DWORD WINAPI HandshakeJob(void* pContext);
    void RunHandshake(COverlappedInfo* pInfo);
    bool EnterConnectedMap();
    // Close.
    void QueueNetworkWaitClose();
    void EndConnection(SOCKET hSocket, const std::shared_ptr<COverlappedSocket>& spListenSocket);
    // Set by the peer's close (FD_CLOSE) for the OnClose that Close reports.
    int m_nPeerCloseError = 0;
    // Records that Send queued from inside this socket's OnReceive, on the
    // delivering thread: that thread flushes them when OnReceive returns.
    BOOL m_bFlushAfterDelivery = FALSE;
};

#endif
