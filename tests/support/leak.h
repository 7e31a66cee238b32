// Leak counters: live blocks on wisock's module heap and handles of the process.
#ifndef WISOCK_TESTS_LEAK_H
#define WISOCK_TESTS_LEAK_H

#include <winsock2.h>
#include <windows.h>

#include <string>

#include <gtest/gtest.h>

// Busy blocks on a heap; -1 without a heap or when it can't be locked.
long HeapBusyBlocks(HANDLE heap);
// Busy blocks on the module heap (g_hModuleHeap of wisock.dll); -1 without a heap.
long ModuleHeapBusyBlocks();
// Handles the process holds now.
long ProcessHandleCount();

// Notes the counts at construction; Check() waits until both are back.
class LeakBaseline {
public:
    LeakBaseline();
    ::testing::AssertionResult Check(const std::string& scenario) const;

private:
    long m_heapBlocks;
    long m_handles;
};

#endif
