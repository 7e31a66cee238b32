// The wisock demo: loads the library as an extension module, reports its
// module heap and registration, and unloads it.
#include <windows.h>

#include <cstdio>

int main()
{
    std::printf("wisock demo\n");
    HMODULE hDll = LoadLibraryW(L"wisock.dll");
    if (hDll == NULL) {
        std::printf("  wisock.dll failed to load: error %lu\n", GetLastError());
        return 1;
    }
    HANDLE* pHeap = reinterpret_cast<HANDLE*>(GetProcAddress(hDll, "g_hModuleHeap"));
    HINSTANCE* pInstance = reinterpret_cast<HINSTANCE*>(GetProcAddress(hDll, "g_hModuleInstance"));
    std::printf("  %-28s %s\n", "wisock.dll loaded at", pInstance && *pInstance == hDll ? "its instance handle" : "?");
    std::printf("  %-28s %p\n", "module heap", pHeap ? *pHeap : NULL);
    FreeLibrary(hDll);
    std::printf("  %-28s %s\n", "unloaded", "yes");
    return 0;
}
