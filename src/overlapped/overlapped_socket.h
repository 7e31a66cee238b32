// COverlappedSocket: one TCP/IPv4 socket of the completion-port stack.
// Objects come only from COverlappedSocketFactory and live behind shared_ptr.
#ifndef WISOCK_OVERLAPPED_OVERLAPPED_SOCKET_H
#define WISOCK_OVERLAPPED_OVERLAPPED_SOCKET_H

#include <winsock2.h>
#include <windows.h>
#include <oleauto.h>   // DATE, also where WIN32_LEAN_AND_MEAN leaves it out

#include <list>
#include <memory>
#include <set>
#include <vector>

#include "mfc/afx.h"
#include "overlapped/overlapped_info.h"
#include "overlapped/socket_notify.h"

class COverlappedSocketFactory;
class COverlappedSSL;

class WISOCK_API COverlappedSocket : public CObject, public std::enable_shared_from_this<COverlappedSocket> {
    DECLARE_DYNAMIC(COverlappedSocket)
    friend class COverlappedSocketFactory;
    friend class COverlappedSSL;   // its Close leaves the listen socket's accept set

public:
    virtual ~COverlappedSocket();

    // ---- virtual operations, in table order after CObject's -------------
    // Ends the socket; any thread, any number of times.
    virtual void Close();
    // Takes the bytes over (queues them); returns the count taken, 0 on failure.
    virtual int Send(const void* pData, int nLength, int nFlags = 0);

protected:
    // Arms one receive on m_RecvInfo. 1 if under way or done, 0 if WSARecv failed.
    virtual int PrepareRecv();
    // Starts the WSASend of the first waiting record; returns its byte count, or 0.
    virtual int SendBufferedData();

public:
    // ---- names, options, state ------------------------------------------
    SOCKET GetSocketHandle();
    void SetMaxSendPacketSize(DWORD nSize);
    DWORD GetMaxSendPacketSize();
    DWORD GetReceiveTimeout();
    void SetReceiveTimeout(DWORD nTimeout);
    int IOCtl(long nCommand, unsigned long* pArgument);
    int SetSockOpt(int nOptionName, const void* pValue, int nLength, int nLevel = SOL_SOCKET);
    int GetSockOpt(int nOptionName, void* pValue, int* pLength, int nLevel = SOL_SOCKET);
    int ShutDown(int nHow = SD_SEND);
    static int GetLastError();
    int IsClose();
    int IsConnected();
    int IsListenSocket();
    std::shared_ptr<COverlappedSocket> GetListenSocket();
    std::shared_ptr<COverlappedSocketFactory> GetFactory();
    void SetNotifyObject(std::shared_ptr<ISocketNotifyObject> spNotifyObject, int bNotifySend = 1);
    std::shared_ptr<ISocketNotifyObject> GetNotifyObject();
    size_t GetWaitSendListPackSize();
    size_t GetWaitSendListBufferSize();
    int GetPeerName(sockaddr* pAddress, int* pLength);
    int GetSockName(sockaddr* pAddress, int* pLength);
    int GetPeerName(CString& strAddress, unsigned int& nPort);
    int GetSockName(CString& strAddress, unsigned int& nPort);

    // ---- connect, bind, listen --------------------------------------------
    int Bind(const sockaddr* pAddress, int nLength);
    int Bind(unsigned int nPort, const wchar_t* pszAddress = NULL);
    int Connect(const sockaddr* pAddress, int nLength);
    int Connect(const wchar_t* pszHost, unsigned int nPort);
    int Listen(int nBacklog = 5);

    // Closes the established connections that were accepted on this socket.
    void CloseAllAcceptedSocket();

protected:
    COverlappedSocket();

    void Lock();
    void Unlock();

    // Closes the accept sockets whose AcceptEx is still outstanding.
    void CloseAcceptSocket();
    // 1: a TCP listener on nPort (host order) exists, 0: none, -1: look-up failed.
    static int FindTcpPortOwner(int nPort, DWORD* pdwProcessId);
    static void CALLBACK SendBufferedDataAPCProc(ULONG_PTR dwParam);
    // Thread routine of the workers of a plain factory; the argument is the factory.
    static DWORD WINAPI WorkThread(void* pParam);

