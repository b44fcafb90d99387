/* SPDX-License-Identifier: Apache-2.0 */
/*
 * SVMemoryPool: a CFAllocatorRef that recycles page-aligned blocks.
 *
 * Blocks given back to the pool's allocator are kept for a while (the
 * age-out period, 0.5 seconds unless the options say otherwise) and handed
 * out again to later requests of the same page-rounded size, so that a
 * stream of equal-sized buffers (block-buffer memory, typically) does not go
 * back to the system allocator each time.  Every block is page-aligned and
 * its size is rounded up to whole pages.  Aging is lazy: there is no timer;
 * stale blocks are given back to the system during later allocations and
 * deallocations.
 *
 * Lifetime.  The pool owns its allocator; clients that keep the allocator
 * beyond the pool retain it.  Once the pool is invalidated (or its last
 * reference goes) the allocator stops caching and works as a plain
 * page-aligned allocator until its own last reference goes.  Releasing the
 * allocator while blocks it handed out are still outstanding logs a leak
 * warning at level 3.
 *
 * Threads.  The allocator, SVMemoryPoolFlush and SVMemoryPoolInvalidate may
 * be used from any number of threads at once (one mutex per pool).
 *
 * Example:
 *
 *     SVMemoryPoolRef pool = SVMemoryPoolCreate(NULL);
 *     CFAllocatorRef allocator = SVMemoryPoolGetAllocator(pool);
 *     void *frame = CFAllocatorAllocate(allocator, 1 << 20, 0);
 *     ...
 *     CFAllocatorDeallocate(allocator, frame);   // cached for reuse
 *     SVMemoryPoolInvalidate(pool);
 *     CFRelease(pool);
 *
 * Arguments.  Every call that takes a pool treats an object that is not a
 * pool exactly like NULL.
 */
#ifndef SORVEL_SVMEMORYPOOL_H
#define SORVEL_SVMEMORYPOOL_H

#include <Sorvel/SVBase.h>

SV_EXTERN_C_BEGIN

typedef struct OpaqueSVMemoryPool *SVMemoryPoolRef;

/* Option key: the age-out period in seconds, as a CFNumber of a
 * floating-point type (an integer CFNumber is ignored). */
SV_EXPORT const CFStringRef kSVMemoryPoolOption_AgeOutPeriod;

/* The memory pool class's type identifier (registered on first use).  Two
 * pools are equal only when they are the same object; a pool's hash is its
 * address. */
SV_EXPORT CFTypeID SVMemoryPoolGetTypeID(void) SV_NOEXCEPT;

/* Creates a pool; `options` may be NULL.  Returns NULL when the pool cannot
 * be made.  The caller owns the new pool (CFRelease). */
SV_EXPORT SVMemoryPoolRef SVMemoryPoolCreate(CFDictionaryRef options) SV_NOEXCEPT;

/* The pool's allocator, not retained: the pool keeps it alive.  NULL for a
 * NULL pool. */
SV_EXPORT CFAllocatorRef SVMemoryPoolGetAllocator(SVMemoryPoolRef pool) SV_NOEXCEPT;

/* Gives every cached block back to the system now.  Does nothing for NULL
 * or an invalidated pool. */
SV_EXPORT void SVMemoryPoolFlush(SVMemoryPoolRef pool) SV_NOEXCEPT;

/* Stops caching for good: flushes the cache; from then on the allocator
 * allocates and frees directly.  A second call does nothing; NULL is
 * ignored. */
SV_EXPORT void SVMemoryPoolInvalidate(SVMemoryPoolRef pool) SV_NOEXCEPT;

SV_EXTERN_C_END

#endif /* SORVEL_SVMEMORYPOOL_H */
