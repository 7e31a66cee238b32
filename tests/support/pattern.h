// Test data that a shifted, dropped or repeated byte cannot hide in; the same
// size and seed give the same bytes.
#ifndef WISOCK_TESTS_PATTERN_H
#define WISOCK_TESTS_PATTERN_H

#include <cstddef>

// Bytes: std::string or std::vector<char>.
template <class Bytes>
Bytes PatternBytes(size_t size, unsigned seed)
{
    Bytes data(size, '\0');
    unsigned x = seed * 2654435761u + 1;
    for (size_t i = 0; i < size; ++i) {
        x = x * 1103515245u + 12345u;
        data[i] = static_cast<char>(x >> 16);
    }
    return data;
}

#endif
