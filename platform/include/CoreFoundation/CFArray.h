/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Ordered collections of values.
 *
 * The callback record says how values are retained, released, described
 * and compared.  kCFTypeArrayCallBacks treats values as objects (CFRetain,
 * CFRelease, CFCopyDescription, CFEqual); a NULL record stores raw pointers,
 * compared by address and neither retained nor released.  An index outside
 * the array is a fatal programming error.  A mutable array must not be
 * mutated from two threads at once.
 */
#ifndef COREFOUNDATION_CFARRAY_H
#define COREFOUNDATION_CFARRAY_H

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef const void *(*CFArrayRetainCallBack)(CFAllocatorRef allocator, const void *value);
typedef void (*CFArrayReleaseCallBack)(CFAllocatorRef allocator, const void *value);
typedef CFStringRef (*CFArrayCopyDescriptionCallBack)(const void *value);
typedef Boolean (*CFArrayEqualCallBack)(const void *value1, const void *value2);

typedef struct {
    CFIndex version;
    CFArrayRetainCallBack retain;
    CFArrayReleaseCallBack release;
    CFArrayCopyDescriptionCallBack copyDescription;
    CFArrayEqualCallBack equal;
} CFArrayCallBacks;

CF_EXPORT const CFArrayCallBacks kCFTypeArrayCallBacks CF_ABI_NAME(kCFTypeArrayCallBacks);

typedef void (*CFArrayApplierFunction)(const void *value, void *context);

CF_EXPORT CFTypeID CFArrayGetTypeID(void) CF_NOEXCEPT CF_ABI_NAME(CFArrayGetTypeID);

CF_EXPORT CFArrayRef CFArrayCreate(CFAllocatorRef allocator, const void **values, CFIndex numValues,
                                   const CFArrayCallBacks *callBacks) CF_NOEXCEPT CF_ABI_NAME(CFArrayCreate);
/* An immutable copy with the same callbacks. */
CF_EXPORT CFArrayRef CFArrayCreateCopy(CFAllocatorRef allocator, CFArrayRef theArray) CF_NOEXCEPT
    CF_ABI_NAME(CFArrayCreateCopy);
/* capacity 0 means unlimited; otherwise the count may never exceed it. */
CF_EXPORT CFMutableArrayRef CFArrayCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                                 const CFArrayCallBacks *callBacks) CF_NOEXCEPT
    CF_ABI_NAME(CFArrayCreateMutable);
CF_EXPORT CFMutableArrayRef CFArrayCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity,
                                                     CFArrayRef theArray) CF_NOEXCEPT
    CF_ABI_NAME(CFArrayCreateMutableCopy);

CF_EXPORT CFIndex CFArrayGetCount(CFArrayRef theArray) CF_NOEXCEPT CF_ABI_NAME(CFArrayGetCount);
CF_EXPORT CFIndex CFArrayGetCountOfValue(CFArrayRef theArray, CFRange range, const void *value) CF_NOEXCEPT
    CF_ABI_NAME(CFArrayGetCountOfValue);
CF_EXPORT Boolean CFArrayContainsValue(CFArrayRef theArray, CFRange range, const void *value) CF_NOEXCEPT
    CF_ABI_NAME(CFArrayContainsValue);
CF_EXPORT const void *CFArrayGetValueAtIndex(CFArrayRef theArray, CFIndex idx) CF_NOEXCEPT
    CF_ABI_NAME(CFArrayGetValueAtIndex);
CF_EXPORT void CFArrayGetValues(CFArrayRef theArray, CFRange range, const void **values) CF_NOEXCEPT
    CF_ABI_NAME(CFArrayGetValues);
CF_EXPORT void CFArrayApplyFunction(CFArrayRef theArray, CFRange range, CFArrayApplierFunction applier,
                                    void *context) CF_NOEXCEPT CF_ABI_NAME(CFArrayApplyFunction);
CF_EXPORT CFIndex CFArrayGetFirstIndexOfValue(CFArrayRef theArray, CFRange range, const void *value) CF_NOEXCEPT
    CF_ABI_NAME(CFArrayGetFirstIndexOfValue);
CF_EXPORT CFIndex CFArrayGetLastIndexOfValue(CFArrayRef theArray, CFRange range, const void *value) CF_NOEXCEPT
    CF_ABI_NAME(CFArrayGetLastIndexOfValue);
/* The array must be sorted by `comparator` within `range`; returns the index
 * where `value` is or would be inserted. */
CF_EXPORT CFIndex CFArrayBSearchValues(CFArrayRef theArray, CFRange range, const void *value,
                                       CFComparatorFunction comparator, void *context) CF_NOEXCEPT
    CF_ABI_NAME(CFArrayBSearchValues);

CF_EXPORT void CFArrayAppendValue(CFMutableArrayRef theArray, const void *value) CF_NOEXCEPT
    CF_ABI_NAME(CFArrayAppendValue);
CF_EXPORT void CFArrayInsertValueAtIndex(CFMutableArrayRef theArray, CFIndex idx, const void *value) CF_NOEXCEPT
    CF_ABI_NAME(CFArrayInsertValueAtIndex);
CF_EXPORT void CFArraySetValueAtIndex(CFMutableArrayRef theArray, CFIndex idx, const void *value) CF_NOEXCEPT
    CF_ABI_NAME(CFArraySetValueAtIndex);
CF_EXPORT void CFArrayRemoveValueAtIndex(CFMutableArrayRef theArray, CFIndex idx) CF_NOEXCEPT
    CF_ABI_NAME(CFArrayRemoveValueAtIndex);
CF_EXPORT void CFArrayRemoveAllValues(CFMutableArrayRef theArray) CF_NOEXCEPT CF_ABI_NAME(CFArrayRemoveAllValues);
CF_EXPORT void CFArrayReplaceValues(CFMutableArrayRef theArray, CFRange range, const void **newValues,
                                    CFIndex newCount) CF_NOEXCEPT CF_ABI_NAME(CFArrayReplaceValues);
CF_EXPORT void CFArrayExchangeValuesAtIndices(CFMutableArrayRef theArray, CFIndex idx1, CFIndex idx2) CF_NOEXCEPT
    CF_ABI_NAME(CFArrayExchangeValuesAtIndices);
/* Stable sort of `range`. */
CF_EXPORT void CFArraySortValues(CFMutableArrayRef theArray, CFRange range, CFComparatorFunction comparator,
                                 void *context) CF_NOEXCEPT CF_ABI_NAME(CFArraySortValues);
CF_EXPORT void CFArrayAppendArray(CFMutableArrayRef theArray, CFArrayRef otherArray, CFRange otherRange) CF_NOEXCEPT
    CF_ABI_NAME(CFArrayAppendArray);

CF_EXTERN_C_END

#endif /* COREFOUNDATION_CFARRAY_H */
