// Load client for the echo servers: C connections, each keeping W messages of
// M bytes in flight for T seconds. Prints messages/s, MB/s and the p50/p99
// round trip. Traffic goes to 127.0.0.1 only.
// With --mode tls every connection speaks TLS through Sealkit (the library
// wisock uses), on the same blocking thread-per-connection loop as plain.
// The clock starts when every connection stands (connected, and the TLS
// handshake done), so handshakes don't count against the echo rate.
// Two more loads:
//   --churn N: C threads open N connections in all, one after the other on
//     each thread; each connects (and shakes hands), echoes one message and
//     closes. Prints connections/s.
//   --idle N: opens N connections, holds them for T seconds, then closes them.
// Usage: bench_load_client --port P [--connections C] [--size M] [--window W] [--seconds T]
//                          [--mode plain|tls] [--churn N | --idle N]
#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <deque>
#include <string>
#include <vector>

#include "bench_args.h"
#include "tls/tls_library.h"

namespace {

// One connection: a socket and, in TLS mode, its TLS handle.
struct Link {
    SOCKET s = INVALID_SOCKET;
    HSSL ssl = 0;
};

struct Job {
    unsigned short port;
    int size, window;
    bool tls;
    HANDLE ready;      // set by the thread when its connection stands (or failed)
    HANDLE start;      // set by main when every connection stands
    ULONGLONG deadline = 0;   // written by main before start is set
    std::vector<double> rtts;   // microseconds
    long long messages = 0;
    bool failed = false;
};

double g_tickToUs;

double NowUs()
{
    LARGE_INTEGER t;
    QueryPerformanceCounter(&t);
    return t.QuadPart * g_tickToUs;
}

SOCKET ConnectWithRetry(unsigned short port)
{
    ULONGLONG giveUp = GetTickCount64() + 10000;
    while (GetTickCount64() < giveUp) {
        SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        sockaddr_in a = {};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(port);
        if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0) {
            int one = 1;
            setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char*>(&one), sizeof(one));
            return s;
        }
        closesocket(s);
        Sleep(50);   // the server is still starting
    }
    return INVALID_SOCKET;
}

// Connects and, in TLS mode, runs the handshake; a failure gives no socket.
Link Open(unsigned short port, bool tls)
{
    Link link;
    link.s = ConnectWithRetry(port);
    if (link.s == INVALID_SOCKET || !tls)
        return link;
    link.ssl = OPENSSL_connect(link.s);
    if (link.ssl == 0) {
        closesocket(link.s);
        link.s = INVALID_SOCKET;
    }
    return link;
}

void Shut(Link& link)
{
    if (link.ssl != 0)
        OPENSSL_shutdown(link.ssl);
    closesocket(link.s);
}

// Blocking socket: both calls wait, as send and recv do.
int Write(const Link& link, const char* data, int size)
{
    return link.ssl != 0 ? OPENSSL_write(link.ssl, data, size) : send(link.s, data, size, 0);
}

int Read(const Link& link, char* buffer, int size)
{
    return link.ssl != 0 ? OPENSSL_read(link.ssl, buffer, size) : recv(link.s, buffer, size, 0);
}

