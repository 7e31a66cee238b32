// Platform behaviour that the message-window stack must not rely on, and the
// behaviour it gives instead (see docs/wine-notes.md).
#include "comm_harness.h"

namespace {

bool UnderWine() { return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != NULL; }

// SetTimer on a window of another thread: Wine accepts it, Windows refuses.
TEST(WineNotes, SetTimerFromAThreadThatDoesNotOwnTheWindow)
{
    WindowThread window;
    HWND hWnd = NULL;
    ASSERT_TRUE(window.Run([&] {
        hWnd = CreateWindowExW(0, L"STATIC", L"", WS_POPUP, 0, 0, 0, 0, NULL, NULL, NULL, NULL);
    }));
    ASSERT_NE((HWND)NULL, hWnd);
    UINT_PTR id = SetTimer(hWnd, 1, 1000, NULL);
    if (UnderWine())
        EXPECT_NE(0u, id) << "Wine lets any thread set a window's timer";
    else
        EXPECT_EQ(0u, id) << "Windows: only the window's thread";
    if (id != 0)
        KillTimer(hWnd, id);
    ASSERT_TRUE(window.Run([&] { DestroyWindow(hWnd); }));
}

}  // namespace
