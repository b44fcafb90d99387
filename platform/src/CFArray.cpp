// SPDX-License-Identifier: Apache-2.0
// CFArray: ordered values in one buffer from the instance's allocator.
//
// Storage.  Values occupy store[head, head + count).  A mutable array keeps
// free slots at both ends and, for an insertion or removal, moves whichever
// side of the change point is shorter, so adding or removing at either end is
// amortised constant time (a queue or a stack costs the same).  When the side
// being grown has no room, the contents are laid out again: in place when at
// least a quarter of the buffer is free, else in a buffer twice as large;
// front-heavy growth centres the contents, back-heavy growth starts them at 0.
//
// Every mutation is one primitive, replace(range, newValues): the newcomers
// are retained first and the outgoing values released last, once the array is
// consistent again, because a newcomer may be an outgoing value held only by
// this array, or may even be read from this array itself (appending an array
// to itself).
//
// The caller's callback record is copied into the instance.  Applier
// functions and comparators must not mutate the array they are given
// (undefined behaviour, not checked).
#define CF_SOURCE_PATH "CoreFoundation/CFArray"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "CFHashTable.h"

struct __CFArray {
    CFRuntimeBase base;
    const void **store;
    CFIndex storeSize;
    CFIndex head;
    CFIndex count;
    CFIndex limit;  // a mutable array's hard limit on count; 0 = none
    CFArrayCallBacks callBacks;
    bool isMutable;
};

