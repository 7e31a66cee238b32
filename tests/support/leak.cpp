#include "support/leak.h"

#include "module/module.h"
#include "support/wait.h"

long HeapBusyBlocks(HANDLE heap)
{
    if (heap == NULL || !HeapLock(heap))
        return -1;
    long busy = 0;
    PROCESS_HEAP_ENTRY entry = {};
    while (HeapWalk(heap, &entry))
        if (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY)
            ++busy;
    HeapUnlock(heap);
    return busy;
}

long ModuleHeapBusyBlocks() { return HeapBusyBlocks(g_hModuleHeap); }

long ProcessHandleCount()
{
    DWORD count = 0;
    GetProcessHandleCount(GetCurrentProcess(), &count);
    return (long)count;
}

LeakBaseline::LeakBaseline() : m_heapBlocks(ModuleHeapBusyBlocks()), m_handles(ProcessHandleCount()) {}

::testing::AssertionResult LeakBaseline::Check(const std::string& scenario) const
{
    long heap = 0, handles = 0;
    auto back = [&] {
        heap = ModuleHeapBusyBlocks();
        handles = ProcessHandleCount();
        return heap <= m_heapBlocks && handles <= m_handles;
    };
    if (Eventually(back, scenario + ": module heap blocks and handles back to baseline"))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << scenario << ": heap blocks " << heap << " (baseline " << m_heapBlocks
                                         << "), handles " << handles << " (baseline " << m_handles << ")";
}
