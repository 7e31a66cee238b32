// ICommNotifyObject: what the application implements to hear from the comm
// objects of the message-window stack. All five run on the object's window
// thread with no lock of the library held; the library reads no result.
#ifndef WISOCK_WICOMM_COMM_NOTIFY_H
#define WISOCK_WICOMM_COMM_NOTIFY_H

#include <memory>

class CWiComm;

class ICommNotifyObject {
public:
    // A connection stands, a listener listens, or an accepted connection is
    // ready (spComm is then the new object).
    virtual void OnOpen(std::shared_ptr<CWiComm> spComm) = 0;
    // The peer closed, or the object is closing. At most once per object.
    virtual void OnClose(std::shared_ptr<CWiComm> spComm) = 0;
    // Data, or a time-out (nLength may then be 0 and pData null). pData is
    // good only during the call.
    virtual void OnReadComplete(const void* pData, int nLength, std::shared_ptr<CWiComm> spComm) = 0;
    // nLength bytes of one send block have left.
    virtual void OnWriteComplete(int nLength, std::shared_ptr<CWiComm> spComm) = 0;
    // nOperation is CWiComm::OPEN or CWiComm::READ; nErrorCode a Winsock
    // error, or -1 for a connect that timed out.
    virtual void OnError(int nOperation, int nErrorCode, std::shared_ptr<CWiComm> spComm) = 0;

protected:
    ~ICommNotifyObject() {}
};

#endif
