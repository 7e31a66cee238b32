// CString: MFC's wide string, in the subset wisock and its users need.
#ifndef WISOCK_MFC_CSTRING_H
#define WISOCK_MFC_CSTRING_H

#include <winsock2.h>
#include <windows.h>

#include <string>

#include "module/export.h"

class WISOCK_API CString {
public:
    CString();
    CString(const CString& str);
    CString(LPCWSTR psz);
    CString(LPCSTR psz);                 // widened with the thread's code page
    CString(LPCWSTR pch, int nLength);
    CString(WCHAR ch, int nRepeat = 1);
    ~CString();

    CString& operator=(const CString& str);
    CString& operator=(LPCWSTR psz);
    CString& operator=(LPCSTR psz);
    CString& operator=(WCHAR ch);
    CString& operator+=(const CString& str);
    CString& operator+=(LPCWSTR psz);
    CString& operator+=(WCHAR ch);

    operator LPCWSTR() const { return m_str.c_str(); }
    LPCWSTR GetString() const { return m_str.c_str(); }
    int GetLength() const { return (int)m_str.size(); }
    BOOL IsEmpty() const { return m_str.empty(); }
    void Empty();
    WCHAR GetAt(int nIndex) const;
    WCHAR operator[](int nIndex) const { return GetAt(nIndex); }
    void SetAt(int nIndex, WCHAR ch);

    // printf-style formatting with the meanings of the Microsoft run time:
    // in a wide format %s takes a wide string, %S a narrow one.
    void Format(LPCWSTR pszFormat, ...);
    void FormatV(LPCWSTR pszFormat, va_list args);
    void AppendFormat(LPCWSTR pszFormat, ...);

    int Compare(LPCWSTR psz) const;
    int CompareNoCase(LPCWSTR psz) const;
    int Find(WCHAR ch, int iStart = 0) const;
    int Find(LPCWSTR pszSub, int iStart = 0) const;
    int ReverseFind(WCHAR ch) const;
    CString Mid(int iFirst) const;
    CString Mid(int iFirst, int nCount) const;
    CString Left(int nCount) const;
    CString Right(int nCount) const;
    CString& MakeUpper();
    CString& MakeLower();
    CString& Trim();
    CString& TrimLeft();
    CString& TrimRight();
    int Replace(LPCWSTR pszOld, LPCWSTR pszNew);
    CString Tokenize(LPCWSTR pszTokens, int& iStart) const;

    LPWSTR GetBuffer(int nMinBufferLength);
    void ReleaseBuffer(int nNewLength = -1);

    friend WISOCK_API CString operator+(const CString& a, const CString& b);
    friend WISOCK_API CString operator+(const CString& a, LPCWSTR b);
    friend WISOCK_API CString operator+(LPCWSTR a, const CString& b);
    friend bool operator==(const CString& a, const CString& b) { return a.m_str == b.m_str; }
    friend bool operator==(const CString& a, LPCWSTR b) { return a.Compare(b) == 0; }
    friend bool operator!=(const CString& a, const CString& b) { return !(a == b); }
    friend bool operator!=(const CString& a, LPCWSTR b) { return !(a == b); }
    friend bool operator<(const CString& a, const CString& b) { return a.m_str < b.m_str; }

private:
    void AssignNarrow(LPCSTR psz);

    std::wstring m_str;
};

#endif
