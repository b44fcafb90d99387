// SPDX-License-Identifier: Apache-2.0
// CFDictionary: a CFRuntime type around the shared open-addressing hash table
// (CFHashTable.h).  The caller's callback records are copied into the
// instance, so they need not outlive the call that passed them.
//
// Applier functions must not mutate the dictionary they walk: the table may
// move entries or its storage underneath the walk (undefined behaviour, not
// checked).
#define CF_SOURCE_PATH "CoreFoundation/CFDictionary"

#include "CFHashTable.h"

struct __CFDictionary {
    CFRuntimeBase base;
    __CFHashTable table;
};

namespace {

constexpr CFIndex kFieldsSize = sizeof(__CFDictionary) - sizeof(CFRuntimeBase);

inline const __CFHashTable *tableOf(CFTypeRef cf) {
    return &static_cast<const __CFDictionary *>(cf)->table;
}

void finalizeDictionary(CFTypeRef cf) {
    __CFHashTableDestroy(&static_cast<__CFDictionary *>(const_cast<void *>(cf))->table, cf);
}

Boolean equalDictionaries(CFTypeRef cf1, CFTypeRef cf2) {
    return __CFHashTableEqual(tableOf(cf1), tableOf(cf2));
}

// The count, as CoreFoundation does: cheap, and equal dictionaries hash alike.
CFHashCode hashDictionary(CFTypeRef cf) {
    return static_cast<CFHashCode>(tableOf(cf)->count);
}

CFStringRef describeDictionary(CFTypeRef cf) {
    return __CFHashTableCopyDescription(tableOf(cf), cf, "CFDictionary");
}

__CFHashKeyCallBacks keyCallBacksFrom(const CFDictionaryKeyCallBacks *callBacks) {
    if (!callBacks) return {};
    return {callBacks->retain, callBacks->release, callBacks->copyDescription, callBacks->equal, callBacks->hash};
}

__CFHashValueCallBacks valueCallBacksFrom(const CFDictionaryValueCallBacks *callBacks) {
    if (!callBacks) return {};
    return {callBacks->retain, callBacks->release, callBacks->copyDescription, callBacks->equal};
}

__CFDictionary *newDictionary(CFAllocatorRef allocator, bool isMutable, CFIndex limit,
                              const __CFHashKeyCallBacks &keyCallBacks, const __CFHashValueCallBacks &valueCallBacks) {
    auto *dict = static_cast<__CFDictionary *>(
        const_cast<void *>(_CFRuntimeCreateInstance(allocator, kCFDictionaryTypeID, kFieldsSize, nullptr)));
    if (!dict) return nullptr;
    __CFHashTableInit(&dict->table, true, isMutable, limit, &keyCallBacks, &valueCallBacks);
    return dict;
}

inline __CFHashTable *mutableTable(CFMutableDictionaryRef dict, const char *function) {
    __CFValidate(dict, kCFDictionaryTypeID, function);
    if (!dict->table.isMutable) CF_FATAL_IN(function, "the dictionary %p is immutable", static_cast<void *>(dict));
    return &dict->table;
}

// Copies `source` into a new dictionary with the same callbacks; NULL when
// allocation (or a copying key callback) fails.
__CFDictionary *copyDictionary(CFAllocatorRef allocator, CFDictionaryRef source, bool isMutable, CFIndex limit) {
    __CFDictionary *copy =
        newDictionary(allocator, isMutable, limit, source->table.keyCallBacks, source->table.valueCallBacks);
    if (!copy) return nullptr;
    if (!__CFHashTableAddTable(&copy->table, copy, &source->table)) {
        CFRelease(copy);  // finalize releases what was stored so far
        return nullptr;
    }
    return copy;
}

}  // namespace

extern "C" {

const CFRuntimeClass __CFDictionaryClass = {
    0,       "CFDictionary",     nullptr, nullptr, finalizeDictionary, equalDictionaries, hashDictionary,
    nullptr, describeDictionary,
};

const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks = {
    0, __CFCollectionRetainType, __CFCollectionReleaseType, CFCopyDescription, CFEqual, CFHash,
};

const CFDictionaryKeyCallBacks kCFCopyStringDictionaryKeyCallBacks = {
    0, __CFCollectionCopyString, __CFCollectionReleaseType, CFCopyDescription, CFEqual, CFHash,
};

const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks = {
    0, __CFCollectionRetainType, __CFCollectionReleaseType, CFCopyDescription, CFEqual,
};

CFTypeID CFDictionaryGetTypeID(void) noexcept {
    return kCFDictionaryTypeID;
}

CFDictionaryRef CFDictionaryCreate(CFAllocatorRef allocator, const void **keys, const void **values, CFIndex numValues,
                                   const CFDictionaryKeyCallBacks *keyCallBacks,
                                   const CFDictionaryValueCallBacks *valueCallBacks) noexcept {
    if (numValues < 0) CF_FATAL("numValues (%ld) must not be negative", static_cast<long>(numValues));
    if (numValues > 0) {
        CF_REQUIRE(keys, "keys");
        CF_REQUIRE(values, "values");
    }
    __CFDictionary *dict =
        newDictionary(allocator, false, 0, keyCallBacksFrom(keyCallBacks), valueCallBacksFrom(valueCallBacks));
    if (!dict) return nullptr;
    if (!__CFHashTableAddAll(&dict->table, dict, keys, values, numValues)) {
        CFRelease(dict);  // finalize releases what was stored so far
        return nullptr;
    }
    return dict;
}

CFDictionaryRef CFDictionaryCreateCopy(CFAllocatorRef allocator, CFDictionaryRef theDict) noexcept {
    CF_VALIDATE(theDict, kCFDictionaryTypeID);
    // An immutable dictionary never changes, so a copy may be the original.
    if (!theDict->table.isMutable && __CFResolveAllocator(allocator) == CFGetAllocator(theDict))
        return static_cast<CFDictionaryRef>(CFRetain(theDict));
    return copyDictionary(allocator, theDict, false, 0);
}

CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                                 const CFDictionaryKeyCallBacks *keyCallBacks,
                                                 const CFDictionaryValueCallBacks *valueCallBacks) noexcept {
    __CFCheckCapacity(capacity, 0, "dictionary", __func__);
    return newDictionary(allocator, true, capacity, keyCallBacksFrom(keyCallBacks), valueCallBacksFrom(valueCallBacks));
}

