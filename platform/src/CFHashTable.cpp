// SPDX-License-Identifier: Apache-2.0
// The open-addressing hash table shared by CFDictionary and CFSet (see
// CFHashTable.h for the model), and the well-known collection callbacks.
#define CF_SOURCE_PATH "CoreFoundation/CFHashTable"

#include "CFHashTable.h"

#include <cstdio>
#include <cstring>
#include <utility>

namespace {

constexpr CFIndex kMinBuckets = 8;

inline CFIndex bytesPerBucket(const __CFHashTable *table) {
    return static_cast<CFIndex>(sizeof(CFHashCode) + sizeof(void *) * (table->hasValues ? 2 : 1));
}

// The smallest power-of-two bucket count that holds `count` entries at a load
// of at most 3/4, or 0 when that many buckets cannot be addressed.
CFIndex bucketsFor(const __CFHashTable *table, CFIndex count) {
    if (count <= 0) return 0;
    const CFIndex maxBuckets = (static_cast<CFIndex>(1) << 62) / bytesPerBucket(table);
    CFIndex buckets = kMinBuckets;
    while (buckets / 4 * 3 < count) {
        if (buckets > maxBuckets / 2) return 0;
        buckets <<= 1;
    }
    return buckets;
}

// The stored form of a key's hash: mixed, because callers' hashes (addresses,
// small integers) are poorly distributed in their low bits, and never 0,
// which marks an empty bucket.
inline CFHashCode hashKey(const __CFHashTable *table, const void *key) {
    const CFHashCode raw = table->keyCallBacks.hash ? table->keyCallBacks.hash(key)
                                                    : static_cast<CFHashCode>(reinterpret_cast<uintptr_t>(key));
    const CFHashCode mixed = __CFHashMix(raw);
    return mixed ? mixed : 1;
}

inline bool keysEqual(const __CFHashTable *table, const void *stored, const void *key) {
    return stored == key || (table->keyCallBacks.equal && table->keyCallBacks.equal(stored, key));
}

// How far the entry in `bucket` sits from the bucket its hash prefers.
inline CFIndex probeDistance(const __CFHashTable *table, CFIndex bucket) {
    const CFIndex mask = table->bucketCount - 1;
    return (bucket - static_cast<CFIndex>(table->hashes[bucket] & static_cast<CFHashCode>(mask))) & mask;
}

CFIndex findHashed(const __CFHashTable *table, const void *key, CFHashCode hash) {
    if (table->count == 0) return kCFNotFound;
    const CFIndex mask = table->bucketCount - 1;
    CFIndex bucket = static_cast<CFIndex>(hash & static_cast<CFHashCode>(mask));
    // The load factor leaves empty buckets, so every probe ends.
    for (CFIndex distance = 0;; distance++) {
        const CFHashCode stored = table->hashes[bucket];
        if (stored == 0) return kCFNotFound;
        // Robin Hood placement: had the key been here, it would have taken
        // this bucket from a resident closer to its own home.
        if (probeDistance(table, bucket) < distance) return kCFNotFound;
        if (stored == hash && keysEqual(table, table->keys[bucket], key)) return bucket;
        bucket = (bucket + 1) & mask;
    }
}

// Places an entry known to be absent; the table has room for it.
void insertNew(__CFHashTable *table, CFHashCode hash, const void *key, const void *value) {
    const CFIndex mask = table->bucketCount - 1;
    CFIndex bucket = static_cast<CFIndex>(hash & static_cast<CFHashCode>(mask));
    CFIndex distance = 0;
    for (;;) {
        if (table->hashes[bucket] == 0) {
            table->hashes[bucket] = hash;
            table->keys[bucket] = key;
            if (table->values) table->values[bucket] = value;
            table->count++;
            return;
        }
        const CFIndex residentDistance = probeDistance(table, bucket);
        if (residentDistance < distance) {
            // Take the bucket from the resident closer to home and carry it on.
            std::swap(table->hashes[bucket], hash);
            std::swap(table->keys[bucket], key);
            if (table->values) std::swap(table->values[bucket], value);
            distance = residentDistance;
        }
        bucket = (bucket + 1) & mask;
        distance++;
    }
}

// Empties `bucket` and shifts the run after it back by one, so no tombstone
// is left for later probes to walk over.
void removeAt(__CFHashTable *table, CFIndex bucket) {
    const CFIndex mask = table->bucketCount - 1;
    for (;;) {
        const CFIndex next = (bucket + 1) & mask;
        if (table->hashes[next] == 0 || probeDistance(table, next) == 0) break;
        table->hashes[bucket] = table->hashes[next];
        table->keys[bucket] = table->keys[next];
        if (table->values) table->values[bucket] = table->values[next];
        bucket = next;
    }
    table->hashes[bucket] = 0;
    table->keys[bucket] = nullptr;
    if (table->values) table->values[bucket] = nullptr;
    table->count--;
}

// Points the table at freshly allocated, empty storage for `buckets` buckets.
bool attachStorage(__CFHashTable *table, CFAllocatorRef allocator, CFIndex buckets) {
    auto *memory = static_cast<uint8_t *>(CFAllocatorAllocate(allocator, buckets * bytesPerBucket(table), 0));
    if (!memory) return false;
    table->hashes = reinterpret_cast<CFHashCode *>(memory);
    table->keys = reinterpret_cast<const void **>(memory + buckets * sizeof(CFHashCode));
    table->values = table->hasValues ? table->keys + buckets : nullptr;
    table->bucketCount = buckets;
    table->count = 0;
    std::memset(memory, 0, static_cast<size_t>(buckets * bytesPerBucket(table)));
    return true;
}

// Makes room for `count` entries without calling any callback (entries move
// by their stored hash).  False when the storage cannot be allocated; the
// table is then unchanged.
bool reserve(__CFHashTable *table, CFAllocatorRef allocator, CFIndex count) {
    if (count <= table->bucketCount / 4 * 3) return true;
    const CFIndex buckets = bucketsFor(table, count);
    if (buckets == 0) return false;
    __CFHashTable old = *table;
    if (!attachStorage(table, allocator, buckets)) {
        *table = old;
        return false;
    }
    for (CFIndex i = 0; i < old.bucketCount; i++) {
        if (old.hashes[i] != 0) insertNew(table, old.hashes[i], old.keys[i], old.values ? old.values[i] : nullptr);
    }
    CFAllocatorDeallocate(allocator, old.hashes);
    return true;
}

// Retains through `retain`; a NULL result for a non-NULL value means the
// callback (a copy, typically) could not allocate.
template <typename Retain>
inline bool retainInto(Retain retain, CFAllocatorRef allocator, const void *value, const void **out) {
    *out = retain ? retain(allocator, value) : value;
    return *out != nullptr || value == nullptr;
}

inline void releaseKey(const __CFHashTable *table, CFAllocatorRef allocator, const void *key) {
    if (table->keyCallBacks.release) table->keyCallBacks.release(allocator, key);
}

inline void releaseValue(const __CFHashTable *table, CFAllocatorRef allocator, const void *value) {
    if (table->hasValues && table->valueCallBacks.release) table->valueCallBacks.release(allocator, value);
}

// Retains and places a new entry; the table has room.  False (nothing kept)
// when a retain callback fails.
bool retainAndInsert(__CFHashTable *table, CFAllocatorRef allocator, CFHashCode hash, const void *key,
                     const void *value) {
    const void *storedKey;
    if (!retainInto(table->keyCallBacks.retain, allocator, key, &storedKey)) return false;
    const void *storedValue = nullptr;
    if (table->hasValues && !retainInto(table->valueCallBacks.retain, allocator, value, &storedValue)) {
        releaseKey(table, allocator, storedKey);
        return false;
    }
    insertNew(table, hash, storedKey, storedValue);
    return true;
}

void appendCString(CFMutableStringRef string, const char *text) {
    CFStringAppendCString(string, text, kCFStringEncodingUTF8);
}

void appendValueDescription(CFMutableStringRef string, const void *value,
                            CFStringRef (*copyDescription)(const void *)) {
    CFStringRef description = __CFCopyValueDescription(value, copyDescription);
    if (description) {
        CFStringAppend(string, description);
        CFRelease(description);
    }
}

}  // namespace

