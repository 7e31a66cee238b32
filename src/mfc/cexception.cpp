#include "mfc/afx.h"

IMPLEMENT_DYNAMIC(CException, CObject)

CException::CException() : m_bAutoDelete(TRUE) {}
CException::CException(BOOL bAutoDelete) : m_bAutoDelete(bAutoDelete) {}
CException::~CException() {}

void CException::Delete()
{
    if (m_bAutoDelete > 0)
        delete this;
}

BOOL CException::GetErrorMessage(LPWSTR lpszError, UINT nMaxError, PUINT pnHelpContext) const
{
    if (pnHelpContext)
        *pnHelpContext = 0;
    if (lpszError && nMaxError > 0)
        *lpszError = L'\0';
    return FALSE;
}
