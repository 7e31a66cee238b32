// The module frame: loading and unloading wisock.dll as an extension module.
#include <winsock2.h>
#include <windows.h>
#include <tlhelp32.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "module/module.h"

namespace {

std::wstring ProgramFolder()
{
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(NULL, path, MAX_PATH);
    std::wstring s(path);
    return s.substr(0, s.find_last_of(L"\\/") + 1);
}

int ThreadsOfThisProcess()
{
    HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 te = {};
    te.dwSize = sizeof(te);
    int n = 0;
    for (BOOL ok = Thread32First(snap, &te); ok; ok = Thread32Next(snap, &te))
        if (te.th32OwnerProcessID == GetCurrentProcessId())
            ++n;
    CloseHandle(snap);
    return n;
}

std::vector<HANDLE> ProcessHeaps()
{
    std::vector<HANDLE> heaps(256);
    DWORD n = GetProcessHeaps((DWORD)heaps.size(), heaps.data());
    heaps.resize(n);
    return heaps;
}

bool Contains(const std::vector<HANDLE>& v, HANDLE h)
{
    for (HANDLE x : v)
        if (x == h)
            return true;
    return false;
}

}  // namespace

// The test program already has wisock.dll loaded through its imports, so a
// copy under another name is loaded to watch a real attach and detach.
TEST(ModuleFrame, LoadMakesHeapAndStartsNothingUnloadDestroysHeap)
{
    std::wstring copy = ProgramFolder() + L"wisock_probe.dll";
    ASSERT_TRUE(CopyFileW((ProgramFolder() + L"wisock.dll").c_str(), copy.c_str(), FALSE));

    const int threadsBefore = ThreadsOfThisProcess();
    HMODULE hDll = LoadLibraryW(copy.c_str());
    ASSERT_NE(hDll, nullptr) << "LoadLibraryW failed: " << GetLastError();

    auto* pHeap = reinterpret_cast<HANDLE*>(GetProcAddress(hDll, "g_hModuleHeap"));
    auto* pInstance = reinterpret_cast<HINSTANCE*>(GetProcAddress(hDll, "g_hModuleInstance"));
    ASSERT_NE(pHeap, nullptr);
    ASSERT_NE(pInstance, nullptr);
    HANDLE heap = *pHeap;
    EXPECT_NE(heap, nullptr);
    EXPECT_NE(heap, g_hModuleHeap) << "each loaded module has its own heap";
    EXPECT_TRUE(Contains(ProcessHeaps(), heap));
    EXPECT_EQ(*pInstance, (HINSTANCE)hDll);
    EXPECT_EQ(ThreadsOfThisProcess(), threadsBefore) << "loading must start no thread";

    ASSERT_TRUE(FreeLibrary(hDll));
    EXPECT_FALSE(Contains(ProcessHeaps(), heap)) << "unload must destroy the module heap";
    DeleteFileW(copy.c_str());
}

TEST(ModuleFrame, ExtensionModuleIsRegisteredWhileLoaded)
{
    EXPECT_TRUE(g_extensionModule.bInitialized);
    bool found = false;
    for (CDynLinkLibrary* p = CDynLinkLibrary::GetFirst(); p != nullptr; p = p->m_pNextDLL)
        found = found || p->m_hModule == g_hModuleInstance;
    EXPECT_TRUE(found) << "the entry function registers a CDynLinkLibrary for wisock.dll";
    HMODULE hWisock = GetModuleHandleW(L"wisock.dll");
    EXPECT_EQ(g_hModuleInstance, hWisock);
    // The globals looked up by name are the ones the headers import.
    EXPECT_EQ((FARPROC)&g_hModuleHeap, GetProcAddress(hWisock, "g_hModuleHeap"));
    EXPECT_EQ((FARPROC)&g_hModuleInstance, GetProcAddress(hWisock, "g_hModuleInstance"));
}
