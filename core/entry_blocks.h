// Storage for the entries of the daemon's hash tables (the client records, the ARP
// snapshots, the MAC usage table): entries are handed out from blocks of N, one malloc per
// block instead of one per entry, which also saves the allocator's header of every entry.
// Nothing is ever given back one entry at a time: the client tables free their store with
// the tables, and the MAC module's tables are emptied as a whole (an ARP snapshot every
// reading, the usage table every hour); emptying keeps the first block for the next
// filling and frees the others, a cost per block, not per entry.
//
// A plain struct: zero-initialised it is an empty store without blocks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

template <typename T, size_t N>
struct entry_blocks {
    T** blocks;          // block_count blocks of N entries (malloc'd)
    size_t block_count;  // blocks allocated
    size_t block_slots;  // room in blocks (malloc'd)
    size_t used;         // entries handed out: the first used slots of the blocks
};

// Entry i (below used).
template <typename T, size_t N>
inline T& entry_at(const entry_blocks<T, N>& store, size_t i)
{
    return store.blocks[i / N][i % N];
}

// Calls f on every entry handed out, in the order of memory (which is the order they were
// taken in): a walk that reads each block from start to end, which the CPU's prefetcher
// follows, where a walk along a hash table's chains jumps about. For work that does not
// depend on the order.
template <typename T, size_t N, typename F>
void for_each_entry(const entry_blocks<T, N>& store, F f)
{
    size_t left = store.used;
    for (size_t b = 0; left > 0; ++b) {
        const size_t count = left < N ? left : N;
        T* const block = store.blocks[b];
        for (size_t i = 0; i < count; ++i)
            f(block[i]);
        left -= count;
    }
}

// The next free entry (uninitialised), or null when memory runs out.
template <typename T, size_t N>
T* take_entry(entry_blocks<T, N>& store)
{
    if (store.used == store.block_count * N) {
        if (store.block_count == store.block_slots) {
            const size_t slots = store.block_slots ? 2 * store.block_slots : 8;
            if (slots > SIZE_MAX / sizeof(T*))
                return nullptr;
            void* grown = realloc(store.blocks, slots * sizeof(T*));
            if (!grown)
                return nullptr;
            store.blocks = static_cast<T**>(grown);
            store.block_slots = slots;
        }
        T* block = static_cast<T*>(malloc(N * sizeof(T)));
        if (!block)
            return nullptr;
        store.blocks[store.block_count++] = block;
    }
    T* e = &store.blocks[store.used / N][store.used % N];
    ++store.used;
    return e;
}

// Empties the store: keeps the first block (if any) for the next filling, frees the others.
template <typename T, size_t N>
void empty_entries(entry_blocks<T, N>& store)
{
    while (store.block_count > 1)
        free(store.blocks[--store.block_count]);
    store.used = 0;
}

// Empties the store and frees all its memory.
template <typename T, size_t N>
void free_entries(entry_blocks<T, N>& store)
{
    while (store.block_count > 0)
        free(store.blocks[--store.block_count]);
    free(store.blocks);
    store.blocks = nullptr;
    store.block_slots = 0;
    store.used = 0;
}
