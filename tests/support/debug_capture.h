// Captures what the process writes with OutputDebugStringW/A, so tests can
// assert exact texts. A vectored exception handler sees the debug-print
// exceptions: the wide one (Windows 10 and later) and the ANSI one (the only
// one this Wine raises; its text goes through the ANSI code page, so the test
// run uses a code page that keeps Chinese, see scripts/test).
#ifndef WISOCK_TESTS_DEBUG_CAPTURE_H
#define WISOCK_TESTS_DEBUG_CAPTURE_H

#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

class DebugCapture {
public:
    DebugCapture();    // starts capturing, from all threads
    ~DebugCapture();   // stops

    std::vector<std::wstring> Texts() const;
    size_t Count(const std::wstring& text) const;
    bool Contains(const std::wstring& text) const { return Count(text) > 0; }
    // Texts that begin with prefix.
    std::vector<std::wstring> StartingWith(const std::wstring& prefix) const;
    // Waits until done(texts so far) holds.
    bool WaitUntil(const std::function<bool(const std::vector<std::wstring>&)>& done,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    // Waits until text has been written at least n times.
    bool WaitFor(const std::wstring& text, size_t n = 1, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const
    {
        return WaitUntil([&](const std::vector<std::wstring>& t) { return (size_t)std::count(t.begin(), t.end(), text) >= n; },
                         timeout);
    }
    void Clear();

private:
    DebugCapture(const DebugCapture&) = delete;
    DebugCapture& operator=(const DebugCapture&) = delete;
};

// For failure messages: a wide text in UTF-8.
std::string Utf8(const std::wstring& text);

#endif
