/* SPDX-License-Identifier: Apache-2.0 */
// The memory pool's layout: the pool object, the state its allocator
// shares with it, the cache of freed blocks and the table of blocks out.
#ifndef SORVEL_SOURCES_SVMEMORYPOOLINTERNAL_H
#define SORVEL_SOURCES_SVMEMORYPOOLINTERNAL_H

#include <CoreFoundation/CFRuntime.h>
#include <Sorvel/SVMemoryPool.h>
#include <XPLog/XPLog.h>

#include <cstddef>
#include <cstdint>

// One cached block.
struct SVMemoryPoolCachedBlock {
    size_t roundedSize;    // page-rounded size of the block
    uint64_t releaseTime;  // monotonic host time in nanoseconds when it was freed
    void *block;
};

// Cached blocks, oldest first (new ones are appended at the end).  Since
// every entry is appended under the pool's lock with the monotonic time of
// that moment, release times never decrease along the list, so the entries
// old enough to age out are always a prefix of it.
struct SVMemoryPoolFreeList {
    SVMemoryPoolCachedBlock *entries;
    size_t count;
    size_t capacity;
};

// Blocks handed out and not yet given back: block address -> the size the
// client asked for.  Open addressing with linear probing; `capacity` is a
// power of two (or 0 before the first insertion) and at most half full.
struct SVMemoryPoolOutstandingSlot {
    void *block;  // NULL: empty slot
    size_t requestedSize;
};
struct SVMemoryPoolOutstandingTable {
    SVMemoryPoolOutstandingSlot *slots;
    size_t count;
    size_t capacity;
};

struct OpaqueSVMemoryPool;

// The allocator's context info.  Owned by the allocator: it outlives the
// pool while clients still hold the allocator.
struct SVMemoryPoolAllocatorState {
    OpaqueSVMemoryPool *pool;  // NULL once the pool is invalidated or finalized
    SVMemoryPoolOutstandingTable outstanding;
    XPMutexRef lock;  // guards this record and the pool's free list
};

struct OpaqueSVMemoryPool {
    CFRuntimeBase base;
    double ageOutPeriod;  // seconds
    CFAllocatorRef allocator;
    SVMemoryPoolAllocatorState *state;
    SVMemoryPoolFreeList *freeList;  // NULL after invalidation
};

// The allocator's release callback: runs when the allocator's last
// reference goes.
extern "C" __attribute__((visibility("default"))) void _SVMemoryPoolAllocatorRelease(const void *info) noexcept;

#endif  // SORVEL_SOURCES_SVMEMORYPOOLINTERNAL_H
