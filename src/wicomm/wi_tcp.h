// CWiTcp: a TCP connection or listener of the message-window stack, plain or
// TLS (nSSLMode 0: client side of the handshake, 1: server side).
// Opening: wi_tcp_open.cpp; reading: wi_tcp_read.cpp; writing:
// wi_tcp_write.cpp; closing and accepting: wi_tcp_close.cpp.
#ifndef WISOCK_WICOMM_WI_TCP_H
#define WISOCK_WICOMM_WI_TCP_H

#include "tls/tls_library.h"
#include "wicomm/wi_socket.h"

class CScopeLock;

class WISOCK_API CWiTcp : public CWiSocket {
    DECLARE_DYNAMIC(CWiTcp)
    friend class CWiComm;

public:
    explicit CWiTcp(int nSSLMode);
    virtual ~CWiTcp();

protected:
    virtual int Open(const char* pszOption) override;

public:
    virtual int IsOpen() override;
    virtual int Close() override;
    virtual int Write(const void* pData, unsigned long nLength) override;

protected:
    virtual void BeforeDelete() override;

public:
    virtual int SetTimeouts(DWORD dwTimeout1, DWORD dwTimeout2, DWORD dwTimeout3, DWORD dwBytes) override;

protected:
    virtual void OnWiAccept(int nErrorCode) override;
    virtual void OnWiWrite(int nErrorCode) override;
    virtual void OnWiRead(int nErrorCode) override;
    virtual void OnWiClose(int nErrorCode) override;
    virtual void OnWiOpen(int nErrorCode) override;
    virtual void CloseProcess() override;

public:
    void SetBytesTimeoutValid(int bValid);
    static void Startup();
    static void Cleanup();

protected:
    static const int TYPE_UNKNOWN = 0;
    static const int TYPE_LISTEN = 1;
    static const int TYPE_CONNECT = 2;

    int OpenTcpConnect(const char* pszOption);
    int OpenTcpListen(const char* pszOption);
    int WiSetTimeouts(DWORD dwTimeout1, DWORD dwTimeout2, DWORD dwTimeout3, DWORD dwBytes);
    void BufferProcessAfterReadCallback();

    int m_bConnected;
    int m_nType;
    int m_bBytesTimeoutValid;
    char* m_pReadBuffer;
    int m_nBytesToRead;
    int m_nReadBufferSize;
    int m_nBytesRead;
    CString m_strOption;
    std::shared_ptr<CWiTcp> m_spListenComm;
    HSSL m_hSSL;
    std::atomic<int> m_nReadDepth;
    char* m_pNextReadBuffer;
    int m_nNextBytesToRead;
    int m_nNextReadBufferSize;
    // Deliveries under way (under m_csComm): while one runs, m_pReadBuffer
    // is neither replaced nor freed.
    int m_nDeliveries;

private:
    void FreeReadBuffers();
    friend class CWiSocket;   // its FD_CLOSE asks the next one
    bool ReportTruncatedClose();
    bool PeerHasClosed();
    void PostPeerClose();
    bool IsTls() const { return m_nSSLMode == 0 || m_nSSLMode == 1; }
    bool SetConnectedOption();
    bool HandshakeAsClient();
    void PrepareReadBuffer(int nWant);

    // Read path (wi_tcp_read.cpp).
    bool Deliver(CScopeLock& lock, int nCount);
    void ReadTimedOut(CScopeLock& lock);
    bool ReportReadError(CScopeLock& lock, int nErrorCode);
    bool StopAtDepthLimit();
    void ReadPlain(CScopeLock& lock, int nAvailable);
    void ReadTls(CScopeLock& lock);
    int FillFromTls();
    int ReadTlsInto(int nMax);

    // Write path (wi_tcp_write.cpp).
    void QueueBlocks(const char* pData, int nLength);
    bool SendQueue(SendBlock block);
    bool TakeFirstBlock(SendBlock& block);
    int ReportBlockSent(int nSent);
    void RequeueRest(SendBlock& block, int nSent);
    void SubtractSent(int nSent);

    // Accept (wi_tcp_close.cpp).
    bool HandshakeAsServer(SOCKET hAccepted);

    // Stack stop with the object still open: frees socket, TLS handle,
    // buffers and window without any notification (CWiComm::Cleanup).
    void ReleaseAtCleanup();
    // The same, carried out by the object's window thread between two of its
    // messages; the caller waits for it.
    void ReleaseOnWindowThread();

public:
    // WM_CLOSE answer that says the window thread released the object.
    static const LRESULT RELEASED_AT_CLEANUP = 0x5743;
};

#endif
