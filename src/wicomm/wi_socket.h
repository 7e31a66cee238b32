// CWiSocket: a socket handle and the hidden "SocketSink" window through which
// the socket's events, the time-out timer and close requests arrive. The
// thread that constructs the object owns the window and must pump messages.
#ifndef WISOCK_WICOMM_WI_SOCKET_H
#define WISOCK_WICOMM_WI_SOCKET_H

#include "wicomm/wi_comm.h"
#include "wicomm/wi_inet_addr.h"
#include "wicomm/wi_sock_addr.h"

// Socket events posted by WSAAsyncSelect: socket in wParam, event and error in lParam.
const UINT WM_WISOCKET_NOTIFY = 883;
// Close request of CWiTcp::Close: socket in wParam, 32 in lParam.
const UINT WM_WISOCKET_CLOSE = 1036;

class WISOCK_API CWiSocket : public CWiComm {
    DECLARE_DYNAMIC(CWiSocket)
protected:
    CWiSocket();
    virtual ~CWiSocket();

public:
    virtual int GetLastError() override;

protected:
    virtual int GetBytesCanRead() override;

public:
    virtual void BeforeDelete() override;
    virtual int SetTimeouts(DWORD dwTimeout1, DWORD dwTimeout2, DWORD dwTimeout3, DWORD dwBytes) override;

protected:
    virtual void OnWiAccept(int nErrorCode);
    virtual void OnWiWrite(int nErrorCode);
    virtual void OnWiRead(int nErrorCode);
    virtual void OnWiClose(int nErrorCode);
    virtual void OnWiOpen(int nErrorCode);
    virtual void CloseProcess();

public:
    virtual int GetLocalAddr(CWiSockAddr& addr);
    virtual long GetLocalPort();
    virtual int GetPeerAddr(CWiSockAddr& addr);
    virtual long GetPeerPort();
    // Either family (CWiSockAddr holds IPv4 only).
    int GetLocalAddr(CWiInetAddr& addr);
    int GetPeerAddr(CWiInetAddr& addr);

    int AsyncSelect();

protected:
    // Every selection of the socket's events goes through here. A mask equal
    // to the one set last is not set again: under Wine each
    // WSAAsyncSelect posts the events that are ready again, and the events
    // those messages cause re-arm once more, so a connection kept its window
    // busy with dozens of empty messages per read. Winsock re-enables FD_READ
    // at each recv and FD_WRITE after a refused send by itself.
    int SelectEvents(long lMask);
    static constexpr long kMaskIdle = FD_READ | FD_CONNECT | FD_CLOSE;   // 49
    static constexpr long kMaskQueued = kMaskIdle | FD_WRITE;           // 51: blocks wait to be sent
    WORD MyRegisterClass(HINSTANCE hInstance);
    static LRESULT CALLBACK WndProc(HWND hWnd, UINT nMessage, WPARAM wParam, LPARAM lParam);
    LRESULT OnSocketNotify(WPARAM wParam, LPARAM lParam);
    void OnTimer(UINT_PTR nIDEvent);
    void SetToNonBlocking(int bNonBlocking);

    // The window's one timer (id = the window handle), set and killed on the
    // calling thread. bRestart: a running timer starts its period again.
    void StartTimer(DWORD dwPeriod, bool bRestart);
    void StopTimer();
    bool OnWindowThread() const;

    SOCKET m_hSocket;
    HWND m_hWnd;
    UINT_PTR m_nTimerID;
    std::atomic<int> m_bInOnRead;
    long m_lSelected;   // the mask set last (under m_csComm); -1: unknown

    static int s_bSinkClassRegistered;

private:
    void OnReadEvent(int nError);
    static std::shared_ptr<CWiSocket> ObjectOfWindow(HWND hWnd);
};

#endif