namespace {

constexpr CFIndex kFieldsSize = sizeof(__CFArray) - sizeof(CFRuntimeBase);
constexpr CFIndex kMinStoreSize = 4;
constexpr CFIndex kMaxStoreSize = (static_cast<CFIndex>(1) << 62) / static_cast<CFIndex>(sizeof(void *));
constexpr CFIndex kScratchOnStack = 16;

inline const void **valuesOf(const __CFArray *array) {
    return array->store + array->head;
}

inline bool valuesEqual(const __CFArray *array, const void *a, const void *b) {
    return a == b || (array->callBacks.equal && array->callBacks.equal(a, b));
}

// Retains through the callback; false when a retain (a copy, typically)
// returns NULL for a non-NULL value.
inline bool retainValue(const __CFArray *array, CFAllocatorRef allocator, const void *value, const void **out) {
    *out = array->callBacks.retain ? array->callBacks.retain(allocator, value) : value;
    return *out != nullptr || value == nullptr;
}

inline void releaseValue(const __CFArray *array, CFAllocatorRef allocator, const void *value) {
    if (array->callBacks.release) array->callBacks.release(allocator, value);
}

void finalizeArray(CFTypeRef cf) {
    auto *array = static_cast<__CFArray *>(const_cast<void *>(cf));
    if (!array->store) return;
    const CFAllocatorRef allocator = CFGetAllocator(cf);
    for (CFIndex i = 0; i < array->count; i++) releaseValue(array, allocator, valuesOf(array)[i]);
    CFAllocatorDeallocate(allocator, array->store);
    array->store = nullptr;
    array->count = 0;
}

Boolean equalArrays(CFTypeRef cf1, CFTypeRef cf2) {
    const auto *a = static_cast<const __CFArray *>(cf1);
    const auto *b = static_cast<const __CFArray *>(cf2);
    if (a->count != b->count) return false;
    for (CFIndex i = 0; i < a->count; i++) {
        if (!valuesEqual(a, valuesOf(a)[i], valuesOf(b)[i])) return false;
    }
    return true;
}

// The count, as CoreFoundation does: equal arrays hash alike.
CFHashCode hashArray(CFTypeRef cf) {
    return static_cast<CFHashCode>(static_cast<const __CFArray *>(cf)->count);
}

void appendCString(CFMutableStringRef string, const char *text) {
    CFStringAppendCString(string, text, kCFStringEncodingUTF8);
}

CFStringRef describeArray(CFTypeRef cf) {
    const auto *array = static_cast<const __CFArray *>(cf);
    CFMutableStringRef text = CFStringCreateMutable(kCFAllocatorSystemDefault, 0);
    if (!text) return nullptr;
    char buffer[128];
    snprintf(buffer, sizeof buffer, "<CFArray %p [%p]>{type = %s, count = %ld, values = (\n", cf,
             static_cast<const void *>(CFGetAllocator(cf)), array->isMutable ? "mutable-small" : "immutable",
             static_cast<long>(array->count));
    appendCString(text, buffer);
    for (CFIndex i = 0; i < array->count; i++) {
        snprintf(buffer, sizeof buffer, "\t%ld : ", static_cast<long>(i));
        appendCString(text, buffer);
        CFStringRef description = __CFCopyValueDescription(valuesOf(array)[i], array->callBacks.copyDescription);
        if (description) {
            CFStringAppend(text, description);
            CFRelease(description);
        }
        appendCString(text, "\n");
    }
    appendCString(text, ")}");
    return text;
}

__CFArray *newArray(CFAllocatorRef allocator, bool isMutable, CFIndex limit, const CFArrayCallBacks *callBacks) {
    auto *array = static_cast<__CFArray *>(
        const_cast<void *>(_CFRuntimeCreateInstance(allocator, kCFArrayTypeID, kFieldsSize, nullptr)));
    if (!array) return nullptr;
    if (callBacks) array->callBacks = *callBacks;
    array->callBacks.version = 0;
    array->isMutable = isMutable;
    array->limit = limit;
    return array;
}

// Fills a new, empty array with retained `values`.  Returns the array, or
// NULL (having released it and whatever it retained) when storage cannot be
// allocated or a retain callback fails.
__CFArray *fill(__CFArray *array, const void *const *values, CFIndex numValues) {
    if (numValues == 0) return array;
    const CFAllocatorRef allocator = CFGetAllocator(array);
    const CFIndex storeSize = array->isMutable ? std::max(numValues, kMinStoreSize) : numValues;
    if (storeSize > kMaxStoreSize) {
        CFRelease(array);
        return nullptr;
    }
    array->store =
        static_cast<const void **>(CFAllocatorAllocate(allocator, storeSize * static_cast<CFIndex>(sizeof(void *)), 0));
    if (!array->store) {
        CFRelease(array);
        return nullptr;
    }
    array->storeSize = storeSize;
    for (CFIndex i = 0; i < numValues; i++) {
        if (!retainValue(array, allocator, values[i], &array->store[i])) {
            CFRelease(array);  // finalize releases the `count` values retained so far
            return nullptr;
        }
        array->count++;
    }
    return array;
}

// Moves the values before `loc` (the prefix) and after the `oldLen` replaced
// ones (the suffix) from `from` at `fromHead` to `to` at `toHead`, leaving a
// gap of `newLen` slots between them.  Within one buffer the side moving away
// from the other goes first, so neither overwrites values not yet moved.
void moveParts(const void **from, CFIndex fromHead, const void **to, CFIndex toHead, CFIndex loc, CFIndex oldLen,
               CFIndex newLen, CFIndex suffix) {
    auto movePrefix = [&] {
        if (loc > 0) std::memmove(to + toHead, from + fromHead, static_cast<size_t>(loc) * sizeof(void *));
    };
    auto moveSuffix = [&] {
        if (suffix > 0)
            std::memmove(to + toHead + loc + newLen, from + fromHead + loc + oldLen,
                         static_cast<size_t>(suffix) * sizeof(void *));
    };
    if (toHead <= fromHead) {
        movePrefix();
        moveSuffix();
    } else {
        moveSuffix();
        movePrefix();
    }
}

// Turns the `oldLen` slots at `loc` into `newLen` slots (contents undefined),
// moving or reallocating storage as the model at the top of the file says.
void resizeGap(__CFArray *array, CFIndex loc, CFIndex oldLen, CFIndex newLen, const char *function) {
    const CFIndex delta = newLen - oldLen;
    if (delta == 0) return;
    const CFIndex suffix = array->count - loc - oldLen;
    const CFIndex newCount = array->count + delta;
    const bool frontHeavy = loc < suffix;
    CFIndex newHead;
    if (delta < 0) {
        newHead = frontHeavy ? array->head - delta : array->head;
    } else if (frontHeavy && array->head >= delta) {
        newHead = array->head - delta;
    } else if (!frontHeavy && array->storeSize - array->head - array->count >= delta) {
        newHead = array->head;
    } else {
        const CFIndex free = array->storeSize - newCount;
        if (free < 0 || free < array->storeSize / 4) {
            // A larger buffer.
            if (newCount > kMaxStoreSize / 2)
                CF_FATAL_IN(function, "the array cannot grow to %ld values", static_cast<long>(newCount));
            const CFIndex storeSize = std::max({array->storeSize * 2, newCount, kMinStoreSize});
            const CFIndex spare = storeSize - newCount;
            newHead = frontHeavy ? spare / 2 : 0;
            const CFAllocatorRef allocator = CFGetAllocator(array);
            auto *store = static_cast<const void **>(
                CFAllocatorAllocate(allocator, storeSize * static_cast<CFIndex>(sizeof(void *)), 0));
            if (!store)
                CF_FATAL_IN(function, "out of memory growing the array to %ld values", static_cast<long>(newCount));
            if (array->store) {
                moveParts(array->store, array->head, store, newHead, loc, oldLen, newLen, suffix);
                CFAllocatorDeallocate(allocator, array->store);
            }
            array->store = store;
            array->storeSize = storeSize;
            array->head = newHead;
            array->count = newCount;
            return;
        }
        newHead = frontHeavy ? free / 2 : 0;
    }
    moveParts(array->store, array->head, array->store, newHead, loc, oldLen, newLen, suffix);
    array->head = newHead;
    array->count = newCount;
}

// Replaces the `oldLen` values at `loc` (already range-checked) with
// `newCount` values.
void replace(__CFArray *array, CFIndex loc, CFIndex oldLen, const void *const *newValues, CFIndex newCount,
             const char *function) {
    if (array->limit > 0 && array->count - oldLen + newCount > array->limit)
        CF_FATAL_IN(function, "the array is full: its capacity is %ld", static_cast<long>(array->limit));
    const CFAllocatorRef allocator = CFGetAllocator(array);
    // Scratch: the retained newcomers, then the outgoing values.
    const void *onStack[kScratchOnStack];
    const void **scratch = onStack;
    const CFIndex scratchCount = newCount + oldLen;
    if (scratchCount > kScratchOnStack) {
        scratch = static_cast<const void **>(
            CFAllocatorAllocate(allocator, scratchCount * static_cast<CFIndex>(sizeof(void *)), 0));
        if (!scratch) CF_FATAL_IN(function, "out of memory replacing %ld values", static_cast<long>(scratchCount));
    }
    for (CFIndex i = 0; i < newCount; i++) {
        if (!retainValue(array, allocator, newValues[i], &scratch[i]))
            CF_FATAL_IN(function, "the retain callback failed (out of memory?)");
    }
    if (oldLen > 0)
        std::memcpy(scratch + newCount, valuesOf(array) + loc, static_cast<size_t>(oldLen) * sizeof(void *));
    resizeGap(array, loc, oldLen, newCount, function);
    if (newCount > 0) std::memcpy(valuesOf(array) + loc, scratch, static_cast<size_t>(newCount) * sizeof(void *));
    for (CFIndex i = 0; i < oldLen; i++) releaseValue(array, allocator, scratch[newCount + i]);
    if (scratch != onStack) CFAllocatorDeallocate(allocator, scratch);
}

void checkRange(CFArrayRef array, CFRange range, const char *function) {
    if (range.location < 0 || range.length < 0 || range.location > array->count ||
        range.length > array->count - range.location)
        CF_FATAL_IN(function, "range {%ld, %ld} is outside the array (count %ld)", static_cast<long>(range.location),
                    static_cast<long>(range.length), static_cast<long>(array->count));
}

void checkIndex(CFArrayRef array, CFIndex idx, CFIndex end, const char *function) {
    if (idx < 0 || idx >= end)
        CF_FATAL_IN(function, "index %ld is out of bounds (count %ld)", static_cast<long>(idx),
                    static_cast<long>(array->count));
}

// The first index in `range` whose value equals `value`, or kCFNotFound;
// misuse is reported as `function`'s.
CFIndex firstIndexOf(CFArrayRef array, CFRange range, const void *value, const char *function) {
    __CFValidate(array, kCFArrayTypeID, function);
    checkRange(array, range, function);
    for (CFIndex i = range.location; i < range.location + range.length; i++) {
        if (valuesEqual(array, valuesOf(array)[i], value)) return i;
    }
    return kCFNotFound;
}

inline __CFArray *mutableArray(CFMutableArrayRef array, const char *function) {
    __CFValidate(array, kCFArrayTypeID, function);
    if (!array->isMutable) CF_FATAL_IN(function, "the array %p is immutable", static_cast<void *>(array));
    return array;
}

}  // namespace

