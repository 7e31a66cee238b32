// The table of open TLS handles. A handle names a slot and the generation of
// that slot, so a handle that was shut down never finds the connection that
// later takes the slot (or the same address). Lookups take no lock: reads and
// writes on different connections never wait for each other or for an open.
#ifndef SEALKIT_HANDLES_H
#define SEALKIT_HANDLES_H

#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <cstddef>
#include <mutex>
#include <vector>

namespace sealkit {

class Connection;

class HandleTable {
public:
    // The handle of a new entry, or 0 when the table is full.
    ULONG_PTR Add(Connection* connection);
    // The connection of an open handle; null for 0, a stale or a foreign value.
    Connection* Find(ULONG_PTR handle) const;
    // Takes the entry out; null if the handle isn't open.
    Connection* Remove(ULONG_PTR handle);
    size_t Count();

private:
    static const ULONG_PTR kIndexBits = 20;                  // slots 0 .. 2^20 - 2
    static const size_t kChunkSlots = 4096;
    static const size_t kChunks = (size_t(1) << kIndexBits) / kChunkSlots;

    struct Slot {
        std::atomic<ULONG_PTR> handle{0};                   // 0 while free
        std::atomic<Connection*> connection{nullptr};
        ULONG_PTR generation = 0;                           // under m_lock
    };
    Slot* SlotOf(ULONG_PTR handle) const;

    std::atomic<Slot*> m_chunks[kChunks] = {};               // made as needed, never freed
    std::mutex m_lock;                                      // adds and removes
    std::vector<size_t> m_free;
    size_t m_next = 0;
    size_t m_count = 0;
};

}  // namespace sealkit

#endif
