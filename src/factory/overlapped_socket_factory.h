// COverlappedSocketFactory: the root of the completion-port stack. Owns the
// port, the worker threads, the receive time-out thread, the socket maps and
// their lock, and makes every socket of the stack.
#ifndef WISOCK_FACTORY_OVERLAPPED_SOCKET_FACTORY_H
#define WISOCK_FACTORY_OVERLAPPED_SOCKET_FACTORY_H

#include <winsock2.h>
#include <windows.h>
#include <mswsock.h>

#include <list>
#include <map>
#include <memory>
#include <vector>

#include "factory/recv_timer_request.h"
#include "mfc/afx.h"
#include "overlapped/overlapped_socket.h"
#include "overlapped/socket_notify.h"

class COverlappedSSL;
class CScopeLock;

class WISOCK_API COverlappedSocketFactory : public CObject,
                                            public std::enable_shared_from_this<COverlappedSocketFactory> {
    DECLARE_DYNAMIC(COverlappedSocketFactory)
    friend class COverlappedSocket;
    friend class COverlappedSSL;

public:
    typedef std::map<SOCKET, std::shared_ptr<COverlappedSocket>> SocketMap;

    static const int KIND_PLAIN = 0;
    static const int KIND_SSL = 1;

    virtual ~COverlappedSocketFactory();

    // nKind 0: plain sockets, 1: TLS sockets. nThreads <= 0: twice the processors.
    static std::shared_ptr<COverlappedSocketFactory> CreateObject(int nKind, int nThreads);
    // Closes every socket, ends every thread and gives back the port.
    void Destory();
    void CloseAllSocket();
    void Lock();
    void Unlock();

    // A bound socket (then Listen or Connect on it). Empty on failure.
    std::shared_ptr<COverlappedSocket> CreateSocket(std::shared_ptr<ISocketNotifyObject> spNotifyObject,
                                                    unsigned int nPort, const wchar_t* pszAddress);
    // An accepting socket on spListenSocket. Empty on failure.
    std::shared_ptr<COverlappedSocket> CreateSocket(std::shared_ptr<ISocketNotifyObject> spNotifyObject,
                                                    std::shared_ptr<COverlappedSocket> spListenSocket);
    // nCount accepting sockets (0: the listen socket's backlog); failures are empty elements.
    std::vector<std::shared_ptr<COverlappedSocket>> CreateSocket(std::shared_ptr<ISocketNotifyObject> spNotifyObject,
                                                                 std::shared_ptr<COverlappedSocket> spListenSocket,
                                                                 int nCount);

    void AddTimerRequest(DWORD dwTimeout, std::shared_ptr<COverlappedSocket> spSocket);

    int GetSocketKind() const { return m_nSocketKind; }
    int GetWorkThreadCount() const { return m_nWorkThreadCount; }
    // Workers for a request of nThreads on nProcessors processors.
    static int WorkThreadCountFor(int nThreads, int nProcessors);

protected:
    // The bare object of the factory's kind: no handle, in no map.
    std::shared_ptr<COverlappedSocket> CreateSocket();
    DWORD QueueUserAPCToRecvTimeoutThread(PAPCFUNC pfnProc, ULONG_PTR dwData);
    static DWORD WINAPI RecvTimeoutThread(void* pParam);

    // Every operation handed to the port (AcceptEx, ConnectEx, WSARecv,
    // WSASend, own posts with a record) is counted when issued and uncounted
    // when a worker has taken its completion, so that Destory lets the
    // workers finish the completions of the sockets it closed before it ends
    // them. A worker calls OperationCompleted once per record it dequeues.
    void OperationIssued();
    void OperationCompleted();


private:
    COverlappedSocketFactory();

    typedef std::multimap<DWORD, CRecvTimerRequest> TimerMap;
    typedef std::vector<std::shared_ptr<COverlappedSocket>> SocketList;

    int StartThreads(LPTHREAD_START_ROUTINE pfnWorker, int nThreads);
    bool IsOwnThread();
    bool HandOffEnd();
    // The end of Destory after the sockets are closed (also run by the
    // thread that a Destory called on a thread of the factory hands it to).
    void FinishDestory();
    static DWORD WINAPI FinishDestoryThread(void* pParam);
    void ReleaseEverything();
    void WaitForOperationsToFinish();
    void EndThread(HANDLE hThread, LPCWSTR pszTerminateMessage);
    typedef std::vector<CRecvTimerRequest> TimerList;
    void RunTimerPass(SocketList& released);
    void MergePendingTimerRequests(SocketList& released);
    void InsertTimerRequest(const CRecvTimerRequest& request, SocketList& released);
    void EraseTimerRequest(const COverlappedSocket* pSocket, SocketList& released);
    void MoveTimerEntry(TimerMap::iterator entry, DWORD dwStart, DWORD dwTimeout, DWORD dwExpire, TimerList& moved);
    void HandleTimerEntry(TimerMap::iterator& it, DWORD dwLastPass, TimerList& moved, SocketList& released,
                          CScopeLock& lock);
    void ReportTimeout(TimerMap::iterator it, DWORD dwNow, TimerList& moved, SocketList& released, CScopeLock& lock);
    void AbandonAcceptSocket(const std::shared_ptr<COverlappedSocket>& spSocket);
    bool RefusedAfterDestory();
    bool RegisterOpenSocket(const std::shared_ptr<COverlappedSocket>& spSocket);
    int IssueAccept(const std::shared_ptr<COverlappedSocket>& spSocket, SOCKET hListenSocket, LPFN_ACCEPTEX pfnAcceptEx);
    void DropTimerRequests(const COverlappedSocket* pSocket, SocketList& released);
    void ClearTimerRequests(SocketList& released);

    // ---- fields, in this order ---------------------------------------------
    int m_nSocketKind;
    BOOL m_bSslStarted;
    BOOL m_bWinsockStarted;
    CRITICAL_SECTION m_csLock;
    std::vector<HANDLE> m_vecWorkThreads;
    HANDLE m_hCompletionPort;
    volatile BOOL m_bDestroyed;
    SocketMap m_mapOpenSockets;
    SocketMap m_mapListenSockets;
    SocketMap m_mapConnectedSockets;
    // Stays empty: which of a worker and Close reports a socket's end is
    // decided by the socket's close claim alone (ClaimCloseReport).
    SocketMap m_mapClosingSockets;
    int m_nWorkThreadCount;
    HANDLE m_hRecvTimeoutThread;
    TimerMap m_mapTimerRequests;
    std::list<CRecvTimerRequest> m_lstPendingTimerRequests;
    BOOL m_bTimerPassRunning;
    DWORD m_dwLastPassTick;
    // Operations in flight (see OperationIssued).
    volatile LONG m_nOperationsInFlight;
    // Set by the completion that brings m_nOperationsInFlight to 0 after Destory began.
    HANDLE m_hOperationsDrained;

    COverlappedSocketFactory(const COverlappedSocketFactory&) = delete;
    COverlappedSocketFactory& operator=(const COverlappedSocketFactory&) = delete;
};

#endif