extern "C" {

const CFRuntimeClass __CFArrayClass = {
    0, "CFArray", nullptr, nullptr, finalizeArray, equalArrays, hashArray, nullptr, describeArray,
};

const CFArrayCallBacks kCFTypeArrayCallBacks = {
    0, __CFCollectionRetainType, __CFCollectionReleaseType, CFCopyDescription, CFEqual,
};

CFTypeID CFArrayGetTypeID(void) noexcept {
    return kCFArrayTypeID;
}

CFArrayRef CFArrayCreate(CFAllocatorRef allocator, const void **values, CFIndex numValues,
                         const CFArrayCallBacks *callBacks) noexcept {
    if (numValues < 0) CF_FATAL("numValues (%ld) must not be negative", static_cast<long>(numValues));
    if (numValues > 0) CF_REQUIRE(values, "values");
    __CFArray *array = newArray(allocator, false, 0, callBacks);
    return array ? fill(array, values, numValues) : nullptr;
}

CFArrayRef CFArrayCreateCopy(CFAllocatorRef allocator, CFArrayRef theArray) noexcept {
    CF_VALIDATE(theArray, kCFArrayTypeID);
    // An immutable array never changes, so a copy may be the original.
    if (!theArray->isMutable && __CFResolveAllocator(allocator) == CFGetAllocator(theArray))
        return static_cast<CFArrayRef>(CFRetain(theArray));
    __CFArray *array = newArray(allocator, false, 0, &theArray->callBacks);
    return array ? fill(array, valuesOf(theArray), theArray->count) : nullptr;
}

CFMutableArrayRef CFArrayCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                       const CFArrayCallBacks *callBacks) noexcept {
    __CFCheckCapacity(capacity, 0, "array", __func__);
    return newArray(allocator, true, capacity, callBacks);
}

