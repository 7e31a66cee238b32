// Runs a program and prints what it writes with OutputDebugString, one line
// per text, the way a debugger sees it. Works on Windows and under Wine
// (where WINEDEBUG channels don't show wide debug strings).
//
//   example_debug_output.exe wisock_demo.exe [arguments...]
#include <windows.h>
#include <shellapi.h>   // CommandLineToArgvW, also under WIN32_LEAN_AND_MEAN

#include <cstdio>
#include <string>
#include <vector>

namespace {

std::wstring CommandLineAfterFirstArgument()
{
    int argc = 0;
    LPWSTR* argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    std::wstring line;
    for (int i = 1; i < argc; ++i) {
        if (i > 1)
            line += L' ';
        line += L'"';
        line += argv[i];
        line += L'"';
    }
    LocalFree(argv);
    return line;
}

// Reads the text of one OUTPUT_DEBUG_STRING_EVENT out of the debuggee.
std::wstring ReadDebugString(HANDLE hProcess, const OUTPUT_DEBUG_STRING_INFO& info)
{
    const size_t unit = info.fUnicode ? sizeof(wchar_t) : 1;
    std::vector<char> raw(info.nDebugStringLength * unit + sizeof(wchar_t), 0);
    SIZE_T got = 0;
    ReadProcessMemory(hProcess, info.lpDebugStringData, raw.data(), info.nDebugStringLength * unit, &got);
    if (info.fUnicode)
        return std::wstring(reinterpret_cast<const wchar_t*>(raw.data()));
    int n = MultiByteToWideChar(CP_ACP, 0, raw.data(), -1, NULL, 0);
    std::wstring text(n > 0 ? n - 1 : 0, L'\0');
    if (n > 1)
        MultiByteToWideChar(CP_ACP, 0, raw.data(), -1, &text[0], n);
    return text;
}

void PrintUtf8(const std::wstring& text)
{
    int n = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), (int)text.size(), NULL, 0, NULL, NULL);
    std::string out(n, '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.c_str(), (int)text.size(), &out[0], n, NULL, NULL);
    std::fprintf(stderr, "[debug] %s%s", out.c_str(), (!out.empty() && out.back() == '\n') ? "" : "\n");
}

}  // namespace

int main()
{
    std::wstring command = CommandLineAfterFirstArgument();
    if (command.empty()) {
        std::fprintf(stderr, "usage: example_debug_output.exe <program> [arguments...]\n");
        return 2;
    }
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    PROCESS_INFORMATION pi = {};
    if (!CreateProcessW(NULL, &command[0], NULL, NULL, FALSE, DEBUG_ONLY_THIS_PROCESS, NULL, NULL, &si, &pi)) {
        std::fprintf(stderr, "cannot start the program: error %lu\n", GetLastError());
        return 2;
    }
    DWORD exitCode = 0;
    for (bool running = true; running;) {
        DEBUG_EVENT ev = {};
        if (!WaitForDebugEvent(&ev, INFINITE))
            break;
        DWORD status = DBG_CONTINUE;
        switch (ev.dwDebugEventCode) {
        case OUTPUT_DEBUG_STRING_EVENT:
            PrintUtf8(ReadDebugString(pi.hProcess, ev.u.DebugString));
            break;
        case EXCEPTION_DEBUG_EVENT:
            // Not ours to handle: the program's own handlers decide.
            if (ev.u.Exception.ExceptionRecord.ExceptionCode != EXCEPTION_BREAKPOINT)
                status = DBG_EXCEPTION_NOT_HANDLED;
            break;
        case CREATE_PROCESS_DEBUG_EVENT:
            CloseHandle(ev.u.CreateProcessInfo.hFile);
            break;
        case LOAD_DLL_DEBUG_EVENT:
            CloseHandle(ev.u.LoadDll.hFile);
            break;
        case EXIT_PROCESS_DEBUG_EVENT:
            exitCode = ev.u.ExitProcess.dwExitCode;
            running = false;
            break;
        default:
            break;
        }
        ContinueDebugEvent(ev.dwProcessId, ev.dwThreadId, status);
    }
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    return (int)exitCode;
}
