// Linked into every test program: stdout unbuffered, so that a program that
// dies (or that ctest kills at its time-out) still shows what it printed
// before; a pipe is fully buffered otherwise.
#include <cstdio>

[[maybe_unused]] static const int g_nUnbuffered = setvbuf(stdout, nullptr, _IONBF, 0);