void __CFHashTableInit(__CFHashTable *table, bool hasValues, bool isMutable, CFIndex limit,
                       const __CFHashKeyCallBacks *keyCallBacks, const __CFHashValueCallBacks *valueCallBacks) {
    *table = __CFHashTable{};
    table->hasValues = hasValues;
    table->isMutable = isMutable;
    table->limit = limit;
    if (keyCallBacks) table->keyCallBacks = *keyCallBacks;
    if (hasValues && valueCallBacks) table->valueCallBacks = *valueCallBacks;
}

CFIndex __CFHashTableFind(const __CFHashTable *table, const void *key) {
    if (table->count == 0) return kCFNotFound;
    return findHashed(table, key, hashKey(table, key));
}

bool __CFHashTableAddAll(__CFHashTable *table, CFTypeRef owner, const void **keys, const void **values,
                         CFIndex numValues) {
    const CFAllocatorRef allocator = CFGetAllocator(owner);
    // Duplicate keys may leave the table a little roomier than needed.
    if (!reserve(table, allocator, numValues)) return false;
    for (CFIndex i = 0; i < numValues; i++) {
        const CFHashCode hash = hashKey(table, keys[i]);
        if (findHashed(table, keys[i], hash) != kCFNotFound) continue;
        if (!retainAndInsert(table, allocator, hash, keys[i], table->hasValues ? values[i] : nullptr)) return false;
    }
    return true;
}

