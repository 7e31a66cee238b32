// Loads wisock.dll as an extension module, reports its module heap, unloads it.
#include <windows.h>

#include <cstdio>

#include "demo_section.h"

DemoRow ModuleSection()
{
    DemoRow row;
    row.name = "module load/unload";
    std::printf("== wisock.dll as an extension module\n");
    HMODULE hDll = LoadLibraryW(L"wisock.dll");
    if (hDll == NULL) {
        std::printf("  wisock.dll failed to load: error %lu\n", GetLastError());
        row.note = "load failed";
        return row;
    }
    HANDLE* pHeap = reinterpret_cast<HANDLE*>(GetProcAddress(hDll, "g_hModuleHeap"));
    HINSTANCE* pInstance = reinterpret_cast<HINSTANCE*>(GetProcAddress(hDll, "g_hModuleInstance"));
    bool instanceOk = pInstance && *pInstance == hDll;
    std::printf("  %-28s %s\n", "wisock.dll loaded at", instanceOk ? "its instance handle" : "?");
    std::printf("  %-28s %p\n", "module heap", pHeap ? *pHeap : NULL);
    FreeLibrary(hDll);
    std::printf("  %-28s %s\n", "unloaded", "yes");
    row.ok = instanceOk && pHeap && *pHeap;
    return row;
}