CFMutableArrayRef CFArrayCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity, CFArrayRef theArray) noexcept {
    CF_VALIDATE(theArray, kCFArrayTypeID);
    __CFCheckCapacity(capacity, theArray->count, "array", __func__);
    __CFArray *array = newArray(allocator, true, capacity, &theArray->callBacks);
    return array ? fill(array, valuesOf(theArray), theArray->count) : nullptr;
}

CFIndex CFArrayGetCount(CFArrayRef theArray) noexcept {
    CF_VALIDATE(theArray, kCFArrayTypeID);
    return theArray->count;
}

CFIndex CFArrayGetCountOfValue(CFArrayRef theArray, CFRange range, const void *value) noexcept {
    CF_VALIDATE(theArray, kCFArrayTypeID);
    checkRange(theArray, range, __func__);
    CFIndex count = 0;
    for (CFIndex i = range.location; i < range.location + range.length; i++) {
        if (valuesEqual(theArray, valuesOf(theArray)[i], value)) count++;
    }
    return count;
}

Boolean CFArrayContainsValue(CFArrayRef theArray, CFRange range, const void *value) noexcept {
    return firstIndexOf(theArray, range, value, __func__) != kCFNotFound;
}

const void *CFArrayGetValueAtIndex(CFArrayRef theArray, CFIndex idx) noexcept {
    CF_VALIDATE(theArray, kCFArrayTypeID);
    checkIndex(theArray, idx, theArray->count, __func__);
    return valuesOf(theArray)[idx];
}

void CFArrayGetValues(CFArrayRef theArray, CFRange range, const void **values) noexcept {
    CF_VALIDATE(theArray, kCFArrayTypeID);
    checkRange(theArray, range, __func__);
    if (range.length == 0) return;
    CF_REQUIRE(values, "values");
    std::memcpy(values, valuesOf(theArray) + range.location, static_cast<size_t>(range.length) * sizeof(void *));
}

void CFArrayApplyFunction(CFArrayRef theArray, CFRange range, CFArrayApplierFunction applier, void *context) noexcept {
    CF_VALIDATE(theArray, kCFArrayTypeID);
    checkRange(theArray, range, __func__);
    CF_REQUIRE(applier, "applier");
    for (CFIndex i = range.location; i < range.location + range.length; i++) applier(valuesOf(theArray)[i], context);
}

CFIndex CFArrayGetFirstIndexOfValue(CFArrayRef theArray, CFRange range, const void *value) noexcept {
    return firstIndexOf(theArray, range, value, __func__);
}

CFIndex CFArrayGetLastIndexOfValue(CFArrayRef theArray, CFRange range, const void *value) noexcept {
    CF_VALIDATE(theArray, kCFArrayTypeID);
    checkRange(theArray, range, __func__);
    for (CFIndex i = range.location + range.length - 1; i >= range.location; i--) {
        if (valuesEqual(theArray, valuesOf(theArray)[i], value)) return i;
    }
    return kCFNotFound;
}