bool __CFHashTableAddTable(__CFHashTable *table, CFTypeRef owner, const __CFHashTable *source) {
    const CFAllocatorRef allocator = CFGetAllocator(owner);
    if (!reserve(table, allocator, source->count)) return false;
    for (CFIndex i = 0; i < source->bucketCount; i++) {
        if (source->hashes[i] == 0) continue;
        // Same callbacks, so the stored hash is still right (a copied key
        // hashes like its original).
        if (!retainAndInsert(table, allocator, source->hashes[i], source->keys[i],
                             source->values ? source->values[i] : nullptr))
            return false;
    }
    return true;
}

void __CFHashTableStore(__CFHashTable *table, CFTypeRef owner, const void *key, const void *value,
                        __CFHashStoreMode mode, const char *function) {
    const CFHashCode hash = hashKey(table, key);
    const CFIndex bucket = findHashed(table, key, hash);
    const CFAllocatorRef allocator = CFGetAllocator(owner);
    if (bucket != kCFNotFound) {
        if (mode == __CFHashStoreMode::add) return;
        // Retain the newcomer before releasing the old one: they may be the
        // same object, held only by this collection.
        if (table->hasValues) {
            const void *newValue;
            if (!retainInto(table->valueCallBacks.retain, allocator, value, &newValue))
                CF_FATAL_IN(function, "the value retain callback failed (out of memory?)");
            const void *oldValue = table->values[bucket];
            table->values[bucket] = newValue;
            releaseValue(table, allocator, oldValue);
        } else {
            // A set replaces the member itself; equal members hash alike, so
            // the stored hash stays valid.
            const void *newKey;
            if (!retainInto(table->keyCallBacks.retain, allocator, key, &newKey))
                CF_FATAL_IN(function, "the value retain callback failed (out of memory?)");
            const void *oldKey = table->keys[bucket];
            table->keys[bucket] = newKey;
            releaseKey(table, allocator, oldKey);
        }
        return;
    }
    if (mode == __CFHashStoreMode::replace) return;
    if (table->limit > 0 && table->count >= table->limit)
        CF_FATAL_IN(function, "the collection is full: its capacity is %ld", static_cast<long>(table->limit));
    if (!reserve(table, allocator, table->count + 1))
        CF_FATAL_IN(function, "out of memory growing the collection past %ld entries", static_cast<long>(table->count));
    if (!retainAndInsert(table, allocator, hash, key, value))
        CF_FATAL_IN(function, "a retain callback failed (out of memory?)");
}

void __CFHashTableRemove(__CFHashTable *table, CFTypeRef owner, const void *key) {
    const CFIndex bucket = __CFHashTableFind(table, key);
    if (bucket == kCFNotFound) return;
    const void *oldKey = table->keys[bucket];
    const void *oldValue = table->values ? table->values[bucket] : nullptr;
    removeAt(table, bucket);
    // Released only once the table is consistent again.
    const CFAllocatorRef allocator = CFGetAllocator(owner);
    releaseKey(table, allocator, oldKey);
    releaseValue(table, allocator, oldValue);
}