    // ---- shared mechanics (also used by the TLS socket) -------------------
    // Arms a member record for an operation of nType: takes the socket reference.
    void ArmRecord(COverlappedInfo& info, int nType);
    // Caller holds m_csLock. Gives up the record's socket reference by kind
    // (1: m_RecvInfo, 2: destroys the send record, 8/16: m_ConnectInfo) and
    // hands it back, so that the caller drops it after leaving every lock.
    std::shared_ptr<COverlappedSocket> ReleaseRecord(COverlappedInfo* pInfo);
    // Caller holds m_csLock. The first caller (worker or Close) that finds the
    // socket neither closed nor claimed gets 1 and owns the one OnClose.
    int ClaimCloseReport();
    // Caller holds m_csLock. Counts an overlapped operation handed to the
    // system on this socket (and on the factory); OperationNotStarted undoes
    // it for a call that failed at once.
    void OperationIssued();
    void OperationNotStarted();
    // A worker took the completion of one of this socket's operations: the
    // last one of a closed socket gives its handle back to the system.
    void CompletionTaken();
    // Caller holds m_csLock, from Close. Cancels what is outstanding and
    // closes the handle, at once if nothing is pending, else when the last
    // completion has been taken (CompletionTaken).
    void CloseHandleWhenIdle(SOCKET hSocket, SOCKET hListenSocket);
    // Erases the socket from the factory's socket maps (from Close).
    void LeaveFactoryMaps(SOCKET hSocket);
    // The factory a worker routine was started for, or empty if it is gone
    // or has no port (shared by the plain and the TLS worker).
    static std::shared_ptr<COverlappedSocketFactory> FactoryOfWorker(void* pParam);
    // Calls OnDelete once and frees the send records (both destructors).
    void ReportDeleteAndFreeRecords();
    // Whether a failed completion of an operation of nOperateType ends the
    // connection (the plain and the TLS worker share this rule).
    static bool FailureEndsConnection(int nErrorCode, int nOperateType);
    // Starts the accept that replaces a completed one on the listen socket.
    static void ReplaceAccept(const std::shared_ptr<COverlappedSocket>& spAcceptSocket);

    // ---- fields, in this order ---------------------------------------------
    SOCKET m_hSocket;
    std::shared_ptr<COverlappedSocketFactory> m_spFactory;
    std::shared_ptr<ISocketNotifyObject> m_spNotifyObject;
    std::shared_ptr<COverlappedSocket> m_spListenSocket;
    std::set<std::shared_ptr<COverlappedSocket>> m_setAcceptSockets;
    COverlappedInfo m_RecvInfo;
    COverlappedInfo m_ConnectInfo;
    DATE m_dtCreateTime;
    DATE m_dtConnectTime;
    volatile int m_bClosed;
    volatile DWORD m_dwLastReceiveTick;
    volatile DWORD m_nReceiveTimeout;
    CRITICAL_SECTION m_csLock;
    DWORD m_nMaxSendPacketSize;
    BYTE m_byAddressArea[1024];
    std::list<COverlappedInfo*> m_listWaitSend;
    std::vector<COverlappedInfo*> m_vecFreeInfo;
    int m_bSending;
    int m_nBacklog;
    volatile int m_bNotifySend;
    // Set under m_csLock by whoever reports OnClose (see ClaimCloseReport).
    int m_bCloseClaimed;
    // Overlapped operations of this socket whose completion no worker has
    // taken yet, and the handle that Close left for the last of them to close.
    int m_nOperationsPending;
    SOCKET m_hHandleToClose;
    // Set under the listen socket's lock once a worker has taken this
    // socket's accept completion: it no longer belongs in the accept set.
    int m_bAcceptTaken;

    // What a worker took from the port: a completion that succeeded or failed,
    // the quit packet (0 bytes, key 0, no record), another packet without
    // record, a port that is gone, or a failed dequeue without record.
    // The plain and the TLS worker share this one classification.
    enum EDequeued {
        DEQUEUED_SUCCESS,
        DEQUEUED_FAILURE,
        DEQUEUED_QUIT,
        DEQUEUED_STRAY,
        DEQUEUED_PORT_GONE,
        DEQUEUED_NOTHING
    };
    struct CDequeued {
        DWORD dwBytes;
        int nErrorCode;
        int nWSAGetLastError;
        COverlappedInfo* pInfo;
    };
    static EDequeued DequeueCompletion(HANDLE hPort, CDequeued& d);
    static std::shared_ptr<COverlappedSocket> TakeRecordSocket(COverlappedInfo* pInfo);

private:
    // Completion handling of the plain worker, one function per kind.
    void OnCompletion(COverlappedInfo* pInfo, DWORD dwBytes, CString& strTrace);
    void OnFailedCompletion(COverlappedInfo* pInfo, DWORD dwBytes, int nErrorCode, CString& strTrace);
    void OnClosingCompletion(COverlappedInfo* pInfo, CString& strTrace);
    void OnRecvCompleted(COverlappedInfo* pInfo, DWORD dwBytes, CString& strTrace);
    void OnSendCompleted(COverlappedInfo* pInfo, DWORD dwBytes, CString& strTrace);
    void OnConnectCompleted(COverlappedInfo* pInfo, CString& strTrace);
    int ArmNextRecv(int nOperateType, CString& strTrace);
    void EndAfterFailure(COverlappedInfo* pInfo, int nErrorCode);
    // Caller holds m_csLock. On a closed socket, moves the record's reference
    // into spReleased (dropped by the caller after its lock) and returns true.
    bool ReleaseIfClosed(COverlappedInfo* pInfo, std::shared_ptr<COverlappedSocket>& spReleased);
    int IssueSend(COverlappedInfo* pInfo, int nFlags);
    int ConnectRefusal();
    int TakeFamilyOf(const sockaddr* pAddress);
    void RekeyOpenSocket(SOCKET hOld, SOCKET hNew);
    COverlappedInfo* TakeSendRecord(int* pbNoMemory);
    void DestroySendRecords();
    int StoredPeerName(sockaddr* pAddress, int* pLength);
    int AcceptExName(sockaddr* pAddress, int* pLength, bool bRemote);

    COverlappedSocket(const COverlappedSocket&) = delete;
    COverlappedSocket& operator=(const COverlappedSocket&) = delete;
};

#endif
