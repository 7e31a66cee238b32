// CException: root of the exceptions that applications throw as pointers
// (throw new CMyException). Whoever catches one calls Delete.
#ifndef WISOCK_MFC_CEXCEPTION_H
#define WISOCK_MFC_CEXCEPTION_H

#include "mfc/cobject.h"

class WISOCK_API CException : public CObject {
    DECLARE_DYNAMIC(CException)
public:
    CException();
    explicit CException(BOOL bAutoDelete);
    virtual ~CException();

    // Frees an exception made with new; one with auto-delete off stays.
    void Delete();

    virtual BOOL GetErrorMessage(LPWSTR lpszError, UINT nMaxError, PUINT pnHelpContext = NULL) const;

protected:
    BOOL m_bAutoDelete;
};

#endif
