// SPDX-License-Identifier: Apache-2.0
// CFSet: a CFRuntime type around the shared open-addressing hash table
// (CFHashTable.h), keyed by the members themselves.  The caller's callback
// record is copied into the instance.
//
// Applier functions must not mutate the set they walk (undefined behaviour,
// not checked).
#define CF_SOURCE_PATH "CoreFoundation/CFSet"

#include "CFHashTable.h"

struct __CFSet {
    CFRuntimeBase base;
    __CFHashTable table;
};

namespace {

constexpr CFIndex kFieldsSize = sizeof(__CFSet) - sizeof(CFRuntimeBase);

inline const __CFHashTable *tableOf(CFTypeRef cf) {
    return &static_cast<const __CFSet *>(cf)->table;
}

void finalizeSet(CFTypeRef cf) {
    __CFHashTableDestroy(&static_cast<__CFSet *>(const_cast<void *>(cf))->table, cf);
}

Boolean equalSets(CFTypeRef cf1, CFTypeRef cf2) {
    return __CFHashTableEqual(tableOf(cf1), tableOf(cf2));
}

// The count, as CoreFoundation does: equal sets hash alike.
CFHashCode hashSet(CFTypeRef cf) {
    return static_cast<CFHashCode>(tableOf(cf)->count);
}

CFStringRef describeSet(CFTypeRef cf) {
    return __CFHashTableCopyDescription(tableOf(cf), cf, "CFSet");
}

__CFHashKeyCallBacks callBacksFrom(const CFSetCallBacks *callBacks) {
    if (!callBacks) return {};
    return {callBacks->retain, callBacks->release, callBacks->copyDescription, callBacks->equal, callBacks->hash};
}

__CFSet *newSet(CFAllocatorRef allocator, bool isMutable, CFIndex limit, const __CFHashKeyCallBacks &callBacks) {
    auto *set = static_cast<__CFSet *>(
        const_cast<void *>(_CFRuntimeCreateInstance(allocator, kCFSetTypeID, kFieldsSize, nullptr)));
    if (!set) return nullptr;
    __CFHashTableInit(&set->table, false, isMutable, limit, &callBacks, nullptr);
    return set;
}

inline __CFHashTable *mutableTable(CFMutableSetRef set, const char *function) {
    __CFValidate(set, kCFSetTypeID, function);
    if (!set->table.isMutable) CF_FATAL_IN(function, "the set %p is immutable", static_cast<void *>(set));
    return &set->table;
}

__CFSet *copySet(CFAllocatorRef allocator, CFSetRef source, bool isMutable, CFIndex limit) {
    __CFSet *copy = newSet(allocator, isMutable, limit, source->table.keyCallBacks);
    if (!copy) return nullptr;
    if (!__CFHashTableAddTable(&copy->table, copy, &source->table)) {
        CFRelease(copy);  // finalize releases what was stored so far
        return nullptr;
    }
    return copy;
}

}  // namespace

extern "C" {

const CFRuntimeClass __CFSetClass = {
    0, "CFSet", nullptr, nullptr, finalizeSet, equalSets, hashSet, nullptr, describeSet,
};

const CFSetCallBacks kCFTypeSetCallBacks = {
    0, __CFCollectionRetainType, __CFCollectionReleaseType, CFCopyDescription, CFEqual, CFHash,
};

const CFSetCallBacks kCFCopyStringSetCallBacks = {
    0, __CFCollectionCopyString, __CFCollectionReleaseType, CFCopyDescription, CFEqual, CFHash,
};

CFTypeID CFSetGetTypeID(void) noexcept {
    return kCFSetTypeID;
}

CFSetRef CFSetCreate(CFAllocatorRef allocator, const void **values, CFIndex numValues,
                     const CFSetCallBacks *callBacks) noexcept {
    if (numValues < 0) CF_FATAL("numValues (%ld) must not be negative", static_cast<long>(numValues));
    if (numValues > 0) CF_REQUIRE(values, "values");
    __CFSet *set = newSet(allocator, false, 0, callBacksFrom(callBacks));
    if (!set) return nullptr;
    if (!__CFHashTableAddAll(&set->table, set, values, nullptr, numValues)) {
        CFRelease(set);  // finalize releases what was stored so far
        return nullptr;
    }
    return set;
}

CFSetRef CFSetCreateCopy(CFAllocatorRef allocator, CFSetRef theSet) noexcept {
    CF_VALIDATE(theSet, kCFSetTypeID);
    if (!theSet->table.isMutable && __CFResolveAllocator(allocator) == CFGetAllocator(theSet))
        return static_cast<CFSetRef>(CFRetain(theSet));
    return copySet(allocator, theSet, false, 0);
}

CFMutableSetRef CFSetCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                   const CFSetCallBacks *callBacks) noexcept {
    __CFCheckCapacity(capacity, 0, "set", __func__);
    return newSet(allocator, true, capacity, callBacksFrom(callBacks));
}

