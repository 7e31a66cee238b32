#include "mfc/afx.h"

#include <cstdarg>
#include <cstdio>
#include <cwchar>
#include <cwctype>

CString::CString() {}
CString::CString(const CString& str) : m_str(str.m_str) {}
CString::CString(LPCWSTR psz) : m_str(psz ? psz : L"") {}
CString::CString(LPCSTR psz) { AssignNarrow(psz); }
CString::CString(LPCWSTR pch, int nLength) : m_str(pch ? pch : L"", (pch && nLength > 0) ? nLength : 0) {}
CString::CString(WCHAR ch, int nRepeat) : m_str(nRepeat > 0 ? nRepeat : 0, ch) {}
CString::~CString() {}

CString& CString::operator=(const CString& str) { m_str = str.m_str; return *this; }
CString& CString::operator=(LPCWSTR psz) { m_str = psz ? psz : L""; return *this; }
CString& CString::operator=(LPCSTR psz) { AssignNarrow(psz); return *this; }
CString& CString::operator=(WCHAR ch) { m_str.assign(1, ch); return *this; }
CString& CString::operator+=(const CString& str) { m_str += str.m_str; return *this; }
CString& CString::operator+=(LPCWSTR psz) { if (psz) m_str += psz; return *this; }
CString& CString::operator+=(WCHAR ch) { m_str += ch; return *this; }

void CString::AssignNarrow(LPCSTR psz)
{
    m_str.clear();
    if (psz == NULL || *psz == '\0')
        return;
    int n = MultiByteToWideChar(CP_THREAD_ACP, 0, psz, -1, NULL, 0);
    if (n <= 1)
        return;
    m_str.resize(n);
    MultiByteToWideChar(CP_THREAD_ACP, 0, psz, -1, &m_str[0], n);
    m_str.resize(n - 1);
}

void CString::Empty() { m_str.clear(); }

WCHAR CString::GetAt(int nIndex) const
{
    return (nIndex >= 0 && nIndex < GetLength()) ? m_str[nIndex] : L'\0';
}

void CString::SetAt(int nIndex, WCHAR ch)
{
    if (nIndex >= 0 && nIndex < GetLength())
        m_str[nIndex] = ch;
}

void CString::FormatV(LPCWSTR pszFormat, va_list args)
{
    va_list probe;
    va_copy(probe, args);
    int n = _vscwprintf(pszFormat, probe);
    va_end(probe);
    if (n < 0) {
        m_str.clear();
        return;
    }
    std::wstring out(n + 1, L'\0');
    _vsnwprintf(&out[0], out.size(), pszFormat, args);
    out.resize(n);
    m_str.swap(out);
}

void CString::Format(LPCWSTR pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    FormatV(pszFormat, args);
    va_end(args);
}

void CString::AppendFormat(LPCWSTR pszFormat, ...)
{
    CString tail;
    va_list args;
    va_start(args, pszFormat);
    tail.FormatV(pszFormat, args);
    va_end(args);
    m_str += tail.m_str;
}

int CString::Compare(LPCWSTR psz) const { return wcscmp(m_str.c_str(), psz ? psz : L""); }
int CString::CompareNoCase(LPCWSTR psz) const { return _wcsicmp(m_str.c_str(), psz ? psz : L""); }

int CString::Find(WCHAR ch, int iStart) const
{
    if (iStart < 0 || iStart >= GetLength())
        return -1;
    size_t pos = m_str.find(ch, iStart);
    return pos == std::wstring::npos ? -1 : (int)pos;
}

int CString::Find(LPCWSTR pszSub, int iStart) const
{
    if (pszSub == NULL || iStart < 0 || iStart > GetLength())
        return -1;
    size_t pos = m_str.find(pszSub, iStart);
    return pos == std::wstring::npos ? -1 : (int)pos;
}

int CString::ReverseFind(WCHAR ch) const
{
    size_t pos = m_str.rfind(ch);
    return pos == std::wstring::npos ? -1 : (int)pos;
}

CString CString::Mid(int iFirst) const { return Mid(iFirst, GetLength()); }

CString CString::Mid(int iFirst, int nCount) const
{
    if (iFirst < 0)
        iFirst = 0;
    if (nCount < 0)
        nCount = 0;
    if (iFirst >= GetLength())
        return CString();
    CString out;
    out.m_str = m_str.substr(iFirst, nCount);
    return out;
}

CString CString::Left(int nCount) const { return Mid(0, nCount); }

CString CString::Right(int nCount) const
{
    if (nCount <= 0)
        return CString();
    if (nCount >= GetLength())
        return *this;
    return Mid(GetLength() - nCount);
}

CString& CString::MakeUpper() { for (auto& c : m_str) c = (WCHAR)towupper(c); return *this; }
CString& CString::MakeLower() { for (auto& c : m_str) c = (WCHAR)towlower(c); return *this; }

CString& CString::TrimLeft()
{
    size_t i = 0;
    while (i < m_str.size() && iswspace(m_str[i]))
        ++i;
    m_str.erase(0, i);
    return *this;
}

CString& CString::TrimRight()
{
    size_t n = m_str.size();
    while (n > 0 && iswspace(m_str[n - 1]))
        --n;
    m_str.resize(n);
    return *this;
}

CString& CString::Trim() { return TrimRight().TrimLeft(); }

int CString::Replace(LPCWSTR pszOld, LPCWSTR pszNew)
{
    if (pszOld == NULL || *pszOld == L'\0')
        return 0;
    std::wstring from(pszOld), to(pszNew ? pszNew : L"");
    int count = 0;
    for (size_t pos = m_str.find(from); pos != std::wstring::npos; pos = m_str.find(from, pos + to.size())) {
        m_str.replace(pos, from.size(), to);
        ++count;
    }
    return count;
}

CString CString::Tokenize(LPCWSTR pszTokens, int& iStart) const
{
    if (iStart < 0 || pszTokens == NULL)
        return CString();
    size_t begin = m_str.find_first_not_of(pszTokens, iStart);
    if (begin == std::wstring::npos) {
        iStart = -1;
        return CString();
    }
    size_t end = m_str.find_first_of(pszTokens, begin);
    if (end == std::wstring::npos)
        end = m_str.size();
    iStart = (int)(end < m_str.size() ? end + 1 : end);
    return Mid((int)begin, (int)(end - begin));
}

LPWSTR CString::GetBuffer(int nMinBufferLength)
{
    if (nMinBufferLength > GetLength())
        m_str.resize(nMinBufferLength);
    return &m_str[0];
}

void CString::ReleaseBuffer(int nNewLength)
{
    if (nNewLength < 0)
        nNewLength = (int)wcsnlen(m_str.c_str(), m_str.size());
    m_str.resize(nNewLength);
}

CString operator+(const CString& a, const CString& b) { CString s(a); s += b; return s; }
CString operator+(const CString& a, LPCWSTR b) { CString s(a); s += b; return s; }
CString operator+(LPCWSTR a, const CString& b) { CString s(a); s += b; return s; }