void __CFHashTableRemoveAll(__CFHashTable *table, CFTypeRef owner) {
    // Detach the storage first so the collection is already empty while the
    // release callbacks run.
    __CFHashTable old = *table;
    table->hashes = nullptr;
    table->keys = nullptr;
    table->values = nullptr;
    table->count = 0;
    table->bucketCount = 0;
    __CFHashTableDestroy(&old, owner);
}

void __CFHashTableDestroy(__CFHashTable *table, CFTypeRef owner) {
    if (!table->hashes) return;
    const CFAllocatorRef allocator = CFGetAllocator(owner);
    for (CFIndex i = 0; i < table->bucketCount; i++) {
        if (table->hashes[i] == 0) continue;
        releaseKey(table, allocator, table->keys[i]);
        if (table->values) releaseValue(table, allocator, table->values[i]);
    }
    CFAllocatorDeallocate(allocator, table->hashes);
    table->hashes = nullptr;
    table->keys = nullptr;
    table->values = nullptr;
    table->count = 0;
    table->bucketCount = 0;
}

bool __CFHashTableEqual(const __CFHashTable *a, const __CFHashTable *b) {
    if (a->count != b->count) return false;
    for (CFIndex i = 0; i < a->bucketCount; i++) {
        if (a->hashes[i] == 0) continue;
        const CFIndex other = __CFHashTableFind(b, a->keys[i]);
        if (other == kCFNotFound) return false;
        if (a->hasValues) {
            const void *va = a->values[i];
            const void *vb = b->hasValues ? b->values[other] : b->keys[other];
            if (va != vb && !(a->valueCallBacks.equal && a->valueCallBacks.equal(va, vb))) return false;
        }
    }
    return true;
}

CFIndex __CFHashTableCountOfValue(const __CFHashTable *table, const void *value) {
    CFIndex count = 0;
    const auto equal = table->hasValues ? table->valueCallBacks.equal : table->keyCallBacks.equal;
    __CFHashTableForEach(table, [&](const void *, const void *stored) {
        if (stored == value || (equal && equal(stored, value))) count++;
    });
    return count;
}

CFStringRef __CFHashTableCopyDescription(const __CFHashTable *table, CFTypeRef owner, const char *className) {
    CFMutableStringRef text = CFStringCreateMutable(kCFAllocatorSystemDefault, 0);
    if (!text) return nullptr;
    char buffer[160];
    snprintf(buffer, sizeof buffer, "<%s %p [%p]>{type = %s, count = %ld, %s\n", className, owner,
             static_cast<const void *>(CFGetAllocator(owner)), table->isMutable ? "mutable" : "immutable",
             static_cast<long>(table->count), table->hasValues ? "entries =>" : "values = (");
    appendCString(text, buffer);
    CFIndex ordinal = 0;
    for (CFIndex i = 0; i < table->bucketCount; i++) {
        if (table->hashes[i] == 0) continue;
        snprintf(buffer, sizeof buffer, "\t%ld : ", static_cast<long>(ordinal++));
        appendCString(text, buffer);
        appendValueDescription(text, table->keys[i], table->keyCallBacks.copyDescription);
        if (table->hasValues) {
            appendCString(text, " = ");
            appendValueDescription(text, table->values[i], table->valueCallBacks.copyDescription);
        }
        appendCString(text, "\n");
    }
    appendCString(text, table->hasValues ? "}" : ")}");
    return text;
}

extern "C" {

const void *__CFCollectionRetainType(CFAllocatorRef, const void *value) noexcept {
    return CFRetain(value);
}

void __CFCollectionReleaseType(CFAllocatorRef, const void *value) noexcept {
    CFRelease(value);
}

// Keys of string-copying collections must not change behind the collection's
// back, so a mutable string is copied (an immutable one is merely retained
// by CFStringCreateCopy).
const void *__CFCollectionCopyString(CFAllocatorRef allocator, const void *value) noexcept {
    return CFStringCreateCopy(allocator, static_cast<CFStringRef>(value));
}

}  // extern "C"