// The first index in `range` whose value does not order before `value`: the
// first equal value when there is one, else where `value` would be inserted
// (range.location + range.length when it orders after everything).
CFIndex CFArrayBSearchValues(CFArrayRef theArray, CFRange range, const void *value, CFComparatorFunction comparator,
                             void *context) noexcept {
    CF_VALIDATE(theArray, kCFArrayTypeID);
    checkRange(theArray, range, __func__);
    CF_REQUIRE(comparator, "comparator");
    const void **begin = valuesOf(theArray) + range.location;
    const void **found = std::lower_bound(begin, begin + range.length, value, [&](const void *element, const void *v) {
        return comparator(element, v, context) < kCFCompareEqualTo;
    });
    return range.location + (found - begin);
}

void CFArrayAppendValue(CFMutableArrayRef theArray, const void *value) noexcept {
    __CFArray *array = mutableArray(theArray, __func__);
    replace(array, array->count, 0, &value, 1, __func__);
}

void CFArrayInsertValueAtIndex(CFMutableArrayRef theArray, CFIndex idx, const void *value) noexcept {
    __CFArray *array = mutableArray(theArray, __func__);
    checkIndex(array, idx, array->count + 1, __func__);
    replace(array, idx, 0, &value, 1, __func__);
}

// As in CoreFoundation, setting the value at index `count` appends.
void CFArraySetValueAtIndex(CFMutableArrayRef theArray, CFIndex idx, const void *value) noexcept {
    __CFArray *array = mutableArray(theArray, __func__);
    checkIndex(array, idx, array->count + 1, __func__);
    replace(array, idx, idx < array->count ? 1 : 0, &value, 1, __func__);
}

void CFArrayRemoveValueAtIndex(CFMutableArrayRef theArray, CFIndex idx) noexcept {
    __CFArray *array = mutableArray(theArray, __func__);
    checkIndex(array, idx, array->count, __func__);
    replace(array, idx, 1, nullptr, 0, __func__);
}

void CFArrayRemoveAllValues(CFMutableArrayRef theArray) noexcept {
    __CFArray *array = mutableArray(theArray, __func__);
    // Detach the storage first so the array is already empty while the
    // release callbacks run.
    __CFArray old = *array;
    array->store = nullptr;
    array->storeSize = 0;
    array->head = 0;
    array->count = 0;
    if (!old.store) return;
    const CFAllocatorRef allocator = CFGetAllocator(array);
    for (CFIndex i = 0; i < old.count; i++) releaseValue(&old, allocator, valuesOf(&old)[i]);
    CFAllocatorDeallocate(allocator, old.store);
}

void CFArrayReplaceValues(CFMutableArrayRef theArray, CFRange range, const void **newValues,
                          CFIndex newCount) noexcept {
    __CFArray *array = mutableArray(theArray, __func__);
    checkRange(array, range, __func__);
    if (newCount < 0) CF_FATAL("newCount (%ld) must not be negative", static_cast<long>(newCount));
    if (newCount > 0) CF_REQUIRE(newValues, "newValues");
    replace(array, range.location, range.length, newValues, newCount, __func__);
}

void CFArrayExchangeValuesAtIndices(CFMutableArrayRef theArray, CFIndex idx1, CFIndex idx2) noexcept {
    __CFArray *array = mutableArray(theArray, __func__);
    checkIndex(array, idx1, array->count, __func__);
    checkIndex(array, idx2, array->count, __func__);
    std::swap(valuesOf(array)[idx1], valuesOf(array)[idx2]);
}

void CFArraySortValues(CFMutableArrayRef theArray, CFRange range, CFComparatorFunction comparator,
                       void *context) noexcept {
    __CFArray *array = mutableArray(theArray, __func__);
    checkRange(array, range, __func__);
    CF_REQUIRE(comparator, "comparator");
    const void **begin = valuesOf(array) + range.location;
    // std::stable_sort falls back to an in-place merge when it cannot get a
    // scratch buffer, so it neither throws nor fails here.
    std::stable_sort(begin, begin + range.length,
                     [&](const void *a, const void *b) { return comparator(a, b, context) < kCFCompareEqualTo; });
}

void CFArrayAppendArray(CFMutableArrayRef theArray, CFArrayRef otherArray, CFRange otherRange) noexcept {
    __CFArray *array = mutableArray(theArray, __func__);
    CF_VALIDATE(otherArray, kCFArrayTypeID);
    checkRange(otherArray, otherRange, __func__);
    // replace() retains the newcomers before it moves anything, so
    // otherArray may be theArray itself.
    replace(array, array->count, 0, valuesOf(otherArray) + otherRange.location, otherRange.length, __func__);
}

}  // extern "C"
