// CWiComm: base of every comm object of the message-window stack, and the
// process-wide registry that decides when an object may be used and when it
// may die. An object is valid exactly while it stands in ms_ActiveComm.
#ifndef WISOCK_WICOMM_WI_COMM_H
#define WISOCK_WICOMM_WI_COMM_H

#include <atomic>
#include <list>
#include <memory>
#include <unordered_map>

#include "mfc/afx.h"
#include "wicomm/comm_notify.h"

// One element of a comm object's send queue, copied by value.
struct SendBlock {
    int bFirstBlock;   // 1: opened by a Write and holds its beginning
    char* pData;       // new[]; whoever takes the block out for good frees it
    int nLength;       // bytes waiting, from the first byte of pData
    int nCapacity;     // allocated size of pData
};

class WISOCK_API CWiComm : public CObject, public std::enable_shared_from_this<CWiComm> {
    DECLARE_DYNAMIC(CWiComm)
public:
    static const int CLASSID_INVALID = 0;
    static const int CLASSID_WICOM = 1;
    static const int CLASSID_WITCP = 2;
    static const int CLASSID_WIUDP = 3;

    static const int DEVICE = 0;
    static const int OPEN = 1;
    static const int CLOSE = 2;
    static const int READ = 3;
    static const int WRITE = 4;

    typedef std::unordered_map<CWiComm*, std::shared_ptr<CWiComm>> CommMap;

    CWiComm();
    virtual ~CWiComm();

    virtual int Open(const char* pszOption);
    virtual int GetLastError();
    virtual int IsOpen();
    virtual int SetCommOpt(const char* pszOption);
    virtual int Close();
    virtual int Write(const void* pData, unsigned long nLength);

protected:
    virtual int GetBytesCanRead();

public:
    virtual void ClearSendBuffer();
    virtual void BeforeDelete();
    virtual int SetTimeouts(DWORD dwTimeout1, DWORD dwTimeout2, DWORD dwTimeout3, DWORD dwBytes);

    static int Startup();
    static int Cleanup();
    static std::shared_ptr<CWiComm> NewObject(unsigned int nClassID, const char* pszOption,
                                              ICommNotifyObject* pNotifyObject, int nSSLMode);
    static void AddCommToCommSet(std::shared_ptr<CWiComm> spComm);
    static int IsValidObject(CWiComm* pComm);

    int GetClassID();
    CString GetOpenOption();
    void SetNotifyObject(ICommNotifyObject* pNotifyObject);
    void SetMaxSendBufferSize(size_t nSize);
    void SetWriteOverFlowProcess(int nMode);
    void SetUnpackingWhenWrite(int bUnpacking);

protected:
    int CallOpenNotify(std::shared_ptr<CWiComm> spComm);
    int CallCloseNotify(std::shared_ptr<CWiComm> spComm);
    int CallReadCompleteNotify(const void* pData, int nLength, std::shared_ptr<CWiComm> spComm);
    int CallWriteCompleteNotify(int nLength, std::shared_ptr<CWiComm> spComm);
    int CallErrorNotify(int nOperation, int nErrorCode, std::shared_ptr<CWiComm> spComm);

    int m_nClassID;
    ICommNotifyObject* m_pNotifyObject;
    CString m_strOpenOption;
    DWORD m_dwTimeout1;
    DWORD m_dwTimeout2;
    DWORD m_dwTimeout3;
    DWORD m_dwBytesTimeout;
    std::list<SendBlock> m_listSendBuffer;
    CCriticalSection m_csComm;
    std::atomic<int> m_bCloseNotified;
    std::atomic<int> m_bDeleting;
    std::atomic<int> m_bInReadNotify;
    int m_nSSLMode;
    size_t m_nMaxSendBufferSize;
    int m_nWriteOverFlowProcess;
    int m_bUnpackingWhenWrite;
    size_t m_nSendBufferSize;

    static int ms_bStartup;
    static CCriticalSection ms_csCommSet;
    static CommMap ms_ActiveComm;
    static CommMap ms_DeadComm;

    // True while Cleanup releases the objects still open.
    static bool IsStopping();

private:
    static void DropFailedObject(const std::shared_ptr<CWiComm>& spComm);
    static void ReleaseObjectsStillOpen();
};

#endif