bool SendMessage(const Link& link, const std::string& m)
{
    size_t done = 0;
    while (done < m.size()) {
        int n = Write(link, m.data() + done, static_cast<int>(m.size() - done));
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

DWORD WINAPI Run(void* p)
{
    Job& job = *static_cast<Job*>(p);
    Link s = Open(job.port, job.tls);
    SetEvent(job.ready);
    if (s.s == INVALID_SOCKET) {
        job.failed = true;
        return 0;
    }
    WaitForSingleObject(job.start, INFINITE);
    std::string message(static_cast<size_t>(job.size), 'b');
    std::deque<double> sentAt;
    for (int i = 0; i < job.window; ++i) {
        sentAt.push_back(NowUs());
        if (!SendMessage(s, message))
            job.failed = true;
    }
    std::vector<char> buf(65536);
    long long pending = 0;   // bytes of the current echo received so far
    while (!job.failed && !sentAt.empty()) {
        int n = Read(s, buf.data(), static_cast<int>(buf.size()));
        if (n <= 0) {
            job.failed = true;
            break;
        }
        pending += n;
        while (pending >= job.size && !sentAt.empty()) {
            pending -= job.size;
            job.rtts.push_back(NowUs() - sentAt.front());
            sentAt.pop_front();
            ++job.messages;
            if (GetTickCount64() < job.deadline) {
                sentAt.push_back(NowUs());
                if (!SendMessage(s, message))
                    job.failed = true;
            }
        }
    }
    Shut(s);
    return 0;
}

// --churn: connections until the shared count runs out.
struct ChurnJob {
    unsigned short port;
    int size;
    bool tls;
    std::atomic<long>* left;
    long done = 0;
    bool failed = false;
};

DWORD WINAPI Churn(void* p)
{
    ChurnJob& job = *static_cast<ChurnJob*>(p);
    std::string message(static_cast<size_t>(job.size), 'c');
    std::vector<char> buf(static_cast<size_t>(job.size));
    while (!job.failed && (*job.left)-- > 0) {
        Link link = Open(job.port, job.tls);
        int got = 0;
        bool ok = link.s != INVALID_SOCKET && SendMessage(link, message);
        while (ok && got < job.size) {
            int n = Read(link, buf.data() + got, job.size - got);
            ok = n > 0;
            got += ok ? n : 0;
        }
        if (link.s != INVALID_SOCKET)
            Shut(link);
        job.failed = !ok;
        job.done += ok ? 1 : 0;
    }
    return 0;
}

int RunChurn(unsigned short port, int threads, int size, bool tls, long total)
{
    std::atomic<long> left(total);
    std::vector<ChurnJob> jobs(static_cast<size_t>(threads));
    std::vector<HANDLE> handles;
    double t0 = NowUs();
    for (ChurnJob& j : jobs) {
        j.port = port;
        j.size = size;
        j.tls = tls;
        j.left = &left;
        handles.push_back(CreateThread(NULL, 0, Churn, &j, 0, NULL));
    }
    long done = 0;
    int failed = 0;
    for (size_t i = 0; i < handles.size(); ++i) {
        WaitForSingleObject(handles[i], INFINITE);
        CloseHandle(handles[i]);
        done += jobs[i].done;
        failed += jobs[i].failed ? 1 : 0;
    }
    double elapsed = (NowUs() - t0) / 1e6;
    std::printf("connections/s %.0f connections %ld failed %d\n", done / elapsed, done, failed);
    return failed ? 1 : 0;
}

// --idle: N connections that stand and say nothing for a while.
int RunIdle(unsigned short port, bool tls, long count, long seconds)
{
    std::vector<Link> links;
    for (long i = 0; i < count; ++i) {
        links.push_back(Open(port, tls));
        if (links.back().s == INVALID_SOCKET) {
            std::printf("idle: connection %ld failed\n", i);
            return 1;
        }
    }
    std::printf("idle %ld open\n", count);
    std::fflush(stdout);
    Sleep(static_cast<DWORD>(seconds * 1000));
    for (Link& link : links)
        Shut(link);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    BenchArgs args{argc, argv};
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    g_tickToUs = 1e6 / static_cast<double>(f.QuadPart);
    WSADATA wsa;
    WSAStartup(MAKEWORD(2, 2), &wsa);
    int connections = static_cast<int>(args.Number("--connections", 16));
    int size = static_cast<int>(args.Number("--size", 1024));
    int window = static_cast<int>(args.Number("--window", 4));
    long seconds = args.Number("--seconds", 3);
    unsigned short port = static_cast<unsigned short>(args.Number("--port", 0));
    bool tls = args.Text("--mode", "plain") == "tls";
    if (tls)
        OPENSSL_init(0);   // SEALKIT_CA from bench/run: the servers' demo CA
    if (args.Number("--churn", 0) > 0)
        return RunChurn(port, connections, size, tls, args.Number("--churn", 0));
    if (args.Number("--idle", 0) > 0)
        return RunIdle(port, tls, args.Number("--idle", 0), seconds);
    HANDLE start = CreateEventW(NULL, TRUE, FALSE, NULL);
    std::vector<Job> jobs(static_cast<size_t>(connections));
    std::vector<HANDLE> threads, ready;
    for (Job& j : jobs) {
        j.port = port;
        j.size = size;
        j.window = window;
        j.tls = tls;
        j.ready = CreateEventW(NULL, TRUE, FALSE, NULL);
        j.start = start;
        ready.push_back(j.ready);
        threads.push_back(CreateThread(NULL, 0, Run, &j, 0, NULL));
    }
    for (HANDLE h : ready) {
        WaitForSingleObject(h, INFINITE);
        CloseHandle(h);
    }
    double t0 = NowUs();
    ULONGLONG deadline = GetTickCount64() + static_cast<ULONGLONG>(seconds) * 1000;
    for (Job& j : jobs)
        j.deadline = deadline;
    SetEvent(start);
    for (HANDLE h : threads) {
        WaitForSingleObject(h, INFINITE);
        CloseHandle(h);
    }
    double elapsed = (NowUs() - t0) / 1e6;
    CloseHandle(start);
    if (tls)
        OPENSSL_uninit();
    std::vector<double> rtts;
    long long messages = 0;
    int failed = 0;
    for (Job& j : jobs) {
        rtts.insert(rtts.end(), j.rtts.begin(), j.rtts.end());
        messages += j.messages;
        failed += j.failed ? 1 : 0;
    }
    std::sort(rtts.begin(), rtts.end());
    auto pct = [&](double q) { return rtts.empty() ? 0.0 : rtts[static_cast<size_t>(q * (rtts.size() - 1))]; };
    std::printf("messages/s %.0f MB/s %.2f p50_us %.0f p99_us %.0f connections %d failed %d messages %lld\n",
                messages / elapsed, 2.0 * messages * size / elapsed / 1e6, pct(0.50), pct(0.99), connections, failed,
                messages);
    return failed ? 1 : 0;
}
