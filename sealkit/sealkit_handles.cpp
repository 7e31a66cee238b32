#include "sealkit_handles.h"

namespace sealkit {

HandleTable::Slot* HandleTable::SlotOf(ULONG_PTR handle) const
{
    ULONG_PTR index = (handle & ((ULONG_PTR(1) << kIndexBits) - 1));
    if (index == 0)
        return nullptr;
    --index;
    Slot* chunk = m_chunks[index / kChunkSlots].load(std::memory_order_acquire);
    return chunk != nullptr ? &chunk[index % kChunkSlots] : nullptr;
}

ULONG_PTR HandleTable::Add(Connection* connection)
{
    std::lock_guard<std::mutex> guard(m_lock);
    size_t index;
    if (!m_free.empty()) {
        index = m_free.back();
        m_free.pop_back();
    } else if (m_next + 1 < (size_t(1) << kIndexBits)) {
        index = m_next++;
    } else {
        return 0;
    }
    std::atomic<Slot*>& chunk = m_chunks[index / kChunkSlots];
    if (chunk.load(std::memory_order_relaxed) == nullptr)
        chunk.store(new Slot[kChunkSlots], std::memory_order_release);
    Slot& slot = chunk.load(std::memory_order_relaxed)[index % kChunkSlots];
    ULONG_PTR handle = (++slot.generation << kIndexBits) | (index + 1);
    slot.connection.store(connection, std::memory_order_relaxed);
    slot.handle.store(handle, std::memory_order_release);
    ++m_count;
    return handle;
}

Connection* HandleTable::Find(ULONG_PTR handle) const
{
    Slot* slot = SlotOf(handle);
    if (slot == nullptr || slot->handle.load(std::memory_order_acquire) != handle)
        return nullptr;
    return slot->connection.load(std::memory_order_acquire);
}

Connection* HandleTable::Remove(ULONG_PTR handle)
{
    std::lock_guard<std::mutex> guard(m_lock);
    Slot* slot = SlotOf(handle);
    if (slot == nullptr || slot->handle.load(std::memory_order_relaxed) != handle)
        return nullptr;
    Connection* connection = slot->connection.exchange(nullptr);
    slot->handle.store(0, std::memory_order_release);
    m_free.push_back((handle & ((ULONG_PTR(1) << kIndexBits) - 1)) - 1);
    --m_count;
    return connection;
}

size_t HandleTable::Count()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_count;
}

}  // namespace sealkit
