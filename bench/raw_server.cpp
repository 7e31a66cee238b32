// Reference echo server on a bare I/O completion port: a pool of AcceptEx,
// one 4096-byte WSARecv per connection, TCP_NODELAY, echo through WSASend.
// Usage: bench_raw_server --port P [--workers N] [--seconds T] [--mode plain]
#include <winsock2.h>
#include <mswsock.h>
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "bench_args.h"

namespace {

const int kAcceptPool = 64;
const DWORD kRecvSize = 4096;

enum OpType { OP_ACCEPT, OP_RECV, OP_SEND };

struct Conn;
struct Op {
    OVERLAPPED ov;
    OpType type;
    Conn* conn;
    WSABUF buf;
    char data[kRecvSize];
    char addresses[2 * (sizeof(sockaddr_in) + 16)];
};

struct Conn {
    SOCKET s = INVALID_SOCKET;
    Op recv{}, send{};
    std::mutex m;
    std::string queued, inFlight;
    bool sending = false, closed = false;
    long ops = 0;   // outstanding operations; the connection goes with the last
};

HANDLE g_port;
SOCKET g_listen;
LPFN_ACCEPTEX g_acceptEx;

void PostAccept();

void Release(Conn* c)
{
    bool last;
    {
        std::lock_guard<std::mutex> l(c->m);
        last = --c->ops == 0 && c->closed;
    }
    if (last)
        delete c;
}

void CloseConn(Conn* c)
{
    std::lock_guard<std::mutex> l(c->m);
    if (!c->closed) {
        c->closed = true;
        closesocket(c->s);
    }
}

// Caller holds c->m.
void StartSend(Conn* c)
{
    if (c->sending || c->queued.empty() || c->closed)
        return;
    c->inFlight.swap(c->queued);
    c->queued.clear();
    std::memset(&c->send.ov, 0, sizeof(c->send.ov));
    c->send.buf.buf = &c->inFlight[0];
    c->send.buf.len = static_cast<ULONG>(c->inFlight.size());
    c->sending = true;
    ++c->ops;
    if (WSASend(c->s, &c->send.buf, 1, NULL, 0, &c->send.ov, NULL) != 0 && WSAGetLastError() != WSA_IO_PENDING) {
        --c->ops;
        c->sending = false;
    }
}

bool PostRecv(Conn* c)
{
    std::lock_guard<std::mutex> l(c->m);
    if (c->closed)
        return false;
    std::memset(&c->recv.ov, 0, sizeof(c->recv.ov));
    c->recv.buf.buf = c->recv.data;
    c->recv.buf.len = kRecvSize;
    DWORD flags = 0;
    ++c->ops;
    if (WSARecv(c->s, &c->recv.buf, 1, NULL, &flags, &c->recv.ov, NULL) != 0 && WSAGetLastError() != WSA_IO_PENDING) {
        --c->ops;
        return false;
    }
    return true;
}

void OnAccepted(Op* op, bool ok)
{
    Conn* c = op->conn;
    PostAccept();
    if (!ok) {
        closesocket(c->s);
        delete op;
        delete c;
        return;
    }
    setsockopt(c->s, SOL_SOCKET, SO_UPDATE_ACCEPT_CONTEXT, reinterpret_cast<char*>(&g_listen), sizeof(g_listen));
    int one = 1;
    setsockopt(c->s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char*>(&one), sizeof(one));
    CreateIoCompletionPort(reinterpret_cast<HANDLE>(c->s), g_port, 0, 0);
    delete op;
    c->recv.type = OP_RECV;
    c->recv.conn = c;
    c->send.type = OP_SEND;
    c->send.conn = c;
    if (!PostRecv(c)) {
        CloseConn(c);
        std::lock_guard<std::mutex> l(c->m);
        if (c->ops != 0)
            return;
    } else {
        return;
    }
    delete c;
}

void OnReceived(Conn* c, DWORD n, bool ok)
{
    if (!ok || n == 0) {
        CloseConn(c);
    } else {
        {
            std::lock_guard<std::mutex> l(c->m);
            c->queued.append(c->recv.data, n);
            StartSend(c);
        }
        if (!PostRecv(c))
            CloseConn(c);
    }
    Release(c);
}

void OnSent(Conn* c, DWORD n, bool ok)
{
    {
        std::lock_guard<std::mutex> l(c->m);
        c->sending = false;
        if (ok && n < c->inFlight.size())
            c->queued.insert(0, c->inFlight.substr(n));
        StartSend(c);
    }
    if (!ok)
        CloseConn(c);
    Release(c);
}

void PostAccept()
{
    Conn* c = new Conn;
    c->s = WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, NULL, 0, WSA_FLAG_OVERLAPPED);
    Op* op = new Op{};
    op->type = OP_ACCEPT;
    op->conn = c;
    DWORD bytes = 0;
    if (!g_acceptEx(g_listen, c->s, op->addresses, 0, sizeof(sockaddr_in) + 16, sizeof(sockaddr_in) + 16, &bytes,
                    &op->ov) &&
        WSAGetLastError() != ERROR_IO_PENDING) {
        closesocket(c->s);
        delete op;
        delete c;
    }
}

DWORD WINAPI Worker(void*)
{
    for (;;) {
        DWORD n = 0;
        ULONG_PTR key = 0;
        OVERLAPPED* ov = NULL;
        BOOL ok = GetQueuedCompletionStatus(g_port, &n, &key, &ov, INFINITE);
        if (ov == NULL)
            return 0;
        Op* op = reinterpret_cast<Op*>(ov);
        switch (op->type) {
        case OP_ACCEPT: OnAccepted(op, ok != FALSE); break;
        case OP_RECV: OnReceived(op->conn, n, ok != FALSE); break;
        case OP_SEND: OnSent(op->conn, n, ok != FALSE); break;
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    BenchArgs args{argc, argv};
    if (args.Text("--mode", "plain") != "plain") {
        std::fprintf(stderr, "bench_raw_server: only --mode plain is available\n");
        return 2;
    }
    WSADATA wsa;
    WSAStartup(MAKEWORD(2, 2), &wsa);
    g_port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, NULL, 0, 0);
    g_listen = WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, NULL, 0, WSA_FLAG_OVERLAPPED);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<u_short>(args.Number("--port", 0)));
    if (bind(g_listen, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 || listen(g_listen, SOMAXCONN) != 0) {
        std::fprintf(stderr, "bench_raw_server: bind/listen failed: %d\n", WSAGetLastError());
        return 1;
    }
    CreateIoCompletionPort(reinterpret_cast<HANDLE>(g_listen), g_port, 0, 0);
    GUID guid = WSAID_ACCEPTEX;
    DWORD bytes = 0;
    WSAIoctl(g_listen, SIO_GET_EXTENSION_FUNCTION_POINTER, &guid, sizeof(guid), &g_acceptEx, sizeof(g_acceptEx), &bytes,
             NULL, NULL);
    long workers = args.Number("--workers", 4);
    for (long i = 0; i < workers; ++i)
        CloseHandle(CreateThread(NULL, 0, Worker, NULL, 0, NULL));
    for (int i = 0; i < kAcceptPool; ++i)
        PostAccept();
    int len = sizeof(a);
    getsockname(g_listen, reinterpret_cast<sockaddr*>(&a), &len);
    std::printf("listening on %u\n", ntohs(a.sin_port));
    std::fflush(stdout);
    Sleep(static_cast<DWORD>(args.Number("--seconds", 10) * 1000));
    PrintProcessCpu();
    ExitProcess(0);
}
