// Command-line options of the bench programs: --name value pairs.
#ifndef WISOCK_BENCH_ARGS_H
#define WISOCK_BENCH_ARGS_H

#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

struct BenchArgs {
    int argc;
    char** argv;
    std::string Text(const char* name, const char* fallback) const
    {
        for (int i = 1; i + 1 < argc; ++i)
            if (std::strcmp(argv[i], name) == 0)
                return argv[i + 1];
        return fallback;
    }
    long Number(const char* name, long fallback) const
    {
        std::string t = Text(name, "");
        return t.empty() ? fallback : std::strtol(t.c_str(), nullptr, 10);
    }
};

// The process's own CPU time (user + kernel) so far, in microseconds. Wine's
// server process is apart; bench/run reads its time from outside.
inline long long ProcessCpuUs()
{
    FILETIME created, exited, kernel, user;
    if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user))
        return -1;
    auto us = [](const FILETIME& t) { return ((static_cast<long long>(t.dwHighDateTime) << 32) | t.dwLowDateTime) / 10; };
    return us(kernel) + us(user);
}

// The last line a server prints, read by bench/run.
inline void PrintProcessCpu()
{
    std::printf("cpu_us %lld\n", ProcessCpuUs());
    std::fflush(stdout);
}

#endif
