// The message-window reference: the echo server a user would write with
// WSAAsyncSelect alone. One thread, one hidden window for every socket;
// what can't be sent at once waits for FD_WRITE.
// Usage: bench_window_server --port P [--seconds T]
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "bench_args.h"

namespace {

const UINT kSocketMessage = WM_APP + 1;
const long kEvents = FD_ACCEPT | FD_READ | FD_WRITE | FD_CLOSE;
SOCKET g_listener = INVALID_SOCKET;
std::map<SOCKET, std::string> g_unsent;   // bytes waiting for FD_WRITE, per connection

void Flush(SOCKET s)
{
    std::string& rest = g_unsent[s];
    while (!rest.empty()) {
        int n = send(s, rest.data(), static_cast<int>(rest.size()), 0);
        if (n <= 0)
            return;   // WSAEWOULDBLOCK: FD_WRITE comes when there is room
        rest.erase(0, static_cast<size_t>(n));
    }
}

void OnSocket(HWND hWnd, SOCKET s, WORD event)
{
    static std::vector<char> buf(65536);
    switch (event) {
    case FD_ACCEPT: {
        SOCKET c = accept(g_listener, NULL, NULL);
        if (c == INVALID_SOCKET)
            return;
        int one = 1;
        setsockopt(c, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char*>(&one), sizeof(one));
        WSAAsyncSelect(c, hWnd, kSocketMessage, kEvents & ~FD_ACCEPT);
        return;
    }
    case FD_READ: {
        int n = recv(s, buf.data(), static_cast<int>(buf.size()), 0);
        if (n > 0) {
            g_unsent[s].append(buf.data(), static_cast<size_t>(n));
            Flush(s);
        }
        return;
    }
    case FD_WRITE:
        Flush(s);
        return;
    case FD_CLOSE:
        g_unsent.erase(s);
        closesocket(s);
        return;
    }
}

LRESULT CALLBACK WndProc(HWND hWnd, UINT message, WPARAM wParam, LPARAM lParam)
{
    if (message == kSocketMessage) {
        OnSocket(hWnd, static_cast<SOCKET>(wParam), WSAGETSELECTEVENT(lParam));
        return 0;
    }
    return DefWindowProcW(hWnd, message, wParam, lParam);
}

}  // namespace

int main(int argc, char** argv)
{
    BenchArgs args{argc, argv};
    WSADATA wsa;
    WSAStartup(MAKEWORD(2, 2), &wsa);
    WNDCLASSW wc = {};
    wc.lpfnWndProc = WndProc;
    wc.hInstance = GetModuleHandleW(NULL);
    wc.lpszClassName = L"BenchWindowServer";
    RegisterClassW(&wc);
    HWND hWnd = CreateWindowW(wc.lpszClassName, L"", WS_POPUP, 0, 0, 0, 0, NULL, NULL, wc.hInstance, NULL);
    g_listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<u_short>(args.Number("--port", 0)));
    int len = sizeof(a);
    if (bind(g_listener, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 || listen(g_listener, SOMAXCONN) != 0 ||
        getsockname(g_listener, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        std::fprintf(stderr, "bench_window_server: bind/listen failed: %d\n", WSAGetLastError());
        return 1;
    }
    WSAAsyncSelect(g_listener, hWnd, kSocketMessage, FD_ACCEPT);
    std::printf("listening on %u\n", ntohs(a.sin_port));
    std::fflush(stdout);
    SetTimer(NULL, 0, static_cast<UINT>(args.Number("--seconds", 10) * 1000), NULL);
    MSG msg;
    while (GetMessageW(&msg, NULL, 0, 0) > 0 && msg.message != WM_TIMER)
        DispatchMessageW(&msg);
    PrintProcessCpu();
    return 0;
}
