// Command-line options of the bench programs: --name value pairs.
#ifndef WISOCK_BENCH_ARGS_H
#define WISOCK_BENCH_ARGS_H

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

#endif