CFMutableDictionaryRef CFDictionaryCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity,
                                                     CFDictionaryRef theDict) noexcept {
    CF_VALIDATE(theDict, kCFDictionaryTypeID);
    __CFCheckCapacity(capacity, theDict->table.count, "dictionary", __func__);
    return copyDictionary(allocator, theDict, true, capacity);
}

Boolean _CFDictionaryIsMutable(CFDictionaryRef theDict) noexcept {
    if (theDict == nullptr || CFGetTypeID(theDict) != kCFDictionaryTypeID) return false;
    return theDict->table.isMutable;
}

CFIndex CFDictionaryGetCount(CFDictionaryRef theDict) noexcept {
    CF_VALIDATE(theDict, kCFDictionaryTypeID);
    return theDict->table.count;
}

CFIndex CFDictionaryGetCountOfKey(CFDictionaryRef theDict, const void *key) noexcept {
    CF_VALIDATE(theDict, kCFDictionaryTypeID);
    return __CFHashTableFind(&theDict->table, key) == kCFNotFound ? 0 : 1;
}

CFIndex CFDictionaryGetCountOfValue(CFDictionaryRef theDict, const void *value) noexcept {
    CF_VALIDATE(theDict, kCFDictionaryTypeID);
    return __CFHashTableCountOfValue(&theDict->table, value);
}

Boolean CFDictionaryContainsKey(CFDictionaryRef theDict, const void *key) noexcept {
    CF_VALIDATE(theDict, kCFDictionaryTypeID);
    return __CFHashTableFind(&theDict->table, key) != kCFNotFound;
}

Boolean CFDictionaryContainsValue(CFDictionaryRef theDict, const void *value) noexcept {
    CF_VALIDATE(theDict, kCFDictionaryTypeID);
    return __CFHashTableCountOfValue(&theDict->table, value) > 0;
}

const void *CFDictionaryGetValue(CFDictionaryRef theDict, const void *key) noexcept {
    CF_VALIDATE(theDict, kCFDictionaryTypeID);
    const CFIndex bucket = __CFHashTableFind(&theDict->table, key);
    return bucket == kCFNotFound ? nullptr : theDict->table.values[bucket];
}

Boolean CFDictionaryGetValueIfPresent(CFDictionaryRef theDict, const void *key, const void **value) noexcept {
    CF_VALIDATE(theDict, kCFDictionaryTypeID);
    const CFIndex bucket = __CFHashTableFind(&theDict->table, key);
    if (bucket == kCFNotFound) return false;
    if (value) *value = theDict->table.values[bucket];
    return true;
}

void CFDictionaryGetKeysAndValues(CFDictionaryRef theDict, const void **keys, const void **values) noexcept {
    CF_VALIDATE(theDict, kCFDictionaryTypeID);
    CFIndex i = 0;
    __CFHashTableForEach(&theDict->table, [&](const void *key, const void *value) {
        if (keys) keys[i] = key;
        if (values) values[i] = value;
        i++;
    });
}

void CFDictionaryApplyFunction(CFDictionaryRef theDict, CFDictionaryApplierFunction applier, void *context) noexcept {
    CF_VALIDATE(theDict, kCFDictionaryTypeID);
    CF_REQUIRE(applier, "applier");
    __CFHashTableForEach(&theDict->table, [&](const void *key, const void *value) { applier(key, value, context); });
}

void CFDictionaryAddValue(CFMutableDictionaryRef theDict, const void *key, const void *value) noexcept {
    __CFHashTableStore(mutableTable(theDict, __func__), theDict, key, value, __CFHashStoreMode::add, __func__);
}

void CFDictionarySetValue(CFMutableDictionaryRef theDict, const void *key, const void *value) noexcept {
    __CFHashTableStore(mutableTable(theDict, __func__), theDict, key, value, __CFHashStoreMode::set, __func__);
}

void CFDictionaryReplaceValue(CFMutableDictionaryRef theDict, const void *key, const void *value) noexcept {
    __CFHashTableStore(mutableTable(theDict, __func__), theDict, key, value, __CFHashStoreMode::replace, __func__);
}

void CFDictionaryRemoveValue(CFMutableDictionaryRef theDict, const void *key) noexcept {
    __CFHashTableRemove(mutableTable(theDict, __func__), theDict, key);
}

void CFDictionaryRemoveAllValues(CFMutableDictionaryRef theDict) noexcept {
    __CFHashTableRemoveAll(mutableTable(theDict, __func__), theDict);
}

}  // extern "C"