CFMutableSetRef CFSetCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity, CFSetRef theSet) noexcept {
    CF_VALIDATE(theSet, kCFSetTypeID);
    __CFCheckCapacity(capacity, theSet->table.count, "set", __func__);
    return copySet(allocator, theSet, true, capacity);
}

CFIndex CFSetGetCount(CFSetRef theSet) noexcept {
    CF_VALIDATE(theSet, kCFSetTypeID);
    return theSet->table.count;
}

CFIndex CFSetGetCountOfValue(CFSetRef theSet, const void *value) noexcept {
    CF_VALIDATE(theSet, kCFSetTypeID);
    return __CFHashTableFind(&theSet->table, value) == kCFNotFound ? 0 : 1;
}

Boolean CFSetContainsValue(CFSetRef theSet, const void *value) noexcept {
    CF_VALIDATE(theSet, kCFSetTypeID);
    return __CFHashTableFind(&theSet->table, value) != kCFNotFound;
}

const void *CFSetGetValue(CFSetRef theSet, const void *value) noexcept {
    CF_VALIDATE(theSet, kCFSetTypeID);
    const CFIndex bucket = __CFHashTableFind(&theSet->table, value);
    return bucket == kCFNotFound ? nullptr : theSet->table.keys[bucket];
}

Boolean CFSetGetValueIfPresent(CFSetRef theSet, const void *candidate, const void **value) noexcept {
    CF_VALIDATE(theSet, kCFSetTypeID);
    const CFIndex bucket = __CFHashTableFind(&theSet->table, candidate);
    if (bucket == kCFNotFound) return false;
    if (value) *value = theSet->table.keys[bucket];
    return true;
}

void CFSetGetValues(CFSetRef theSet, const void **values) noexcept {
    CF_VALIDATE(theSet, kCFSetTypeID);
    if (theSet->table.count > 0) CF_REQUIRE(values, "values");
    CFIndex i = 0;
    __CFHashTableForEach(&theSet->table, [&](const void *member, const void *) { values[i++] = member; });
}

void CFSetApplyFunction(CFSetRef theSet, CFSetApplierFunction applier, void *context) noexcept {
    CF_VALIDATE(theSet, kCFSetTypeID);
    CF_REQUIRE(applier, "applier");
    __CFHashTableForEach(&theSet->table, [&](const void *member, const void *) { applier(member, context); });
}

void CFSetAddValue(CFMutableSetRef theSet, const void *value) noexcept {
    __CFHashTableStore(mutableTable(theSet, __func__), theSet, value, nullptr, __CFHashStoreMode::add, __func__);
}

void CFSetReplaceValue(CFMutableSetRef theSet, const void *value) noexcept {
    __CFHashTableStore(mutableTable(theSet, __func__), theSet, value, nullptr, __CFHashStoreMode::replace, __func__);
}

void CFSetSetValue(CFMutableSetRef theSet, const void *value) noexcept {
    __CFHashTableStore(mutableTable(theSet, __func__), theSet, value, nullptr, __CFHashStoreMode::set, __func__);
}

void CFSetRemoveValue(CFMutableSetRef theSet, const void *value) noexcept {
    __CFHashTableRemove(mutableTable(theSet, __func__), theSet, value);
}

void CFSetRemoveAllValues(CFMutableSetRef theSet) noexcept {
    __CFHashTableRemoveAll(mutableTable(theSet, __func__), theSet);
}

}  // extern "C"
