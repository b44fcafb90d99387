/* SPDX-License-Identifier: Apache-2.0 */
// Private to the platform library: the open-addressing hash table behind
// CFDictionary and CFSet, and the callback functions that every collection's
// well-known callback records point at.
//
// Layout.  The table has 0 or a power-of-two number of buckets held in one
// allocation from the owning instance's allocator: an array of stored hashes,
// an array of keys and, for dictionaries, an array of values.  A stored hash
// of 0 marks an empty bucket, so real hashes are mixed and then forced
// non-zero.  Keeping the hash beside the key lets a probe skip the equal
// callback for every bucket whose hash differs.
//
// Probing is linear with Robin Hood placement: an entry being inserted takes
// the bucket of any resident that sits closer to its home bucket, which keeps
// probe lengths short and lets a lookup stop as soon as it meets a resident
// closer to home than the key would be.  Removal shifts the following run
// back by one bucket instead of leaving tombstones, so lookups never slow
// down after many removals and the table never needs a cleaning rehash.  The
// load factor stays at or below 3/4.  Lookups never allocate.
//
// Iteration walks the buckets in order: unspecified, but stable while the
// table is not modified.
//
// A collection's owner applies retain/release through the callbacks copied
// into the table; a NULL callback means "raw pointer" for that duty (no
// retain or release, equality and hash by address, "<%p>" description).
#ifndef SORVEL_PLATFORM_CFHASHTABLE_H
#define SORVEL_PLATFORM_CFHASHTABLE_H

#include "CFInternal.h"

// Key (dictionary) or member (set) callbacks, copied from the caller's record.
struct __CFHashKeyCallBacks {
    const void *(*retain)(CFAllocatorRef allocator, const void *value);
    void (*release)(CFAllocatorRef allocator, const void *value);
    CFStringRef (*copyDescription)(const void *value);
    Boolean (*equal)(const void *value1, const void *value2);
    CFHashCode (*hash)(const void *value);
};

// Value callbacks of a dictionary.
struct __CFHashValueCallBacks {
    const void *(*retain)(CFAllocatorRef allocator, const void *value);
    void (*release)(CFAllocatorRef allocator, const void *value);
    CFStringRef (*copyDescription)(const void *value);
    Boolean (*equal)(const void *value1, const void *value2);
};

struct __CFHashTable {
    CFHashCode *hashes;   // bucketCount entries; 0 = empty.  Owns the allocation.
    const void **keys;    // bucketCount entries, inside the same allocation
    const void **values;  // bucketCount entries, or NULL for a set
    CFIndex count;
    CFIndex bucketCount;  // 0 or a power of two
    CFIndex limit;        // a mutable collection's hard limit on count; 0 = none
    __CFHashKeyCallBacks keyCallBacks;
    __CFHashValueCallBacks valueCallBacks;
    bool hasValues;
    bool isMutable;
};

// How a store treats a key that is already present.
enum class __CFHashStoreMode {
    add,      // only add a missing key
    replace,  // only replace a present key's value (set: the member itself)
    set,      // add or replace
};

// Fills `table` (zeroed memory) for an empty collection.  NULL callback
// records mean raw pointers.
CF_PRIVATE void __CFHashTableInit(__CFHashTable *table, bool hasValues, bool isMutable, CFIndex limit,
                                  const __CFHashKeyCallBacks *keyCallBacks,
                                  const __CFHashValueCallBacks *valueCallBacks);

// The bucket holding a key equal to `key`, or kCFNotFound.
CF_PRIVATE CFIndex __CFHashTableFind(const __CFHashTable *table, const void *key);

// Adds `numValues` entries while a collection is being created (add
// semantics: the first of duplicate keys wins).  Returns false when storage
// cannot be allocated or a retain callback fails (returns NULL for a non-NULL
// value); entries stored so far stay in the table for the owner's finalize to
// release.  `values` is ignored for sets.
CF_PRIVATE bool __CFHashTableAddAll(__CFHashTable *table, CFTypeRef owner, const void **keys, const void **values,
                                    CFIndex numValues);

// Adds every entry of `source` to the empty `table`, which has the same
// callbacks.  Same failure rules as __CFHashTableAddAll.
CF_PRIVATE bool __CFHashTableAddTable(__CFHashTable *table, CFTypeRef owner, const __CFHashTable *source);

// Mutation of a mutable collection.  Exceeding the limit, running out of
// memory while growing, or a failing retain callback stops the process;
// `function` names the public call in those messages.
CF_PRIVATE void __CFHashTableStore(__CFHashTable *table, CFTypeRef owner, const void *key, const void *value,
                                   __CFHashStoreMode mode, const char *function);
CF_PRIVATE void __CFHashTableRemove(__CFHashTable *table, CFTypeRef owner, const void *key);
CF_PRIVATE void __CFHashTableRemoveAll(__CFHashTable *table, CFTypeRef owner);

// Releases every entry and the storage.  Copes with a half-built table.
CF_PRIVATE void __CFHashTableDestroy(__CFHashTable *table, CFTypeRef owner);

// Same count, every key of `a` present in `b` and, with values, the values
// equal by `a`'s value equal callback.
CF_PRIVATE bool __CFHashTableEqual(const __CFHashTable *a, const __CFHashTable *b);

// Number of entries whose value (a set: member) equals `value`, by the
// value (member) equal callback.
CF_PRIVATE CFIndex __CFHashTableCountOfValue(const __CFHashTable *table, const void *value);

// The collection's debug description:
// "<Class 0x.. [0x..]>{type = mutable, count = N, entries =>\n\t0 : k = v\n}"
// for dictionaries, "... values = (\n\t0 : v\n)}" for sets.
CF_PRIVATE CFStringRef __CFHashTableCopyDescription(const __CFHashTable *table, CFTypeRef owner, const char *className);

// Visits buckets in order.
template <typename Visit>
inline void __CFHashTableForEach(const __CFHashTable *table, Visit &&visit) {
    for (CFIndex i = 0; i < table->bucketCount; i++) {
        if (table->hashes[i] != 0) visit(table->keys[i], table->values ? table->values[i] : table->keys[i]);
    }
}

// The functions behind the well-known callback records of every collection.
extern "C" {
CF_PRIVATE const void *__CFCollectionRetainType(CFAllocatorRef allocator, const void *value) noexcept;
CF_PRIVATE void __CFCollectionReleaseType(CFAllocatorRef allocator, const void *value) noexcept;
CF_PRIVATE const void *__CFCollectionCopyString(CFAllocatorRef allocator, const void *value) noexcept;
}

#endif  // SORVEL_PLATFORM_CFHASHTABLE_H
